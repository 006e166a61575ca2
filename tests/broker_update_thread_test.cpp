// The update polling thread and activation in this process, against the local update
// server, with a shortened minute and a controllable wall clock.
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
#include "qm_update_common.hpp"
#include "test_support.hpp"
#include "update_server_fixture.hpp"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

constexpr const char* kComponent = "qm-av-broker_nats-bin-linux-glibc2.28.amd64";
constexpr const char* kVersionA = "20250101001";
constexpr const char* kVersionB = "20250301002";
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
  local.tm_sec = 30;
  local.tm_isdst = -1;
  return mktime(&local);
}

// An installed layout with version A active, and the thread's parameters pointing at it.
// The thread requires a relay but never uses one: a token stands in for it.
class UpdateThread : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(workdir + "/" + kActive + "/bin");
    fs::create_directories(base + "/config");
    fs::create_directories(tmp.file("t"));
    qmtest::write_file(workdir + "/" + kActive + "/bin/.version.qm", kVersionA);
    fs::create_symlink(workdir + "/" + kActive, workdir + "/latest");
    if (const char* saved = getenv("TMPDIR")) saved_tmpdir = saved;
    setenv("TMPDIR", tmp.file("t").c_str(), 1);  // the extraction directory goes there
    broker_update_set_minute_ms_for_testing(kMinuteMs);
    cfg.nats_server_binary = workdir + "/latest/bin/nats-server";
    cfg.update_config.update_server = server.base_url();
    cfg.update_config.update_check_interval = 3;
    cfg.update_drain_timeout_seconds = 0;
    server.plan(R"({"/v1/update": {"status": 304}})");
    params.cfg = &cfg;
    params.relay = reinterpret_cast<gw_nats_relay*>(&relay_token);
    params.targetstatus = READY;
  }
  void TearDown() override {
    EXPECT_TRUE(join_within(20s));
    if (saved_tmpdir) {
      setenv("TMPDIR", saved_tmpdir->c_str(), 1);
    } else {
      unsetenv("TMPDIR");
    }
    broker_update_set_minute_ms_for_testing(0);
    broker_update_set_clock_for_testing(nullptr);
  }

  int64_t interval_ms() const { return cfg.update_config.update_check_interval * kMinuteMs; }
  void start() { ASSERT_EQ(broker_update_thread_start(&params), 0); }
  // Requests the stop and waits at most `timeout` for the thread.
  bool join_within(std::chrono::milliseconds timeout) {
    auto joined = std::async(std::launch::async, [this] { broker_update_thread_join(&params); });
    return joined.wait_for(timeout) == std::future_status::ready;
  }
  size_t request_count() const { return qmtest::LogCapture::count_in(server.requests(), "/v1/update?"); }

  // Serves a package B whose install.sh runs `script_body` (after copying bin/tool into
  // its content directory); redirected to its file, as the real server names it.
  void serve_package(const std::string& script_body = "") {
    const std::string stage = tmp.file("stage");
    fs::create_directories(stage + "/bin");
    qmtest::write_file(stage + "/bin/tool", "tool B");
    qmtest::write_file(stage + "/install.sh", "#!/bin/sh\nset -e\ncp \"$1/bin/tool\" \"$3/tool\"\n" + script_body);
    const std::string name = std::string(kComponent) + "_" + kVersionB + ".zip";
    const std::string zip = tmp.file(name);
    qmtest::Child zipper({"/bin/sh", "-c", "cd \"$0\" && zip -q -r \"$1\" install.sh bin", stage, zip});
    ASSERT_EQ(zipper.wait(60s), 0) << zipper.err();
    server.add_file(name, qmtest::read_file(zip));
    server.plan_package(name);
  }

  qmtest::TempDir tmp;
  const std::string base = tmp.file("opt");
  const std::string workdir = base + "/qm-av-broker";
  qmtest::UpdateServer server;
  broker_config cfg;
  broker_update_thread_params_t params;
  int relay_token = 0;
  qm::opt_string saved_tmpdir;
};

