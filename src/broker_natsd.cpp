#include "broker_natsd.hpp"

#include <fcntl.h>
#include <nats/nats.h>
#include <nats/version.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "broker_metrics.hpp"
#include "log.hpp"
#include "qm_nats_conn.hpp"
#include "qm_cpp.hpp"
#include "qm_handles.hpp"
#include "qmerror.hpp"

namespace {

constexpr int kProbeIntervalMs = 250;
constexpr int kProbeConnectTimeoutMs = 250;
constexpr int kDefaultReadyTimeoutSec = 30;
constexpr int kDefaultRestartMax = 5;
constexpr int kDefaultBackoffInitialMs = 500;
constexpr int kDefaultBackoffMaxMs = 30000;
constexpr int kDefaultStopGraceMs = 10000;
constexpr int kDefaultCrashWindowMs = 600000;
constexpr int kStopPollMs = 100;

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
  int crash_window_ms = kDefaultCrashWindowMs;
  void (*before_respawn)(broker_natsd*) = nullptr;
  void (*on_give_up)(void*) = nullptr;
  void* on_give_up_arg = nullptr;
  void (*on_restarted)(void*) = nullptr;
  void* on_restarted_arg = nullptr;

  // Written under `lock`, together with the stop check; atomic so that readers need no lock.
  std::atomic<pid_t> child_pid{-1};
  // The current child passed its readiness probe; cleared as soon as it is gone.
  std::atomic<bool> child_ready{false};
  int64_t child_spawned_ms = 0;  // supervisor thread only, once started
  std::mutex lock;
  std::condition_variable wake;  // ends the supervisor's sleep before a restart
  std::thread sup_thread;
  std::atomic<bool> shutting_down{false};
  std::atomic<bool> sup_thread_alive{false};
  bool started = false;
};

