// The update polling thread in this process against the local update server, with a
// shortened minute, and the maintenance window on a controllable wall clock.
#include "broker_update_thread.hpp"

#include "test_prelude.hpp"

#include "broker_config.hpp"
#include "broker_update_activation.hpp"
#include "broker_update_layout.hpp"
#include "update_server_fixture.hpp"

namespace {

constexpr const char* kComponent = "qm-av-broker_nats-bin-linux-glibc2.28.amd64";
constexpr const char* kVersionA = "20250101001";
constexpr const char* kActive = "1600000000";
constexpr int64_t kMinuteMs = 100;

time_t s_fake_now = 0;
time_t s_fake_clock() { return s_fake_now; }

// Today at hh:mm, local time.
time_t today_at(int hour, int minute) {
  const time_t now = time(nullptr);
  struct tm local {};
  localtime_r(&now, &local);
  local.tm_hour = hour;
  local.tm_min = minute;
  local.tm_isdst = -1;
  return mktime(&local);
}

// Pids listed in a file, as the hanging install scripts below write them.
std::vector<pid_t> pids_in(const std::string& path) {
  std::istringstream listed(read_file(path));
  return {std::istream_iterator<pid_t>(listed), std::istream_iterator<pid_t>()};
}

bool process_gone(pid_t pid) {
  const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  const size_t state = stat.rfind(") ");
  return stat.empty() || (state != std::string::npos && stat[state + 2] == 'Z');
}

// An installed layout with version A active and the thread's parameters pointing at it;
// the base directory's name has a blank (install.sh's arguments must stay whole). The
// thread requires a relay but never uses one: a token stands in for it.
class UpdateThread : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(workdir + "/" + kActive + "/bin");
    fs::create_directories(tmp.file("t"));
    fs::create_directories(basedir + "/config");  // where the cluster lock lives
    write_file(workdir + "/" + kActive + "/bin/.version.qm", kVersionA);
    fs::create_symlink(workdir + "/" + kActive, workdir + "/latest");
    if (const char* saved = getenv("TMPDIR")) saved_tmpdir = saved;
    setenv("TMPDIR", tmp.file("t").c_str(), 1);  // the extraction directory goes there
    params.minute_ms = kMinuteMs;
    cfg.nats_server_binary = workdir + "/latest/bin/nats-server";
    cfg.update_config.update_server = server.base_url();
    cfg.update_config.update_check_interval = 3;
    params.cfg = &cfg;
    params.relay = reinterpret_cast<gw_nats_relay*>(&relay_token);
  }
  void TearDown() override {
    EXPECT_TRUE(join_within(20s));
    saved_tmpdir ? setenv("TMPDIR", saved_tmpdir->c_str(), 1) : unsetenv("TMPDIR");
  }

  int64_t interval_ms() const { return cfg.update_config.update_check_interval * kMinuteMs; }
  // Requests the stop and waits at most `timeout` for the thread (broker_update_thread_join
  // with a deadline, so that a thread that never ends fails the test instead of hanging it).
  bool join_within(std::chrono::seconds timeout) {
    if (!params.started) return true;
    broker_update_thread_request_stop(&params);
    timespec deadline{};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += timeout.count();
    if (pthread_timedjoin_np(params.thread, nullptr, &deadline) != 0) return false;
    params.started = false;
    return true;
  }
  size_t request_count() const { return LogCapture::count_in(server.requests(), "/v1/update?"); }

  // Makes at `path` a package whose install.sh copies bin/tool (mode kept) and then runs
  // `script_tail`.
  void make_package(const std::string& script_tail, const std::string& path) {
    const std::string stage = tmp.file("stage");
    fs::create_directories(stage + "/bin");
    write_file(stage + "/bin/tool", "tool B");
    fs::permissions(stage + "/bin/tool", fs::perms::owner_exec, fs::perm_options::add);
    write_file(stage + "/install.sh", "#!/bin/sh\nset -e\ncp -p \"$1/bin/tool\" \"$3/tool\"\n" + script_tail);
    Child zip({"/bin/sh", "-c", "cd \"$0\" && zip -q -r \"$1\" install.sh bin", stage, path});
    ASSERT_EQ(zip.wait(60s), 0) << zip.err();
  }
  // Serves such a package as `version`.
  void serve_package(const std::string& script_tail, const std::string& version) {
    const std::string name = std::string(kComponent) + "_" + version + ".zip";
    make_package(script_tail, tmp.file(name));
    server.add_file(name, read_file(tmp.file(name)));
    server.plan_package(name);
  }

  TempDir tmp;
  const std::string basedir = tmp.file("opt dir");
  const std::string workdir = basedir + "/qm-av-broker";
  UpdateServer server;
  broker_config cfg;
  broker_update_thread_params_t params;
  int relay_token = 0;
  qm::opt_string saved_tmpdir;
};

