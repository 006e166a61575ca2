#include "update_server_fixture.hpp"

#include <chrono>
#include <ctime>
#include <stdexcept>
#include <vector>

#include "test_certificates.hpp"

namespace qmtest {

UpdateServer::UpdateServer(bool tls) : tls_(tls) {
  plan("{}");
  std::vector<std::string> argv = {"/usr/bin/python3", std::string(QM_SOURCE_DIR) + "/tests/support/update_server.py",
                                   dir_.path().string()};
  if (tls_) {
    make_test_certificates(dir_, "qmtest update CA");
    argv.push_back(dir_.file("server.pem"));
    argv.push_back(dir_.file("server.key"));
  }
  child_ = std::make_unique<Child>(argv);
  // The server binds a port of its own choosing and reports it as "PORT <n>\n".
  if (!wait_until([&] { return child_->out().ends_with("\n"); }, std::chrono::seconds(30)))
    throw std::runtime_error("update server did not start: " + child_->err());
  base_url_ =
      std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(std::stoi(child_->out().substr(5)));
}

std::string UpdateServer::ca_file() const { return tls_ ? dir_.file("ca.pem") : std::string(); }

void UpdateServer::plan(const std::string& json) const {
  // Written aside and renamed, so that a request never reads half a plan.
  write_file(dir_.file("plan.json.new"), json);
  std::filesystem::rename(dir_.file("plan.json.new"), dir_.file("plan.json"));
}

void UpdateServer::add_file(const std::string& name, const std::string& content) const {
  write_file(dir_.file(name), content);
}

void UpdateServer::plan_package(const std::string& name, const std::string& signature_file,
                                const std::string& redirect_base) const {
  const std::string signature = signature_file.empty() ? "" : R"(, "signature": ")" + signature_file + "\"";
  plan(R"({"/v1/update": {"status": 302, "location": ")" + redirect_base + "/files/" + name + R"("}, "/files/)" +
       name + R"(": {"body": ")" + name + "\"" + signature + "}}");
}

std::string UpdateServer::requests() const { return read_file(dir_.file("requests.log")); }

std::string manual_package_name(const std::string& component, int offset_days) {
  const time_t t = time(nullptr) + offset_days * 86400;
  char date[16];
  struct tm local {};
  strftime(date, sizeof date, "%Y%m%d", localtime_r(&t, &local));
  return component + "_" + date + "001_manual.zip";
}

}  // namespace qmtest
