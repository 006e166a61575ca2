#include "broker_update_activation.hpp"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <optional>
#include <string_view>

#include "broker_config.hpp"
#include "broker_natsd.hpp"
#include "broker_update_thread.hpp"
#include "gw_amqp_acceptor.hpp"
#include "gw_http_frontend.hpp"
#include "log.hpp"
#include "qm_update_common.hpp"

namespace {

constexpr const char* kWorkDirName = "qm-av-broker";
// nats-server lives at <base>/qm-av-broker/latest/bin/nats-server.
constexpr int kComponentsBelowBase = 4;

std::atomic<time_t (*)()> s_clock{nullptr};

time_t s_now() {
  time_t (*clock)() = s_clock.load();
  return clock != nullptr ? clock() : time(nullptr);
}

// A window as minutes since midnight.
struct s_window {
  int start;
  int end;
};

std::optional<s_window> s_parse_window(const char* win) {
  int start_hour = -1;
  int start_minute = -1;
  int end_hour = -1;
  int end_minute = -1;
  if (sscanf(win, "%d:%d-%d:%d", &start_hour, &start_minute, &end_hour, &end_minute) != 4) return std::nullopt;
  const auto valid = [](int hour, int minute) { return hour >= 0 && hour <= 23 && minute >= 0 && minute <= 59; };
  if (!valid(start_hour, start_minute) || !valid(end_hour, end_minute)) return std::nullopt;
  return s_window{start_hour * 60 + start_minute, end_hour * 60 + end_minute};
}

// New connections are refused from here on; those already open carry on.
void s_close_front_doors(const broker_update_activation_handles_t& handles) {
  if (handles.amqp_acc != nullptr) gw_amqp_acceptor_stop_accepting(handles.amqp_acc);
  if (handles.http_fe != nullptr) gw_http_frontend_stop_accepting(handles.http_fe);
}

// The service manager starts whatever "latest" points to; a failure here only means the
// old version starts again and asks for the update once more.
void s_flip_latest(const broker_config_t& cfg, const std::string& stamp) {
  const qm::opt_string basedir = broker_update_basedir(qm::cstr(cfg.nats_server_binary));
  if (!basedir) {
    log_error("broker_update: cannot derive basedir for symlink flip \u2014 proceeding anyway (systemd will restart "
              "on the old symlink, no harm done)");
    return;
  }
  const std::string workdir = broker_update_workdir(*basedir);
  const std::string staged = workdir + "/" + stamp;
  log_info("broker_update: flipping %s/latest \u2192 %s", workdir.c_str(), staged.c_str());
  if (update_latest_link(workdir.c_str(), staged.c_str()) != 0) {
    log_error("broker_update: symlink flip failed \u2014 broker will restart on old version");
  }
}

}  // namespace

bool broker_update_in_maintenance_window(const char* win) {
  if (win == nullptr || *win == '\0') return true;
  const std::optional<s_window> window = s_parse_window(win);
  if (!window) {
    log_warn("broker_update: maintenance-window string \"%s\" is not HH:MM-HH:MM \u2014 ignoring (activating ASAP)",
             win);
    return true;
  }
  const time_t now = s_now();
  struct tm local {};
  if (localtime_r(&now, &local) == nullptr) return true;
  const int minute = local.tm_hour * 60 + local.tm_min;
  if (window->start > window->end) return minute >= window->start || minute <= window->end;
  return window->start <= minute && minute <= window->end;
}

int broker_update_activate(broker_update_thread_params* params, const broker_update_activation_handles_t* handles) {
  if (params == nullptr || handles == nullptr || handles->cfg == nullptr) {
    log_error("broker_update: activate called with NULL args \u2014 aborting");
    return -1;
  }
  if (!qm::has_text(params->update_deployed_to)) {
    log_error("broker_update: activate called but no update_deployed_to set \u2014 aborting");
    return -1;
  }
  const broker_config_t& cfg = *handles->cfg;
  const char* window = qm::cstr(cfg.update_maintenance_window);
  if (qm::has_text(cfg.update_maintenance_window) && !broker_update_in_maintenance_window(window)) {
    log_info("broker_update: maintenance window \"%s\" not open \u2014 deferring activation", window);
    broker_update_sleep_unless_stopped(params, broker_update_minute_ms());
    return 0;
  }
  const std::string stamp = *params->update_deployed_to;
  log_info("broker_update: starting activation for staged version %s", stamp.c_str());
  params->draining = true;
  s_close_front_doors(*handles);
  const int drain_sec = std::max(cfg.update_drain_timeout_seconds, 0);
  log_info("broker_update: front doors closed \u2014 draining in-flight for up to %ds", drain_sec);
  broker_update_sleep_unless_stopped(params, static_cast<int64_t>(drain_sec) * 1000);
  if (handles->natsd != nullptr) {
    log_info("broker_update: stopping nats-server child");
    broker_natsd_stop(handles->natsd);
  }
  s_flip_latest(cfg, stamp);
  // The process ends here, with the other threads still running: no teardown, no
  // destructors. The next start sweeps what this one leaves (SASL runtime directory).
  if (qm::has_text(cfg.pid_file)) unlink(cfg.pid_file->c_str());
  log_info("broker_update: activation complete \u2014 exiting for systemd respawn");
  _exit(0);
}

qm::opt_string broker_update_basedir(const char* nats_server_binary) {
  if (nats_server_binary == nullptr) return std::nullopt;
  std::string_view path(nats_server_binary);
  for (int i = 0; i < kComponentsBelowBase; ++i) {
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return std::nullopt;
    path = path.substr(0, slash);
  }
  return path.empty() ? std::string("/") : std::string(path);
}

std::string broker_update_workdir(const std::string& basedir) {
  return basedir.ends_with("/") ? basedir + kWorkDirName : basedir + "/" + kWorkDirName;
}

void broker_update_set_clock_for_testing(time_t (*clock)()) { s_clock.store(clock); }
