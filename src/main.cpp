// qm-av-broker: start-up in a fixed order, a signal-driven wait, and an orderly shutdown.
#include "main.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "auth_jwt.hpp"
#include "broker_config.hpp"
#include "broker_sd_notify.hpp"
#include "gw_auth_cache.hpp"
#include "gw_credential_store.hpp"
#include "log.hpp"

volatile sig_atomic_t g_shutdown_requested = 0;
volatile sig_atomic_t g_reload_requested = 0;
gw_auth_cache_t* g_auth_cache = nullptr;

namespace {

constexpr const char* kProgramName = "qm-av-broker";

pthread_t g_main_thread;

// The logger borrows the file name; this copy outlives the configuration, which is
// freed before the last log line.
std::string g_log_file_name;

struct broker_app {
  broker_config_t* cfg = nullptr;
  gw_credential_store_t* credentials = nullptr;
  int rc = 0;
  bool signalled_shutdown = false;
};

void signal_handler(int sig) {
  const int saved_errno = errno;
  if (sig == SIGHUP) {
    g_reload_requested = 1;
  } else {
    g_shutdown_requested = 1;
  }
  // The main thread waits in sigsuspend; a signal taken by another thread must wake it.
  if (!pthread_equal(pthread_self(), g_main_thread)) pthread_kill(g_main_thread, SIGUSR1);
  errno = saved_errno;
}

void s_wake_handler(int) {}

void s_install_signal_handlers() {
  struct sigaction sa {};
  sa.sa_handler = signal_handler;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = 0;  // no SA_RESTART: interrupted calls return EINTR
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGHUP, &sa, nullptr);

  struct sigaction wake {};
  wake.sa_handler = s_wake_handler;
  sigemptyset(&wake.sa_mask);
  sigaction(SIGUSR1, &wake, nullptr);

  signal(SIGPIPE, SIG_IGN);
}

void s_configure_logger(const broker_config_t& cfg) {
  log_set_level(cfg.log_level);
  if (cfg.log_file) {
    g_log_file_name = *cfg.log_file;
    log_set_filename(g_log_file_name.c_str());
  }
  log_set_screentrace(cfg.log_screen_trace);
  log_set_maxsize(cfg.log_maxsize_mb);
}

const char* s_yes_no(bool value) { return value ? "yes" : "no"; }

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

// Not fatal: without a cache every check goes to the live backends.
void s_create_auth_cache(const gw_config_t& gw) {
  if (gw.auth_cache_ttl_seconds < 1 && gw.auth_negative_cache_ttl_seconds < 1) {
    log_info("auth_cache: disabled by config (both TTLs == 0)");
    return;
  }
  const size_t max_entries = gw.auth_cache_max_entries > 0 ? static_cast<size_t>(gw.auth_cache_max_entries) : 1024;
  const int refresh_pct = gw.auth_cache_ttl_seconds > 0 ? gw.auth_cache_refresh_threshold_pct : 0;
  g_auth_cache = gw_auth_cache_create(max_entries, gw.auth_cache_ttl_seconds, gw.auth_negative_cache_ttl_seconds,
                                      refresh_pct);
  if (g_auth_cache == nullptr) {
    log_warn("auth_cache: allocation failed; every auth request will hit the live LDAP/file path");
  }
}

// A refresh thread still inside the cache would touch freed memory: leak it instead.
void s_destroy_auth_cache() {
  if (g_auth_cache == nullptr) return;
  log_debug("Draining auth_cache in-flight refreshes");
  if (gw_auth_cache_wait_inflight_drain(g_auth_cache, 6000) == 0) {
    gw_auth_cache_destroy(g_auth_cache);
  } else {
    log_warn("auth_cache: skipping destroy due to in-flight refresh drain timeout \u2014 leak accepted");
  }
  g_auth_cache = nullptr;
}

