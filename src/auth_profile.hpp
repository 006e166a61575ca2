// Named NATS permission profiles and the maps that assign them to users and LDAP
// groups, read once from a JSON file. Read-only after loading.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

struct auth_profile;
using auth_profile_t = auth_profile;
struct auth_profile_store;
using auth_profile_store_t = auth_profile_store;

// Loads the permissions file. NULL (logged) when json_path is NULL or empty, when the
// file cannot be read, or when anything in it is malformed: no partial store.
auth_profile_store_t* auth_profile_load(const char* json_path);

// Profile for a user: the first file_user_map entry for `user`, else the first
// ldap_group_map entry (in map order) naming one of group_dns, else the default
// profile. NULL for a NULL store or when nothing applies. Never fails.
const auth_profile_t* auth_profile_resolve(const auth_profile_store_t* store, const char* user,
                                           const char* const* group_dns, size_t n_groups);

// The profile's NULL-terminated subject lists; a shared empty list for a NULL profile.
// Valid for the life of the store.
const char* const* auth_profile_pub_allow(const auth_profile_t* p);
const char* const* auth_profile_pub_deny(const auth_profile_t* p);
const char* const* auth_profile_sub_allow(const auth_profile_t* p);
const char* const* auth_profile_sub_deny(const auth_profile_t* p);
// NULL for a NULL profile.
const char* auth_profile_name(const auth_profile_t* p);

// The profile of that name in the store, or NULL (also for a NULL store or name).
const auth_profile_t* auth_profile_find(const auth_profile_store_t* store, const char* name);

// The first token of the gateway's reply inboxes. No grant reaches below it, so that no
// client can read or forge the replies the gateway waits for.
inline constexpr const char* AUTH_GATEWAY_INBOX_PREFIX = "_QMGW_INBOX";

// The subject lists a login is granted: the profile's (or the built-in `>` for a NULL
// profile) with "{user}" replaced by the user name, plus the denies every grant carries
// whatever the profile says: the system account's and the auth service's subjects, the
// gateway's inboxes, the JetStream API that administers streams and consumers, and the
// staged-data bucket wherever the profile does not name it with entries bound to the
// user.
struct auth_grant {
  std::vector<std::string> pub_allow;
  std::vector<std::string> pub_deny;
  std::vector<std::string> sub_allow;
  std::vector<std::string> sub_deny;
};

// False for a profile that templates "{user}" when the user name is empty or holds '.',
// '*', '>', white space or control characters (it would widen the grant); `out` is then
// left empty. Logs nothing: the caller says why it refused.
bool auth_profile_grant(const auth_profile_t* profile, const char* user, auth_grant& out);

// True when the profile templates "{user}" anywhere.
bool auth_profile_is_templated(const auth_profile_t* profile);

// True when `profile` (NULL: the built-in permissions) lets `user` publish to the literal subject `subject`:
// allowed by an allow entry ({user} templated, NATS wildcards * and >) and not denied by a deny entry nor by
// the denies every grant carries. False for a user name a templated profile refuses.
bool auth_profile_permits_publish(const auth_profile_t* profile, const char* user, const char* subject);

// Accepts NULL.
void auth_profile_destroy(auth_profile_store_t* store);
