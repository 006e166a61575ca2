// The credentials-file watcher against real file changes, with a real thread taking its SIGHUPs.
#include <gtest/gtest.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <thread>

#include "broker_auth_watcher.hpp"
#include "log.hpp"
#include "qm_cpp.hpp"
#include "test_support.hpp"

using namespace std::chrono_literals;

namespace {

// A thread that blocks SIGHUP and counts the ones sent to it.
class SighupCounter {
 public:
  SighupCounter() {
    thread_ = std::thread([this] {
      sigset_t set;
      sigemptyset(&set);
      sigaddset(&set, SIGHUP);
      pthread_sigmask(SIG_BLOCK, &set, nullptr);
      tid_ = pthread_self();
      ready_ = true;
      const timespec slice{0, 50'000'000};
      while (!stop_) {
        if (sigtimedwait(&set, nullptr, &slice) == SIGHUP) ++count_;
      }
    });
    qmtest::wait_until([this] { return ready_.load(); }, 5s);
  }
  ~SighupCounter() {
    stop_ = true;
    thread_.join();
  }
  pthread_t tid() const { return tid_; }
  int count() const { return count_; }

 private:
  std::thread thread_;
  pthread_t tid_{};
  std::atomic<bool> ready_{false};
  std::atomic<bool> stop_{false};
  std::atomic<int> count_{0};
};

using watcher_ptr = qm::c_ptr<broker_auth_watcher_t, broker_auth_watcher_destroy>;

class AuthWatcherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path_ = dir_.file("auth.conf");
    qmtest::write_file(path_, "users = []\n");
  }

  watcher_ptr start_watching(int interval_sec = 1) {
    watcher_ptr w(broker_auth_watcher_create(path_.c_str(), interval_sec, counter_.tid()));
    EXPECT_TRUE(w);
    if (w) {
      EXPECT_EQ(broker_auth_watcher_start(w.get()), 0);
    }
    return w;
  }

  qmtest::TempDir dir_;
  std::string path_;
  SighupCounter counter_;
};

TEST_F(AuthWatcherTest, ReplacingTheFileByRenameTriggersExactlyOneSighup) {
  auto w = start_watching();
  qmtest::write_file(dir_.file("auth.conf.new"), "users = [ {user: \"bob\", password: \"x\"} ]\n");
  ASSERT_EQ(rename(dir_.file("auth.conf.new").c_str(), path_.c_str()), 0);
  ASSERT_TRUE(qmtest::wait_until([&] { return counter_.count() >= 1; }, 5s));
  // Two more polls see the same file: no further signal.
  std::this_thread::sleep_for(2500ms);
  EXPECT_EQ(counter_.count(), 1);
}

TEST_F(AuthWatcherTest, TouchingTheFileTriggersAReload) {
  auto w = start_watching();
  struct stat st {};
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  const timespec times[2] = {st.st_atim, {st.st_mtim.tv_sec + 10, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
  EXPECT_TRUE(qmtest::wait_until([&] { return counter_.count() == 1; }, 5s));
}

TEST_F(AuthWatcherTest, AMissingFileWarnsEachPollAndItsReturnTriggersOneReload) {
  log_set_level(QMLOG_WARN);
  log_set_screentrace(1);
  ::testing::internal::CaptureStderr();
  auto w = start_watching();
  ASSERT_EQ(remove(path_.c_str()), 0);
  std::this_thread::sleep_for(2500ms);
  EXPECT_EQ(counter_.count(), 0);
  qmtest::write_file(path_, "users = [ {user: \"carol\", password: \"y\"} ]\n");
  EXPECT_TRUE(qmtest::wait_until([&] { return counter_.count() == 1; }, 5s));
  w.reset();
  const std::string log = ::testing::internal::GetCapturedStderr();
  log_set_level(QMLOG_OFF);
  const std::string warning = "auth-watcher: stat(" + path_ + ") failed: No such file or directory \u2014 "
                              "skipping this cycle";
  size_t warnings = 0;
  for (size_t at = log.find(warning); at != std::string::npos; at = log.find(warning, at + 1)) ++warnings;
  EXPECT_GE(warnings, 2u) << log;
}

TEST_F(AuthWatcherTest, StopReturnsAtOnceEvenWithALongInterval) {
  auto w = start_watching(3600);
  auto stopped = std::async(std::launch::async, [&] { broker_auth_watcher_stop(w.get()); });
  EXPECT_EQ(stopped.wait_for(5s), std::future_status::ready);
  EXPECT_EQ(counter_.count(), 0);
}

TEST_F(AuthWatcherTest, CreateAndStartRefuseBadArguments) {
  log_set_level(QMLOG_ERROR);
  log_set_screentrace(1);
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(broker_auth_watcher_create(nullptr, 1, pthread_self()), nullptr);
  EXPECT_EQ(broker_auth_watcher_create("", 1, pthread_self()), nullptr);
  const std::string missing = dir_.file("missing.conf");
  EXPECT_EQ(broker_auth_watcher_create(missing.c_str(), 1, pthread_self()), nullptr);
  const std::string log = ::testing::internal::GetCapturedStderr();
  log_set_level(QMLOG_OFF);
  EXPECT_NE(log.find("auth-watcher: initial stat(" + missing + ") failed: No such file or directory \u2014 "
                     "watcher not started"),
            std::string::npos)
      << log;

  EXPECT_EQ(broker_auth_watcher_start(nullptr), -1);
  auto w = start_watching();
  EXPECT_EQ(broker_auth_watcher_start(w.get()), -1);  // already running
  broker_auth_watcher_stop(w.get());
  broker_auth_watcher_stop(w.get());  // twice is harmless
  broker_auth_watcher_destroy(nullptr);
}

TEST_F(AuthWatcherTest, IntervalBelowOneMeansFiveSeconds) {
  log_set_level(QMLOG_INFO);
  log_set_screentrace(1);
  ::testing::internal::CaptureStderr();
  watcher_ptr w(broker_auth_watcher_create(path_.c_str(), 0, counter_.tid()));
  ASSERT_EQ(broker_auth_watcher_start(w.get()), 0);
  w.reset();
  const std::string log = ::testing::internal::GetCapturedStderr();
  log_set_level(QMLOG_OFF);
  EXPECT_NE(log.find("auth-watcher: watching " + path_ + " for external changes (poll interval 5s)"),
            std::string::npos)
      << log;
}

}  // namespace