namespace {

void s_set_child(broker_natsd_t& natsd, pid_t pid) {
  std::lock_guard<std::mutex> guard(natsd.lock);
  natsd.child_ready.store(false);
  natsd.child_pid.store(pid);
}

// nats-server leaves its pid file behind; once its process is reaped the file names
// nobody (or, later, a stranger). A file that names another pid is not ours to remove.
void s_remove_pid_file(const broker_natsd_t& natsd, pid_t reaped) {
  if (!natsd.pid_file) return;
  const qm::unique_fd fd(open(natsd.pid_file->c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return;
  char text[32] = {};
  const ssize_t n = read(fd.get(), text, sizeof text - 1);
  if (n <= 0) return;
  char* end = nullptr;
  const long pid = strtol(text, &end, 10);
  while (end != nullptr && isspace(static_cast<unsigned char>(*end))) ++end;
  if (end != nullptr && *end == '\0' && pid == static_cast<long>(reaped)) unlink(natsd.pid_file->c_str());
}

struct s_probe_target {
  std::string url;
  const char* user = nullptr;
  const char* password = nullptr;
  const char* cert_path = nullptr;
  int timeout_sec = 0;
};

// What ends a probe early besides success and its deadline.
struct s_probe_watch {
  const std::atomic<bool>* shutting_down = nullptr;  // the supervisor's own stop
  const qm::stop_flag* stop = nullptr;               // the caller's stop (start-up)
  pid_t child = -1;                                  // a child whose exit makes waiting pointless
};

enum class s_probe_result { ready, timed_out, stopped, child_exited, failed };

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

// True once the child has exited; it is left for the supervisor's wait to reap.
bool s_child_exited(pid_t pid) {
  siginfo_t si{};
  return waitid(P_PID, static_cast<id_t>(pid), &si, WEXITED | WNOHANG | WNOWAIT) == 0 && si.si_pid == pid;
}

bool s_stop_asked(const s_probe_watch& watch) {
  return (watch.shutting_down != nullptr && watch.shutting_down->load()) ||
         (watch.stop != nullptr && watch.stop->requested());
}

// The pause between attempts; false when a stop came meanwhile.
bool s_probe_pause(const s_probe_watch& watch) {
  if (watch.stop != nullptr) {
    if (!watch.stop->sleep_for(kProbeIntervalMs)) return false;
  } else {
    qm::sleep_ms(kProbeIntervalMs);
  }
  return !s_stop_asked(watch);
}

// Probes until a connection succeeds, the deadline passes, the child dies or a stop is
// asked for.
s_probe_result s_wait_ready(const s_probe_target& target, const s_probe_watch& watch) {
  const int64_t start_ms = qm::monotonic_ms();
  for (;;) {
    qm::nats_options_ptr opts;
    switch (s_build_probe_options(target, opts)) {
      case s_probe_options_result::built:
        break;
      case s_probe_options_result::no_memory:
        log_error("nats-server: readiness probe failed to allocate natsOptions");
        return s_probe_result::failed;
      case s_probe_options_result::bad_tls:
        return s_probe_result::failed;
    }
    natsConnection* raw = nullptr;
    const natsStatus s = natsConnection_Connect(&raw, opts.get());
    qm::nats_connection_ptr conn(raw);
    if (s == NATS_OK) {
      natsConnection_Close(conn.get());
      log_info("nats-server: ready (probe to %s succeeded)", target.url.c_str());
      return s_probe_result::ready;
    }
    if (s_stop_asked(watch)) return s_probe_result::stopped;
    if (watch.child > 0 && s_child_exited(watch.child)) return s_probe_result::child_exited;
    if (qm::monotonic_ms() - start_ms >= static_cast<int64_t>(target.timeout_sec) * 1000) {
      log_fatal("nats-server: readiness probe timed out after %ds (last status: %s)", target.timeout_sec,
                natsStatus_GetText(s));
      return s_probe_result::timed_out;
    }
    log_debug("nats-server: readiness probe not ready yet (%s), retrying in %dms", natsStatus_GetText(s),
              kProbeIntervalMs);
    if (!s_probe_pause(watch)) return s_probe_result::stopped;
  }
}

s_probe_result s_probe_child(const broker_natsd_t& natsd, pid_t child, const qm::stop_flag* stop) {
  s_probe_target target;
  target.url = natsd.nats_url;
  target.user = qm::cstr(natsd.probe_user);
  target.password = natsd.has_probe_password ? natsd.probe_password.c_str() : nullptr;
  target.cert_path = qm::cstr(natsd.cert_path);
  target.timeout_sec = natsd.ready_timeout_sec;
  return s_wait_ready(target, s_probe_watch{&natsd.shutting_down, stop, child});
}

// In the child between fork and exec: closes every descriptor above stderr, so that the
// server inherits none of ours, also none a library opened without close-on-exec.
// Async-signal-safe.
void s_close_inherited_descriptors() {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 34))
  if (close_range(3, ~0U, 0) == 0) return;
#elif defined(SYS_close_range)
  if (syscall(SYS_close_range, 3U, ~0U, 0U) == 0) return;
#endif
  // A kernel older than 5.9: one by one, up to the descriptor limit.
  struct rlimit limit {};
  const rlim_t max = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY ? limit.rlim_cur : 65536;
  for (rlim_t fd = 3; fd < max; ++fd) close(static_cast<int>(fd));
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
    // The broker blocks its process signals in every thread and ignores SIGPIPE; the
    // server must see all of them in their default state.
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    s_close_inherited_descriptors();
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

// Spawns and publishes the child in one step with the stop check, under the lock that
// stop takes to set its flag: a stop that comes first spawns nothing (0), one that comes
// after finds the pid to signal. -1 when the spawn failed.
pid_t s_spawn_unless_stopping(broker_natsd_t& natsd) {
  std::lock_guard<std::mutex> guard(natsd.lock);
  if (natsd.shutting_down.load()) return 0;
  const pid_t pid = s_spawn_child(natsd);
  if (pid > 0) {
    natsd.child_pid.store(pid);
    natsd.child_spawned_ms = qm::monotonic_ms();
  }
  return pid;
}

// Ends a child that never became ready.
void s_terminate_and_reap(broker_natsd_t& natsd, pid_t pid) {
  kill(pid, SIGTERM);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  s_set_child(natsd, -1);
  s_remove_pid_file(natsd, pid);
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
  s_remove_pid_file(natsd, pid);
  if (WIFSIGNALED(status)) {
    info.signalled = true;
    info.code = WTERMSIG(status);
  } else {
    info.code = WEXITSTATUS(status);
  }
  return s_wait_result::exited;
}

// The crash count and back-off of one supervisor run. A child that stayed up for the
// crash window starts both afresh: crashes months apart never add up to a budget.
struct s_crash_budget {
  int crashes = 0;
  int backoff_ms = 0;
};

void s_log_exit(const broker_natsd_t& natsd, const s_exit_info& info, int crashes) {
  const int budget_shown = natsd.restart_max < 0 ? 0 : natsd.restart_max;
  if (info.signalled) {
    log_warn("nats-server: child died from signal %d (crash #%d/%d)", info.code, crashes, budget_shown);
  } else {
    log_warn("nats-server: child exited with status %d (crash #%d/%d)", info.code, crashes, budget_shown);
  }
}

void s_count_crash(const broker_natsd_t& natsd, s_crash_budget& budget) {
  const int64_t ran_ms = qm::monotonic_ms() - natsd.child_spawned_ms;
  const bool fresh = budget.crashes == 0 && budget.backoff_ms == natsd.restart_backoff_ms_initial;
  if (ran_ms >= natsd.crash_window_ms && !fresh) {
    log_info("nats-server: child ran %llds; crash count and restart back-off start afresh",
             static_cast<long long>(ran_ms / 1000));
    budget.crashes = 0;
    budget.backoff_ms = natsd.restart_backoff_ms_initial;
  }
  ++budget.crashes;
}

void s_grow_backoff(const broker_natsd_t& natsd, s_crash_budget& budget) {
  if (budget.backoff_ms < natsd.restart_backoff_ms_max) {
    budget.backoff_ms = budget.backoff_ms > natsd.restart_backoff_ms_max / 2 ? natsd.restart_backoff_ms_max
                                                                            : budget.backoff_ms * 2;
  }
}

enum class s_restart_result { restarted, stopping, gave_up };

// After a crash: the budget check, the pause, the respawn and its readiness probe. A
// child that dies during the probe is left for the next wait, which reaps it at once.
s_restart_result s_restart(broker_natsd_t& natsd, s_crash_budget& budget) {
  if (natsd.restart_max > 0 && budget.crashes > natsd.restart_max) {
    log_fatal("nats-server: exceeded restart budget (%d) — giving up", natsd.restart_max);
    return s_restart_result::gave_up;
  }
  log_info("nats-server: restarting in %dms", budget.backoff_ms);
  if (!s_sleep_unless_stopping(natsd, budget.backoff_ms)) return s_restart_result::stopping;
  s_grow_backoff(natsd, budget);
  if (natsd.before_respawn != nullptr) natsd.before_respawn(&natsd);
  const pid_t pid = s_spawn_unless_stopping(natsd);
  if (pid == 0) return s_restart_result::stopping;
  if (pid < 0) {
    log_fatal("nats-server: respawn failed — giving up");
    return s_restart_result::gave_up;
  }
  broker_metrics_count_natsd_restart();
  const s_probe_result probed = s_probe_child(natsd, pid, nullptr);
  if (probed == s_probe_result::timed_out) log_fatal("nats-server: post-restart readiness probe failed");
  natsd.child_ready.store(probed == s_probe_result::ready && natsd.child_pid.load() == pid);
  if (natsd.child_ready.load() && natsd.on_restarted != nullptr) natsd.on_restarted(natsd.on_restarted_arg);
  return s_restart_result::restarted;
}

// True when supervision ended on its own (not for a stop).
bool s_supervise_until_done(broker_natsd_t& natsd) {
  s_crash_budget budget{0, natsd.restart_backoff_ms_initial};
  for (;;) {
    // A child that is still there during shutdown is waited for: stop is about to end
    // it, and it must be reaped here rather than left to linger until the SIGKILL.
    const pid_t pid = natsd.child_pid.load();
    if (pid < 1) return false;
    s_exit_info info;
    const s_wait_result waited = s_wait_child(natsd, pid, info);
    if (waited == s_wait_result::interrupted) continue;
    if (waited == s_wait_result::failed) return !natsd.shutting_down.load();
    if (natsd.shutting_down.load()) {
      if (info.signalled) {
        log_info("nats-server: child exited via signal %d during shutdown", info.code);
      } else {
        log_info("nats-server: child exited with status %d during shutdown", info.code);
      }
      return false;
    }
    // A clean exit counts too: nats-server is never supposed to leave on its own.
    s_count_crash(natsd, budget);
    s_log_exit(natsd, info, budget.crashes);
    switch (s_restart(natsd, budget)) {
      case s_restart_result::restarted:
        break;
      case s_restart_result::stopping:
        return false;
      case s_restart_result::gave_up:
        return true;
    }
  }
}

void s_supervise(broker_natsd_t& natsd) {
  const bool gave_up = s_supervise_until_done(natsd);
  natsd.sup_thread_alive.store(false);
  if (gave_up && natsd.on_give_up != nullptr) natsd.on_give_up(natsd.on_give_up_arg);
}

bool s_start_supervisor(broker_natsd_t& natsd, std::string& error) {
  try {
    natsd.sup_thread = std::thread([&natsd] { s_supervise(natsd); });
  } catch (const std::system_error& e) {
    error = e.what();
    return false;
  }
  return true;
}

int s_positive_or(int value, int fallback) { return value < 1 ? fallback : value; }

// A start probe that failed: why, unless the caller stopped it.
void s_log_start_probe_failure(const broker_natsd_t& natsd, s_probe_result result, pid_t pid,
                               const qm::stop_flag* stop) {
  if (result != s_probe_result::child_exited || natsd.shutting_down.load() || (stop && stop->requested())) return;
  log_error("nats-server: child pid=%d exited before it was ready", static_cast<int>(pid));
}

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
    natsd->stop_grace_ms = s_positive_or(opts->stop_grace_ms, kDefaultStopGraceMs);
    natsd->crash_window_ms = s_positive_or(opts->crash_window_ms, kDefaultCrashWindowMs);
    natsd->before_respawn = opts->before_respawn;
    natsd->on_give_up = opts->on_give_up;
    natsd->on_give_up_arg = opts->on_give_up_arg;
    natsd->on_restarted = opts->on_restarted;
    natsd->on_restarted_arg = opts->on_restarted_arg;
    return natsd.release();
  } catch (...) {
    return nullptr;
  }
}

