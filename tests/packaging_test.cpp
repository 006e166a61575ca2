#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "nats_server_fixture.hpp"
#include "qm_update_common.hpp"
#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

constexpr const char* kInstallBase = "/opt/qm-av";

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
  return text;
}

// systemd-analyze checks that ExecStart names an executable, so the unit is checked as
// installed below a temporary base with the broker in place; no running systemd needed.
TEST(ServiceUnit, PassesSystemdVerification) {
  qmtest::TempDir tmp;
  const std::string base = tmp.file("qm-av");
  fs::create_directories(base + "/qm-av-broker/latest/bin");
  fs::create_symlink(qmtest::broker_binary(), base + "/qm-av-broker/latest/bin/qm-av-broker");
  const std::string unit = qmtest::read_file(std::string(QM_SOURCE_DIR) + "/packaging/qm-av-broker.service");
  ASSERT_NE(unit.find(std::string("ExecStart=") + kInstallBase + "/qm-av-broker/latest/bin/qm-av-broker"),
            std::string::npos);
  qmtest::write_file(tmp.file("qm-av-broker.service"), replace_all(unit, kInstallBase, base));

  qmtest::Child verify({"/usr/bin/systemd-analyze", "verify", "--man=no", tmp.file("qm-av-broker.service")});
  EXPECT_EQ(verify.wait(std::chrono::seconds(60)), 0);
  EXPECT_EQ(verify.err(), "");
}

qmtest::Child run_package_script(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {"/bin/bash", std::string(QM_SOURCE_DIR) + "/scripts/package.sh"};
  argv.insert(argv.end(), args.begin(), args.end());
  return qmtest::Child(
      argv, {"QM_BROKER_BINARY=" + qmtest::broker_binary(), "QM_NATS_SERVER=" + qmtest::nats_server_binary()});
}

TEST(PackageScript, RefusesBadArguments) {
  qmtest::TempDir tmp;
  for (const auto& args : std::vector<std::vector<std::string>>{
           {}, {tmp.file("out")}, {tmp.file("out"), "2025"}, {tmp.file("out"), "2025030100x"}}) {
    qmtest::Child script = run_package_script(args);
    EXPECT_NE(script.wait(std::chrono::seconds(60)), 0);
    EXPECT_NE(script.err(), "");
  }
  EXPECT_FALSE(fs::exists(tmp.file("out")));
}

// The package the script makes installs with the updater into a version directory whose
// binaries run.
TEST(PackageScript, MakesAPackageTheUpdaterInstalls) {
  qmtest::TempDir tmp;
  qmtest::Child script = run_package_script({tmp.file("out"), "20990101001"});
  ASSERT_EQ(script.wait(std::chrono::seconds(240)), 0) << script.err();
  const std::string name = "qm-av-broker_nats-bin-linux-glibc2.28.amd64_20990101001.zip";
  EXPECT_EQ(script.out(), tmp.file("out/" + name) + "\n");

  const std::string version_dir = tmp.file("base/qm-av-broker/1700000000");
  fs::create_directories(version_dir);
  qm_upd_pkg_info_t info;
  pkg_info_init(&info);
  info.filename = name;
  info.pkg_file = tmp.file("out/" + name);
  ASSERT_EQ(update_ver_dir_content(tmp.file("base").c_str(), tmp.path().c_str(), nullptr, version_dir.c_str(), "bin",
                                   true, &info, "broker"),
            0);
  EXPECT_EQ(get_curr_ver(version_dir.c_str(), "bin"), "20990101001");
  qmtest::Child broker({version_dir + "/bin/qm-av-broker", "--help"});
  EXPECT_EQ(broker.wait(std::chrono::seconds(60)), 0);
  qmtest::Child nats({version_dir + "/bin/nats-server", "--version"});
  EXPECT_EQ(nats.wait(std::chrono::seconds(60)), 0);
}

}  // namespace