TEST_F(UpdateThread, EndsAtOnceWhenItCannotStart) {
  struct Case {
    const char* what;
    bool relay;
    const char* nats_server_binary;
    const char* expected_log;
  };
  const std::vector<Case> cases = {
      {"no relay", false, "/opt/qm-av/qm-av-broker/latest/bin/nats-server",
       "broker_update: missing required params; thread will not start"},
      {"no nats-server binary", true, nullptr, "broker_update: nats-server-binary unset"},
      {"three slashes", true, "/x/y/nats-server", "broker_update: failed to derive basedir from /x/y/nats-server"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    broker_update_thread_params_t p;
    p.cfg = &cfg;
    p.relay = c.relay ? params.relay : nullptr;
    p.targetstatus = READY;
    cfg.nats_server_binary = qm::from_cstr(c.nats_server_binary);
    qmtest::LogCapture log(QMLOG_ERROR);
    auto body = std::async(std::launch::async, [&] { return broker_update_thread(&p); });
    ASSERT_EQ(body.wait_for(20s), std::future_status::ready);  // no STOP needed
    EXPECT_TRUE(log.contains(c.expected_log)) << log.text();
  }
  EXPECT_EQ(request_count(), 0u);
}

TEST_F(UpdateThread, BaseDirectoryIsTheBinaryPathLessFourComponents) {
  const std::vector<std::pair<const char*, qm::opt_string>> cases = {
      {"/opt/qm-av/qm-av-broker/latest/bin/nats-server", "/opt/qm-av"},
      {"/a/b/c/d/e/f", "/a/b"},
      {"/a/b/c/d", "/"},
      {"rel/a/b/c/d", "rel"},
      {"/a/b/c", std::nullopt},
      {"nats-server", std::nullopt},
      {nullptr, std::nullopt},
  };
  for (const auto& [path, expected] : cases) EXPECT_EQ(broker_update_basedir(path), expected) << path;
  EXPECT_EQ(broker_update_workdir("/"), "/qm-av-broker");
  EXPECT_EQ(broker_update_workdir("/opt/qm-av"), "/opt/qm-av/qm-av-broker");
}

TEST_F(UpdateThread, WithoutUpdateBinaryItIdlesAndStillEndsOnStop) {
  cfg.update_config.update_binary = false;
  qmtest::LogCapture log(QMLOG_INFO);
  start();
  ASSERT_TRUE(log.wait_for("broker_update: update_binary=false, polling thread will idle", 20s));
  EXPECT_FALSE(qmtest::wait_until([&] { return request_count() > 0; }, std::chrono::milliseconds(5 * interval_ms())));
  EXPECT_TRUE(join_within(5s));
}

// Nothing new: the first request comes a whole interval after the start and asks with the
// active version; the cycle then prunes the old version directories.
TEST_F(UpdateThread, FirstCycleComesOneIntervalAfterStartAndPrunes) {
  for (const char* old : {"1500000000", "1500000001"}) fs::create_directories(workdir + "/" + old);
  cfg.update_config.update_max_backups = 1;
  const int64_t started_ms = qm::monotonic_ms();
  start();
  ASSERT_TRUE(qmtest::wait_until([&] { return request_count() > 0; }, 30s));
  EXPECT_GE(qm::monotonic_ms() - started_ms, interval_ms());
  EXPECT_EQ(server.requests().substr(0, server.requests().find('\n')),
            std::string("/v1/update?component=") + kComponent + "&version=latest&ssl=1&have=" + kVersionA);
  EXPECT_TRUE(qmtest::wait_until([&] { return qmtest::dir_entries(workdir) == std::set<std::string>{kActive, "latest"}; }, 30s));
  EXPECT_EQ(params.status, WAITING);
}

TEST_F(UpdateThread, HostLockHeldElsewhereDefersTheCycle) {
  qm::c_ptr<qm_update_lockfile_t, qm_update_lockfile_destroy> held(
      qm_update_lockfile_new((base + "/.update.lock").c_str()));
  ASSERT_EQ(lock_check_create(held.get()), 1);  // another open file: flock excludes it too
  qmtest::LogCapture log(QMLOG_DEBUG);
  start();
  ASSERT_TRUE(log.wait_for("broker_update: another component holds the host update lock; deferring", 30s, 2));
  EXPECT_EQ(request_count(), 0u);
  lock_release(held.get());
  EXPECT_TRUE(qmtest::wait_until([&] { return request_count() > 0; }, 30s));
}

// The package is installed, then every cycle fails at install.sh: no version directory
// is left behind, and the next cycle comes an interval later.
TEST_F(UpdateThread, AFailedInstallationLeavesNoVersionDirectoryAndRetriesAnIntervalLater) {
  serve_package("exit 1\n");
  qmtest::LogCapture log(QMLOG_ERROR);
  const int64_t started_ms = qm::monotonic_ms();
  start();
  ASSERT_TRUE(log.wait_for("broker_update: failed to install bin update", 30s, 2)) << log.text();
  EXPECT_GE(qm::monotonic_ms() - started_ms, 2 * interval_ms());
  EXPECT_TRUE(log.contains("exit status 1"));
  ASSERT_TRUE(join_within(20s));
  EXPECT_EQ(qmtest::dir_entries(workdir), (std::set<std::string>{kActive, "latest"}));
  EXPECT_EQ(params.status, WAITING);
  EXPECT_FALSE(params.update_deployed_to);
}

// Staged while the window is closed: the new version is complete, "latest" stays, and the
// thread asks again every minute until it is stopped.
TEST_F(UpdateThread, StagesAVersionAndWaitsForTheMaintenanceWindow) {
  serve_package();
  cfg.update_maintenance_window = "02:00-03:00";
  s_fake_now = today_at(12, 0);
  broker_update_set_clock_for_testing(s_fake_clock);
  qmtest::LogCapture log(QMLOG_DEBUG);
  start();
  ASSERT_TRUE(log.wait_for("not open \u2014 deferring activation", 30s, 2)) << log.text();
  EXPECT_TRUE(log.contains("Released the cluster update lock (waiting for the maintenance window)"));
  ASSERT_TRUE(params.update_deployed_to);
  const std::string staged = workdir + "/" + *params.update_deployed_to;
  EXPECT_EQ(qmtest::read_file(staged + "/bin/.version.qm"), kVersionB);
  EXPECT_EQ(qmtest::read_file(staged + "/bin/tool"), "tool B");
  EXPECT_EQ(params.status, FILES_READY);
  EXPECT_EQ(fs::read_symlink(workdir + "/latest"), workdir + "/" + kActive);
  EXPECT_EQ(request_count(), 1u);
  ASSERT_TRUE(join_within(20s));
  EXPECT_FALSE(qm_update_cluster_lock_is_held());
  EXPECT_TRUE(log.contains("broker_update: STOP requested, thread exiting"));
}

// A stop during a hanging install.sh ends the script and the thread; nothing is staged.
TEST_F(UpdateThread, StopEndsAHangingInstallScript) {
  const std::string pid_file = tmp.file("install.pid");
  serve_package("echo $$ > '" + pid_file + "'\nexec sleep 600\n");
  start();
  ASSERT_TRUE(qmtest::wait_until([&] { return !qmtest::read_file(pid_file).empty(); }, 30s));
  const pid_t script = std::stoi(qmtest::read_file(pid_file));
  ASSERT_TRUE(join_within(20s));
  EXPECT_NE(kill(script, 0), 0);
  EXPECT_EQ(qmtest::dir_entries(workdir), (std::set<std::string>{kActive, "latest"}));
  EXPECT_FALSE(params.update_deployed_to);
}

// ---- activation ------------------------------------------------------------------------

TEST(MaintenanceWindow, OpenAtTheRightMinutes) {
  struct Case {
    const char* window;
    int hour;
    int minute;
    bool open;
  };
  const std::vector<Case> cases = {
      {"22:00-04:00", 23, 30, true}, {"22:00-04:00", 3, 59, true},  {"22:00-04:00", 4, 1, false},
      {"22:00-04:00", 12, 0, false}, {"22:00-04:00", 22, 0, true},  {"8:5-9:0", 8, 5, true},
      {"8:5-9:0", 9, 0, true},       {"8:5-9:0", 8, 4, false},      {"8:5-9:0", 9, 1, false},
      {"02:00-02:00", 2, 0, true},   {"02:00-02:00", 2, 1, false},  {"00:00-23:59", 23, 59, true},
  };
  broker_update_set_clock_for_testing(s_fake_clock);
  for (const auto& c : cases) {
    s_fake_now = today_at(c.hour, c.minute);
    EXPECT_EQ(broker_update_in_maintenance_window(c.window), c.open) << c.window << " at " << c.hour << ":" << c.minute;
  }
  broker_update_set_clock_for_testing(nullptr);
}

TEST(MaintenanceWindow, MissingOrMalformedWindowsAreOpen) {
  const std::vector<std::pair<const char*, bool>> cases = {
      {nullptr, false},       {"", false},         {"25:00-26:00", true}, {"nightly", true},
      {"12:60-13:00", true},  {"12:00", true},     {"-1:00-02:00", true},
  };
  for (const auto& [window, warns] : cases) {
    SCOPED_TRACE(window ? window : "(null)");
    qmtest::LogCapture log(QMLOG_WARN);
    EXPECT_TRUE(broker_update_in_maintenance_window(window));
    EXPECT_EQ(log.contains("is not HH:MM-HH:MM \u2014 ignoring (activating ASAP)"), warns) << log.text();
  }
}

class Activation : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(workdir + "/" + kActive);
    fs::create_directories(workdir + "/1700000000/bin");
    fs::create_symlink(workdir + "/" + kActive, workdir + "/latest");
    qmtest::write_file(pid_file, "1\n");
    cfg.nats_server_binary = workdir + "/latest/bin/nats-server";
    cfg.update_drain_timeout_seconds = 0;
    cfg.pid_file = pid_file;
    params.update_deployed_to = "1700000000";
    broker_update_set_minute_ms_for_testing(kMinuteMs);
  }
  void TearDown() override {
    broker_update_set_minute_ms_for_testing(0);
    broker_update_set_clock_for_testing(nullptr);
  }

  qmtest::TempDir tmp;
  const std::string workdir = tmp.file("opt") + "/qm-av-broker";
  const std::string pid_file = tmp.file("broker.pid");
  broker_config cfg;
  broker_update_thread_params_t params;
  broker_update_activation_handles_t handles{&cfg, nullptr, nullptr, nullptr};
};

