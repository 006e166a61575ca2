// Switches the broker to a staged version: inside the maintenance window it closes both
// front doors, waits until what is in flight at them is answered (up to the drain
// timeout), stops the nats-server child, points "latest" at the staged version directory
// and ends the process with status 0, so that the service manager starts the broker again
// from the new version.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include "qm_update_common.hpp"

struct broker_config;
struct broker_natsd;
struct gw_amqp_acceptor;
struct gw_http_frontend;

// What activation works on and how it waits; all borrowed from the update thread.
struct broker_update_activation_handles {
  const broker_config* cfg = nullptr;  // required
  gw_amqp_acceptor* amqp_acc = nullptr;
  gw_http_frontend* http_fe = nullptr;
  broker_natsd* natsd = nullptr;
  // A closed window defers activation by this long (the update thread's minute).
  int64_t defer_ms = 60000;
  // The wall clock the maintenance window is judged by; NULL: time().
  time_t (*clock)() = nullptr;
  // Asked while waiting: true cuts the wait for the window or the drain short.
  qm_update_abort_fn stop_requested = nullptr;
  void* stop_udata = nullptr;
  // Set once the front doors close, for the readiness check; NULL: not reported.
  std::atomic<bool>* draining = nullptr;
};
using broker_update_activation_handles_t = broker_update_activation_handles;

// Activates the version directory named `staged` (its Unix-time stamp). -1: refused
// (arguments missing, nothing staged). 0: deferred because the maintenance window is
// closed, after waiting defer_ms (less when a stop is requested). Otherwise it does not
// return: the process exits with status 0, also when the link could not be switched (the
// old version then starts again). The drain ends as soon as neither door has a request
// in flight, at the drain timeout, or at a stop request; the rest still runs.
int broker_update_activate(const char* staged, const broker_update_activation_handles_t* handles);

// Is the window "HH:MM-HH:MM" open at `now` (local time, minute granularity, both ends
// inclusive; a start after the end spans midnight)? NULL, empty and malformed windows
// count as open, the last with a warning: a bad window never blocks an update.
bool broker_update_in_maintenance_window(const char* win, time_t now);
