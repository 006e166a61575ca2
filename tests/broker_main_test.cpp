// The real broker binary as a child process: exit codes, signals, pid file and
// readiness notification.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "nats_server_fixture.hpp"
#include "test_support.hpp"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

class BrokerMainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qmtest::write_file(dir_.file("auth.conf"),
                       "users = [\n  {\n    user: \"alice\"\n    password: \"wonder\"\n  }\n]\n");
  }

  // The least a broker needs to come up here: an external nats-server with JetStream and
  // the auth files.
  std::vector<std::string> base_args() const {
    return {qmtest::broker_binary(), "--nats-url", nats_.url(), "--nats-server-managed", "false",
            "--auth-signing-key", dir_.file("seed"), "--auth-file", dir_.file("auth.conf"),
            "--amqp-enabled", "false", "--update-binary", "false"};
  }

  std::vector<std::string> args_with(std::vector<std::string> extra) const {
    auto args = base_args();
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }

  qmtest::TempDir dir_;
  qmtest::NatsServer nats_;
};

TEST_F(BrokerMainTest, HelpPrintsUsageOnStandardErrorAndExitsZero) {
  qmtest::Child broker({qmtest::broker_binary(), "--help"});
  EXPECT_EQ(broker.wait(10s), 0);
  EXPECT_EQ(broker.out(), "");
  EXPECT_EQ(broker.err().rfind("Usage: " + qmtest::broker_binary() + " --nats-url <url>", 0), 0u);
  EXPECT_NE(broker.err().find("Show this help message"), std::string::npos);
}

TEST_F(BrokerMainTest, MissingNatsUrlExitsOneWithItsMessage) {
  qmtest::Child broker({qmtest::broker_binary(), "--auth-file", "x"});
  EXPECT_EQ(broker.wait(10s), 1);
  EXPECT_EQ(broker.err().rfind(qmtest::broker_binary() + ": --nats-url is required\nUsage: ", 0), 0u)
      << broker.err();
}

TEST_F(BrokerMainTest, UnknownOptionAndMissingArgumentExitOne) {
  qmtest::Child unknown(args_with({"--bogus"}));
  EXPECT_EQ(unknown.wait(10s), 1);
  EXPECT_NE(unknown.err().find("Usage: "), std::string::npos);
  qmtest::Child missing(args_with({"--tracefile"}));
  EXPECT_EQ(missing.wait(10s), 1);
  EXPECT_NE(missing.err().find("Usage: "), std::string::npos);
}

TEST_F(BrokerMainTest, SigtermGivesOrderlyShutdownAndRemovesThePidFile) {
  const std::string pid_file = dir_.file("broker.pid");
  qmtest::Child broker(args_with({"--pid-file", pid_file}));
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 30s)) << broker.err();
  EXPECT_EQ(qmtest::read_file(pid_file), std::to_string(broker.pid()) + "\n");
  EXPECT_NE(broker.err().find("pid file: " + pid_file), std::string::npos);
  EXPECT_NE(broker.err().find("qm-av-broker starting (pid=" + std::to_string(broker.pid()) + ")"),
            std::string::npos);
  EXPECT_NE(broker.err().find("config: nats_url=" + nats_.url() +
                              " nats_server_managed=no auth_callout=yes amqp=no http=no"),
            std::string::npos);

  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0) << broker.err();
  EXPECT_FALSE(fs::exists(pid_file));
  EXPECT_FALSE(fs::exists(pid_file + ".tmp." + std::to_string(broker.pid())));
  const std::string log = broker.err();
  EXPECT_NE(log.find("qm-av-broker shutting down"), std::string::npos);
  EXPECT_NE(log.find("qm-av-broker stopped (rc=0)"), std::string::npos);
}

TEST_F(BrokerMainTest, SigintAlsoShutsDownCleanly) {
  const std::string pid_file = dir_.file("broker.pid");
  qmtest::Child broker(args_with({"--pid-file", pid_file}));
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 30s)) << broker.err();
  broker.signal(SIGINT);
  EXPECT_EQ(broker.wait(30s), 0) << broker.err();
  EXPECT_FALSE(fs::exists(pid_file));
}

TEST_F(BrokerMainTest, SighupReloadsAndKeepsRunning) {
  qmtest::Child broker(base_args());
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 30s)) << broker.err();
  for (int i = 0; i < 3; ++i) broker.signal(SIGHUP);
  ASSERT_TRUE(broker.wait_for_err("SIGHUP: reloading credential store + forwarding to nats-server", 10s));
  EXPECT_TRUE(broker.running());
  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0);
}

TEST_F(BrokerMainTest, ChangedCredentialsFileIsReloadedWithoutOperatorAction) {
  qmtest::Child broker(base_args());
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 30s)) << broker.err();
  EXPECT_NE(broker.err().find("auth-watcher: watching " + dir_.file("auth.conf") +
                              " for external changes (poll interval 5s)"),
            std::string::npos);
  qmtest::write_file(dir_.file("auth.new"), "user: \"bob\"\npassword: \"builder\"\n");
  ASSERT_EQ(rename(dir_.file("auth.new").c_str(), dir_.file("auth.conf").c_str()), 0);
  ASSERT_TRUE(broker.wait_for_err("triggering reload via SIGHUP", 15s)) << broker.err();
  EXPECT_TRUE(broker.wait_for_err("SIGHUP: reloading credential store", 5s));
  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0);
}

