#include "broker_natsd.hpp"

#include <nats/nats.h>
#include <nats/version.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "log.hpp"
#include "qm_nats_conn.hpp"
#include "qm_cpp.hpp"
#include "qmerror.hpp"

namespace {

constexpr int kProbeIntervalMs = 250;
constexpr int kProbeConnectTimeoutMs = 250;
constexpr int kDefaultReadyTimeoutSec = 30;
constexpr int kDefaultRestartMax = 5;
constexpr int kDefaultBackoffInitialMs = 500;
constexpr int kDefaultBackoffMaxMs = 30000;
constexpr int kDefaultStopGraceMs = 10000;
constexpr int kStopPollMs = 100;

std::atomic<int> s_stop_grace_ms{kDefaultStopGraceMs};


}  // namespace

struct broker_natsd {
  std::string binary_path;
  std::string config_path;
  qm::opt_string pid_file;
  std::string nats_url;
  qm::opt_string probe_user;
  qm::secret_string probe_password;
  bool has_probe_password = false;
  qm::opt_string cert_path;
  int ready_timeout_sec = kDefaultReadyTimeoutSec;
  int restart_max = kDefaultRestartMax;
  int restart_backoff_ms_initial = kDefaultBackoffInitialMs;
  int restart_backoff_ms_max = kDefaultBackoffMaxMs;
  int stop_grace_ms = kDefaultStopGraceMs;

  // Written under `lock`; atomic so that a signal handler may read it without the lock.
  std::atomic<pid_t> child_pid{-1};
  std::mutex lock;
  std::condition_variable wake;  // ends the supervisor's sleep before a restart
  std::thread sup_thread;
  std::atomic<bool> shutting_down{false};
  std::atomic<bool> sup_thread_alive{false};
  bool started = false;

  // A failed kill seen in signal-handler context, reported later from a normal thread.
  std::atomic<int> failed_kill_errno{0};
  std::atomic<pid_t> failed_kill_pid{0};
  std::atomic<int> failed_kill_sig{0};
};

