// The auth-callout service and its configuration: the adjudicator nats-server consults
// for every client login, and the credential check the broker's front doors use.
#pragma once

#include <cstddef>
#include <string>

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
struct auth_ldap_ctx;
struct ldap_user_info;

struct auth_service;
using auth_service_t = auth_service;

// The adjudicator: answers nats-server's auth callout on $SYS.REQ.USER.AUTH and the
// front doors' checks on "qm.auth.verify". config, creds and auth_cache are borrowed
// (creds and auth_cache may be NULL). NULL when memory runs out.
auth_service_t* auth_service_create(auth_config_t* config, gw_credential_store* creds, gw_auth_cache* auth_cache);
// Connects, subscribes and serves until auth_service_stop. 0 after a clean stop, -1 when
// start-up fails (logged at FATAL). Blocking.
int auth_service_run(auth_service_t* svc);
// Asks auth_service_run to return (within 500 ms). Async-signal-safe; accepts NULL.
void auth_service_stop(auth_service_t* svc);
// Releases whatever auth_service_run left behind, then the service. Accepts NULL.
void auth_service_destroy(auth_service_t* svc);

// The credential check behind both subjects: the credentials file first, then LDAP.
// *out_backend (if given) becomes "none", "file" or "ldap"; out_info (if given) is cleared
// and, after an LDAP grant, holds the user's groups. False at once for NULL or empty
// user or password.
bool auth_dispatch_validate_ext(gw_credential_store* creds, auth_ldap_ctx* ldap_ctx, const char* user,
                                const char* password, const char** out_backend, ldap_user_info* out_info);
bool auth_dispatch_validate(gw_credential_store* creds, auth_ldap_ctx* ldap_ctx, const char* user,
                            const char* password, const char** out_backend);

// What a callout request (the JWT nats-server sends) says about the connecting client.
struct auth_request_t {
  std::string user;
  qm::secret_string password;
  std::string server_id;
  std::string user_nkey;
  bool has_user = false;
  bool has_password = false;
};

// Reads the claims of the request token (not verified: the subject's access control is
// trusted). False when there is no "nats" object or no user or password; server id and
// user NKey found so far stay in req for the refusal.
bool extract_auth_request(const std::string& token, auth_request_t& req);
