// The update polling thread in this process against the local update server, with a
// shortened minute, and the maintenance window on a controllable wall clock.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <filesystem>
#include <future>
#include <set>
#include <string>
#include <vector>

#include "broker_config.hpp"
#include "broker_update_activation.hpp"
#include "broker_update_thread.hpp"
#include "log_capture.hpp"
#include "test_support.hpp"
#include "update_server_fixture.hpp"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

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

// An installed layout with version A active and the thread's parameters pointing at it.
// The thread requires a relay but never uses one: a token stands in for it.
class UpdateThread : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(workdir + "/" + kActive + "/bin");
    fs::create_directories(tmp.file("t"));
    fs::create_directories(tmp.file("opt/config"));  // where the cluster lock lives
    qmtest::write_file(workdir + "/" + kActive + "/bin/.version.qm", kVersionA);
    fs::create_symlink(workdir + "/" + kActive, workdir + "/latest");
    if (const char* saved = getenv("TMPDIR")) saved_tmpdir = saved;
    setenv("TMPDIR", tmp.file("t").c_str(), 1);  // the extraction directory goes there
    broker_update_set_minute_ms_for_testing(kMinuteMs);
    cfg.nats_server_binary = workdir + "/latest/bin/nats-server";
    cfg.update_config.update_server = server.base_url();
    cfg.update_config.update_check_interval = 3;
    params.cfg = &cfg;
    params.relay = reinterpret_cast<gw_nats_relay*>(&relay_token);
  }
  void TearDown() override {
    EXPECT_TRUE(join_within(20s));
    saved_tmpdir ? setenv("TMPDIR", saved_tmpdir->c_str(), 1) : unsetenv("TMPDIR");
    broker_update_set_minute_ms_for_testing(0);
    broker_update_set_clock_for_testing(nullptr);
  }

  int64_t interval_ms() const { return cfg.update_config.update_check_interval * kMinuteMs; }
  // Requests the stop and waits at most `timeout` for the thread.
  bool join_within(std::chrono::milliseconds timeout) {
    auto joined = std::async(std::launch::async, [this] { broker_update_thread_join(&params); });
    return joined.wait_for(timeout) == std::future_status::ready;
  }
  size_t request_count() const { return qmtest::LogCapture::count_in(server.requests(), "/v1/update?"); }

  // Serves `version` (B unless named), whose install.sh copies bin/tool and then runs `script_tail`.
  void serve_package(const std::string& script_tail, const std::string& version = "20250301002") {
    const std::string stage = tmp.file("stage");
    fs::create_directories(stage + "/bin");
    qmtest::write_file(stage + "/bin/tool", "tool B");
    qmtest::write_file(stage + "/install.sh", "#!/bin/sh\nset -e\ncp \"$1/bin/tool\" \"$3/tool\"\n" + script_tail);
    const std::string name = "qm-av-broker_nats-bin-linux-glibc2.28.amd64_" + version + ".zip";
    qmtest::Child zip({"/bin/sh", "-c", "cd \"$0\" && zip -q -r \"$1\" install.sh bin", stage, tmp.file(name)});
    ASSERT_EQ(zip.wait(60s), 0) << zip.err();
    server.add_file(name, qmtest::read_file(tmp.file(name)));
    server.plan_package(name);
  }

  qmtest::TempDir tmp;
  const std::string workdir = tmp.file("opt") + "/qm-av-broker";
  qmtest::UpdateServer server;
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
  qmtest::LogCapture log(QMLOG_INFO);
  auto body = std::async(std::launch::async, [this] { return broker_update_thread(&params); });
  ASSERT_EQ(body.wait_for(20s), std::future_status::ready);
  EXPECT_TRUE(log.contains("broker_update: failed to derive basedir from /x/y/nats-server")) << log.text();
  EXPECT_TRUE(log.contains("broker_update: lockfile init failed; thread exiting"));

  cfg.update_config.update_binary = false;
  ASSERT_EQ(broker_update_thread_start(&params), 0);
  ASSERT_TRUE(log.wait_for("broker_update: update_binary=false, polling thread will idle", 20s));
  ASSERT_TRUE(join_within(20s));
  EXPECT_EQ(log.count("failed to derive basedir"), 1u) << log.text();
}

