// Named NATS permission profiles and the maps that assign them to users and LDAP
// groups, read once from a JSON file. Read-only after loading.
#pragma once

#include <cstddef>

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

// Accepts NULL.
void auth_profile_destroy(auth_profile_store_t* store);
