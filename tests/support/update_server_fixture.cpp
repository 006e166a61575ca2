#include "update_server_fixture.hpp"

#include <chrono>
#include <stdexcept>
#include <vector>

namespace qmtest {

void make_loopback_certificates(const TempDir& dir) {
  const std::string openssl = "/usr/bin/openssl";
  const std::string ec = "ec_paramgen_curve:P-256";
  write_file(dir.file("server.ext"), "subjectAltName=IP:127.0.0.1\n");
  const std::vector<std::vector<std::string>> steps = {
      {openssl, "req", "-x509", "-newkey", "ec", "-pkeyopt", ec, "-nodes", "-keyout", dir.file("ca.key"), "-out",
       dir.file("ca.pem"), "-days", "2", "-subj", "/CN=qmtest CA"},
      {openssl, "req", "-newkey", "ec", "-pkeyopt", ec, "-nodes", "-keyout", dir.file("server.key"), "-out",
       dir.file("server.csr"), "-subj", "/CN=127.0.0.1"},
      {openssl, "x509", "-req", "-in", dir.file("server.csr"), "-CA", dir.file("ca.pem"), "-CAkey", dir.file("ca.key"),
       "-CAcreateserial", "-out", dir.file("server.pem"), "-days", "2", "-extfile", dir.file("server.ext")},
  };
  for (const auto& step : steps) {
    Child run(step);
    if (run.wait(std::chrono::seconds(30)) != 0) throw std::runtime_error("openssl failed: " + run.err());
  }
}

UpdateServer::UpdateServer(bool tls) : tls_(tls) {
  plan("{}");
  std::vector<std::string> argv = {"/usr/bin/python3", std::string(QM_SOURCE_DIR) + "/tests/support/update_server.py",
                                   dir_.path().string()};
  if (tls_) {
    make_loopback_certificates(dir_);
    argv.push_back(dir_.file("server.pem"));
    argv.push_back(dir_.file("server.key"));
  }
  child_ = std::make_unique<Child>(argv);
  std::string port;
  const bool up = wait_until(
      [&] {
        const std::string out = child_->out();
        const size_t at = out.find("PORT ");
        if (at == std::string::npos || out.find('\n', at) == std::string::npos) return false;
        port = out.substr(at + 5, out.find('\n', at) - at - 5);
        return true;
      },
      std::chrono::seconds(30));
  if (!up) throw std::runtime_error("update server did not start: " + child_->err());
  base_url_ = std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + port;
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

std::string UpdateServer::requests() const { return read_file(dir_.file("requests.log")); }

}  // namespace qmtest
