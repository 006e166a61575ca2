#include "broker_natsd.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>

#include "log_capture.hpp"
#include "nats_server_fixture.hpp"
#include "qm_cpp.hpp"
#include "test_support.hpp"

namespace {

using namespace std::chrono_literals;

using NatsdPtr = qm::c_ptr<broker_natsd_t, broker_natsd_destroy>;

// An executable shell script in dir.
std::string write_script(const qmtest::TempDir& dir, const std::string& name, const std::string& body) {
  const std::string path = dir.file(name);
  qmtest::write_file(path, "#!/bin/sh\n" + body + "\n");
  chmod(path.c_str(), 0755);
  return path;
}

bool process_alive(pid_t pid) { return pid > 0 && kill(pid, 0) == 0; }

// The signal mask line ("SigBlk:" or "SigIgn:") of a process or thread, as a bit set.
uint64_t proc_mask(const std::string& status_path, const std::string& field) {
  std::istringstream in(qmtest::read_file(status_path));
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(field, 0) == 0) return std::stoull(line.substr(field.size()), nullptr, 16);
  }
  return 0;
}

uint64_t bit(int sig) { return uint64_t{1} << (sig - 1); }

// Standard error of this process goes to a file while the object lives (the child
// inherits it, which is how its execv message is seen).
class StderrCapture {
 public:
  StderrCapture() : path_(dir_.file("stderr")) {
    fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
  ~StderrCapture() {
    fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }
  std::string text() const { return qmtest::read_file(path_); }

 private:
  qmtest::TempDir dir_;
  std::string path_;
  int saved_ = -1;
};

// Counts the supervisor's give-up calls.
void count_give_up(void* counter) { ++*static_cast<std::atomic<int>*>(counter); }

class NatsdTest : public ::testing::Test {
 protected:
  void SetUp() override { restore_seams(); }
  void TearDown() override { restore_seams(); }
  static void restore_seams() {
    broker_natsd_set_stop_grace_ms(0);
    broker_natsd_set_crash_window_ms(0);
    broker_natsd_set_before_respawn_hook(nullptr);
  }

  // Options for a child that is not nats-server itself: the probe goes to the fixture
  // server, so the child's own behaviour (crash, ignore SIGTERM) can be scripted.
  broker_natsd_options_t scripted(const std::string& binary) {
    broker_natsd_options_t o;
    binary_ = binary;
    url_ = server_.url();
    o.binary_path = binary_.c_str();
    o.config_path = "/dev/null";
    o.nats_url = url_.c_str();
    o.ready_timeout_sec = 5;
    o.restart_backoff_ms_initial = 50;
    o.restart_backoff_ms_max = 120;
    o.on_give_up = count_give_up;
    o.on_give_up_arg = &gave_up_;
    return o;
  }

  std::atomic<int> gave_up_{0};

