// LDAP directory backend of the auth callout: checks a user name and password by
// search-then-bind and, on request, returns the user's group DNs. Service-bound
// connections are pooled; user binds always use a fresh connection. A second
// directory server, when configured, is tried whenever the primary refuses.
#pragma once

#include <cstdint>
#include <functional>

struct auth_ldap_ctx;
using auth_ldap_ctx_t = auth_ldap_ctx;

// The groups of a validated user: `groups` holds `n_groups` owned strings (group DNs,
// as the configured attribute stores them). Release with ldap_user_info_free.
// Time limits and the clock of a directory context.
struct auth_ldap_timing {
  int network_ms = 10000;    // TCP connect
  int operation_ms = 10000;  // each bind and search, also the search's server-side time limit
  // Monotonic milliseconds for the pool's idle time-out; empty: the steady clock.
  std::function<int64_t()> now_ms;
};

struct ldap_user_info {
  char** groups = nullptr;
  int n_groups = 0;
};
using ldap_user_info_t = ldap_user_info;

// Frees the strings and the array and resets both fields. Accepts NULL.
void ldap_user_info_free(ldap_user_info_t* info);

// NULL when `url` or `base_dn` is NULL. A NULL `user_filter` means
// "(&(objectClass=posixAccount)(uid=%s))". A non-empty `fallback_url` adds a second
// endpoint whose other fields, when NULL or empty, are the primary's. `pool_size` below 1
// turns pooling off; `idle_timeout_seconds` below 1 keeps idle connections for ever.
// An empty `group_attribute` means no group fetch; `cacert_path` is used for ldaps:// only.
// `timing` NULL: the production time limits and the steady clock.
auth_ldap_ctx_t* auth_ldap_init(const char* url, const char* base_dn, const char* bind_dn,
                                const char* bind_password, const char* user_filter,
                                const char* fallback_url, const char* fallback_base_dn,
                                const char* fallback_bind_dn, const char* fallback_bind_password,
                                const char* fallback_user_filter, int pool_size,
                                int idle_timeout_seconds, const char* group_attribute,
                                const char* cacert_path, const auth_ldap_timing* timing = nullptr);

// True when the directory knows `user` and a bind as its entry with `password` succeeds.
// An empty password is always refused (an empty simple bind is an unauthenticated bind,
// which servers accept). Safe to call from any number of threads.
bool auth_ldap_validate(auth_ldap_ctx_t* ctx, const char* user, const char* password);

// As auth_ldap_validate; `out_info` (may be NULL) is reset first and, on success, receives
// the user's groups, which the caller then owns.
bool auth_ldap_validate_ext(auth_ldap_ctx_t* ctx, const char* user, const char* password,
                            ldap_user_info_t* out_info);

// Unbinds every pooled connection and frees the context. Accepts NULL. No validation may
// be running.
void auth_ldap_destroy(auth_ldap_ctx_t* ctx);
