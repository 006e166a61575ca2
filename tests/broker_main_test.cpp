// The real broker binary as a child process: command-line exits, one whole lifetime
// (pid file, readiness notification, reloads, signals), and the problems that are
// warnings only.
#include "test_prelude.hpp"

namespace {

class BrokerMain : public ::testing::Test {
 protected:
  void SetUp() override {
    write_file(dir_.file("auth.conf"), "users = [ {user: \"alice\", password: \"w\"} ]\n");
  }

  // The least a broker needs to come up here: an external nats-server with JetStream and
  // the auth files.
  std::vector<std::string> args_with(std::vector<std::string> extra = {}) const {
    std::vector<std::string> args{broker_binary(), "--nats-url", nats_.url(), "--nats-server-managed",
                                  "false", "--auth-signing-key", dir_.file("seed"), "--auth-file",
                                  dir_.file("auth.conf"), "--amqp-enabled", "false", "--update-binary", "false"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }

  TempDir dir_;
  NatsServer nats_;
};

TEST(BrokerCommandLine, HelpAndErrorsExitBeforeStarting) {
  const std::string bin = broker_binary();
  const struct {
    std::vector<std::string> args;
    int code;
    std::string err;  // how standard error begins
  } cases[] = {
      {{"--help"}, 0, "Usage: " + bin + " --nats-url <url>"},
      {{"--nats-url", "u", "--bogus"}, 1, bin + ": unrecognized option '--bogus'\nUsage: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0]);
    std::vector<std::string> argv{bin};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    Child broker(argv);
    EXPECT_EQ(broker.wait(30s), c.code);
    EXPECT_EQ(broker.out(), "");
    EXPECT_TRUE(broker.err().starts_with(c.err)) << broker.err();
  }
}

// Process signals are taken by the main thread alone, with sigwaitinfo: every other
// thread, the NATS library's included, has them blocked, so that no handler can run on
// one of them while the teardown frees what it uses.
void expect_only_the_main_thread_takes_signals(pid_t pid) {
  uint64_t wanted = 0;
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) wanted |= uint64_t{1} << (sig - 1);
  int threads = 0;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    if (task.path().filename() == std::to_string(pid)) continue;
    const std::string status = read_file(task.path().string() + "/status");
    const size_t at = status.find("SigBlk:");
    if (at == std::string::npos) continue;  // a short-lived thread ended since the listing
    EXPECT_EQ(std::stoull(status.substr(at + 7), nullptr, 16) & wanted, wanted) << task.path();
    ++threads;
  }
  EXPECT_GE(threads, 3);  // the library's threads are there too
}

TEST_F(BrokerMain, OneLifetimeFromReadyToAnOrderlyStop) {
  const std::string pid_file = dir_.file("broker.pid");
  const NotifySocket notify(dir_.file("notify.sock"));
  Child broker(args_with({"--pid-file", pid_file, "--tracelevel", "5"}),
                       {"NOTIFY_SOCKET=" + dir_.file("notify.sock")});
  EXPECT_EQ(notify.receive(), "READY=1");
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 30s)) << broker.err();
  const std::string pid = std::to_string(broker.pid());
  EXPECT_EQ(read_file(pid_file), pid + "\n");
  for (const std::string& line : std::vector<std::string>
       {"qm-av-broker starting (pid=" + pid + ")", "pid file: " + pid_file,
        "config: nats_url=" + nats_.url() + " nats_server_managed=no auth_callout=yes amqp=no http=no",
        "auth-watcher: watching " + dir_.file("auth.conf") + " for external changes (poll interval 5s)",
        "nats-server: external (--nats-server-managed=false); probing readiness",
        "KV bootstrap: created bucket 'qm-av-scan-data'", "Connecting NATS relay (gateway leg) to " + nats_.url(),
        "nats_relay: connected to " + nats_.url() + " (JetStream+KV ready)", "NATS relay connected"}) {
    EXPECT_LOGGED(broker.err(), line);
  }
  expect_only_the_main_thread_takes_signals(broker.pid());

  const std::string reload = "SIGHUP: reloading credential store + forwarding to nats-server";
  const auto reloads = [&] { return LogCapture::count_in(broker.err(), reload); };
  for (int i = 0; i < 3; ++i) broker.signal(SIGHUP);
  ASSERT_TRUE(wait_until([&] { return reloads() >= 1; }, 30s));
  // A replaced credentials file is reloaded without operator action.
  const size_t by_hand = reloads();
  write_file(dir_.file("auth.new"), "user: \"bob\"\npassword: \"builder\"\n");
  ASSERT_EQ(rename(dir_.file("auth.new").c_str(), dir_.file("auth.conf").c_str()), 0);
  ASSERT_TRUE(broker.wait_for_err("triggering reload via SIGHUP", 30s)) << broker.err();
  EXPECT_TRUE(wait_until([&] { return reloads() > by_hand; }, 30s));
  EXPECT_TRUE(broker.running());

  // A second SIGTERM during the shutdown does not abort it.
  broker.signal(SIGTERM);
  broker.signal(SIGTERM);
  EXPECT_EQ(notify.receive(), "STOPPING=1");
  EXPECT_EQ(broker.wait(30s), 0) << broker.err();
  EXPECT_FALSE(fs::exists(pid_file));
  EXPECT_FALSE(fs::exists(pid_file + ".tmp." + pid));
  EXPECT_TRUE(process_running(nats_.pid()));  // an external server is left alone
  // The reverse of the start-up: the update thread, then the auth-callout thread, then the
  // relay that was connected before it.
  const std::string log = broker.err();
  size_t at = 0;
  for (const char* line : {"qm-av-broker shutting down", "Joining update polling thread",
                           "Stopping auth-callout thread", "Tearing down NATS relay", "qm-av-broker stopped (rc=0)"}) {
    at = log.find(line, at);
    ASSERT_NE(at, std::string::npos) << line << "\n" << log;
  }
}