// The base directory is the nats-server path less four components; without one the
// thread ends at once, no STOP needed. With update_binary off it idles until stopped and
// never gets as far as the base directory.
TEST_F(UpdateThread, EndsAtOnceWithoutABaseDirectoryAndIdlesWithoutUpdateBinary) {
  const std::vector<std::pair<const char*, qm::opt_string>> basedirs = {
      {"/a/b/c/d/e/f", "/a/b"}, {"/a/b/c/d", "/"},           {"rel/a/b/c/d", "rel"},
      {"/a/b/c", std::nullopt}, {"nats-server", std::nullopt}, {nullptr, std::nullopt}};
  for (const auto& [path, expected] : basedirs) EXPECT_EQ(broker_update_basedir(path), expected) << path;
  EXPECT_EQ(broker_update_workdir("/"), "/qm-av-broker");
  cfg.nats_server_binary = "/x/y/nats-server";
  LogCapture log(QMLOG_INFO);
  ASSERT_EQ(broker_update_thread_start(&params), 0);
  ASSERT_TRUE(log.wait_for("broker_update: lockfile init failed; thread exiting", 20s)) << log.text();
  ASSERT_TRUE(join_within(20s));

  cfg.update_config.update_binary = false;
  ASSERT_EQ(broker_update_thread_start(&params), 0);
  ASSERT_TRUE(log.wait_for("broker_update: update_binary=false, polling thread will idle", 20s));
  ASSERT_TRUE(join_within(20s));
  EXPECT_EQ(log.count("broker_update: failed to derive basedir from /x/y/nats-server"), 1u) << log.text();
}

// The first request comes a whole interval after the start, with the active version; an
// installation that fails leaves no version directory, the cycle prunes as one with
// nothing new would, and the next attempt comes an interval later. An install.sh that
// ignores SIGTERM is ended with the child it started, both when it overruns its time and
// when the thread is stopping; nothing is staged.
TEST_F(UpdateThread, FailedInstallationsAreRetriedAndHangingScriptsEndWithTheirChildren) {
  serve_package("exit 1\n", "20250301002");
  for (const char* old : {"1500000000", "1500000001"}) fs::create_directories(workdir + "/" + old);
  cfg.update_config.update_max_backups = 1;
  LogCapture log(QMLOG_ERROR);
  const int64_t started_ms = qm::monotonic_ms();
  ASSERT_EQ(broker_update_thread_start(&params), 0);
  ASSERT_TRUE(wait_until([&] { return request_count() > 0; }, 30s));
  EXPECT_GE(qm::monotonic_ms() - started_ms, interval_ms());
  EXPECT_NE(server.requests().find(std::string("&have=") + kVersionA + "\n"), std::string::npos);
  ASSERT_TRUE(log.wait_for("broker_update: failed to install bin update", 30s, 2)) << log.text();
  EXPECT_GE(qm::monotonic_ms() - started_ms, 2 * interval_ms());

  const std::string pids = tmp.file("pids");
  params.install_limits.install_time_limit_ms = 1000;
  params.install_limits.install_kill_grace_ms = 300;
  serve_package("exec >/dev/null 2>&1\ntrap '' TERM\nsleep 600 &\necho $! $$ >> '" + pids + "'\nwait\n", "20250301003");
  ASSERT_TRUE(log.wait_for("ended because it ran longer than allowed", 60s)) << log.text();
  ASSERT_TRUE(wait_until([&] { return pids_in(pids).size() >= 4; }, 60s));  // the next attempt runs
  ASSERT_TRUE(join_within(30s));
  EXPECT_LOGGED(log, "ended because the update thread is stopping");
  const bool all_gone = wait_until([&] { return std::ranges::all_of(pids_in(pids), process_gone); }, 10s);
  EXPECT_TRUE(all_gone) << read_file(pids);
  for (pid_t pid : pids_in(pids)) {
    if (!all_gone && !process_gone(pid)) kill(pid, SIGKILL);  // survivors would hold the test's output open
  }
  EXPECT_EQ(dir_entries(workdir), (std::set<std::string>{kActive, "latest"}));
  EXPECT_EQ(params.status, WAITING);
  EXPECT_FALSE(params.update_deployed_to);
}