TEST_F(BrokerMainTest, PidFileProblemsAreWarningsOnly) {
  const std::string unwritable = dir_.file("no-such-dir/broker.pid");
  qmtest::Child broker(args_with({"--pid-file", unwritable}));
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 30s)) << broker.err();
  EXPECT_NE(broker.err().find("--pid-file: cannot open " + unwritable + ".tmp."), std::string::npos);
  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0);
}

TEST_F(BrokerMainTest, OverlongPidFilePathIsSkippedButStillUnlinkedAtExit) {
  // 4090 characters: the temporary name with its ".tmp.<pid>" suffix no longer fits 4096 bytes.
  std::string path = dir_.path().string() + "/";
  path += std::string(4090 - path.size(), 'p');
  ASSERT_EQ(path.size(), 4090u);
  qmtest::Child broker(args_with({"--pid-file", path}));
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 30s)) << broker.err();
  EXPECT_NE(broker.err().find("--pid-file path too long, skipping write: " + path), std::string::npos);
  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0);
}

TEST_F(BrokerMainTest, NotifiesReadyAndStoppingOverTheNotifySocket) {
  const std::string sock_path = dir_.file("notify.sock");
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  memcpy(addr.sun_path, sock_path.c_str(), sock_path.size() + 1);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  timeval tv{30, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  auto receive = [fd] {
    char buf[64];
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    return n < 0 ? std::string() : std::string(buf, static_cast<size_t>(n));
  };

  qmtest::Child broker(base_args(), {"NOTIFY_SOCKET=" + sock_path});
  EXPECT_EQ(receive(), "READY=1");
  broker.signal(SIGTERM);
  EXPECT_EQ(receive(), "STOPPING=1");
  EXPECT_EQ(broker.wait(30s), 0);
  close(fd);
}

TEST_F(BrokerMainTest, WithoutNotifySocketNoWarningIsLogged) {
  qmtest::Child broker(base_args(), {}, {"NOTIFY_SOCKET"});
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 30s));
  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0);
  EXPECT_EQ(broker.err().find("sd_notify(READY=1) failed"), std::string::npos);
}

TEST_F(BrokerMainTest, UnreachableNotifySocketIsAWarningOnly) {
  qmtest::Child broker(base_args(), {"NOTIFY_SOCKET=" + dir_.file("nobody")});
  ASSERT_TRUE(broker.wait_for_err("sd_notify(READY=1) failed (running without systemd?)", 30s));
  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0);
}

TEST_F(BrokerMainTest, DaemonModeIsSilentAndTheLogFileGetsTheLines) {
  // The silent one says nothing: its pid file shows that its signal handlers are in place.
  const std::string silent_pid_file = dir_.file("silent.pid");
  qmtest::Child silent(args_with({"--trace-to-screen", "0", "--pid-file", silent_pid_file}));
  const std::string log_file = dir_.file("broker.log");
  qmtest::Child logging(args_with({"--trace-to-screen", "0", "--tracefile", log_file, "--tracelevel", "6"}));
  ASSERT_TRUE(qmtest::wait_until(
      [&] { return qmtest::read_file(log_file).find("qm-av-broker ready") != std::string::npos; }, 30s));
  ASSERT_TRUE(qmtest::wait_until([&] { return !qmtest::read_file(silent_pid_file).empty(); }, 30s));
  silent.signal(SIGTERM);
  logging.signal(SIGTERM);
  EXPECT_EQ(silent.wait(30s), 0);
  EXPECT_EQ(logging.wait(30s), 0);
  EXPECT_EQ(silent.err(), "");
  // With a file the screen copy stays on (the daemon never sets quiet).
  EXPECT_NE(logging.err().find("qm-av-broker ready"), std::string::npos);
  const std::string log = qmtest::read_file(log_file);
  EXPECT_NE(log.find("qm-av-broker stopped (rc=0)"), std::string::npos);
  EXPECT_NE(log.find("(main.cpp:"), std::string::npos);  // trace threshold: file lines carry the source
}

// Process signals are taken by the main thread alone, with sigwaitinfo (which lets them
// through while it waits): every other thread, the NATS library's included, has them
// blocked, so no handler can run on one of them while the teardown frees what it uses.
TEST_F(BrokerMainTest, EveryThreadBlocksTheProcessSignals) {
  qmtest::Child broker(base_args());
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 30s)) << broker.err();
  uint64_t wanted = 0;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) wanted |= uint64_t{1} << (sig - 1);
  int threads = 0;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(broker.pid()) + "/task")) {
    if (task.path().filename() == std::to_string(broker.pid())) continue;  // the main thread
    const std::string status = qmtest::read_file(task.path().string() + "/status");
    const size_t at = status.find("SigBlk:");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(std::stoull(status.substr(at + 7), nullptr, 16) & wanted, wanted) << task.path();
    ++threads;
  }
  EXPECT_GE(threads, 3);  // the library's threads are there too
  broker.signal(SIGHUP);
  EXPECT_TRUE(broker.wait_for_err("SIGHUP: reloading credential store", 10s));
  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0);
}

TEST_F(BrokerMainTest, SecondSigtermDuringShutdownDoesNotAbortIt) {
  qmtest::Child broker(base_args());
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 30s));
  broker.signal(SIGTERM);
  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0);
  EXPECT_NE(broker.err().find("stopped (rc=0)"), std::string::npos);
}

}  // namespace