namespace {

void s_set_child(broker_natsd_t& natsd, pid_t pid) {
  std::lock_guard<std::mutex> guard(natsd.lock);
  natsd.child_pid.store(pid);
}

void s_report_failed_kill(broker_natsd_t& natsd) {
  const int err = natsd.failed_kill_errno.exchange(0);
  if (err == 0) return;
  log_warn("nats-server: kill(%d, %d) failed: %s", static_cast<int>(natsd.failed_kill_pid.load()),
           natsd.failed_kill_sig.load(), QMstrerror(err));
}

struct s_probe_target {
  std::string url;
  const char* user = nullptr;
  const char* password = nullptr;
  const char* cert_path = nullptr;
  int timeout_sec = 0;
};

enum class s_probe_options_result { built, no_memory, bad_tls };

s_probe_options_result s_build_probe_options(const s_probe_target& target, qm::nats_options_ptr& out) {
  natsOptions* raw = nullptr;
  if (natsOptions_Create(&raw) != NATS_OK) return s_probe_options_result::no_memory;
  qm::nats_options_ptr opts(raw);
  natsOptions_SetURL(opts.get(), target.url.c_str());
  if (target.user != nullptr) {
    natsOptions_SetUserInfo(opts.get(), target.user, target.password != nullptr ? target.password : "");
  }
  natsOptions_SetTimeout(opts.get(), kProbeConnectTimeoutMs);
  natsOptions_SetRetryOnFailedConnect(opts.get(), false, nullptr, nullptr);
  natsOptions_SetAllowReconnect(opts.get(), false);
  natsOptions_SetMaxReconnect(opts.get(), 0);
  static const qm_nats_tls_texts tls_texts{
      .no_ca_warning = "nats-server: tls:// probe URL but no cert_path — server cert will be checked against the "
                       "system trust store and almost certainly fail",
      .failure_level = QMLOG_ERROR,
      .secure_failed = "nats-server: probe cannot require TLS: %s",
      .ca_failed = "nats-server: probe failed to load CA bundle %s: %s"};
  if (!qm_nats_configure_tls(opts.get(), target.url, target.cert_path, tls_texts))
    return s_probe_options_result::bad_tls;
  out = std::move(opts);
  return s_probe_options_result::built;
}

// Probes until a connection succeeds or the deadline passes. `cancel`, when given, ends
// the wait early (the supervisor stops probing once shutdown begins).
int s_wait_ready(const s_probe_target& target, const std::atomic<bool>* cancel) {
  const int64_t start_ms = qm::monotonic_ms();
  for (;;) {
    qm::nats_options_ptr opts;
    switch (s_build_probe_options(target, opts)) {
      case s_probe_options_result::built:
        break;
      case s_probe_options_result::no_memory:
        log_error("nats-server: readiness probe failed to allocate natsOptions");
        return -1;
      case s_probe_options_result::bad_tls:
        return -1;
    }
    natsConnection* raw = nullptr;
    const natsStatus s = natsConnection_Connect(&raw, opts.get());
    qm::nats_connection_ptr conn(raw);
    if (s == NATS_OK) {
      natsConnection_Close(conn.get());
      log_info("nats-server: ready (probe to %s succeeded)", target.url.c_str());
      return 0;
    }
    if (qm::monotonic_ms() - start_ms >= static_cast<int64_t>(target.timeout_sec) * 1000) {
      log_fatal("nats-server: readiness probe timed out after %ds (last status: %s)", target.timeout_sec,
                natsStatus_GetText(s));
      return -1;
    }
    log_debug("nats-server: readiness probe not ready yet (%s), retrying in %dms", natsStatus_GetText(s),
              kProbeIntervalMs);
    qm::sleep_ms(kProbeIntervalMs);
    if (cancel != nullptr && cancel->load()) return -1;
  }
}

int s_probe_child(const broker_natsd_t& natsd) {
  s_probe_target target;
  target.url = natsd.nats_url;
  target.user = qm::cstr(natsd.probe_user);
  target.password = natsd.has_probe_password ? natsd.probe_password.c_str() : nullptr;
  target.cert_path = qm::cstr(natsd.cert_path);
  target.timeout_sec = natsd.ready_timeout_sec;
  return s_wait_ready(target, &natsd.shutting_down);
}

// Forks and execs the server. Everything the child needs is prepared before the fork,
// since only async-signal-safe calls are allowed between fork and exec.
pid_t s_spawn_child(const broker_natsd_t& natsd) {
  std::vector<std::string> args{natsd.binary_path, "-c", natsd.config_path};
  if (natsd.pid_file) {
    args.emplace_back("-P");
    args.push_back(*natsd.pid_file);
  }
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  const std::string exec_failed_prefix = "nats-server: execv(" + natsd.binary_path + ") failed: ";

  const pid_t pid = fork();
  if (pid < 0) {
    log_fatal("nats-server: fork failed: %s", QMstrerror(errno));
    return -1;
  }
  if (pid == 0) {
    // The broker blocks and ignores signals the server must see in their default state.
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    execv(argv[0], argv.data());
    const int err = errno;
    const char* reason = strerrordesc_np(err);
    if (reason == nullptr) reason = "unknown error";
    const ssize_t ignored1 = write(STDERR_FILENO, exec_failed_prefix.data(), exec_failed_prefix.size());
    const ssize_t ignored2 = write(STDERR_FILENO, reason, strlen(reason));
    const ssize_t ignored3 = write(STDERR_FILENO, "\n", 1);
    (void)ignored1;
    (void)ignored2;
    (void)ignored3;
    _exit(127);
  }
  log_info("nats-server: spawned child pid=%d (binary=%s config=%s)", static_cast<int>(pid),
           natsd.binary_path.c_str(), natsd.config_path.c_str());
  return pid;
}

// Ends a child that never became ready.
void s_terminate_and_reap(broker_natsd_t& natsd, pid_t pid) {
  kill(pid, SIGTERM);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  s_set_child(natsd, -1);
}

struct s_exit_info {
  bool signalled = false;
  int code = 0;  // exit status or signal number
};

// Sleeps before a restart; false when shutdown began meanwhile.
bool s_sleep_unless_stopping(broker_natsd_t& natsd, int ms) {
  std::unique_lock<std::mutex> guard(natsd.lock);
  natsd.wake.wait_for(guard, std::chrono::milliseconds(ms), [&] { return natsd.shutting_down.load(); });
  return !natsd.shutting_down.load();
}

// Waits until the child has exited without reaping it, then clears child_pid and only
// then reaps: while child_pid holds a pid, that pid cannot be reused, so signal and
// stop never hit a stranger.
enum class s_wait_result { exited, interrupted, failed };

s_wait_result s_wait_child(broker_natsd_t& natsd, pid_t pid, s_exit_info& info) {
  siginfo_t si{};
  if (waitid(P_PID, static_cast<id_t>(pid), &si, WEXITED | WNOWAIT) != 0) {
    if (errno == EINTR) return s_wait_result::interrupted;
    log_error("nats-server: waitpid(%d) failed: %s", static_cast<int>(pid), QMstrerror(errno));
    return s_wait_result::failed;
  }
  s_set_child(natsd, -1);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFSIGNALED(status)) {
    info.signalled = true;
    info.code = WTERMSIG(status);
  } else {
    info.code = WEXITSTATUS(status);
  }
  return s_wait_result::exited;
}

