#include "broker_auth_watcher.hpp"

#include <signal.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>

#include "log.hpp"
#include "qmerror.hpp"

namespace {

struct file_signature_t {
  long long ino = 0;
  long long size = 0;
  long long mtime = 0;  // whole seconds

  bool operator==(const file_signature_t&) const = default;
};

bool s_take_signature(const std::string& path, file_signature_t& sig) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return false;
  sig = {static_cast<long long>(st.st_ino), static_cast<long long>(st.st_size),
         static_cast<long long>(st.st_mtim.tv_sec)};
  return true;
}

}  // namespace

struct broker_auth_watcher {
  std::string path;
  int interval_sec = 5;
  int interval_ms = 5000;
  pthread_t target_tid{};
  file_signature_t baseline;
  std::thread thread;
  std::mutex mutex;
  std::condition_variable wake;
  bool stop = false;
  bool running = false;
  std::atomic<unsigned> polls{0};

  // Waits one interval; false when a stop was requested meanwhile.
  bool wait_interval() {
    std::unique_lock lock(mutex);
    return !wake.wait_for(lock, std::chrono::milliseconds(interval_ms), [this] { return stop; });
  }

  void check_once() {
    file_signature_t now;
    if (!s_take_signature(path, now)) {
      // Often a replace in progress: keep the old baseline and look again next time.
      log_warn("auth-watcher: stat(%s) failed: %m \u2014 skipping this cycle", path.c_str());
      return;
    }
    if (now == baseline) return;
    log_info("auth-watcher: %s changed externally (ino %lld\u2192%lld, size %lld\u2192%lld, mtime "
             "%lld\u2192%lld) \u2014 triggering reload via SIGHUP",
             path.c_str(), baseline.ino, now.ino, baseline.size, now.size, baseline.mtime, now.mtime);
    // The baseline moves on even if the signal fails: only a further change retries.
    baseline = now;
    const int rc = pthread_kill(target_tid, SIGHUP);
    if (rc != 0)
      log_error("auth-watcher: pthread_kill(SIGHUP) failed: %s \u2014 reload skipped, will retry on next change",
                QMstrerror(rc));
  }

  void poll_loop() {
    log_debug("auth-watcher: polling %s every %ds", path.c_str(), interval_sec);
    while (wait_interval()) {
      check_once();
      ++polls;
    }
    log_debug("auth-watcher: stopping");
  }
};

broker_auth_watcher_t* broker_auth_watcher_create(const char* path, int interval_sec, pthread_t target_tid) {
  if (path == nullptr || path[0] == '\0') return nullptr;
  try {
    auto w = std::make_unique<broker_auth_watcher>();
    w->path = path;
    w->interval_sec = interval_sec < 1 ? 5 : interval_sec;
    w->interval_ms = w->interval_sec * 1000;
    w->target_tid = target_tid;
    if (!s_take_signature(w->path, w->baseline)) {
      log_error("auth-watcher: initial stat(%s) failed: %m \u2014 watcher not started", path);
      return nullptr;
    }
    return w.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

int broker_auth_watcher_start(broker_auth_watcher_t* w) {
  if (w == nullptr || w->running) return -1;
  w->stop = false;
  try {
    w->thread = std::thread([w] { w->poll_loop(); });
  } catch (const std::system_error& e) {
    errno = e.code().value();
    log_error("auth-watcher: pthread_create failed: %m");
    return -1;
  }
  w->running = true;
  log_info("auth-watcher: watching %s for external changes (poll interval %ds)", w->path.c_str(), w->interval_sec);
  return 0;
}

void broker_auth_watcher_stop(broker_auth_watcher_t* w) {
  if (w == nullptr || !w->running) return;
  {
    std::lock_guard lock(w->mutex);
    w->stop = true;
  }
  w->wake.notify_all();
  w->thread.join();
  w->running = false;
}

void broker_auth_watcher_destroy(broker_auth_watcher_t* w) {
  broker_auth_watcher_stop(w);
  std::unique_ptr<broker_auth_watcher> owned(w);
}

void broker_auth_watcher_set_interval_ms(broker_auth_watcher_t* w, int interval_ms) {
  if (w != nullptr && interval_ms > 0) w->interval_ms = interval_ms;
}

unsigned broker_auth_watcher_polls(const broker_auth_watcher_t* w) { return w ? w->polls.load() : 0; }