  qmtest::TempDir dir_;
  qmtest::NatsServer server_{qmtest::NatsServerOptions{false, "", 0}};
  std::string binary_;
  std::string url_;
};

TEST(NatsdCreate, RequiresBinaryConfigAndUrl) {
  EXPECT_EQ(broker_natsd_create(nullptr), nullptr);
  broker_natsd_options_t o;
  o.binary_path = "/bin/true";
  o.config_path = "/dev/null";
  EXPECT_EQ(broker_natsd_create(&o), nullptr);  // no URL
  o.nats_url = "nats://127.0.0.1:1";
  o.config_path = nullptr;
  EXPECT_EQ(broker_natsd_create(&o), nullptr);
  o.config_path = "/dev/null";
  o.binary_path = nullptr;
  EXPECT_EQ(broker_natsd_create(&o), nullptr);
  o.binary_path = "/bin/true";
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_NE(natsd, nullptr);
  EXPECT_EQ(broker_natsd_pid(natsd.get()), -1);
  EXPECT_EQ(broker_natsd_signal(natsd.get(), SIGHUP), 0);  // no child: nothing to do

  broker_natsd_destroy(nullptr);
  EXPECT_EQ(broker_natsd_pid(nullptr), -1);
  EXPECT_EQ(broker_natsd_signal(nullptr, SIGHUP), 0);
  broker_natsd_stop(natsd.get());  // stop without start is harmless
}

// The real server as the child: start, its pid file, reload on SIGHUP, restart after a
// crash, orderly stop.
TEST(NatsdLifecycle, SupervisesARealServer) {
  qmtest::LogCapture log;
  qmtest::TempDir dir;
  const int port = qmtest::free_port();
  const std::string config = dir.file("nats.conf");
  const std::string server_log = dir.file("nats.log");
  qmtest::write_nats_server_config(config, port, dir.file("js"), "", server_log);
  const std::string binary = qmtest::nats_server_binary();
  const std::string pid_file = dir.file("nats.pid");
  const std::string url = "nats://127.0.0.1:" + std::to_string(port);

  broker_natsd_options_t o;
  o.binary_path = binary.c_str();
  o.config_path = config.c_str();
  o.pid_file = pid_file.c_str();
  o.nats_url = url.c_str();
  o.ready_timeout_sec = 20;
  o.restart_max = 0;  // becomes 5
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_NE(natsd, nullptr);
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  const pid_t first = broker_natsd_pid(natsd.get());
  ASSERT_GT(first, 0);
  EXPECT_TRUE(log.contains("nats-server: spawned child pid=" + std::to_string(first) + " (binary=" + binary +
                           " config=" + config + ")"));
  EXPECT_TRUE(log.contains("nats-server: ready (probe to " + url + " succeeded)"));
  EXPECT_TRUE(qmtest::wait_until([&] { return qmtest::read_file(pid_file) == std::to_string(first); }, 10s));

  // SIGHUP reaches the child, which reloads and keeps running.
  EXPECT_EQ(broker_natsd_signal(natsd.get(), SIGHUP), 0);
  EXPECT_TRUE(qmtest::wait_until(
      [&] { return qmtest::read_file(server_log).find("Reloaded server configuration") != std::string::npos; }, 10s));
  EXPECT_EQ(broker_natsd_pid(natsd.get()), first);

  // A crash is restarted after the first back-off.
  kill(first, SIGKILL);
  ASSERT_TRUE(log.wait_for("nats-server: child died from signal 9 (crash #1/5)", 10s));
  EXPECT_TRUE(log.wait_for("nats-server: restarting in 500ms", 10s));
  ASSERT_TRUE(qmtest::wait_until(
      [&] {
        const pid_t now = broker_natsd_pid(natsd.get());
        return now > 0 && now != first && qmtest::nats_accepts_connections(url);
      },
      20s));
  const pid_t second = broker_natsd_pid(natsd.get());

  EXPECT_TRUE(qmtest::wait_until([&] { return qmtest::read_file(pid_file) == std::to_string(second); }, 10s));

  broker_natsd_stop(natsd.get());
  EXPECT_EQ(broker_natsd_pid(natsd.get()), -1);
  EXPECT_FALSE(process_alive(second));
  EXPECT_FALSE(std::filesystem::exists(pid_file));  // nats-server leaves it behind
  EXPECT_TRUE(log.contains("nats-server: sending SIGTERM to pid=" + std::to_string(second)));
  EXPECT_TRUE(log.contains("during shutdown"));
  EXPECT_FALSE(log.contains("sending SIGKILL"));
}

TEST_F(NatsdTest, ExitStatusZeroIsACrashAndTheBudgetEndsSupervision) {
  qmtest::LogCapture log;
  broker_natsd_options_t o = scripted(write_script(dir_, "quits", "exit 0"));
  o.restart_max = 4;
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  ASSERT_TRUE(log.wait_for("nats-server: exceeded restart budget (4) — giving up", 30s));
  const std::string text = log.text();
  // Delays double from 50 ms and stop at the 120 ms ceiling.
  const char* expected[] = {"child exited with status 0 (crash #1/4)", "restarting in 50ms",
                            "child exited with status 0 (crash #2/4)", "restarting in 100ms",
                            "child exited with status 0 (crash #3/4)", "restarting in 120ms",
                            "child exited with status 0 (crash #4/4)", "restarting in 120ms",
                            "child exited with status 0 (crash #5/4)", "exceeded restart budget (4)"};
  size_t at = 0;
  for (const char* line : expected) {
    at = text.find(line, at);
    ASSERT_NE(at, std::string::npos) << "missing in order: " << line << "\n" << text;
  }
  EXPECT_EQ(log.count("nats-server: spawned child"), 5u);
  EXPECT_EQ(broker_natsd_pid(natsd.get()), -1);
  EXPECT_TRUE(qmtest::wait_until([&] { return gave_up_ == 1; }, 10s));  // the broker shuts down from there
  broker_natsd_stop(natsd.get());  // nothing left to stop, the thread is joined
  EXPECT_EQ(gave_up_, 1);
}

// A child that ran through the crash window starts the count and the back-off afresh:
// crashes months apart never spend the budget.
TEST_F(NatsdTest, ACrashAfterTheWindowStartsTheCountAfresh) {
  qmtest::LogCapture log;
  broker_natsd_set_crash_window_ms(20);
  broker_natsd_options_t o = scripted(write_script(dir_, "short-lived", "sleep 0.1\nexit 0"));
  o.restart_max = 2;
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  ASSERT_TRUE(qmtest::wait_until([&] { return log.count("nats-server: spawned child") >= 5; }, 30s)) << log.text();
  broker_natsd_stop(natsd.get());
  EXPECT_GE(log.count("nats-server: child ran 0s; crash count and restart back-off start afresh"), 3u);
  EXPECT_FALSE(log.contains("crash #2/2")) << log.text();
  EXPECT_FALSE(log.contains("restarting in 100ms"));
  EXPECT_EQ(gave_up_, 0);
}

// A stop that lands after the pause before a restart, just before the spawn, spawns
// nothing: there would be nobody left to end that child.
TEST_F(NatsdTest, AStopJustBeforeARespawnSpawnsNothing) {
  static std::atomic<bool> hooked;
  hooked = false;
  broker_natsd_set_before_respawn_hook([](broker_natsd_t* natsd) {
    (void)broker_natsd_signal(natsd, SIGTERM);  // as the broker forwards a shutdown signal
    hooked = true;
  });
  qmtest::LogCapture log;
  broker_natsd_options_t o = scripted(write_script(dir_, "sleeper", "exec sleep 600"));
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  kill(broker_natsd_pid(natsd.get()), SIGKILL);
  ASSERT_TRUE(qmtest::wait_until([] { return hooked.load(); }, 10s));
  broker_natsd_stop(natsd.get());
  EXPECT_EQ(log.count("nats-server: spawned child"), 1u) << log.text();
  EXPECT_EQ(broker_natsd_pid(natsd.get()), -1);
  EXPECT_EQ(gave_up_, 0);
}

TEST_F(NatsdTest, MissingBinaryGivesTheExecvMessageAndStatus127) {
  qmtest::LogCapture log;
  const std::string missing = dir_.file("no-such-nats-server");
  broker_natsd_options_t o = scripted(missing);
  o.restart_max = 1;
  StderrCapture err;
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);  // the probe goes to the fixture server
  ASSERT_TRUE(log.wait_for("exceeded restart budget (1)", 20s));
  EXPECT_TRUE(log.contains("nats-server: child exited with status 127 (crash #1/1)"));
  EXPECT_TRUE(log.contains("nats-server: child exited with status 127 (crash #2/1)"));
  EXPECT_NE(err.text().find("nats-server: execv(" + missing + ") failed: No such file or directory\n"),
            std::string::npos)
      << err.text();
}