// Three brokers side by side: a pid file or notify socket that cannot be used costs a
// warning, never the run; with --trace-to-screen 0 the broker is silent, and a log file
// gets the lines (with the screen copy kept, since the daemon never sets quiet).
TEST_F(BrokerMain, PidFileNotifySocketAndScreenSettingsCostNoRun) {
  // 4090 characters: the temporary name with its ".tmp.<pid>" suffix no longer fits 4096 bytes.
  std::string overlong = dir_.path().string() + "/";
  overlong += std::string(4090 - overlong.size(), 'p');
  const std::string unwritable = dir_.file("no-such-dir/broker.pid");
  const std::string silent_pid_file = dir_.file("silent.pid");
  const std::string log_file = dir_.file("broker.log");
  Child warned(args_with({"--pid-file", unwritable}), {"NOTIFY_SOCKET=" + dir_.file("nobody")});
  Child silent(args_with({"--trace-to-screen", "0", "--pid-file", silent_pid_file}));
  Child logging(args_with({"--trace-to-screen", "0", "--tracefile", log_file, "--tracelevel", "6",
                                   "--pid-file", overlong}),
                        {}, {"NOTIFY_SOCKET"});
  ASSERT_TRUE(warned.wait_for_err("qm-av-broker ready", 60s)) << warned.err();
  ASSERT_TRUE(wait_until(
      [&] { return read_file(log_file).find("qm-av-broker ready") != std::string::npos; }, 60s));
  // The silent one says nothing: its pid file shows that its signal handlers are in place.
  ASSERT_TRUE(wait_until([&] { return !read_file(silent_pid_file).empty(); }, 60s));
  warned.signal(SIGINT);
  silent.signal(SIGTERM);
  logging.signal(SIGTERM);
  EXPECT_EQ(warned.wait(30s), 0);
  EXPECT_EQ(silent.wait(30s), 0);
  EXPECT_EQ(logging.wait(30s), 0);

  EXPECT_LOGGED(warned.err(), "--pid-file: cannot open " + unwritable + ".tmp.");
  EXPECT_LOGGED(warned.err(), "sd_notify(READY=1) failed (running without systemd?)");
  EXPECT_LOGGED(warned.err(), "qm-av-broker stopped (rc=0)");
  EXPECT_EQ(silent.err(), "");
  EXPECT_FALSE(fs::exists(silent_pid_file));
  EXPECT_LOGGED(logging.err(), "qm-av-broker ready");
  const std::string log = read_file(log_file);
  EXPECT_LOGGED(log, "--pid-file path too long, skipping write: " + overlong);
  EXPECT_NOT_LOGGED(log, "sd_notify(READY=1) failed");
  EXPECT_LOGGED(log, "qm-av-broker stopped (rc=0)");
  EXPECT_NE(log.find("(main.cpp:"), std::string::npos);  // trace threshold: file lines carry the source
}

}  // namespace
