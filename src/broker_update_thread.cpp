#include "broker_update_thread.hpp"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "broker_config.hpp"
#include "broker_metrics.hpp"
#include "broker_update_activation.hpp"
#include "broker_update_layout.hpp"
#include "log.hpp"
#include "qmerror.hpp"
#include "qmhlp-path-file-operations.hpp"

namespace {

static_assert(std::atomic<qm_thread_status>::is_always_lock_free, "targetstatus is set from a signal handler");

constexpr const char* kComponent = "qm-av-broker_nats-bin-linux-glibc2.28.amd64";
constexpr const char* kContentSubdir = "bin";
constexpr const char* kDefaultTempDir = "/tmp";
// Names the extraction directory: <tmp>/quillmere_update_broker.
constexpr const char* kExtractService = "broker";
constexpr const char* kClusterService = "qm-av-broker";
constexpr const char* kHostLockName = ".update.lock";
constexpr int64_t kIdleStepMs = 5000;
// How quickly a waiting thread notices STOP.
constexpr int64_t kStopPollMs = 100;

// The host lock and the cluster lock, each held only for a cycle; the cluster lock is
// released when the thread ends.
struct s_update_locks {
  qm::c_ptr<qm_update_lockfile_t, qm_update_lockfile_destroy> host;
  qm::c_ptr<qm_update_lockfile_t, qm_update_lockfile_destroy> cluster;