// Today's package put down by hand (not yesterday's) is staged while the window is
// closed: the version is complete, "latest" stays, the thread looks again every minute
// without asking the server, until it is stopped. Its first look comes an interval given
// in seconds after the start. The install script starts with its three arguments and with
// the signal state of no thread of the broker (which blocks its process signals
// everywhere and ignores SIGPIPE).
TEST_F(UpdateThread, ManualPackageIsStagedAndWaitsForTheMaintenanceWindow) {
  const std::string today = manual_package_name(kComponent);
  make_package(
      "printf '%s\\n' \"$@\" > \"$3/args\"\nwhile read -r key value; do\n  case $key in SigBlk:|SigIgn:) echo "
      "\"$key$value\";; esac\ndone < /proc/$$/status > \"$3/signals\"\n",
      workdir + "/" + today);
  write_file(workdir + "/" + manual_package_name(kComponent, -1), "not a package");
  cfg.update_maintenance_window = "02:00-03:00";
  s_fake_now = today_at(12, 0);
  params.clock = s_fake_clock;
  cfg.update_config.update_check_interval_seconds = 1;
  const std::string cwd = fs::current_path();
  LogCapture log(QMLOG_DEBUG);
  {
    const BrokerSignalState as_in_the_broker;
    const int64_t started_ms = qm::monotonic_ms();
    ASSERT_EQ(broker_update_thread_start(&params), 0);
    ASSERT_TRUE(log.wait_for("\"02:00-03:00\" not open \u2014 deferring activation", 30s, 3)) << log.text();
    EXPECT_GE(qm::monotonic_ms() - started_ms, 1000);
    EXPECT_LOGGED(log, "broker_update: using manually-staged update package");
    EXPECT_LOGGED(log, "Released the cluster update lock (waiting for the maintenance window)");
    EXPECT_EQ(request_count(), 1u);
    ASSERT_TRUE(join_within(20s));
  }
  if (manual_package_name(kComponent) != today) GTEST_SKIP() << "the date changed during the test";
  ASSERT_TRUE(params.update_deployed_to);
  EXPECT_EQ(params.status, FILES_READY);
  const std::string content = workdir + "/" + *params.update_deployed_to + "/bin";
  EXPECT_EQ(std::string(kComponent) + "_" + read_file(content + "/.version.qm") + "_manual.zip", today);
  EXPECT_EQ(read_file(content + "/tool"), "tool B");
  EXPECT_EQ(fs::status(content + "/tool").permissions() & fs::perms::owner_exec, fs::perms::owner_exec);
  EXPECT_EQ(read_file(content + "/args"),
            tmp.file("t/quillmere_update_broker") + "\n" + basedir + "\n" + content + "\n");
  const std::string seen = read_file(content + "/signals");
  ASSERT_EQ(seen.rfind("SigBlk:0000000000000000\nSigIgn:", 0), 0u) << seen;
  EXPECT_EQ(std::stoull(seen.substr(seen.rfind(':') + 1), nullptr, 16) & (1u << (SIGPIPE - 1)), 0u) << seen;
  EXPECT_EQ(fs::current_path(), cwd);
  const std::string yesterday = manual_package_name(kComponent, -1);
  EXPECT_EQ(dir_entries(workdir), (std::set<std::string>{kActive, *params.update_deployed_to, "latest", yesterday}));
  EXPECT_EQ(fs::read_symlink(workdir + "/latest"), workdir + "/" + kActive);
}

// A stop while the update server stalls mid-download ends the thread in seconds, far below
// the transfer's 60 s low-speed limit, and leaves no partial download. Without an update
// key the thread says once that packages are verified by MD5 alone.
TEST_F(UpdateThread, StopDuringAStalledDownloadLeavesNothingBehind) {
  server.add_file("pkg", std::string(100000, 'p'));
  server.plan(R"({"/v1/update": {"body": "pkg", "stall": true}})");
  LogCapture log(QMLOG_INFO);
  ASSERT_EQ(broker_update_thread_start(&params), 0);
  ASSERT_TRUE(wait_until([&] { return fs::exists(workdir + "/temp.dwnld"); }, 30s));
  ASSERT_TRUE(join_within(10s));
  EXPECT_FALSE(fs::exists(workdir + "/temp.dwnld"));
  EXPECT_EQ(log.count("packages are verified by MD5 alone"), 1u);
}

// ---- activation ------------------------------------------------------------------------

TEST(MaintenanceWindow, OpenAtTheRightMinutesAndWhenMissingOrMalformed) {
  constexpr bool kWarns = true;
  const std::vector<std::tuple<const char*, int, int, bool, bool>> cases = {
      {"22:00-04:00", 23, 30, true, false}, {"22:00-04:00", 3, 59, true, false}, {"22:00-04:00", 4, 1, false, false},
      {"22:00-04:00", 12, 0, false, false}, {"22:00-04:00", 22, 0, true, false}, {"8:5-9:0", 8, 5, true, false},
      {"8:5-9:0", 9, 0, true, false},       {"8:5-9:0", 8, 4, false, false},     {"8:5-9:0", 9, 1, false, false},
      {"02:00-02:00", 2, 0, true, false},   {"02:00-02:00", 2, 1, false, false}, {"", 12, 0, true, false},
      {nullptr, 12, 0, true, false},        {"25:00-26:00", 12, 0, true, kWarns}, {"nightly", 12, 0, true, kWarns},
      {"12:60-13:00", 3, 0, true, kWarns},  {"12:00", 3, 0, true, kWarns},
  };
  for (const auto& [window, hour, minute, open, warns] : cases) {
    SCOPED_TRACE(std::string(window ? window : "(null)") + " at " + std::to_string(hour) + ":" +
                 std::to_string(minute));
    LogCapture log(QMLOG_WARN);
    EXPECT_EQ(broker_update_in_maintenance_window(window, today_at(hour, minute)), open);
    EXPECT_EQ(log.contains("is not HH:MM-HH:MM \u2014 ignoring (activating ASAP)"), warns) << log.text();
  }
}

}  // namespace
