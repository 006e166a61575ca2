// qm-av-broker: one owner (broker_app) starts the subsystems from a list in a fixed
// order and stops those it started in reverse; process signals are taken on the main
// thread alone.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "auth_handler.hpp"
#include "broker_admin.hpp"
#include "broker_auth_thread.hpp"
#include "broker_auth_watcher.hpp"
#include "auth_jwt.hpp"
#include "broker_config.hpp"
#include "broker_kv_bootstrap.hpp"
#include "broker_metrics.hpp"
#include "broker_natsd.hpp"
#include "broker_sd_notify.hpp"
#include "broker_update_thread.hpp"
#include "gw_amqp_acceptor.hpp"
#include "auth_profile.hpp"
#include "auth_lock.hpp"
#include "gw_auth_cache.hpp"
#include "gw_credential_store.hpp"
#include "gw_http_frontend.hpp"
#include "gw_inflight_budget.hpp"
#include "gw_nats_relay.hpp"
#include "gw_sasl_setup.hpp"
#include "log.hpp"
#include "qm_cpp.hpp"
#include "qm_nats_conn.hpp"
#include "qmerror.hpp"

namespace {

constexpr const char* kProgramName = "qm-av-broker";
// Sent by a thread of the broker's own to the main thread when it has news for it (the
// start-up has ended, supervision gave up); blocked like the process signals.
constexpr int kWakeSignal = SIGUSR1;

// Everything the broker runs, owned here from start to teardown. The start-up thread
// publishes a subsystem through its atomic once it exists, so that a stop taken on the
// main thread meanwhile reaches it; the teardown clears each before destroying it.
struct broker_app {
  broker_config_t* cfg = nullptr;
  pthread_t main_thread{};
  // Set when SIGINT or SIGTERM is taken (or supervision gives up).
  std::atomic<bool> shutdown_requested{false};
  // Set when SIGHUP is taken; the main loop reloads the credentials.
  std::atomic<bool> reload_requested{false};
  // nats-server supervision has given up: the broker shuts down with exit code 1, so that
  // the service manager starts it afresh.
  std::atomic<bool> supervision_gave_up{false};
  // Ends the start-up's long waits (readiness probe, KV bootstrap's retries) at a stop.
  qm::stop_flag startup_stop;
  // The logger borrows the file name; this copy outlives the configuration, which is
  // freed before the last log line.
  std::string log_file_name;
  // The admin listener, when enabled: from just after the logger to the very end. Each
  // subsystem's readiness check is set once it exists and cleared before it goes.
  broker_admin_t* admin = nullptr;

  std::atomic<broker_natsd_t*> natsd{nullptr};
  // Provisions the buckets and work queues again after a restart of the child or a
  // reconnect of the relay; the mutex keeps a request from racing its destruction.
  std::mutex reprovision_mu;
  broker_kv_reprovisioner_t* reprovisioner = nullptr;
  // The relay as the reprovisioner may use it (under reprovision_mu): set once it is
  // connected, cleared before it is destroyed.
  gw_nats_relay_t* reprovision_relay = nullptr;
  gw_credential_store_t* credentials = nullptr;
  // The permission profiles, loaded once for the auth service and both front doors, so
  // that a profile the auth service names is the one the doors enforce. NULL: none.
  auth_profile_store_t* profiles = nullptr;
  broker_auth_watcher_t* auth_watcher = nullptr;
  gw_nats_relay_t* relay = nullptr;
  gw_auth_cache_t* auth_cache = nullptr;
  // Shared by the auth service and the REST door (the AMQP door asks the auth service).
  auth_lock_t* auth_lock = nullptr;
  std::atomic<auth_service_t*> auth_svc{nullptr};
  broker_auth_thread_t* auth_thr = nullptr;
  // Owned by the SASL set-up; empty until it succeeded.
  std::string sasl_config_dir;
  std::atomic<gw_amqp_acceptor_t*> amqp_acc{nullptr};
  std::thread amqp_thread;
  std::atomic<gw_http_frontend_t*> http_fe{nullptr};
  std::atomic<broker_update_thread_params_t*> update_thr{nullptr};
  // How many entries of the subsystem list the start-up got to (the last one may have
  // failed half-way); the teardown stops exactly these, in reverse.
  size_t subsystems_attempted = 0;
  int rc = 0;
};

// ---- signals ----

sigset_t s_taken_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : {SIGINT, SIGTERM, SIGHUP, kWakeSignal}) sigaddset(&set, sig);
  return set;
}