void s_supervise(broker_natsd_t& natsd) {
  int crashes = 0;
  int backoff_ms = natsd.restart_backoff_ms_initial;
  for (;;) {
    // A child that is still there during shutdown is waited for: stop is about to end
    // it, and it must be reaped here rather than left to linger until the SIGKILL.
    const pid_t pid = natsd.child_pid.load();
    if (pid < 1) break;
    s_exit_info info;
    const s_wait_result waited = s_wait_child(natsd, pid, info);
    s_report_failed_kill(natsd);
    if (waited == s_wait_result::interrupted) continue;
    if (waited == s_wait_result::failed) break;
    if (natsd.shutting_down.load()) {
      if (info.signalled) {
        log_info("nats-server: child exited via signal %d during shutdown", info.code);
      } else {
        log_info("nats-server: child exited with status %d during shutdown", info.code);
      }
      break;
    }
    // A clean exit counts too: nats-server is never supposed to leave on its own.
    ++crashes;
    const int budget_shown = natsd.restart_max < 0 ? 0 : natsd.restart_max;
    if (info.signalled) {
      log_warn("nats-server: child died from signal %d (crash #%d/%d)", info.code, crashes, budget_shown);
    } else {
      log_warn("nats-server: child exited with status %d (crash #%d/%d)", info.code, crashes, budget_shown);
    }
    if (natsd.restart_max > 0 && crashes > natsd.restart_max) {
      log_fatal("nats-server: exceeded restart budget (%d) — giving up", natsd.restart_max);
      break;
    }
    log_info("nats-server: restarting in %dms", backoff_ms);
    if (!s_sleep_unless_stopping(natsd, backoff_ms)) break;
    if (backoff_ms < natsd.restart_backoff_ms_max) {
      backoff_ms = backoff_ms > natsd.restart_backoff_ms_max / 2 ? natsd.restart_backoff_ms_max : backoff_ms * 2;
    }
    const pid_t new_pid = s_spawn_child(natsd);
    if (new_pid < 0) {
      log_fatal("nats-server: respawn failed — giving up");
      break;
    }
    s_set_child(natsd, new_pid);
    if (s_probe_child(natsd) != 0 && !natsd.shutting_down.load()) {
      log_fatal("nats-server: post-restart readiness probe failed");
    }
  }
  natsd.sup_thread_alive.store(false);
}

// The supervisor must never be the thread that takes the broker's process signals:
// it is created with them blocked and keeps that mask.
bool s_start_supervisor(broker_natsd_t& natsd, std::string& error) {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) sigaddset(&blocked, sig);
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &blocked, &previous);
  bool ok = true;
  try {
    natsd.sup_thread = std::thread([&natsd] { s_supervise(natsd); });
  } catch (const std::system_error& e) {
    error = e.what();
    ok = false;
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  return ok;
}

int s_positive_or(int value, int fallback) { return value < 1 ? fallback : value; }

}  // namespace

broker_natsd_t* broker_natsd_create(const broker_natsd_options_t* opts) {
  if (opts == nullptr || opts->binary_path == nullptr || opts->config_path == nullptr || opts->nats_url == nullptr) {
    return nullptr;
  }
  try {
    auto natsd = std::make_unique<broker_natsd>();
    natsd->binary_path = opts->binary_path;
    natsd->config_path = opts->config_path;
    natsd->pid_file = qm::from_cstr(opts->pid_file);
    natsd->nats_url = opts->nats_url;
    natsd->probe_user = qm::from_cstr(opts->probe_user);
    natsd->has_probe_password = opts->probe_password != nullptr;
    natsd->probe_password = qm::secret_string(opts->probe_password);
    natsd->cert_path = qm::from_cstr(opts->cert_path);
    natsd->ready_timeout_sec = s_positive_or(opts->ready_timeout_sec, kDefaultReadyTimeoutSec);
    natsd->restart_max = s_positive_or(opts->restart_max, kDefaultRestartMax);
    natsd->restart_backoff_ms_initial = s_positive_or(opts->restart_backoff_ms_initial, kDefaultBackoffInitialMs);
    natsd->restart_backoff_ms_max = s_positive_or(opts->restart_backoff_ms_max, kDefaultBackoffMaxMs);
    natsd->stop_grace_ms = s_stop_grace_ms.load();
    return natsd.release();
  } catch (...) {
    return nullptr;
  }
}

