// The nats-server supervisor in process, with scripted children whose behaviour (crash,
// ignore SIGTERM) a real server will not show on demand. The real server as the broker's
// managed child, and start-ups that fail, are tested with the broker binary
// (broker_nats_startup_test).
#include "broker_natsd.hpp"

#include "test_prelude.hpp"

namespace {

using NatsdPtr = qm::c_ptr<broker_natsd_t, broker_natsd_destroy>;

// True once the shell script a child ran has exec'd `sleep`.
bool sleeping(pid_t pid) { return read_file("/proc/" + std::to_string(pid) + "/comm") == "sleep\n"; }

class NatsdTest : public ::testing::Test {
 protected:
  // Options for a child that is not nats-server itself: the probe goes to the fixture
  // server, so the child's own behaviour can be scripted.
  broker_natsd_options_t scripted(const std::string& body) {
    binary_ = dir_.file("child-" + std::to_string(++scripts_));
    write_file(binary_, "#!/bin/sh\n" + body + "\n");
    chmod(binary_.c_str(), 0755);
    broker_natsd_options_t o;
    o.binary_path = binary_.c_str();
    o.config_path = "/dev/null";
    o.nats_url = url_.c_str();
    o.ready_timeout_sec = 5;
    o.restart_backoff_ms_initial = 50;
    o.restart_backoff_ms_max = 120;
    o.on_give_up = [](void* counter) { ++*static_cast<std::atomic<int>*>(counter); };
    o.on_give_up_arg = &gave_up_;
    return o;
  }

