// Runs nats-server as a child of the broker: spawns it, waits until it accepts NATS
// connections, and restarts it with doubling back-off after a crash until a budget is
// spent. The readiness probe also serves an externally run server.
#pragma once

#include <sys/types.h>

namespace qm {
class stop_flag;
}

struct broker_natsd;

struct broker_natsd_options {
  const char* binary_path = nullptr;     // nats-server executable (required)
  const char* config_path = nullptr;     // its configuration file, passed with -c (required)
  const char* pid_file = nullptr;        // optional; passed with -P, the child writes it
  const char* nats_url = nullptr;        // URL to probe (required)
  const char* probe_user = nullptr;      // optional NATS user for the probe
  const char* probe_password = nullptr;  // optional; a missing one is sent as ""
  const char* cert_path = nullptr;       // optional CA bundle for a TLS probe
  int ready_timeout_sec = 30;            // below 1 becomes 30
  int restart_max = 5;                   // crash budget; below 1 becomes 5
  int restart_backoff_ms_initial = 500;  // below 1 becomes 500
  int restart_backoff_ms_max = 30000;    // below 1 becomes 30000
  int stop_grace_ms = 10000;             // SIGTERM to SIGKILL at a stop; below 1 becomes 10000
  // A child that ran this long starts the crash count and the back-off afresh (ten
  // minutes); below 1 becomes 600000.
  int crash_window_ms = 600000;
  // Called on the supervisor thread after the pause before a restart, just before the
  // stop check and the spawn (a test's way in between the two); NULL: nothing.
  void (*before_respawn)(broker_natsd* natsd) = nullptr;
  // Called once, on the supervisor thread, when supervision gives up while no stop was
  // asked for: the crash budget is spent, a respawn failed or the child could not be
  // waited for. The broker has no server from then on; main starts its shutdown here.
  void (*on_give_up)(void* arg) = nullptr;
  void* on_give_up_arg = nullptr;
  // Called on the supervisor thread each time a restarted child has passed its readiness
  // probe: what the old one kept in memory (transient buckets, work queues) is gone.
  void (*on_restarted)(void* arg) = nullptr;
  void* on_restarted_arg = nullptr;
};
using broker_natsd_options_t = broker_natsd_options;

using broker_natsd_t = broker_natsd;

// Copies the options. NULL when opts, binary_path, config_path or nats_url is missing.
broker_natsd_t* broker_natsd_create(const broker_natsd_options_t* opts);

// Spawns the child, probes it until ready and starts the supervisor thread; 0 or -1
// (a child that never became ready is terminated again). A child that exits during the
// probe ends it at once; so does a request on `stop` (quietly). Call once.
int broker_natsd_start(broker_natsd_t* natsd, const qm::stop_flag* stop = nullptr);

// Connects to `url` every 250 ms (250 ms connect timeout) until it succeeds (0) or
// timeout_sec has passed (-1). tls:// and wss:// URLs use TLS with the host as the
// expected name; cert_path, when not empty, is the trusted CA set. A request on `stop`
// ends the wait with -1, without a message.
int broker_natsd_wait_ready(const char* url, const char* user, const char* password, const char* cert_path,
                            int timeout_sec, const qm::stop_flag* stop = nullptr);

// Delivers `sig` to the child: 0 when delivered or when there is no child, -1 (logged)
// when the delivery failed. Forwarding SIGTERM marks the supervisor as shutting down:
// that child is not restarted.
int broker_natsd_signal(broker_natsd_t* natsd, int sig);

// SIGTERM to the child, SIGKILL when it is still there after stop_grace_ms, then joins the
// supervisor thread. The child is not restarted afterwards. Its pid file is removed
// whenever a child of ours has been reaped.
void broker_natsd_stop(broker_natsd_t* natsd);

// Stops, then frees. Accepts NULL.
void broker_natsd_destroy(broker_natsd_t* natsd);

// The child's pid; -1 when there is no child or natsd is NULL.
pid_t broker_natsd_pid(const broker_natsd_t* natsd);

// True while a child runs that has passed its readiness probe: false from the moment it
// is found gone until a restarted child is ready again.
bool broker_natsd_ready(const broker_natsd_t* natsd);