int broker_natsd_start(broker_natsd_t* natsd, const qm::stop_flag* stop) {
  if (natsd == nullptr || natsd->started) return -1;
  try {
    const pid_t pid = s_spawn_unless_stopping(*natsd);
    if (pid < 1) return -1;
    const s_probe_result probed = s_probe_child(*natsd, pid, stop);
    if (probed != s_probe_result::ready) {
      s_log_start_probe_failure(*natsd, probed, pid, stop);
      s_terminate_and_reap(*natsd, pid);
      return -1;
    }
    natsd->child_ready.store(true);
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
                            int timeout_sec, const qm::stop_flag* stop) {
  if (url == nullptr) return -1;
  try {
    s_probe_target target;
    target.url = url;
    target.user = user;
    target.password = password;
    target.cert_path = cert_path;
    target.timeout_sec = timeout_sec;
    return s_wait_ready(target, s_probe_watch{nullptr, stop, -1}) == s_probe_result::ready ? 0 : -1;
  } catch (...) {
    return -1;
  }
}

int broker_natsd_signal(broker_natsd_t* natsd, int sig) {
  if (natsd == nullptr) return 0;
  pid_t pid = -1;
  int failure = 0;
  {
    // The broker forwards SIGTERM only when it is going down itself: the exit that
    // follows is no crash and must not be restarted, nor may a restart begin after it.
    std::lock_guard<std::mutex> guard(natsd->lock);
    if (sig == SIGTERM) natsd->shutting_down.store(true);
    pid = natsd->child_pid.load();
    if (pid > 0 && kill(pid, sig) != 0) failure = errno;
  }
  if (sig == SIGTERM) natsd->wake.notify_all();
  if (failure == 0) return 0;
  log_warn("nats-server: kill(%d, %d) failed: %s", static_cast<int>(pid), sig, QMstrerror(failure));
  return -1;
}

void broker_natsd_stop(broker_natsd_t* natsd) {
  if (natsd == nullptr) return;
  {
    std::lock_guard<std::mutex> guard(natsd->lock);
    natsd->shutting_down.store(true);
  }
  natsd->wake.notify_all();
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

bool broker_natsd_ready(const broker_natsd_t* natsd) { return natsd != nullptr && natsd->child_ready.load(); }