TEST_F(Activation, RefusesWithoutArgumentsOrAStagedVersion) {
  qmtest::LogCapture log(QMLOG_ERROR);
  EXPECT_EQ(broker_update_activate(nullptr, &handles), -1);
  EXPECT_EQ(broker_update_activate(&params, nullptr), -1);
  broker_update_activation_handles_t no_cfg{};
  EXPECT_EQ(broker_update_activate(&params, &no_cfg), -1);
  EXPECT_EQ(log.count("broker_update: activate called with NULL args \u2014 aborting"), 3u);
  params.update_deployed_to.reset();
  EXPECT_EQ(broker_update_activate(&params, &handles), -1);
  EXPECT_TRUE(log.contains("broker_update: activate called but no update_deployed_to set \u2014 aborting"));
}

TEST_F(Activation, AClosedWindowDefersAMinuteAndChangesNothing) {
  cfg.update_maintenance_window = "02:00-03:00";
  s_fake_now = today_at(4, 1);
  broker_update_set_clock_for_testing(s_fake_clock);
  qmtest::LogCapture log(QMLOG_INFO);
  const int64_t started_ms = qm::monotonic_ms();
  EXPECT_EQ(broker_update_activate(&params, &handles), 0);
  EXPECT_GE(qm::monotonic_ms() - started_ms, kMinuteMs);
  EXPECT_TRUE(log.contains("broker_update: maintenance window \"02:00-03:00\" not open \u2014 deferring activation"));
  EXPECT_FALSE(log.contains("starting activation"));
  EXPECT_EQ(fs::read_symlink(workdir + "/latest"), workdir + "/" + kActive);
  EXPECT_TRUE(fs::exists(pid_file));
}

// Activation ends the process with status 0, whether or not "latest" could be switched.
// The death test forks: the child works on this fixture's directories.
TEST_F(Activation, ExitsWithStatusZeroAfterFlippingLatest) {
  cfg.update_maintenance_window = "nightly";  // malformed: activates at once
  EXPECT_EXIT(
      {
        log_set_level(QMLOG_INFO);
        log_set_screentrace(1);
        broker_update_activate(&params, &handles);
      },
      ::testing::ExitedWithCode(0), "front doors closed \u2014 draining in-flight for up to 0s.*flipping " +
                                        workdir + "/latest \u2192 " + workdir +
                                        "/1700000000.*activation complete \u2014 exiting for systemd respawn");
  EXPECT_EQ(fs::read_symlink(workdir + "/latest"), workdir + "/1700000000");
  EXPECT_FALSE(fs::exists(pid_file));

  cfg.nats_server_binary = "/x/nats-server";
  EXPECT_EXIT(
      {
        log_set_level(QMLOG_INFO);
        log_set_screentrace(1);
        broker_update_activate(&params, &handles);
      },
      ::testing::ExitedWithCode(0), "cannot derive basedir for symlink flip.*activation complete");
}

}  // namespace