TEST_F(NatsdTest, ChildIgnoringSigtermIsKilledAfterTheGrace) {
  qmtest::LogCapture log;
  broker_natsd_set_stop_grace_ms(300);
  broker_natsd_options_t o = scripted(write_script(dir_, "stubborn", "trap '' TERM\nexec sleep 600"));
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  const pid_t child = broker_natsd_pid(natsd.get());
  // The trap must be in place before stop sends SIGTERM: wait for the exec.
  ASSERT_TRUE(qmtest::wait_until(
      [&] { return qmtest::read_file("/proc/" + std::to_string(child) + "/comm") == "sleep\n"; }, 10s));
  broker_natsd_stop(natsd.get());
  EXPECT_TRUE(log.contains("nats-server: did not exit within 300ms — sending SIGKILL"));
  EXPECT_TRUE(log.contains("nats-server: child exited via signal 9 during shutdown"));
  EXPECT_FALSE(process_alive(child));
}

TEST_F(NatsdTest, StopDuringTheRestartPauseSpawnsNothingNew) {
  qmtest::LogCapture log;
  broker_natsd_options_t o = scripted(write_script(dir_, "sleeper", "exec sleep 600"));
  o.restart_backoff_ms_initial = 20000;
  o.restart_backoff_ms_max = 20000;
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  kill(broker_natsd_pid(natsd.get()), SIGKILL);
  ASSERT_TRUE(log.wait_for("nats-server: restarting in 20000ms", 10s));
  const auto start = std::chrono::steady_clock::now();
  broker_natsd_stop(natsd.get());
  // The pause ends at once instead of running its 20 s.
  EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
  EXPECT_EQ(log.count("nats-server: spawned child"), 1u);
  EXPECT_EQ(broker_natsd_pid(natsd.get()), -1);
  EXPECT_EQ(gave_up_, 0);  // a stop is no giving up
}

