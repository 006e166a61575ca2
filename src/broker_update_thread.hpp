// The self-update polling thread. Every --update-check-interval minutes it asks the update
// server for a newer broker package (or picks up one an operator put into the work
// directory by hand), installs it into a new version directory while holding the host
// and cluster update locks, prunes old version directories, and hands a staged version
// to activation, which switches "latest" and ends the process.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "qm_cpp.hpp"
#include "qm_update_common.hpp"

struct broker_config;
struct broker_natsd;
struct gw_amqp_acceptor;
struct gw_http_frontend;
struct gw_nats_relay;

// Made and owned by main; must outlive the thread.
struct broker_update_thread_params {
  const broker_config* cfg = nullptr;  // required
  gw_nats_relay* relay = nullptr;      // required to start
  // Handed to activation; each may be NULL.
  gw_amqp_acceptor* amqp_acc = nullptr;
  gw_http_frontend* http_fe = nullptr;
  broker_natsd* natsd = nullptr;
  // The update minute in ms: check intervals and the wait for the maintenance window are
  // counted in it. Tests shorten it.
  int64_t minute_ms = 60000;
  // The wall clock the maintenance window is judged by; NULL: time().
  time_t (*clock)() = nullptr;
  // Bounds on one installation.
  qm_update_install_limits_t install_limits;
  // WAITING, UPDATING or FILES_READY; written by the thread.
  std::atomic<qm_update_status_t> status{WAITING};
  // Asking the update server (or looking for a manual package); the front doors drain.
  std::atomic<bool> downloading{false};
  std::atomic<bool> draining{false};
  // STOP ends the thread. Lock-free, so a signal handler may set it.
  std::atomic<qm_thread_status> targetstatus{CREATING};
  // The name (Unix time) of the staged version directory; read by main after the join.
  qm::opt_string update_deployed_to;
  qm::opt_string update_error;
  pthread_t thread{};
  bool started = false;
};
using broker_update_thread_params_t = broker_update_thread_params;

// The thread body: returns when targetstatus becomes STOP, or at once when it cannot
// start (missing parameters, no base directory to derive from --nats-server-binary).
// With update_binary false it only waits for STOP. A successful activation ends the
// process from inside.
void* broker_update_thread(void* params);

// Runs broker_update_thread on a new thread that takes none of the signals meant for the
// main thread (SIGINT, SIGTERM, SIGHUP, SIGUSR1). 0, or -1 with errno set.
int broker_update_thread_start(broker_update_thread_params_t* params);

// Sets targetstatus to STOP. Async-signal-safe; accepts NULL. A download or install
// script in progress is ended; the thread notices within a fraction of a second.
void broker_update_thread_request_stop(broker_update_thread_params_t* params);

// Requests the stop and waits for the thread. No-op when it was never started.
void broker_update_thread_join(broker_update_thread_params_t* params);

// True once targetstatus is STOP; `params` is a broker_update_thread_params_t. Shaped as
// the update library's abort predicate.
bool broker_update_stop_requested(void* params);

// Waits `ms` milliseconds, or less when the stop is requested meanwhile. False when it
// ended because of the stop.
bool broker_update_sleep_unless_stopped(broker_update_thread_params_t* params, int64_t ms);

// What the thread is doing, for the readiness check: "idle", "downloading", "installing",
// "waiting for the window" (a staged version) or "draining" (activation closed the
// front doors). "off" for NULL. Lock-free.
const char* broker_update_state(const broker_update_thread_params_t* params);