// The first request comes a whole interval after the start, with the active version; an
// installation that fails leaves no version directory, the cycle prunes as one with
// nothing new would, and the next attempt comes an interval later. A stop during a
// hanging install.sh ends the script and the thread; nothing is staged.
TEST_F(UpdateThread, FailedInstallationIsRetriedAnIntervalLaterAndAStopEndsAHangingOne) {
  serve_package("exit 1\n");
  for (const char* old : {"1500000000", "1500000001"}) fs::create_directories(workdir + "/" + old);
  cfg.update_config.update_max_backups = 1;
  qmtest::LogCapture log(QMLOG_ERROR);
  const int64_t started_ms = qm::monotonic_ms();
  ASSERT_EQ(broker_update_thread_start(&params), 0);
  ASSERT_TRUE(qmtest::wait_until([&] { return request_count() > 0; }, 30s));
  EXPECT_GE(qm::monotonic_ms() - started_ms, interval_ms());
  EXPECT_NE(server.requests().find(std::string("&have=") + kVersionA + "\n"), std::string::npos);
  ASSERT_TRUE(log.wait_for("broker_update: failed to install bin update", 30s, 2)) << log.text();
  EXPECT_GE(qm::monotonic_ms() - started_ms, 2 * interval_ms());
  EXPECT_TRUE(log.contains("exit status 1"));

  const std::string pid_file = tmp.file("install.pid");
  serve_package("echo $$ > '" + pid_file + "'\nexec sleep 600\n", "20250301003");
  ASSERT_TRUE(qmtest::wait_until([&] { return !qmtest::read_file(pid_file).empty(); }, 30s));
  const pid_t script = std::stoi(qmtest::read_file(pid_file));
  ASSERT_TRUE(join_within(20s));
  EXPECT_NE(kill(script, 0), 0);
  EXPECT_EQ(qmtest::dir_entries(workdir), (std::set<std::string>{kActive, "latest"}));
  EXPECT_EQ(params.status, WAITING);
  EXPECT_FALSE(params.update_deployed_to);
}

// Staged while the window is closed: the version is complete, "latest" stays, the
// thread looks again every minute without asking the server, until it is stopped.
TEST_F(UpdateThread, StagedVersionWaitsForTheMaintenanceWindow) {
  serve_package("");
  cfg.update_maintenance_window = "02:00-03:00";
  s_fake_now = today_at(12, 0);
  broker_update_set_clock_for_testing(s_fake_clock);
  qmtest::LogCapture log(QMLOG_DEBUG);
  ASSERT_EQ(broker_update_thread_start(&params), 0);
  ASSERT_TRUE(log.wait_for("\"02:00-03:00\" not open \u2014 deferring activation", 30s, 3)) << log.text();
  EXPECT_TRUE(log.contains("Released the cluster update lock (waiting for the maintenance window)"));
  EXPECT_EQ(request_count(), 1u);
  ASSERT_TRUE(join_within(20s));
  ASSERT_TRUE(params.update_deployed_to);
  EXPECT_EQ(qmtest::read_file(workdir + "/" + *params.update_deployed_to + "/bin/.version.qm"), "20250301002");
  EXPECT_EQ(qmtest::read_file(workdir + "/" + *params.update_deployed_to + "/bin/tool"), "tool B");
  EXPECT_EQ(params.status, FILES_READY);
  EXPECT_EQ(fs::read_symlink(workdir + "/latest"), workdir + "/" + kActive);
  EXPECT_FALSE(qm_update_cluster_lock_is_held());
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
  broker_update_set_clock_for_testing(s_fake_clock);
  for (const auto& [window, hour, minute, open, warns] : cases) {
    SCOPED_TRACE(std::string(window ? window : "(null)") + " at " + std::to_string(hour) + ":" + std::to_string(minute));
    s_fake_now = today_at(hour, minute);
    qmtest::LogCapture log(QMLOG_WARN);
    EXPECT_EQ(broker_update_in_maintenance_window(window), open);
    EXPECT_EQ(log.contains("is not HH:MM-HH:MM \u2014 ignoring (activating ASAP)"), warns) << log.text();
  }
  broker_update_set_clock_for_testing(nullptr);
}

}  // namespace