TEST_F(NatsdTest, SignalsReachTheChildAndForwardedSigtermIsNoCrash) {
  qmtest::LogCapture log;
  const std::string marker = dir_.file("hup-seen");
  broker_natsd_options_t o = scripted(write_script(
      dir_, "listener", "trap 'echo hup >> " + marker + "' HUP\ntrap 'exit 0' TERM\nwhile :; do sleep 0.05; done"));
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  const pid_t child = broker_natsd_pid(natsd.get());
  // Give the shell time to install its traps: a HUP before that would end it.
  ASSERT_TRUE(qmtest::wait_until(
      [&] {
        return (proc_mask("/proc/" + std::to_string(child) + "/status", "SigCgt:") & bit(SIGHUP)) != 0;
      },
      10s));
  EXPECT_EQ(broker_natsd_signal(natsd.get(), SIGHUP), 0);
  EXPECT_TRUE(qmtest::wait_until([&] { return qmtest::read_file(marker) == "hup\n"; }, 10s));
  EXPECT_EQ(broker_natsd_pid(natsd.get()), child);

  EXPECT_EQ(broker_natsd_signal(natsd.get(), SIGTERM), 0);
  ASSERT_TRUE(log.wait_for("nats-server: child exited with status 0 during shutdown", 10s));
  EXPECT_FALSE(log.contains("crash #"));
  EXPECT_EQ(log.count("nats-server: spawned child"), 1u);
}

// The broker blocks its process signals in every thread and ignores SIGPIPE: the
// children, the first and those the supervisor restarts, must start with neither.
TEST_F(NatsdTest, ChildrenStartWithACleanSignalMask) {
  broker_natsd_options_t o = scripted(write_script(dir_, "sleeper", "exec sleep 600"));
  NatsdPtr natsd(broker_natsd_create(&o));
  {
    const qmtest::BrokerSignalState as_in_the_broker;
    ASSERT_EQ(broker_natsd_start(natsd.get()), 0);  // the supervisor inherits the mask
  }

  // The restarted child comes from the supervisor's thread; the first one from the same spawn.
  const pid_t first = broker_natsd_pid(natsd.get());
  kill(first, SIGKILL);
  pid_t child = -1;
  ASSERT_TRUE(qmtest::wait_until(
      [&] {
        child = broker_natsd_pid(natsd.get());
        return child > 0 && child != first &&
               qmtest::read_file("/proc/" + std::to_string(child) + "/comm") == "sleep\n";
      },
      10s));
  const std::string status = "/proc/" + std::to_string(child) + "/status";
  EXPECT_EQ(proc_mask(status, "SigBlk:"), 0u);
  EXPECT_EQ(proc_mask(status, "SigIgn:") & bit(SIGPIPE), 0u);
}

// A start that fails leaves no child. A child that is gone will never answer: the probe
// ends there, not at its deadline.
TEST_F(NatsdTest, StartFailsAndLeavesNoChildWhenTheServerNeverAnswers) {
  const struct {
    const char* script;
    int ready_timeout_sec;
    const char* logged;
    const char* not_logged;
  } cases[] = {
      {"exec sleep 600", 1, "nats-server: readiness probe timed out after 1s (last status: ", "exited before"},
      {"exit 3", 600, " exited before it was ready", "timed out"},
  };
  const std::string url = "nats://127.0.0.1:" + std::to_string(qmtest::free_port());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.script);
    qmtest::LogCapture log;
    broker_natsd_options_t o = scripted(write_script(dir_, "child", c.script));
    o.nats_url = url.c_str();
    o.ready_timeout_sec = c.ready_timeout_sec;
    NatsdPtr natsd(broker_natsd_create(&o));
    EXPECT_EQ(broker_natsd_start(natsd.get()), -1);
    EXPECT_EQ(broker_natsd_pid(natsd.get()), -1);
    EXPECT_TRUE(log.contains(c.logged)) << log.text();
    EXPECT_FALSE(log.contains(c.not_logged));
  }
}

