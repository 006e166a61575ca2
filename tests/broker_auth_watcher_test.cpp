// The credentials-file watcher against real file changes, with a real thread taking its SIGHUPs.
#include "broker_auth_watcher.hpp"

#include "test_prelude.hpp"

namespace {

using watcher_ptr = qm::c_ptr<broker_auth_watcher_t, broker_auth_watcher_destroy>;

// Takes a SIGHUP pending for this thread (blocked by BrokerSignalState), without waiting.
bool took_sighup() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGHUP);
  const timespec now{0, 0};
  return sigtimedwait(&set, nullptr, &now) == SIGHUP;
}

// One watcher polling every 50 ms through a series of changes. "Nothing fired" is shown
// over two further polls of the watcher itself, never over a wall-clock pause.
TEST(AuthWatcher, EachChangeTriggersOneSighupAndAMissingFileNone) {
  TempDir dir;
  const std::string path = dir.file("auth.conf");
  write_file(path, "users = []\n");
  const BrokerSignalState sighup_blocked;
  LogCapture log(QMLOG_INFO);
  const std::string reload = "\u2014 triggering reload via SIGHUP";
  watcher_ptr w(broker_auth_watcher_create(path.c_str(), 1, pthread_self()));
  broker_auth_watcher_set_interval_ms(w.get(), 50);
  ASSERT_EQ(broker_auth_watcher_start(w.get()), 0);
  auto two_more_polls = [&] {
    const unsigned from = broker_auth_watcher_polls(w.get());
    return wait_until([&] { return broker_auth_watcher_polls(w.get()) >= from + 2; }, 20s);
  };

  write_file(dir.file("auth.conf.new"), "users = [ {user: \"bob\", password: \"x\"} ]\n");
  ASSERT_EQ(rename(dir.file("auth.conf.new").c_str(), path.c_str()), 0);
  ASSERT_TRUE(wait_until(took_sighup, 20s));
  ASSERT_TRUE(two_more_polls());
  EXPECT_EQ(log.count(reload), 1u) << "the same file signalled again";
  EXPECT_FALSE(took_sighup());

  // Only the modification time changes.
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  const timespec times[2] = {st.st_atim, {st.st_mtim.tv_sec + 10, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  ASSERT_TRUE(wait_until(took_sighup, 20s));

  // A missing file (a replace in progress) warns on every poll and keeps the baseline;
  // its return is one more change.
  ASSERT_EQ(remove(path.c_str()), 0);
  ASSERT_TRUE(two_more_polls());
  EXPECT_EQ(log.count(reload), 2u);
  EXPECT_FALSE(took_sighup());
  EXPECT_GE(log.count("auth-watcher: stat(" + path + ") failed: No such file or directory \u2014 skipping this cycle"),
            2u);
  write_file(path, "users = [ {user: \"carol\", password: \"y\"} ]\n");
  ASSERT_TRUE(wait_until(took_sighup, 20s));
  ASSERT_TRUE(two_more_polls());
  EXPECT_EQ(log.count(reload), 3u);
  EXPECT_FALSE(took_sighup());
  broker_auth_watcher_stop(w.get());
}

// Bad arguments are refused; a stop returns at once even in the middle of a long interval.
TEST(AuthWatcher, RefusesBadArgumentsAndStopsAtOnce) {
  TempDir dir;
  LogCapture log(QMLOG_ERROR);
  EXPECT_EQ(broker_auth_watcher_create(nullptr, 1, pthread_self()), nullptr);
  EXPECT_EQ(broker_auth_watcher_create("", 1, pthread_self()), nullptr);
  const std::string missing = dir.file("missing.conf");
  EXPECT_EQ(broker_auth_watcher_create(missing.c_str(), 1, pthread_self()), nullptr);
  EXPECT_LOGGED(log,
      "auth-watcher: initial stat(" + missing + ") failed: No such file or directory \u2014 watcher not started");

  EXPECT_EQ(broker_auth_watcher_start(nullptr), -1);
  write_file(dir.file("auth.conf"), "");
  watcher_ptr w(broker_auth_watcher_create(dir.file("auth.conf").c_str(), 3600, pthread_self()));
  ASSERT_EQ(broker_auth_watcher_start(w.get()), 0);
  EXPECT_EQ(broker_auth_watcher_start(w.get()), -1);  // already running
  auto stopped = std::async(std::launch::async, [&] { broker_auth_watcher_stop(w.get()); });
  EXPECT_EQ(stopped.wait_for(30s), std::future_status::ready);
  EXPECT_EQ(broker_auth_watcher_polls(w.get()), 0u);
  broker_auth_watcher_stop(w.get());  // twice is harmless
}

}  // namespace
