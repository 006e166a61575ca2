// The broker's metrics: a fixed set of counters, gauges and latency histograms that the
// modules move where an event is decided, and their text exposition (Prometheus format
// 0.0.4) for the admin listener. Process-wide and lock-free: every update is one or two
// relaxed atomic additions, so any thread may call these at any time, before the admin
// listener exists and after it is gone. Label values come from the fixed sets below,
// never from a user name or a subject.
#pragma once

#include <cstdint>
#include <string>

#include "gw_auth_cache.hpp"

enum broker_metrics_auth_source_t {
  BROKER_METRICS_AUTH_CALLOUT = 0,  // nats-server's auth callout
  BROKER_METRICS_AUTH_VERIFY,       // requests on qm.auth.verify
  BROKER_METRICS_AUTH_HTTP,         // the REST door's Basic credentials
  BROKER_METRICS_AUTH_AMQP,         // the AMQP door's SASL PLAIN check
};

enum broker_metrics_verdict_t {
  BROKER_METRICS_GRANT = 0,
  BROKER_METRICS_DENY,
  BROKER_METRICS_ERROR,  // no verdict could be reached (malformed, backend unreachable, signing failed)
};

enum broker_metrics_relay_route_t {
  BROKER_METRICS_ROUTE_CORE = 0,
  BROKER_METRICS_ROUTE_JETSTREAM,
};

enum broker_metrics_relay_result_t {
  BROKER_METRICS_RELAY_OK = 0,
  BROKER_METRICS_RELAY_ERROR,
  BROKER_METRICS_RELAY_TIMEOUT,
};

enum broker_metrics_door_t {
  BROKER_METRICS_DOOR_HTTP = 0,
  BROKER_METRICS_DOOR_AMQP,
};

enum broker_metrics_update_outcome_t {
  BROKER_METRICS_UPDATE_NOTHING_NEW = 0,  // a check found no newer package
  BROKER_METRICS_UPDATE_STAGED,           // a new version was downloaded and installed
  BROKER_METRICS_UPDATE_FAILED,           // download or installation failed
  BROKER_METRICS_UPDATE_ACTIVATION_FAILED,
};

inline broker_metrics_verdict_t broker_metrics_verdict_of(bool granted) {
  return granted ? BROKER_METRICS_GRANT : BROKER_METRICS_DENY;
}

// A monotonic time stamp in nanoseconds: the start of a timed event.
int64_t broker_metrics_now();

// One verdict of `source`; `started` (from broker_metrics_now) also records its latency.
void broker_metrics_count_auth(broker_metrics_auth_source_t source, broker_metrics_verdict_t verdict,
                               int64_t started);
// What one auth-cache lookup answered: a fresh grant (hit), a grant due for refresh
// (stale), nothing (miss), or a cached refusal (negative).
void broker_metrics_count_cache_lookup(gw_auth_cache_result_t result);
// One response of the REST door, by status code.
void broker_metrics_count_http_status(unsigned code);
// One relayed request, by the route it took and how it ended, with its latency.
void broker_metrics_count_relay(broker_metrics_relay_route_t route, broker_metrics_relay_result_t result,
                                int64_t started);
// Payload bytes the relay staged in, and fetched from, the scan-data bucket.
void broker_metrics_count_staged_bytes(uint64_t bytes);
void broker_metrics_count_fetched_bytes(uint64_t bytes);
// A staged entry a direct read did not find and the stream leader then gave.
void broker_metrics_count_leader_read();
uint64_t broker_metrics_leader_reads();
// The relay worker pool's queue: one job queued (+1) or taken (-1).
void broker_metrics_relay_queue(int delta);
// A supervised nats-server child respawned after it ended.
void broker_metrics_count_natsd_restart();
// A credentials reload (SIGHUP or file change) and whether it took.
void broker_metrics_count_credentials_reload(bool ok);
// AMQP connections accepted (+1) and closed (-1); a message accepted or rejected.
void broker_metrics_amqp_connection(int delta);
void broker_metrics_count_amqp_message(bool accepted);
// Payload bytes the doors hold in memory now (the in-flight budget's use), moved by delta.
void broker_metrics_inflight_bytes(int64_t delta);
// A request (HTTP) or credit (AMQP) refused because the in-flight budget was spent.
void broker_metrics_count_budget_refusal(broker_metrics_door_t door);
// A user locked out after repeated failed password checks.
void broker_metrics_count_auth_lock();
// A service connection to the directory: opened on endpoint 0 (primary) or 1 (fallback),
// or -1 when every endpoint failed. Also what the readiness check of the directory reads.
void broker_metrics_count_ldap_connect(int endpoint);
// One update cycle's or activation's outcome.
void broker_metrics_count_update(broker_metrics_update_outcome_t outcome);

// False once every directory endpoint failed, true again after a connection succeeded;
// true before any attempt.
bool broker_metrics_ldap_up();

// Every metric in the text exposition format 0.0.4, one family after another.
std::string broker_metrics_render();