  ~s_update_locks() {
    if (cluster) qm_update_cluster_lock_release(cluster.get(), "update thread exiting");
  }
};

struct s_paths {
  std::string basedir;
  std::string workdir;
  std::string latest;
  std::string tempdir;
};

// Where the package is unpacked: $TMPDIR when set, as for any other program, else /tmp.
std::string s_tempdir() {
  const char* tmpdir = getenv("TMPDIR");
  return tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : kDefaultTempDir;
}

qm::opt_string s_derive_basedir(const broker_config_t& cfg) {
  if (!qm::has_text(cfg.nats_server_binary)) {
    log_error("broker_update: nats-server-binary unset \u2014 cannot derive basedir");
    return std::nullopt;
  }
  qm::opt_string basedir = broker_update_basedir(cfg.nats_server_binary->c_str());
  if (!basedir) log_error("broker_update: failed to derive basedir from %s", cfg.nats_server_binary->c_str());
  return basedir;
}

// The host lock is required; without the cluster lock updates are merely not serialised
// across the cluster.
bool s_init_lockfile(const std::string& basedir, s_update_locks& locks) {
  locks.host.reset(qm_update_lockfile_new((basedir + "/" + kHostLockName).c_str()));
  if (!locks.host) {
    log_error("broker_update: failed to create lockfile zfile_t");
    return false;
  }
  log_trace("broker_update: lockfile at %s", qm_update_lockfile_path(locks.host.get()));
  locks.cluster.reset(qm_update_cluster_lock_new(basedir.c_str(), kClusterService));
  if (!locks.cluster) {
    log_warn("broker_update: could not create the cluster update lock \u2014 updates on this node will not be "
             "serialised against the other cluster nodes");
  } else {
    log_trace("broker_update: cluster lockfile at %s", qm_update_lockfile_path(locks.cluster.get()));
  }
  return true;
}

// A new package from the server, or else one put down by hand; false when there is none
// (or the thread is stopping).
bool s_find_package(broker_update_thread_params_t* params, const s_paths& paths, qm_upd_pkg_info_t* pkg) {
  const broker_config_t& cfg = *params->cfg;
  const std::string current = get_curr_ver(paths.latest.c_str(), kContentSubdir);
  if (qm_update_download_package(kComponent, current.c_str(), paths.workdir.c_str(), pkg, &cfg.update_config,
                                 &cfg.network_config, broker_update_stop_requested, params) == 1) {
    return true;
  }
  if (broker_update_stop_requested(params)) return false;
  pkg_info_init(pkg);
  if (get_updated_component_from_local(kComponent, paths.workdir.c_str(), pkg, &cfg.update_config) == 1) {
    log_info("broker_update: using manually-staged update package");
    return true;
  }
  return false;
}

// 1: a new version is installed in a new version directory; 0: nothing new; -1: the
// installation failed (its directory is gone again).
int s_check_and_stage(broker_update_thread_params_t* params, const s_paths& paths) {
  qm_upd_pkg_info_t pkg;
  pkg_info_init(&pkg);
  params->downloading = true;
  const bool found = s_find_package(params, paths, &pkg);
  params->downloading = false;
  if (!found) {
    log_trace("broker_update: no new package this cycle");
    pkg_info_free(&pkg);
    return 0;
  }
  params->status = UPDATING;
  const std::string stamp = std::to_string(static_cast<long>(time(nullptr)));
  const std::string new_dir = paths.workdir + "/" + stamp;
  // Never install into a directory that is already there: it may be the running version.
  const bool exists = qmhlp_IsFile(new_dir.c_str());
  if (exists || qmhlp_create_dir(new_dir.c_str(), true, 0750) != 0) {
    log_error("broker_update: failed to create %s: %s", new_dir.c_str(), QMstrerror(exists ? EEXIST : errno));
    pkg_info_free(&pkg);
    return -1;
  }
  const int rc = update_ver_dir_content(paths.basedir.c_str(), paths.tempdir.c_str(), paths.latest.c_str(),
                                        new_dir.c_str(), kContentSubdir, true, &pkg, kExtractService,
                                        broker_update_stop_requested, params, &params->install_limits);
  pkg_info_free(&pkg);
  if (rc != 0) {
    log_error("broker_update: failed to install bin update");
    qmhlp_RemoveDir(new_dir.c_str());
    return -1;
  }
  params->update_deployed_to = stamp;
  params->status = FILES_READY;
  log_info("broker_update: staged new version %s under %s \u2014 awaiting activation", stamp.c_str(),
           paths.workdir.c_str());
  return 1;
}

// Runs while the staged version waits for its window and this node may update. A
// successful activation ends the process.
void s_activate_staged(broker_update_thread_params_t* params, qm_update_lockfile_t* cluster_lock) {
  broker_update_activation_handles_t handles;
  handles.cfg = params->cfg;
  handles.amqp_acc = params->amqp_acc;
  handles.http_fe = params->http_fe;
  handles.natsd = params->natsd;
  handles.defer_ms = params->minute_ms;
  handles.clock = params->clock;
  handles.stop_requested = broker_update_stop_requested;
  handles.stop_udata = params;
  handles.draining = &params->draining;
  while (params->status == FILES_READY && !broker_update_stop_requested(params) &&
         qm_update_cluster_lock_acquire(cluster_lock, kClusterService)) {
    if (broker_update_activate(qm::cstr(params->update_deployed_to), &handles) != 0) {
      log_warn("broker_update: activation failed \u2014 resetting to WAITING");
      broker_metrics_count_update(BROKER_METRICS_UPDATE_ACTIVATION_FAILED);
      params->status = WAITING;
      return;
    }
    qm_update_cluster_lock_release(cluster_lock, "waiting for the maintenance window");
  }
}

void s_run_cycle(broker_update_thread_params_t* params, const s_paths& paths, s_update_locks& locks) {
  const int host = lock_check_create(locks.host.get());
  if (host == 0) log_debug("broker_update: another component holds the host update lock; deferring");
  if (host != 1) return;
  if (!qm_update_cluster_lock_acquire(locks.cluster.get(), kClusterService)) {
    lock_release(locks.host.get());
    return;
  }
  const int staged = s_check_and_stage(params, paths);
  if (staged == 1) broker_metrics_count_update(BROKER_METRICS_UPDATE_STAGED);
  if (staged == 0) broker_metrics_count_update(BROKER_METRICS_UPDATE_NOTHING_NEW);
  if (staged < 0) broker_metrics_count_update(BROKER_METRICS_UPDATE_FAILED);
  lock_release(locks.host.get());
  if (staged == 1) {
    s_activate_staged(params, locks.cluster.get());
  } else {
    if (staged < 0) params->status = WAITING;
    clean_old_versions(paths.workdir.c_str(), paths.latest.c_str(), params->cfg->update_config.update_max_backups);
  }
  qm_update_cluster_lock_release(locks.cluster.get(), "update cycle finished");
}

// One cycle per interval, the first one a whole interval after the start. A version left
// staged (stop requested, cluster lock refused) stops further cycles until the restart.
void s_poll(broker_update_thread_params_t* params, const s_paths& paths, s_update_locks& locks) {
  const qm_update_config_t& update = params->cfg->update_config;
  const long minutes = update.update_check_interval;
  const int64_t interval_ms = update.update_check_interval_seconds > 0
                                  ? update.update_check_interval_seconds * int64_t{1000}
                                  : (minutes > 0 ? minutes : 1) * params->minute_ms;
  int64_t last_cycle_ms = qm::monotonic_ms();
  while (!broker_update_stop_requested(params)) {
    const int64_t until_due_ms = last_cycle_ms + interval_ms - qm::monotonic_ms();
    if (params->status == WAITING && until_due_ms <= 0) {
      last_cycle_ms = qm::monotonic_ms();
      s_run_cycle(params, paths, locks);
      continue;
    }
    const int64_t step_ms = params->status == WAITING ? std::min(kIdleStepMs, until_due_ms) : kIdleStepMs;
    broker_update_sleep_unless_stopped(params, step_ms);
  }
}

}  // namespace

