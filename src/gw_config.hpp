// Configuration of the gateway: listeners, limits, the NATS relay and the auth cache.
#pragma once

#include <cstddef>

#include "qm_cpp.hpp"

struct auth_lock;
struct gw_inflight_budget;

struct gw_config {
  qm::opt_string nats_url;        // copied by broker_config_finalize
  qm::opt_string nats_user;
  qm::opt_string nats_password;
  qm::opt_string nats_cert_path;  // copied by broker_config_finalize
  qm::opt_string js_services;     // copied from js_work_services by broker_config_finalize
  qm::opt_string services;        // --gw-services: the doors' allow-list; unset: any valid service

  int listen_backlog = 65535;

  bool amqp_enabled = true;
  qm::opt_string amqp_listen_host{"0.0.0.0"};
  int amqp_listen_port = 5672;
  qm::opt_string amqp_tls_cert;  // unset: plaintext
  qm::opt_string amqp_tls_key;
  qm::opt_string amqp_tls_ca;
  // Connections open at once; one more is closed as it is accepted. Below 1 becomes 1024.
  int amqp_max_connections = 1024;
  // A connection not logged in this long after its accept is closed. Below 1 becomes 10000.
  int amqp_handshake_timeout_ms = 10000;
  // Scan requests one connection may have accepted and not yet answered; the credit its
  // links get follows this. Below 1 becomes 32.
  int amqp_max_inflight = 32;

  bool http_enabled = false;
  qm::opt_string http_listen_host{"0.0.0.0"};
  int http_listen_port = 8443;
  qm::opt_string http_tls_cert;
  qm::opt_string http_tls_key;
  qm::opt_string http_servlet_path{"/vsi"};
  // A connection silent this long is closed; below 1 becomes 60.
  int http_inactivity_timeout_seconds = 60;
  // A connection whose request headers are not complete this long after it was accepted
  // is closed, however steadily it trickles them; below 1 becomes 10000.
  int http_header_timeout_ms = 10000;
  // Connections the REST door holds at once, and from one client address; more are
  // closed as they are accepted. Below 1 becomes the default.
  int http_max_connections = 1024;
  int http_max_connections_per_ip = 64;

  qm::opt_string credential_file;
  int auth_cache_ttl_seconds = 120;
  int auth_cache_max_entries = 1024;
  int auth_negative_cache_ttl_seconds = 10;
  int auth_cache_refresh_threshold_pct = 50;
  // Borrowed: the brute-force lock the REST door shares with the auth service; NULL: none.
  auth_lock* password_lock = nullptr;

  size_t max_msg_size_bytes = 268435456;  // 256 MiB; 0 disables the cap
  // --max-inflight-mb: payload bytes both doors may hold in memory at once.
  size_t max_inflight_bytes = 1073741824;
  // The budget main makes from max_inflight_bytes and hands to both doors (borrowed: it
  // outlives them; NULL: the doors hold what their requests need without a shared bound).
  gw_inflight_budget* inflight_budget = nullptr;
  int amqp_relay_workers = 4;
  int relay_timeout_ms = 30000;
  int relay_max_timeout_ms = 300000;
  int js_ackwait_ms = 0;  // copied by broker_config_finalize

  int log_level = 4;
  qm::opt_string log_file;
  bool log_screen_trace = true;
  size_t log_maxsize_mb = 0;
};
using gw_config_t = gw_config;

// A record with every default; NULL when memory runs out. gw_config_free accepts NULL.
gw_config_t* gw_config_new();
void gw_config_free(gw_config_t* cfg);