  std::atomic<int> gave_up_{0};
  TempDir dir_;
  NatsServer server_{NatsServerOptions{false, "", 0}};
  const std::string url_ = server_.url();
  std::string binary_;
  int scripts_ = 0;
  LogCapture log_;
};

TEST(NatsdCreate, RequiresBinaryConfigAndUrl) {
  EXPECT_EQ(broker_natsd_create(nullptr), nullptr);
  for (int missing = 0; missing < 3; ++missing) {
    broker_natsd_options_t o;
    o.binary_path = missing == 0 ? nullptr : "/bin/true";
    o.config_path = missing == 1 ? nullptr : "/dev/null";
    o.nats_url = missing == 2 ? nullptr : "nats://127.0.0.1:1";
    EXPECT_EQ(broker_natsd_create(&o), nullptr) << missing;
  }
}

TEST_F(NatsdTest, ExitStatusZeroIsACrashAndTheBudgetEndsSupervision) {
  broker_natsd_options_t o = scripted("exit 0");
  o.restart_max = 4;
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  ASSERT_TRUE(log_.wait_for("nats-server: exceeded restart budget (4) \u2014 giving up", 60s));
  const std::string text = log_.text();
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
  EXPECT_EQ(log_.count("nats-server: spawned child"), 5u);  // no restart after the budget's last crash
  EXPECT_EQ(broker_natsd_pid(natsd.get()), -1);
  EXPECT_TRUE(wait_until([&] { return gave_up_ == 1; }, 30s));  // the broker shuts down from there
  broker_natsd_stop(natsd.get());  // nothing left to stop, the thread is joined
  EXPECT_EQ(gave_up_, 1);
}

// A child that ran through the crash window starts the count and the back-off afresh:
// crashes months apart never spend the budget.
TEST_F(NatsdTest, ACrashAfterTheWindowStartsTheCountAfresh) {
  broker_natsd_options_t o = scripted("sleep 0.1\nexit 0");
  o.crash_window_ms = 20;
  o.restart_max = 2;
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  ASSERT_TRUE(wait_until([&] { return log_.count("nats-server: spawned child") >= 5; }, 60s));
  broker_natsd_stop(natsd.get());
  EXPECT_GE(log_.count("nats-server: child ran 0s; crash count and restart back-off start afresh"), 3u);
  EXPECT_NOT_LOGGED(log_, "crash #2/2");
  EXPECT_NOT_LOGGED(log_, "restarting in 100ms");
  EXPECT_EQ(gave_up_, 0);
}

// A stop that comes during the pause before a restart ends the pause at once; one that
// lands after the pause, just before the spawn, spawns nothing either: there would be
// nobody left to end that child. Neither is a giving up.
TEST_F(NatsdTest, AStopWhileRestartingSpawnsNothing) {
  static std::atomic<bool> hooked;
  for (const bool just_before_the_spawn : {false, true}) {
    SCOPED_TRACE(just_before_the_spawn ? "just before the spawn" : "during the pause");
    log_.clear();
    hooked = false;
    broker_natsd_options_t o = scripted("exec sleep 600");
    if (just_before_the_spawn) {
      o.before_respawn = [](broker_natsd_t* natsd) {
        (void)broker_natsd_signal(natsd, SIGTERM);  // as the broker forwards a shutdown signal
        hooked = true;
      };
    } else {
      o.restart_backoff_ms_initial = o.restart_backoff_ms_max = 600000;
    }
    NatsdPtr natsd(broker_natsd_create(&o));
    ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
    kill(broker_natsd_pid(natsd.get()), SIGKILL);
    if (just_before_the_spawn) {
      ASSERT_TRUE(wait_until([] { return hooked.load(); }, 30s));
    } else {
      ASSERT_TRUE(log_.wait_for("nats-server: restarting in 600000ms", 30s));
    }
    broker_natsd_stop(natsd.get());  // a pause left to run would keep this test for ten minutes
    EXPECT_EQ(log_.count("nats-server: spawned child"), 1u) << log_.text();
    EXPECT_EQ(broker_natsd_pid(natsd.get()), -1);
    EXPECT_EQ(gave_up_, 0);
  }
}

TEST_F(NatsdTest, ChildIgnoringSigtermIsKilledAfterTheGrace) {
  broker_natsd_options_t o = scripted("trap '' TERM\nexec sleep 600");
  o.stop_grace_ms = 300;
  NatsdPtr natsd(broker_natsd_create(&o));
  ASSERT_EQ(broker_natsd_start(natsd.get()), 0);
  const pid_t child = broker_natsd_pid(natsd.get());
  // The trap must be in place before stop sends SIGTERM: wait for the exec.
  ASSERT_TRUE(wait_until([&] { return sleeping(child); }, 30s));
  broker_natsd_stop(natsd.get());
  EXPECT_LOGGED(log_, "nats-server: did not exit within 300ms \u2014 sending SIGKILL");
  EXPECT_LOGGED(log_, "nats-server: child exited via signal 9 during shutdown");
  EXPECT_FALSE(process_running(child));
}

TEST(NatsdProbe, AnswersFailuresAndDeadlines) {
  const NatsServer server(NatsServerOptions{
      false, "authorization { users: [ { user: \"probe\", password: \"s3cret\" } ] }", 0});
  const ReservedPort nobody;
  const std::string server_url = server.url();
  const std::string closed_tls = nobody.url("tls");
  const std::string tls_warning =
      "nats-server: tls:// probe URL but no cert_path \u2014 server cert will be checked against the system trust "
      "store and almost certainly fail";
  const struct {
    const char* url;
    const char* user;
    const char* password;
    const char* ca;
    int timeout_sec;
    int rc;
    std::vector<std::string> logged;
    std::vector<std::string> not_logged;
  } cases[] = {
      {server_url.c_str(), "probe", "s3cret", nullptr, 5, 0,
       {"nats-server: ready (probe to " + server_url + " succeeded)"}, {"not ready yet", "tls://"}},
      // No second attempt with a zero time-out.
      {server_url.c_str(), "probe", "wrong", nullptr, 0, -1, {"readiness probe timed out after 0s"}, {"not ready yet"}},
      {closed_tls.c_str(), nullptr, nullptr, "", 1, -1,
       {"nats-server: readiness probe not ready yet (", "retrying in 250ms",
        "nats-server: readiness probe timed out after 1s (last status: ", tls_warning},
       {"ready (probe"}},
      // An unreadable CA bundle is no reason to wait.
      {closed_tls.c_str(), nullptr, nullptr, "/nonexistent/ca.pem", 30, -1,
       {"nats-server: probe failed to load CA bundle /nonexistent/ca.pem: "}, {"not ready yet"}},
      {nullptr, nullptr, nullptr, nullptr, 1, -1, {}, {"not ready yet"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.url ? c.url : "NULL") << " " << (c.ca ? c.ca : "no CA"));
    LogCapture log;
    EXPECT_EQ(broker_natsd_wait_ready(c.url, c.user, c.password, c.ca, c.timeout_sec), c.rc);
    for (const auto& line : c.logged) EXPECT_TRUE(log.contains(line)) << line << "\n" << log.text();
    for (const auto& line : c.not_logged) EXPECT_NOT_LOGGED(log, line);
    // Without a CA, a tls:// probe warns on every attempt.
    if (c.ca && c.ca[0] == '\0') {
      EXPECT_EQ(log.count(tls_warning), log.count("not ready yet") + 1);
    }
  }
}

// The start-up probe pauses on a stop flag: a request must end a sleep at once, whether it
// comes before or during it. The sleep outlasts any test; the bounded wait is the check.
TEST(StopFlag, ARequestEndsALongSleep) {
  auto flag = std::make_shared<qm::stop_flag>();
  auto slept = std::make_shared<std::promise<bool>>();
  std::future<bool> woke = slept->get_future();
  std::thread([flag, slept] { slept->set_value(flag->sleep_for(600000)); }).detach();
  flag->request();
  ASSERT_EQ(woke.wait_for(30s), std::future_status::ready) << "the sleep ran on after the request";
  EXPECT_FALSE(woke.get());
}

}  // namespace