// Start-up after the command line: every step in its fixed order. A fatal step sets
// rc = 1 and returns false; shutdown then tears down whatever exists.
bool s_start(broker_app& app) {
  broker_config_t& cfg = *app.cfg;
  log_info("%s starting (pid=%d)", kProgramName, static_cast<int>(getpid()));
  log_info("config: nats_url=%s nats_server_managed=%s auth_callout=%s amqp=%s http=%s", qm::cstr(cfg.nats_url),
           s_yes_no(cfg.nats_server_managed), s_yes_no(cfg.auth_callout_enabled), s_yes_no(cfg.gw->amqp_enabled),
           s_yes_no(cfg.gw->http_enabled));
  if (qm::has_text(cfg.pid_file)) s_write_pid_file(*cfg.pid_file);

  // The subsystems join here in this order, each with its own fatal or non-fatal rule:
  // nats-server child, JetStream provisioning, credentials and their watcher, NATS relay,
  // auth cache and callout thread, SASL, AMQP acceptor, HTTPS frontend, update thread.

  if (!s_load_credentials(app)) return false;
  s_create_auth_cache(*cfg.gw);

  log_info("%s ready", kProgramName);
  if (broker_sd_notify("READY=1") != 0) log_warn("sd_notify(READY=1) failed (running without systemd?)");
  return true;
}

void s_reload(broker_app& app) {
  log_info("SIGHUP: reloading credential store + forwarding to nats-server");
  if (gw_credential_store_reload(app.credentials) != 0) {
    log_error("SIGHUP: gw_credential_store_reload failed; continuing with previously-loaded entries");
  }
}

// Sleeps until SIGINT or SIGTERM; a SIGHUP on the way triggers a reload. The three
// signals are blocked outside sigsuspend, so none can slip in between the flag test
// and the wait.
void s_wait_for_shutdown(broker_app& app) {
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGTERM);
  sigaddset(&blocked, SIGHUP);
  sigaddset(&blocked, SIGUSR1);
  sigset_t waiting;
  pthread_sigmask(SIG_BLOCK, &blocked, &waiting);
  sigdelset(&waiting, SIGINT);
  sigdelset(&waiting, SIGTERM);
  sigdelset(&waiting, SIGHUP);
  sigdelset(&waiting, SIGUSR1);
  while (!g_shutdown_requested) {
    if (g_reload_requested) {
      g_reload_requested = 0;
      s_reload(app);
      continue;
    }
    sigsuspend(&waiting);
  }
  // Signals go back to normal delivery for the teardown (a second SIGTERM only re-sets the flag).
  pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
}

void s_shutdown(broker_app& app) {
  // Teardown in reverse dependency order: watcher, update thread, HTTPS frontend, AMQP
  // acceptor, relay, auth thread and service, auth cache, SASL, credentials, nats-server
  // child; each step only for what was started.
  const broker_config_t& cfg = *app.cfg;
  s_destroy_auth_cache();
  gw_credential_store_free(app.credentials);
  app.credentials = nullptr;
  if (qm::has_text(cfg.pid_file)) unlink(cfg.pid_file->c_str());
  broker_config_free(app.cfg);
  app.cfg = nullptr;
  log_info("%s stopped (rc=%d)", kProgramName, app.rc);
}

}  // namespace

int main(int argc, char** argv) {
  g_main_thread = pthread_self();
  if (argc > 0 && argv[0] != nullptr) qm__progname = argv[0];
  const char* argv0 = qm__progname;

  broker_app app;
  app.cfg = broker_config_new();
  if (app.cfg == nullptr) {
    fprintf(stderr, "%s: out of memory while allocating config\n", argv0);
    return 1;
  }

  switch (broker_config_parse(app.cfg, argc, argv)) {
    case BROKER_PARSE_RUN:
      break;
    case BROKER_PARSE_EXIT_OK:
      broker_config_free(app.cfg);
      return 0;
    case BROKER_PARSE_PRINT_ISSUER_NKEY: {
      const int rc = auth_jwt_print_issuer_nkey(argv0, qm::cstr(app.cfg->auth->signing_key_path));
      broker_config_free(app.cfg);
      return rc;
    }
    case BROKER_PARSE_EXIT_FAILURE:
      broker_config_free(app.cfg);
      return 1;
  }
  broker_config_finalize(app.cfg);

  s_install_signal_handlers();
  s_configure_logger(*app.cfg);

  if (s_start(app)) {
    s_wait_for_shutdown(app);
    app.signalled_shutdown = true;
    log_info("%s shutting down", kProgramName);
    (void)broker_sd_notify("STOPPING=1");
  } else {
    app.rc = 1;
  }
  s_shutdown(app);
  return app.rc;
}