void* broker_update_thread(void* arg) {
  auto* params = static_cast<broker_update_thread_params_t*>(arg);
  if (params == nullptr || params->cfg == nullptr || params->relay == nullptr) {
    log_error("broker_update: missing required params; thread will not start");
    return nullptr;
  }
  if (!params->cfg->update_config.update_binary) {
    log_info("broker_update: update_binary=false, polling thread will idle");
    while (broker_update_sleep_unless_stopped(params, kIdleStepMs)) {
    }
    return nullptr;
  }
  const qm::opt_string basedir = s_derive_basedir(*params->cfg);
  s_update_locks locks;
  if (!basedir || !s_init_lockfile(*basedir, locks)) {
    log_error("broker_update: lockfile init failed; thread exiting");
    return nullptr;
  }
  if (!qm::has_text(params->cfg->update_config.update_public_key)) {
    log_warn("broker_update: no --update-public-key — packages are verified by MD5 alone, which catches "
             "corruption but not forgery");
  }
  s_paths paths;
  paths.basedir = *basedir;
  paths.workdir = broker_update_workdir(*basedir);
  paths.latest = paths.workdir + "/latest";
  paths.tempdir = s_tempdir();
  log_info("broker_update: starting (workerdir=%s, lockfile=%s)", paths.workdir.c_str(),
           qm_update_lockfile_path(locks.host.get()));
  s_poll(params, paths, locks);
  log_info("broker_update: STOP requested, thread exiting");
  return nullptr;
}

int broker_update_thread_start(broker_update_thread_params_t* params) {
  if (params == nullptr || params->started) {
    errno = EINVAL;
    return -1;
  }
  // Born with these blocked, so that the thread never takes the main thread's signals.
  sigset_t blocked;
  sigemptyset(&blocked);
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) sigaddset(&blocked, sig);
  sigset_t previous;
  pthread_sigmask(SIG_BLOCK, &blocked, &previous);
  const int rc = pthread_create(&params->thread, nullptr, broker_update_thread, params);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (rc != 0) {
    errno = rc;
    return -1;
  }
  params->started = true;
  return 0;
}

void broker_update_thread_request_stop(broker_update_thread_params_t* params) {
  if (params != nullptr) params->targetstatus.store(STOP);
}

void broker_update_thread_join(broker_update_thread_params_t* params) {
  if (params == nullptr || !params->started) return;
  broker_update_thread_request_stop(params);
  pthread_join(params->thread, nullptr);
  params->started = false;
}

bool broker_update_stop_requested(void* params) {
  return static_cast<const broker_update_thread_params_t*>(params)->targetstatus.load() == STOP;
}

bool broker_update_sleep_unless_stopped(broker_update_thread_params_t* params, int64_t ms) {
  const int64_t deadline_ms = qm::monotonic_ms() + ms;
  for (;;) {
    if (broker_update_stop_requested(params)) return false;
    const int64_t left_ms = deadline_ms - qm::monotonic_ms();
    if (left_ms <= 0) return true;
    qm::sleep_ms(std::min(left_ms, kStopPollMs));
  }
}

const char* broker_update_state(const broker_update_thread_params_t* params) {
  if (params == nullptr) return "off";
  if (params->draining.load()) return "draining";
  const qm_update_status_t status = params->status.load();
  if (status == FILES_READY) return "waiting for the window";
  if (status == UPDATING) return "installing";
  return params->downloading.load() ? "downloading" : "idle";
}
