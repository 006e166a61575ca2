#include "test_prelude.hpp"

namespace {

constexpr const char* kInstallBase = "/opt/qm-av";

// systemd-analyze checks that ExecStart names an executable, so the unit is checked as
// installed below a temporary base with the broker in place; no running systemd needed.
TEST(ServiceUnit, PassesSystemdVerification) {
  TempDir tmp;
  const std::string base = tmp.file("qm-av");
  fs::create_directories(base + "/qm-av-broker/latest/bin");
  fs::create_symlink(broker_binary(), base + "/qm-av-broker/latest/bin/qm-av-broker");
  const std::string unit = read_file(std::string(QM_SOURCE_DIR) + "/packaging/qm-av-broker.service");
  ASSERT_NE(unit.find(std::string("ExecStart=") + kInstallBase + "/qm-av-broker/latest/bin/qm-av-broker"),
            std::string::npos);
  write_file(tmp.file("qm-av-broker.service"), std::regex_replace(unit, std::regex(kInstallBase), base));

  Child verify({"/usr/bin/systemd-analyze", "verify", "--man=no", tmp.file("qm-av-broker.service")});
  EXPECT_EQ(verify.wait(std::chrono::seconds(60)), 0);
  EXPECT_EQ(verify.err(), "");
}

// The packaged nats-server configuration, its placeholders filled in as its header says,
// is one nats-server accepts (the tests run its account layout; this checks the rest).
TEST(ServiceUnit, PackagedNatsServerConfigurationIsValid) {
  TempDir tmp;
  std::string conf = read_file(std::string(QM_SOURCE_DIR) + "/packaging/nats-server.conf");
  const std::pair<const char*, std::string> fills[] = {
      {"@HOST@", "127.0.0.1"},
      {"@PORT@", "4222"},
      {"@STORE_DIR@", tmp.file("js")},
      {"@ISSUER_NKEY@", "ADG53YQZENWXOO2CLZPO4LLMPRC23MPMAGSG42HMOGZF4T3KHY5VDYF3"},
      {"@ISSUER_XKEY@", "XBAEAN7JGZTUNNOVJXWA3MM2HPAJHNBRLAYDL5I4D5QNRZVMDOQEACQN"},
      {"@AUTH_PASSWORD@", "a"},
      {"@GATEWAY_PASSWORD@", "g"},
  };
  for (const auto& [placeholder, value] : fills) conf = std::regex_replace(conf, std::regex(placeholder), value);
  const std::string body = conf.substr(conf.find("\nhost:"));  // the header comments name the placeholders
  EXPECT_EQ(body.find('@'), std::string::npos) << body;
  write_file(tmp.file("nats-server.conf"), conf);
  Child check({nats_server_binary(), "-t", "-c", tmp.file("nats-server.conf")});
  EXPECT_EQ(check.wait(std::chrono::seconds(30)), 0) << check.err();
}

// The package it makes is installed and started by the end-to-end update test.
TEST(PackageScript, RefusesBadArguments) {
  TempDir tmp;
  for (const auto& args : std::vector<std::vector<std::string>>{
           {}, {tmp.file("out")}, {tmp.file("out"), "2025"}, {tmp.file("out"), "2025030100x"}}) {
    std::vector<std::string> argv = {"/bin/bash", std::string(QM_SOURCE_DIR) + "/scripts/package.sh"};
    argv.insert(argv.end(), args.begin(), args.end());
    Child script(argv, {"QM_BROKER_BINARY=" + broker_binary()});
    EXPECT_NE(script.wait(std::chrono::seconds(60)), 0);
    EXPECT_NE(script.err(), "");
  }
  EXPECT_FALSE(fs::exists(tmp.file("out")));
}

}  // namespace