// Runs before any thread exists, so that every thread inherits the mask: the process
// signals stay pending until the main thread takes them with sigwaitinfo, and no signal
// handler ever runs on another thread (the NATS library's among them) or in the middle
// of the teardown. Children unblock them before they exec.
void s_block_process_signals() {
  const sigset_t set = s_taken_signals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

void s_wake_main(const broker_app& app) { pthread_kill(app.main_thread, kWakeSignal); }

bool s_stopping(const broker_app& app) { return app.shutdown_requested.load(); }

// What a shutdown asks of every long-lived object that exists, in this order: one line
// each (the update thread's target status joins them). The teardown does the rest of
// the waiting. A signal during the teardown asks again, so each object's atomic is
// cleared before the object is destroyed.
void s_request_stops(broker_app& app, bool forward_sigterm) {
  app.shutdown_requested = true;
  broker_admin_set_stopping(app.admin);
  app.startup_stop.request();
  auth_service_stop(app.auth_svc.load());
  gw_amqp_acceptor_stop(app.amqp_acc.load());
  broker_update_thread_request_stop(app.update_thr.load());
  // Waits for the requests in flight; never runs on one of its connection threads here.
  gw_http_frontend_stop(app.http_fe.load());
  // SIGINT from a terminal reaches the child through the process group anyway.
  if (broker_natsd_t* natsd = app.natsd.load(); natsd != nullptr && forward_sigterm)
    (void)broker_natsd_signal(natsd, SIGTERM);
}

void s_on_signal(broker_app& app, int sig) {
  if (sig == SIGHUP) app.reload_requested = true;
  if (sig == SIGINT || sig == SIGTERM) s_request_stops(app, sig == SIGTERM);
  // kWakeSignal only wakes: the caller looks at what changed.
}

int s_take_signal() {
  const sigset_t set = s_taken_signals();
  for (;;) {
    const int sig = sigwaitinfo(&set, nullptr);
    if (sig > 0) return sig;
  }
}

// Signals that came during the teardown only ask for the stops again.
void s_take_pending_signals(broker_app& app) {
  const sigset_t set = s_taken_signals();
  const timespec no_wait{0, 0};
  for (int sig; (sig = sigtimedwait(&set, nullptr, &no_wait)) > 0;) {
    if (sig == SIGINT || sig == SIGTERM) s_request_stops(app, sig == SIGTERM);
  }
}

// The supervisor's thread calls this; the main thread does the rest.
void s_on_supervision_gave_up(void* arg) {
  auto& app = *static_cast<broker_app*>(arg);
  app.supervision_gave_up = true;
  s_wake_main(app);
}

void s_configure_logger(broker_app& app) {
  const broker_config_t& cfg = *app.cfg;
  log_set_level(cfg.log_level);
  if (cfg.log_file) {
    app.log_file_name = *cfg.log_file;
    log_set_filename(app.log_file_name.c_str());
  }
  log_set_screentrace(cfg.log_screen_trace);
  log_set_maxsize(cfg.log_maxsize_mb);
}

const char* s_yes_no(bool value) { return value ? "yes" : "no"; }

// ---- readiness checks of the admin listener ----

constexpr const char* kCheckNatsd = "nats-server";
constexpr const char* kCheckRelay = "relay";
constexpr const char* kCheckCallout = "auth-callout";
constexpr const char* kCheckLdap = "ldap";
constexpr const char* kCheckAmqp = "amqp";
constexpr const char* kCheckHttp = "http";
constexpr const char* kCheckUpdate = "update";

bool s_report(bool ready, const char* yes, const char* no, const char** state) {
  *state = ready ? yes : no;
  return ready;
}
bool s_probe_natsd(const void* natsd, const char** state) {
  return s_report(broker_natsd_ready(static_cast<const broker_natsd_t*>(natsd)), "up", "down", state);
}
bool s_probe_relay(const void* relay, const char** state) {
  return s_report(gw_nats_relay_connected(static_cast<const gw_nats_relay_t*>(relay)), "connected", "disconnected",
                  state);
}
bool s_probe_callout(const void* svc, const char** state) {
  auto* service = const_cast<auth_service_t*>(static_cast<const auth_service_t*>(svc));
  return s_report(auth_service_serving(service), "subscribed", "not subscribed", state);
}
bool s_probe_ldap(const void*, const char** state) {
  return s_report(broker_metrics_ldap_up(), "reachable", "unreachable", state);
}
bool s_probe_amqp(const void* acc, const char** state) {
  return s_report(gw_amqp_acceptor_listening(static_cast<const gw_amqp_acceptor_t*>(acc)), "listening",
                  "not listening", state);
}
bool s_probe_http(const void* fe, const char** state) {
  return s_report(gw_http_frontend_listening(static_cast<const gw_http_frontend_t*>(fe)), "listening",
                  "not listening", state);
}
// Draining for an update: a balancer must stop sending new clients before the doors close.
bool s_probe_update(const void* params, const char** state) {
  *state = broker_update_state(static_cast<const broker_update_thread_params_t*>(params));
  return strcmp(*state, "draining") != 0;
}

// Started before anything else, so that /healthz answers during the start-up. Every check
// the configuration calls for is listed at once and stays "starting" until its part is up.
// An operator who asked for the listener relies on it: failing to open it is fatal.
bool s_start_admin(broker_app& app) {
  const broker_config_t& cfg = *app.cfg;
  if (cfg.admin_listen_port == 0) return true;
  const char* host = qm::cstr(cfg.admin_listen_host);
  app.admin = broker_admin_create(host, cfg.admin_listen_port);
  if (app.admin == nullptr || broker_admin_start(app.admin) != 0) {
    log_fatal("admin: cannot start the admin listener on %s:%d", qm::or_text(host, "(null)"), cfg.admin_listen_port);
    broker_admin_destroy(std::exchange(app.admin, nullptr));
    return false;
  }
  for (const char* name : {kCheckNatsd, kCheckRelay}) broker_admin_set_check(app.admin, name, nullptr, nullptr);
  if (cfg.auth_callout_enabled) broker_admin_set_check(app.admin, kCheckCallout, nullptr, nullptr);
  if (cfg.auth_callout_enabled && cfg.auth->backend_type != AUTH_BACKEND_FILE)
    broker_admin_set_check(app.admin, kCheckLdap, s_probe_ldap, nullptr);
  if (cfg.gw->amqp_enabled) broker_admin_set_check(app.admin, kCheckAmqp, nullptr, nullptr);
  if (cfg.gw->http_enabled) broker_admin_set_check(app.admin, kCheckHttp, nullptr, nullptr);
  broker_admin_set_check(app.admin, kCheckUpdate, nullptr, nullptr);
  return true;
}

// Written through a temporary file, fsync and rename, so that a reader never sees a
// partial pid. Every failure is a warning: the broker runs on without a pid file.
void s_write_pid_file(const std::string& path) {
  char tmp_path[4096];
  const int n = snprintf(tmp_path, sizeof tmp_path, "%s.tmp.%d", path.c_str(), static_cast<int>(getpid()));
  if (n < 0 || n >= static_cast<int>(sizeof tmp_path)) {
    log_warn("--pid-file path too long, skipping write: %s", path.c_str());
    return;
  }
  const int fd = open(tmp_path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    log_warn("--pid-file: cannot open %s for write: %m", tmp_path);
    return;
  }
  char text[32];
  const int len = snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
  const bool written = write(fd, text, static_cast<size_t>(len)) == len;
  const bool synced = fsync(fd) == 0;
  close(fd);
  if (!written || !synced) {
    log_warn("--pid-file: cannot open %s for write: %m", tmp_path);
    unlink(tmp_path);
    return;
  }
  if (rename(tmp_path, path.c_str()) != 0) {
    log_warn("--pid-file: rename %s -> %s failed: %m", tmp_path, path.c_str());
    unlink(tmp_path);
    return;
  }
  log_info("pid file: %s", path.c_str());
}

// ---- start-up steps: each true when the broker may go on ----

// A credentials file changed by another program is reloaded through the SIGHUP path.
// Without the watcher the broker runs on; only an operator's SIGHUP reloads then.
bool s_start_auth_watcher(broker_app& app) {
  const std::string& credential_file = *app.cfg->gw->credential_file;
  app.auth_watcher = broker_auth_watcher_create(credential_file.c_str(), 0, app.main_thread);
  if (app.auth_watcher == nullptr) {
    log_warn("auth-watcher: create failed \u2014 continuing without file-change detection on %s",
             credential_file.c_str());
    return true;
  }
  if (broker_auth_watcher_start(app.auth_watcher) != 0) {
    log_warn("auth-watcher: start failed \u2014 continuing without file-change detection on %s",
             credential_file.c_str());
    broker_auth_watcher_destroy(app.auth_watcher);
    app.auth_watcher = nullptr;
  }
  return true;
}

bool s_probe_external_server(broker_app& app) {
  const broker_config_t& cfg = *app.cfg;
  log_info("nats-server: external (--nats-server-managed=false); probing readiness");
  if (broker_natsd_wait_ready(qm::cstr(cfg.nats_url), qm::cstr(cfg.auth->nats_user), qm::cstr(cfg.auth->nats_password),
                              qm::cstr(cfg.nats_cert_path), cfg.nats_server_ready_timeout_sec,
                              &app.startup_stop) == 0)
    return true;
  if (!s_stopping(app)) log_fatal("nats-server: external server not reachable at %s", qm::cstr(cfg.nats_url));
  return false;
}

// A restarted child, or a relay that reconnected: the server may have lost what it kept.
void s_request_reprovision(void* arg) {
  auto& app = *static_cast<broker_app*>(arg);
  std::lock_guard<std::mutex> guard(app.reprovision_mu);
  broker_kv_reprovisioner_request(app.reprovisioner);
}

// The managed child, started and probed until ready, or an external server, probed.
bool s_start_nats_server(broker_app& app) {
  const broker_config_t& cfg = *app.cfg;
  if (!cfg.nats_server_managed) return s_probe_external_server(app);
  broker_natsd_options_t opts;
  opts.binary_path = qm::cstr(cfg.nats_server_binary);
  opts.config_path = qm::cstr(cfg.nats_server_config);
  opts.pid_file = qm::cstr(cfg.nats_server_pid_file);
  opts.nats_url = qm::cstr(cfg.nats_url);
  opts.probe_user = qm::cstr(cfg.auth->nats_user);
  opts.probe_password = qm::cstr(cfg.auth->nats_password);
  opts.cert_path = qm::cstr(cfg.nats_cert_path);
  opts.ready_timeout_sec = cfg.nats_server_ready_timeout_sec;
  opts.restart_max = 5;
  opts.restart_backoff_ms_initial = 500;
  opts.restart_backoff_ms_max = 30000;
  opts.on_give_up = s_on_supervision_gave_up;
  opts.on_give_up_arg = &app;
  opts.on_restarted = s_request_reprovision;
  opts.on_restarted_arg = &app;
  broker_natsd_t* natsd = broker_natsd_create(&opts);
  if (natsd == nullptr) {
    log_fatal("failed to allocate nats-server supervisor");
    return false;
  }
  app.natsd.store(natsd);
  broker_admin_set_check(app.admin, kCheckNatsd, s_probe_natsd, natsd);
  if (broker_natsd_start(natsd, &app.startup_stop) != 0) {
    if (!s_stopping(app)) log_fatal("nats-server supervisor failed to start");
    return false;
  }
  log_info("nats-server: running (pid=%d)", static_cast<int>(broker_natsd_pid(natsd)));
  return true;
}

broker_workqueue_opts s_workqueue_opts(const broker_config_t& cfg) {
  broker_workqueue_opts opts;
  opts.work_services = qm::cstr(cfg.js_work_services);
  opts.ackwait_ns = static_cast<int64_t>(cfg.js_ackwait_ms) * 1000000;
  opts.maxdeliver = cfg.js_maxdeliver;
  opts.maxackpending = cfg.js_maxackpending;
  opts.stream_maxage_ns = static_cast<int64_t>(cfg.js_stream_maxage_ms) * 1000000;
  opts.maxwaiting = cfg.js_maxwaiting;
  return opts;
}

// Provisioning anew ends with per-message TTL support learnt again: the server that
// lacked it may have been replaced by one that has it, or the other way round.
void s_after_reprovision(void* arg) {
  auto& app = *static_cast<broker_app*>(arg);
  std::lock_guard<std::mutex> guard(app.reprovision_mu);
  if (app.reprovision_relay != nullptr)
    gw_nats_relay_detect_msg_ttl(app.reprovision_relay);
  else
    gw_nats_relay_retry_msg_ttl();
}

// Not fatal: without it the broker still serves until the server loses its state.
void s_start_reprovisioner(broker_app& app, const broker_workqueue_opts& wq) {
  const broker_config_t& cfg = *app.cfg;
  broker_kv_reprovision_params params;
  params.nats_url = qm::cstr(cfg.nats_url);
  params.user = qm::cstr(cfg.gw->nats_user);
  params.password = qm::cstr(cfg.gw->nats_password);
  params.cert_path = qm::cstr(cfg.nats_cert_path);
  params.kv_replicas = cfg.kv_replicas;
  params.kv_scandata_allow_direct = cfg.kv_scandata_allow_direct;
  params.js_transient_memory = cfg.js_transient_memory;
  params.wq = wq;
  params.timing.budget_ms = 120000;  // a restarted cluster node may wait for its meta leader
  params.after_reprovision = s_after_reprovision;
  params.after_reprovision_arg = &app;
  broker_kv_reprovisioner_t* made = broker_kv_reprovisioner_create(&params);
  if (made == nullptr) log_warn("KV bootstrap: no reprovisioning after a restart of nats-server");
  std::lock_guard<std::mutex> guard(app.reprovision_mu);
  app.reprovisioner = made;
}

// Buckets and work queues exist before any front door opens; runs with or without work
// services.
bool s_provision_jetstream(broker_app& app) {
  const broker_config_t& cfg = *app.cfg;
  const broker_workqueue_opts opts = s_workqueue_opts(cfg);
  if (broker_kv_bootstrap(qm::cstr(cfg.nats_url), qm::cstr(cfg.gw->nats_user), qm::cstr(cfg.gw->nats_password),
                          qm::cstr(cfg.nats_cert_path), cfg.kv_replicas, cfg.kv_scandata_allow_direct,
                          cfg.js_transient_memory, &opts, &app.startup_stop) == 0) {
    s_start_reprovisioner(app, opts);
    return true;
  }
  if (!s_stopping(app)) log_fatal("KV bootstrap failed — refusing to open front doors");
  return false;
}

void s_stop_reprovisioner(broker_app& app) {
  broker_kv_reprovisioner_t* going = nullptr;
  {
    std::lock_guard<std::mutex> guard(app.reprovision_mu);
    going = std::exchange(app.reprovisioner, nullptr);
  }
  broker_kv_reprovisioner_destroy(going);
}

bool s_load_credentials(broker_app& app) {
  const char* path = qm::cstr(app.cfg->gw->credential_file);
  log_info("Loading credentials from %s", path);
  app.credentials = gw_credential_store_load(path);
  if (app.credentials == nullptr) {
    log_fatal("Failed to load credentials from %s", path);
    return false;
  }
  return true;
}

bool s_load_permissions(broker_app& app) {
  const qm::opt_string& path = app.cfg->auth->permissions_file_path;
  if (!qm::has_text(path)) {
    log_info("No --permissions-file configured \u2014 every login gets the compiled-in default permissions");
    return true;
  }
  app.profiles = auth_profile_load(path->c_str());
  if (app.profiles == nullptr) {
    log_fatal("Failed to load permissions file %s", path->c_str());
    return false;
  }
  return true;
}

// The gateway's NATS leg, as the gateway user: a listed auth user, so it needs no callout.
bool s_connect_relay(broker_app& app) {
  const char* url = qm::cstr(app.cfg->nats_url);
  log_info("Connecting NATS relay (gateway leg) to %s", url);
  app.relay = gw_nats_relay_create(app.cfg->gw.get());
  if (app.relay == nullptr) {
    log_fatal("Failed to connect NATS relay to %s", url);
    return false;
  }
  log_info("NATS relay connected");
  gw_nats_relay_on_reconnected(app.relay, s_request_reprovision, &app);
  {
    std::lock_guard<std::mutex> guard(app.reprovision_mu);
    app.reprovision_relay = app.relay;
  }
  broker_admin_set_check(app.admin, kCheckRelay, s_probe_relay, app.relay);
  // An external server counts as up while the relay reaches it.
  if (!app.cfg->nats_server_managed) broker_admin_set_check(app.admin, kCheckNatsd, s_probe_relay, app.relay);
  return true;
}

// Not fatal: without a cache every check goes to the live backends.
bool s_create_auth_cache(broker_app& app) {
  const gw_config_t& gw = *app.cfg->gw;
  if (gw.auth_cache_ttl_seconds < 1 && gw.auth_negative_cache_ttl_seconds < 1) {
    log_info("auth_cache: disabled by config (both TTLs == 0)");
    return true;
  }
  const size_t max_entries = gw.auth_cache_max_entries > 0 ? static_cast<size_t>(gw.auth_cache_max_entries) : 1024;
  const int refresh_pct = gw.auth_cache_ttl_seconds > 0 ? gw.auth_cache_refresh_threshold_pct : 0;
  app.auth_cache = gw_auth_cache_create(max_entries, gw.auth_cache_ttl_seconds, gw.auth_negative_cache_ttl_seconds,
                                      refresh_pct);
  if (app.auth_cache == nullptr) {
    log_warn("auth_cache: allocation failed; every auth request will hit the live LDAP/file path");
  }
  return true;
}

bool s_create_auth_lock(broker_app& app) {
  const auth_config_t& auth = *app.cfg->auth;
  if (auth.lock_failures < 1) {
    log_info("auth_lock: off (--auth-lock-failures 0)");
    return true;
  }
  auth_lock_options options;
  options.failures = auth.lock_failures;
  options.window_seconds = auth.lock_window_seconds;
  options.min_seconds = auth.lock_min_seconds;
  options.max_seconds = auth.lock_max_seconds;
  app.auth_lock = auth_lock_create(options);
  if (app.auth_lock == nullptr) {
    log_fatal("auth_lock: cannot be created");
    return false;
  }
  app.cfg->gw->password_lock = app.auth_lock;
  return true;
}

void s_destroy_auth_lock(broker_app& app) {
  app.cfg->gw->password_lock = nullptr;
  auth_lock_destroy(app.auth_lock);
  app.auth_lock = nullptr;
}

// The adjudicator runs on its own thread. Start-up waits until it serves: a broker that
// cannot decide logins must not say it is ready. Its own failures are logged there.
bool s_start_auth_callout(broker_app& app) {
  if (!app.cfg->auth_callout_enabled) {
    log_warn("auth-callout: disabled \u2014 no clients will be able to connect to nats-server until an external "
             "auth-callout adjudicator subscribes to $SYS.REQ.USER.AUTH; AMQP front-door will also be unable to "
             "validate logins (qm.auth.verify has no subscriber)");
    return true;
  }
  auth_service_t* svc = auth_service_create(app.cfg->auth.get(), app.credentials, app.auth_cache, app.profiles,
                                            app.auth_lock);
  if (svc == nullptr) {
    log_fatal("Failed to create auth service");
    return false;
  }
  app.auth_svc.store(svc);
  // A stop that came before the store above must reach the service too.
  if (s_stopping(app)) auth_service_stop(svc);
  app.auth_thr = broker_auth_thread_create(svc);
  if (app.auth_thr == nullptr || broker_auth_thread_start(app.auth_thr) != 0) {
    log_fatal("Failed to start auth-callout thread");
    return false;
  }
  log_info("auth-callout: thread started");
  broker_admin_set_check(app.admin, kCheckCallout, s_probe_callout, svc);
  return true;
}

// The runtime directory is named after our pid; those of dead broker processes go first.
bool s_set_up_sasl(broker_app& app) {
  char runtime_dir[128];
  snprintf(runtime_dir, sizeof runtime_dir, "/tmp/qm-av-broker-%d", static_cast<int>(getpid()));
  sweep_stale_sasl_runtime_dirs();
  const char* config_dir = gw_sasl_setup(GW_SASL_SERVICE_NAME, runtime_dir, app.relay);
  if (config_dir == nullptr) {
    log_fatal("Failed to initialize SASL authentication");
    return false;
  }
  app.sasl_config_dir = config_dir;
  log_info("SASL ready (config_dir=%s, appname=%s)", config_dir, GW_SASL_SERVICE_NAME);
  return true;
}

// One payload budget for both front doors, handed to them through their configuration.
bool s_create_inflight_budget(broker_app& app) {
  gw_config_t& gw = *app.cfg->gw;
  gw.inflight_budget = gw_inflight_budget_create(gw.max_inflight_bytes);
  if (gw.inflight_budget == nullptr) {
    log_fatal("Failed to create the in-flight payload budget");
    return false;
  }
  log_info("gateway: in-flight payload budget %zu MiB", gw.max_inflight_bytes >> 20);
  return true;
}

void s_destroy_inflight_budget(broker_app& app) {
  gw_config_t& gw = *app.cfg->gw;
  gw_inflight_budget_destroy(gw.inflight_budget);
  gw.inflight_budget = nullptr;
}

// The AMQP event loop runs on a thread of its own until shutdown stops it.
bool s_start_amqp(broker_app& app) {
  const gw_config_t& gw = *app.cfg->gw;
  if (!gw.amqp_enabled) {
    log_info("AMQP acceptor: disabled");
    return true;
  }
  const char* host = qm::cstr(gw.amqp_listen_host);
  gw_amqp_acceptor_t* acc = gw_amqp_acceptor_create(&gw, app.relay, app.sasl_config_dir.c_str(), app.profiles);
  if (acc == nullptr) {
    log_fatal("Failed to create AMQP acceptor on %s:%d", qm::or_text(host, "(null)"), gw.amqp_listen_port);
    return false;
  }
  app.amqp_acc.store(acc);
  // A stop that came before the store above must reach the acceptor too.
  if (s_stopping(app)) gw_amqp_acceptor_stop(acc);
  try {
    app.amqp_thread = std::thread([acc] { (void)gw_amqp_acceptor_run(acc); });
  } catch (const std::system_error&) {
    log_fatal("Failed to start AMQP acceptor thread");
    return false;
  }
  log_info("AMQP acceptor thread started on %s:%d", qm::or_text(host, "(null)"), gw.amqp_listen_port);
  broker_admin_set_check(app.admin, kCheckAmqp, s_probe_amqp, acc);
  return true;
}

// The REST front door, when enabled; it checks credentials through the shared cache. It is
// published only once started: a shutdown signal may stop it from then on.
bool s_start_http_frontend(broker_app& app) {
  const gw_config_t& gw = *app.cfg->gw;
  if (!gw.http_enabled) {
    log_info("HTTP frontend: disabled");
    return true;
  }
  const char* host = qm::cstr(gw.http_listen_host);
  gw_http_frontend_t* fe = gw_http_frontend_create(&gw, app.credentials, app.relay, app.auth_cache, app.profiles);
  if (fe == nullptr || gw_http_frontend_start(fe) != 0) {
    gw_http_frontend_destroy(fe);
    log_fatal("Failed to start HTTP frontend on %s:%d", host, gw.http_listen_port);
    return false;
  }
  app.http_fe.store(fe);
  broker_admin_set_check(app.admin, kCheckHttp, s_probe_http, fe);
  log_info("HTTP frontend started on %s:%d", host, gw_http_frontend_bound_port(fe));
  return true;
}

// Always started: with --update-binary false the thread only waits for the stop. Neither
// failure is fatal; the broker then runs without self-update.
bool s_start_update_thread(broker_app& app) {
  // "off" (and ready) unless the thread starts: a broker without self-update still serves.
  broker_admin_set_check(app.admin, kCheckUpdate, s_probe_update, nullptr);
  std::unique_ptr<broker_update_thread_params_t> params;
  try {
    params = std::make_unique<broker_update_thread_params_t>();
  } catch (const std::bad_alloc&) {
    log_error("OOM allocating update thread params \u2014 auto-update DISABLED");
    return true;
  }
  params->cfg = app.cfg;
  params->relay = app.relay;
  params->amqp_acc = app.amqp_acc.load();
  params->http_fe = app.http_fe.load();
  params->natsd = app.natsd.load();
  params->targetstatus = READY;
  if (broker_update_thread_start(params.get()) != 0) {
    log_error("Failed to start broker update thread (errno=%d %s) \u2014 auto-update DISABLED", errno,
              QMstrerror(errno));
    return true;
  }
  const qm_update_config_t& update = app.cfg->update_config;
  log_info("Broker update polling thread started (update_binary=%s, interval=%ldmin)",
           update.update_binary ? "true" : "false", update.update_check_interval);
  broker_admin_set_check(app.admin, kCheckUpdate, s_probe_update, params.get());
  app.update_thr.store(params.release());
  return true;
}

// ---- shutdown ----

void s_stop_auth_watcher(broker_app& app) {
  if (app.auth_watcher == nullptr) return;
  log_debug("Stopping auth-file watcher");
  broker_auth_watcher_destroy(app.auth_watcher);
  app.auth_watcher = nullptr;
}

// Joined before the front doors go: an activation under way ends the process itself.
void s_stop_update_thread(broker_app& app) {
  std::unique_ptr<broker_update_thread_params_t> params(app.update_thr.exchange(nullptr));
  if (!params) return;
  broker_admin_set_check(app.admin, kCheckUpdate, nullptr, nullptr);
  log_debug("Joining update polling thread");
  broker_update_thread_join(params.get());
}

// Waits for its requests in flight and its background refreshes, which use the relay
// and the cache torn down after it.
void s_stop_http_frontend(broker_app& app) {
  gw_http_frontend_t* fe = app.http_fe.exchange(nullptr);
  if (fe == nullptr) return;
  broker_admin_set_check(app.admin, kCheckHttp, nullptr, nullptr);
  log_debug("Stopping HTTP frontend");
  gw_http_frontend_destroy(fe);
}

void s_stop_amqp(broker_app& app) {
  gw_amqp_acceptor_t* acc = app.amqp_acc.exchange(nullptr);
  if (acc == nullptr) return;
  broker_admin_set_check(app.admin, kCheckAmqp, nullptr, nullptr);
  log_debug("Stopping AMQP acceptor");
  gw_amqp_acceptor_stop(acc);
  if (app.amqp_thread.joinable()) app.amqp_thread.join();
  gw_amqp_acceptor_destroy(acc);
}

void s_stop_relay(broker_app& app) {
  if (app.relay == nullptr) return;
  broker_admin_set_check(app.admin, kCheckRelay, nullptr, nullptr);
  if (!app.cfg->nats_server_managed) broker_admin_set_check(app.admin, kCheckNatsd, nullptr, nullptr);
  {
    std::lock_guard<std::mutex> guard(app.reprovision_mu);
    app.reprovision_relay = nullptr;
  }
  log_debug("Tearing down NATS relay");
  gw_nats_relay_destroy(app.relay);
  app.relay = nullptr;
}

void s_stop_auth_callout(broker_app& app) {
  broker_admin_set_check(app.admin, kCheckCallout, nullptr, nullptr);
  if (app.auth_thr != nullptr) {
    log_debug("Stopping auth-callout thread");
    broker_auth_thread_destroy(app.auth_thr);
    app.auth_thr = nullptr;
  }
  auth_service_destroy(app.auth_svc.exchange(nullptr));
}

// A refresh thread still inside the cache would touch freed memory: leak it instead.
void s_destroy_auth_cache(broker_app& app) {
  if (app.auth_cache == nullptr) return;
  log_debug("Draining auth_cache in-flight refreshes");
  if (gw_auth_cache_wait_inflight_drain(app.auth_cache, 6000) == 0) {
    gw_auth_cache_destroy(app.auth_cache);
  } else {
    log_warn("auth_cache: skipping destroy due to in-flight refresh drain timeout \u2014 leak accepted");
  }
  app.auth_cache = nullptr;
}

void s_tear_down_sasl(broker_app&) { gw_sasl_teardown(); }

void s_free_credentials(broker_app& app) {
  gw_credential_store_free(app.credentials);
  app.credentials = nullptr;
}

void s_free_permissions(broker_app& app) {
  auth_profile_destroy(app.profiles);
  app.profiles = nullptr;
}

void s_stop_nats_server(broker_app& app) {
  if (broker_natsd_t* natsd = app.natsd.exchange(nullptr)) {
    broker_admin_set_check(app.admin, kCheckNatsd, nullptr, nullptr);
    log_debug("Stopping nats-server child");
    broker_natsd_destroy(natsd);
  }
}

// ---- the subsystems, in start order ----

struct subsystem {
  bool (*start)(broker_app&);  // true when the broker may go on
  void (*stop)(broker_app&);   // NULL: nothing to undo; otherwise safe after a failed start
};

// Started in this order; the teardown stops those the start-up got to in reverse, so
// that nothing goes while something started after it (and using it) still runs: the
// update thread and the front doors before the relay and the auth cache they use, SASL
// (which checks passwords through the relay) before the relay, the relay before the
// nats-server child.
constexpr subsystem kSubsystems[] = {
    {s_start_nats_server, s_stop_nats_server},
    {s_provision_jetstream, s_stop_reprovisioner},
    {s_load_credentials, s_free_credentials},
    {s_load_permissions, s_free_permissions},
    {s_start_auth_watcher, s_stop_auth_watcher},
    {s_connect_relay, s_stop_relay},
    {s_create_auth_cache, s_destroy_auth_cache},
    {s_create_auth_lock, s_destroy_auth_lock},
    {s_start_auth_callout, s_stop_auth_callout},
    {s_set_up_sasl, s_tear_down_sasl},
    {s_create_inflight_budget, s_destroy_inflight_budget},
    {s_start_amqp, s_stop_amqp},
    {s_start_http_frontend, s_stop_http_frontend},
    {s_start_update_thread, s_stop_update_thread},
};

enum class startup_result { ready, failed, stopped };

startup_result s_start(broker_app& app) {
  broker_config_t& cfg = *app.cfg;
  log_info("%s starting (pid=%d)", kProgramName, static_cast<int>(getpid()));
  log_info("config: nats_url=%s nats_server_managed=%s auth_callout=%s amqp=%s http=%s", qm::cstr(cfg.nats_url),
           s_yes_no(cfg.nats_server_managed), s_yes_no(cfg.auth_callout_enabled), s_yes_no(cfg.gw->amqp_enabled),
           s_yes_no(cfg.gw->http_enabled));
  for (const std::string& option : cfg.passwords_on_command_line)
    log_warn("config: %s shows the password to every local user (ps, /proc); use %s-file instead", option.c_str(),
             option.c_str());
  if (qm::has_text(cfg.pid_file)) s_write_pid_file(*cfg.pid_file);

  // A stop asked for meanwhile ends the start-up after the step under way.
  for (const subsystem& sub : kSubsystems) {
    if (s_stopping(app)) return startup_result::stopped;
    ++app.subsystems_attempted;
    if (!sub.start(app)) return s_stopping(app) ? startup_result::stopped : startup_result::failed;
  }
  if (s_stopping(app)) return startup_result::stopped;
  log_info("%s ready", kProgramName);
  if (broker_sd_notify("READY=1") != 0) log_warn("sd_notify(READY=1) failed (running without systemd?)");
  return startup_result::ready;
}

// ---- running ----

void s_reload(broker_app& app) {
  log_info("SIGHUP: reloading credential store + forwarding to nats-server");
  const bool reloaded = gw_credential_store_reload(app.credentials) == 0;
  broker_metrics_count_credentials_reload(reloaded);
  if (!reloaded) {
    log_error("SIGHUP: gw_credential_store_reload failed; continuing with previously-loaded entries");
  } else if (app.auth_cache != nullptr) {
    // A user removed from the file, or given a new password, must not go on logging in
    // from a grant decided on the old table.
    const size_t dropped = gw_auth_cache_invalidate(app.auth_cache);
    log_info("SIGHUP: dropped %zu cached auth verdict(s); each user's next login is checked against the new table",
             dropped);
  }
  if (broker_natsd_t* natsd = app.natsd.load()) (void)broker_natsd_signal(natsd, SIGHUP);
}

void s_note_supervision_gave_up(broker_app& app) {
  if (!app.supervision_gave_up.load() || s_stopping(app)) return;
  log_fatal("nats-server: supervision gave up \u2014 shutting down so that the service manager restarts the broker");
  s_request_stops(app, false);
}

// The start-up runs on a thread of its own while the main thread takes signals: a stop
// during one of its long waits ends it at once. Then the main thread serves reloads
// until a stop. Returns how the start-up ended.
startup_result s_start_and_run(broker_app& app) {
  std::atomic<bool> started{false};
  startup_result result = startup_result::failed;
  std::thread startup;
  try {
    startup = std::thread([&] {
      result = s_start(app);
      started = true;
      s_wake_main(app);
    });
  } catch (const std::system_error& e) {
    log_fatal("cannot start the start-up thread: %s", e.what());
    return startup_result::failed;
  }
  for (;;) {
    s_on_signal(app, s_take_signal());
    s_note_supervision_gave_up(app);
    if (startup.joinable()) {
      if (!started.load()) continue;
      startup.join();
    }
    if (result != startup_result::ready || s_stopping(app)) return result;
    if (app.reload_requested.exchange(false)) s_reload(app);
  }
}

void s_shutdown(broker_app& app) {
  broker_admin_set_stopping(app.admin);
  for (size_t i = app.subsystems_attempted; i-- > 0;) {
    s_take_pending_signals(app);
    if (kSubsystems[i].stop != nullptr) kSubsystems[i].stop(app);
  }
  const broker_config_t& cfg = *app.cfg;
  if (qm::has_text(cfg.pid_file)) unlink(cfg.pid_file->c_str());
  broker_config_free(app.cfg);
  app.cfg = nullptr;
  broker_admin_destroy(std::exchange(app.admin, nullptr));
  log_info("%s stopped (rc=%d)", kProgramName, app.rc);
}

}  // namespace

