#include "broker_update_activation.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>

#include "broker_config.hpp"
#include "broker_natsd.hpp"
#include "broker_update_layout.hpp"
#include "gw_amqp_acceptor.hpp"
#include "gw_http_frontend.hpp"
#include "log.hpp"

namespace {

// How often a wait looks at the stop request and the doors' in-flight counts.
constexpr int64_t kPollMs = 20;

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

bool s_stop_requested(const broker_update_activation_handles_t& handles) {
  return handles.stop_requested != nullptr && handles.stop_requested(handles.stop_udata);
}

// Waits until `done` holds, `ms` have passed or a stop is requested; true when `done` held.
template <typename Done>
bool s_wait(const broker_update_activation_handles_t& handles, int64_t ms, Done done) {
  const int64_t deadline_ms = qm::monotonic_ms() + ms;
  for (;;) {
    if (done()) return true;
    const int64_t left_ms = deadline_ms - qm::monotonic_ms();
    if (left_ms <= 0 || s_stop_requested(handles)) return false;
    qm::sleep_ms(std::min(left_ms, kPollMs));
  }
}

size_t s_inflight(const broker_update_activation_handles_t& handles) {
  return gw_amqp_acceptor_inflight(handles.amqp_acc) + gw_http_frontend_inflight(handles.http_fe);
}

// New connections are refused from here on; those already open carry on.
void s_close_front_doors(const broker_update_activation_handles_t& handles) {
  if (handles.amqp_acc != nullptr) gw_amqp_acceptor_stop_accepting(handles.amqp_acc);
  if (handles.http_fe != nullptr) gw_http_frontend_stop_accepting(handles.http_fe);
}

void s_drain(const broker_update_activation_handles_t& handles, int drain_sec) {
  log_info("broker_update: front doors closed \u2014 draining in-flight for up to %ds", drain_sec);
  const int64_t started_ms = qm::monotonic_ms();
  if (s_wait(handles, static_cast<int64_t>(drain_sec) * 1000, [&] { return s_inflight(handles) == 0; })) {
    log_info("broker_update: nothing in flight at the front doors after %lld ms \u2014 drain done",
             static_cast<long long>(qm::monotonic_ms() - started_ms));
  } else {
    log_warn("broker_update: drain ended with %zu request(s) still in flight", s_inflight(handles));
  }
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

bool broker_update_in_maintenance_window(const char* win, time_t now) {
  if (win == nullptr || *win == '\0') return true;
  const std::optional<s_window> window = s_parse_window(win);
  if (!window) {
    log_warn("broker_update: maintenance-window string \"%s\" is not HH:MM-HH:MM \u2014 ignoring (activating ASAP)",
             win);
    return true;
  }
  struct tm local {};
  if (localtime_r(&now, &local) == nullptr) return true;
  const int minute = local.tm_hour * 60 + local.tm_min;
  if (window->start > window->end) return minute >= window->start || minute <= window->end;
  return window->start <= minute && minute <= window->end;
}

int broker_update_activate(const char* staged, const broker_update_activation_handles_t* handles) {
  if (handles == nullptr || handles->cfg == nullptr) {
    log_error("broker_update: activate called with NULL args \u2014 aborting");
    return -1;
  }
  if (staged == nullptr || *staged == '\0') {
    log_error("broker_update: activate called but no update_deployed_to set \u2014 aborting");
    return -1;
  }
  const broker_config_t& cfg = *handles->cfg;
  const char* window = qm::cstr(cfg.update_maintenance_window);
  const time_t now = handles->clock != nullptr ? handles->clock() : time(nullptr);
  if (qm::has_text(cfg.update_maintenance_window) && !broker_update_in_maintenance_window(window, now)) {
    log_info("broker_update: maintenance window \"%s\" not open \u2014 deferring activation", window);
    s_wait(*handles, handles->defer_ms, [] { return false; });
    return 0;
  }
  const std::string stamp = staged;
  log_info("broker_update: starting activation for staged version %s", stamp.c_str());
  if (handles->draining != nullptr) handles->draining->store(true);
  s_close_front_doors(*handles);
  s_drain(*handles, std::max(cfg.update_drain_timeout_seconds, 0));
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