// The same after a restart: the dead child is reaped between probe attempts and counts
// as the next crash at once, so a server that keeps failing spends its budget in
// moments instead of one probe time-out per restart.
TEST(NatsdLifecycle, ARestartedChildThatDiesDuringTheProbeIsReapedAtOnce) {
  qmtest::LogCapture log;
  qmtest::TempDir dir;
  const int port = qmtest::free_port();
  const std::string config = dir.file("nats.conf");
  qmtest::write_nats_server_config(config, port, "");
  // The first run is the real server; every restart fails at once.
  const std::string script = write_script(dir, "flaky", "[ -e " + dir.file("ran") + " ] && exit 3\ntouch " +
                                                            dir.file("ran") + "\nexec " +
                                                            qmtest::nats_server_binary() + " \"$@\"");
  const std::string url = "nats://127.0.0.1:" + std::to_string(port);
  broker_natsd_options_t o;
  o.binary_path = script.c_str();
  o.config_path = config.c_str();
  o.nats_url = url.c_str();
  o.ready_timeout_sec = 600;
  o.restart_max = 2;
  o.restart_backoff_ms_initial = 50;
  o.restart_backoff_ms_max = 100;
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  kill(broker_natsd_pid(natsd.get()), SIGKILL);
  ASSERT_TRUE(log.wait_for("nats-server: exceeded restart budget (2)", 60s)) << log.text();
  EXPECT_TRUE(log.contains("nats-server: child exited with status 3 (crash #2/2)"));
  EXPECT_TRUE(log.contains("nats-server: child exited with status 3 (crash #3/2)"));
  EXPECT_FALSE(log.contains("post-restart readiness probe failed"));
}

TEST(NatsdProbe, ReadyServerAnswersAtOnce) {
  qmtest::NatsServer server(qmtest::NatsServerOptions{false, "", 0});
  qmtest::LogCapture log;
  EXPECT_EQ(broker_natsd_wait_ready(server.url().c_str(), nullptr, nullptr, nullptr, 5), 0);
  EXPECT_TRUE(log.contains("nats-server: ready (probe to " + server.url() + " succeeded)"));
}

TEST(NatsdProbe, ProbeLogsInWithUserAndPassword) {
  qmtest::NatsServer server(qmtest::NatsServerOptions{
      false, "authorization { users: [ { user: \"probe\", password: \"s3cret\" } ] }", 0});
  EXPECT_EQ(broker_natsd_wait_ready(server.url().c_str(), "probe", "s3cret", nullptr, 5), 0);
  EXPECT_EQ(broker_natsd_wait_ready(server.url().c_str(), "probe", "wrong", nullptr, 0), -1);
}

TEST(NatsdProbe, RefusedPortTimesOutAfterTheDeadline) {
  qmtest::LogCapture log;
  const std::string url = "nats://127.0.0.1:" + std::to_string(qmtest::free_port());
  EXPECT_EQ(broker_natsd_wait_ready(url.c_str(), nullptr, nullptr, nullptr, 1), -1);
  EXPECT_GE(log.count("nats-server: readiness probe not ready yet ("), 2u);
  EXPECT_TRUE(log.contains("retrying in 250ms"));
  EXPECT_TRUE(log.contains("nats-server: readiness probe timed out after 1s (last status: "));
}

TEST(NatsdProbe, ZeroTimeoutGivesUpAfterTheFirstFailure) {
  qmtest::LogCapture log;
  const std::string url = "nats://127.0.0.1:" + std::to_string(qmtest::free_port());
  EXPECT_EQ(broker_natsd_wait_ready(url.c_str(), nullptr, nullptr, nullptr, 0), -1);
  EXPECT_EQ(log.count("readiness probe not ready yet"), 0u);
  EXPECT_TRUE(log.contains("readiness probe timed out after 0s"));
}

TEST(NatsdProbe, TlsUrlWithoutCaWarnsOnEveryAttempt) {
  qmtest::LogCapture log;
  const std::string url = "tls://127.0.0.1:" + std::to_string(qmtest::free_port());
  EXPECT_EQ(broker_natsd_wait_ready(url.c_str(), nullptr, nullptr, "", 1), -1);
  const size_t attempts = log.count("readiness probe not ready yet") + 1;
  EXPECT_GE(attempts, 2u);
  EXPECT_EQ(log.count("nats-server: tls:// probe URL but no cert_path — server cert will be checked against the "
                      "system trust store and almost certainly fail"),
            attempts);
}

TEST(NatsdProbe, UnreadableCaBundleFailsWithoutRetrying) {
  qmtest::LogCapture log;
  EXPECT_EQ(broker_natsd_wait_ready("tls://127.0.0.1:4", nullptr, nullptr, "/nonexistent/ca.pem", 30), -1);
  EXPECT_TRUE(log.contains("nats-server: probe failed to load CA bundle /nonexistent/ca.pem: "));
  EXPECT_EQ(log.count("not ready yet"), 0u);
  EXPECT_EQ(broker_natsd_wait_ready(nullptr, nullptr, nullptr, nullptr, 1), -1);
}

}  // namespace