int main(int argc, char** argv) {
  s_block_process_signals();
  if (argc > 0 && argv[0] != nullptr) qm__progname = argv[0];
  const char* argv0 = qm__progname;

  broker_app app;
  app.main_thread = pthread_self();
  app.cfg = broker_config_new();
  if (app.cfg == nullptr) {
    fprintf(stderr, "%s: out of memory while allocating config\n", argv0);
    return 1;
  }

  const broker_parse_result_t parsed = broker_config_parse(app.cfg, argc, argv);
  switch (parsed) {
    case BROKER_PARSE_RUN:
      break;
    case BROKER_PARSE_EXIT_OK:
      broker_config_free(app.cfg);
      return 0;
    case BROKER_PARSE_PRINT_ISSUER_NKEY:
    case BROKER_PARSE_PRINT_ISSUER_XKEY: {
      const char* seed = qm::cstr(app.cfg->auth->signing_key_path);
      const int rc = parsed == BROKER_PARSE_PRINT_ISSUER_XKEY ? auth_jwt_print_issuer_xkey(argv0, seed)
                                                              : auth_jwt_print_issuer_nkey(argv0, seed);
      broker_config_free(app.cfg);
      return rc;
    }
    case BROKER_PARSE_EXIT_FAILURE:
      broker_config_free(app.cfg);
      return 1;
  }
  broker_config_finalize(app.cfg);

  s_configure_logger(app);
  if (!s_start_admin(app)) {
    broker_config_free(app.cfg);
    return 1;
  }
  if (qm_nats_library_open() != 0) log_warn("NATS client library: could not set its lock spinning; using its defaults");

  // A stop (a signal, or supervision giving up) is an orderly shutdown, also during the
  // start-up; only a start-up step that failed on its own gives no STOPPING=1.
  if (s_start_and_run(app) == startup_result::failed) {
    app.rc = 1;
  } else {
    log_info("%s shutting down", kProgramName);
    (void)broker_sd_notify("STOPPING=1");
  }
  if (app.supervision_gave_up.load()) app.rc = 1;
  s_shutdown(app);
  return app.rc;
}