int broker_natsd_start(broker_natsd_t* natsd) {
  if (natsd == nullptr || natsd->started) return -1;
  try {
    const pid_t pid = s_spawn_child(*natsd);
    if (pid < 0) return -1;
    s_set_child(*natsd, pid);
    if (s_probe_child(*natsd) != 0) {
      s_terminate_and_reap(*natsd, pid);
      return -1;
    }
    natsd->sup_thread_alive.store(true);
    std::string error;
    if (!s_start_supervisor(*natsd, error)) {
      log_fatal("nats-server: failed to spawn supervisor thread: %s", error.c_str());
      natsd->sup_thread_alive.store(false);
      s_terminate_and_reap(*natsd, pid);
      return -1;
    }
    natsd->started = true;
    return 0;
  } catch (...) {
    return -1;
  }
}

int broker_natsd_wait_ready(const char* url, const char* user, const char* password, const char* cert_path,
                            int timeout_sec) {
  if (url == nullptr) return -1;
  try {
    s_probe_target target;
    target.url = url;
    target.user = user;
    target.password = password;
    target.cert_path = cert_path;
    target.timeout_sec = timeout_sec;
    return s_wait_ready(target, nullptr);
  } catch (...) {
    return -1;
  }
}

int broker_natsd_signal(broker_natsd_t* natsd, int sig) {
  if (natsd == nullptr) return 0;
  const pid_t pid = natsd->child_pid.load();
  if (pid < 1) return 0;
  // The broker forwards SIGTERM only when it is going down itself: the exit that
  // follows is no crash and must not be restarted.
  if (sig == SIGTERM) natsd->shutting_down.store(true);
  if (kill(pid, sig) == 0) return 0;
  // No logging here: this runs inside signal handlers.
  natsd->failed_kill_pid.store(pid);
  natsd->failed_kill_sig.store(sig);
  natsd->failed_kill_errno.store(errno);
  return -1;
}

void broker_natsd_stop(broker_natsd_t* natsd) {
  if (natsd == nullptr) return;
  {
    std::lock_guard<std::mutex> guard(natsd->lock);
    natsd->shutting_down.store(true);
  }
  natsd->wake.notify_all();
  s_report_failed_kill(*natsd);
  const pid_t pid = natsd->child_pid.load();
  if (pid > 0) {
    log_info("nats-server: sending SIGTERM to pid=%d", static_cast<int>(pid));
    {
      std::lock_guard<std::mutex> guard(natsd->lock);
      if (natsd->child_pid.load() == pid) kill(pid, SIGTERM);
    }
    for (int waited = 0; waited < natsd->stop_grace_ms && natsd->child_pid.load() > 0; waited += kStopPollMs) {
      qm::sleep_ms(kStopPollMs);
    }
    std::lock_guard<std::mutex> guard(natsd->lock);
    const pid_t still = natsd->child_pid.load();
    if (still > 0) {
      log_warn("nats-server: did not exit within %dms — sending SIGKILL", natsd->stop_grace_ms);
      kill(still, SIGKILL);
    }
  }
  if (natsd->sup_thread.joinable()) natsd->sup_thread.join();
  // A supervisor that gave up on a wait error leaves its child behind: reap it here.
  const pid_t orphan = natsd->child_pid.load();
  if (orphan > 0) {
    kill(orphan, SIGKILL);
    s_terminate_and_reap(*natsd, orphan);
  }
}

void broker_natsd_destroy(broker_natsd_t* natsd) {
  if (natsd == nullptr) return;
  broker_natsd_stop(natsd);
  std::unique_ptr<broker_natsd>(natsd).reset();
}

pid_t broker_natsd_pid(const broker_natsd_t* natsd) { return natsd == nullptr ? -1 : natsd->child_pid.load(); }

void broker_natsd_set_stop_grace_ms(int grace_ms) {
  s_stop_grace_ms.store(grace_ms < 1 ? kDefaultStopGraceMs : grace_ms);
}
