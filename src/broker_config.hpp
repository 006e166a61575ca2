// The broker's whole configuration, filled from the command line only.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "auth_handler.hpp"
#include "gw_config.hpp"
#include "qm_cpp.hpp"
#include "qm_update_common.hpp"

struct auth_config_deleter {
  void operator()(auth_config_t* cfg) const noexcept { auth_config_free(cfg); }
};
struct gw_config_deleter {
  void operator()(gw_config_t* cfg) const noexcept { gw_config_free(cfg); }
};

struct broker_config {
  qm::opt_string nats_server_binary;
  qm::opt_string nats_server_config;
  qm::opt_string nats_server_pid_file;
  bool nats_server_managed = true;
  int nats_server_ready_timeout_sec = 30;
  qm::opt_string pid_file;
  qm::opt_string admin_listen_host{"127.0.0.1"};
  int admin_listen_port = 0;  // 0: no admin listener
  bool auth_callout_enabled = true;
  qm::opt_string nats_url;
  qm::opt_string nats_cert_path;
  int kv_replicas = 1;
  bool kv_scandata_allow_direct = true;
  bool js_transient_memory = true;
  qm::opt_string js_work_services;
  int js_ackwait_ms = 35000;
  int js_maxdeliver = 3;
  int js_maxackpending = 0;
  int js_maxwaiting = 0;
  int js_stream_maxage_ms = 0;
  std::unique_ptr<auth_config_t, auth_config_deleter> auth;
  std::unique_ptr<gw_config_t, gw_config_deleter> gw;
  int log_level = 4;  // QMLOG_INFO
  qm::opt_string log_file;
  bool log_screen_trace = true;
  size_t log_maxsize_mb = 0;
  qm_update_config_t update_config;
  int update_drain_timeout_seconds = 30;
  qm::opt_string update_maintenance_window;
  qm_network_config_t network_config;
  // The password options given on the command line (visible to every local user), for
  // the warning main logs once logging is set up.
  std::vector<std::string> passwords_on_command_line;
};
using broker_config_t = broker_config;

// A record with every default and its two sub-records; NULL when memory runs out.
broker_config_t* broker_config_new();
// Frees the record, its strings and both sub-records; accepts NULL.
void broker_config_free(broker_config_t* cfg);
// Copies the shared settings (NATS URL and CA, work services, ack wait, logging) into
// the auth and gateway records. Accepts NULL.
void broker_config_finalize(broker_config_t* cfg);

// What main does after the command line was read.
enum broker_parse_result_t {
  BROKER_PARSE_RUN = 0,             // configuration complete: start the broker
  BROKER_PARSE_EXIT_OK = 1,         // --help was printed: exit 0
  BROKER_PARSE_EXIT_FAILURE = 2,    // an error was printed: exit 1
  BROKER_PARSE_PRINT_ISSUER_NKEY = 3,  // --print-issuer-nkey with --auth-signing-key given
  BROKER_PARSE_PRINT_ISSUER_XKEY = 4,  // --print-issuer-xkey with --auth-signing-key given
};

// Reads argv into cfg and applies the required-option rules; messages go to standard
// error. Does not finalize. getopt's state is reset, so it may be called repeatedly.
broker_parse_result_t broker_config_parse(broker_config_t* cfg, int argc, char** argv);

// The usage text, with argv0 as the program path, on standard error.
void print_usage(const char* argv0);
