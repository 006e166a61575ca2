// Switches the broker to a staged version: inside the maintenance window it closes both
// front doors, lets requests in flight drain, stops the nats-server child, points
// "latest" at the staged version directory and ends the process with status 0, so that
// the service manager starts the broker again from the new version.
#pragma once

#include <ctime>
#include <string>

#include "qm_cpp.hpp"

struct broker_config;
struct broker_natsd;
struct broker_update_thread_params;
struct gw_amqp_acceptor;
struct gw_http_frontend;

struct broker_update_activation_handles {
  const broker_config* cfg = nullptr;  // required
  gw_amqp_acceptor* amqp_acc = nullptr;
  gw_http_frontend* http_fe = nullptr;
  broker_natsd* natsd = nullptr;
};
using broker_update_activation_handles_t = broker_update_activation_handles;

// Activates params->update_deployed_to. -1: refused (arguments missing, nothing staged).
// 0: deferred because the maintenance window is closed, after waiting one minute (less
// when the thread's stop is requested). Otherwise it does not return: the process exits
// with status 0, also when the link could not be switched (the old version then starts
// again). A stop requested during the drain cuts the drain short; the rest still runs.
int broker_update_activate(broker_update_thread_params* params, const broker_update_activation_handles_t* handles);

// Is the window "HH:MM-HH:MM" open now (local time, minute granularity, both ends
// inclusive; a start after the end spans midnight)? NULL, empty and malformed windows
// count as open, the last with a warning: a bad window never blocks an update.
bool broker_update_in_maintenance_window(const char* win);

// The base directory of the installed layout: `nats_server_binary` with its last four
// path components cut off ("/opt/qm-av/qm-av-broker/latest/bin/nats-server" gives
// "/opt/qm-av"); std::nullopt for NULL or a path with fewer than four "/".
qm::opt_string broker_update_basedir(const char* nats_server_binary);

// The broker's work directory below a base directory: "<basedir>/qm-av-broker".
std::string broker_update_workdir(const std::string& basedir);

// Test seam: the wall clock the maintenance window is judged by (NULL restores time()).
void broker_update_set_clock_for_testing(time_t (*clock)());
