// The auth-callout service and its configuration: the adjudicator nats-server consults
// for every client login, and the credential check the broker's front doors use.
#pragma once

#include <cstddef>
#include <string>

#include "auth_decision.hpp"  // auth_dispatch_validate(_ext): the live check behind both subjects
#include "qm_cpp.hpp"

enum auth_backend_type_t {
  AUTH_BACKEND_FILE = 0,
  AUTH_BACKEND_LDAP = 1,
  AUTH_BACKEND_FILE_THEN_LDAP = 2,
};

struct auth_config {
  qm::opt_string nats_url;  // copied by broker_config_finalize
  qm::opt_string nats_user;
  qm::opt_string nats_password;
  qm::opt_string nats_cert_path;  // copied by broker_config_finalize
  auth_backend_type_t backend_type = AUTH_BACKEND_FILE;

  qm::opt_string ldap_url;
  qm::opt_string ldap_base_dn;
  qm::opt_string ldap_bind_dn;
  qm::opt_string ldap_bind_password;
  qm::opt_string ldap_user_filter;
  qm::opt_string ldap_fallback_url;
  qm::opt_string ldap_fallback_base_dn;        // unset: the primary's
  qm::opt_string ldap_fallback_bind_dn;        // unset: the primary's
  qm::opt_string ldap_fallback_bind_password;  // unset: the primary's
  qm::opt_string ldap_fallback_user_filter;    // unset: the primary's
  qm::opt_string ldap_group_attribute;         // empty: no group fetch
  qm::opt_string ldap_cacert_path;
  int ldap_pool_size = 4;
  int ldap_idle_timeout_seconds = 300;

  qm::opt_string signing_key_path;
  qm::opt_string permissions_file_path;  // unset: built-in profiles
  // The account admitted logins are placed in (declared in nats-server's accounts block).
  qm::opt_string fleet_account = std::string("QM_FLEET");

  // The brute-force lock every password check passes (failures < 1: no lock).
  int lock_failures = 10;
  int lock_window_seconds = 600;
  int lock_min_seconds = 1;
  int lock_max_seconds = 300;

  int log_level = 4;
  qm::opt_string log_file;
  bool log_screen_trace = true;
  size_t log_maxsize_mb = 0;
};
using auth_config_t = auth_config;

// A record with every default; NULL when memory runs out. auth_config_free accepts NULL.
auth_config_t* auth_config_new();
void auth_config_free(auth_config_t* cfg);

// "ldap" -> LDAP; "file+ldap", "file,ldap", "filethenldap" -> FILE_THEN_LDAP (any case);
// NULL and anything else -> FILE.
auth_backend_type_t auth_config_parse_backend(const char* text);

struct gw_credential_store;
struct gw_auth_cache;
struct auth_profile_store;
struct auth_lock;

struct auth_service;
using auth_service_t = auth_service;

// The adjudicator: answers nats-server's auth callout on $SYS.REQ.USER.AUTH and the
// front doors' checks on "qm.auth.verify". config, creds, auth_cache and profiles (the
// permission profiles loaded from config's permissions file) are borrowed (creds,
// auth_cache and profiles may be NULL; no profiles: the built-in permissions). lock
// (borrowed, may be NULL: none) is the brute-force lock both subjects share with the
// front doors. NULL when memory runs out.
auth_service_t* auth_service_create(auth_config_t* config, gw_credential_store* creds, gw_auth_cache* auth_cache,
                                    const auth_profile_store* profiles, auth_lock* lock = nullptr);
// Connects, subscribes and serves until auth_service_stop. 0 after a clean stop, -1 when
// start-up fails (logged at FATAL). Blocking.
int auth_service_run(auth_service_t* svc);
// Waits until auth_service_run (on another thread) serves, that is, until nats-server
// has confirmed both subscriptions: 0 then; -1 when run returned without getting there
// (start-up failed). Returns at once when either has happened already.
int auth_service_wait_serving(auth_service_t* svc);
// True while both subscriptions are confirmed and no stop was asked for. Any thread.
bool auth_service_serving(auth_service_t* svc);
// Asks auth_service_run to return, at once. Any thread (not a signal handler); accepts NULL.
void auth_service_stop(auth_service_t* svc);
// Releases whatever auth_service_run left behind, then the service. Accepts NULL.
void auth_service_destroy(auth_service_t* svc);
