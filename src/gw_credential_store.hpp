// In-memory user/password table read from the credentials file that nats-server
// includes in its authorization block. Readers share a lock; a reload swaps the whole
// table at once.
#pragma once

struct gw_credential_store;
using gw_credential_store_t = gw_credential_store;

// Called once per entry in file order; returning false stops the walk.
using gw_credential_iter_fn = bool (*)(const char* user, const char* password, void* userdata);

// Most entries the store holds; pairs beyond this are ignored.
inline constexpr int GW_CREDENTIAL_STORE_CAPACITY = 128;

// Reads the file at `path` into a new store. NULL when the file cannot be opened
// (logged). A file without pairs gives an empty store.
gw_credential_store_t* gw_credential_store_load(const char* path);

// True when some entry has exactly this user and password. False for NULL arguments.
// Every entry is compared by keyed digests, without stopping at a match: the time taken
// depends neither on how much of a guess was right nor on which users exist.
bool gw_credential_store_validate(gw_credential_store_t* store, const char* user, const char* password);

// Calls fn for each entry under the read lock; fn must not reload or free the store.
void gw_credential_store_iterate(gw_credential_store_t* store, gw_credential_iter_fn fn, void* userdata);

// Reads the file again and swaps the table in one step. -1 (old table kept) when the
// file cannot be opened; 0 otherwise, also when the file now holds no pairs.
int gw_credential_store_reload(gw_credential_store_t* store);

// Accepts NULL. No other thread may be inside the store.
void gw_credential_store_free(gw_credential_store_t* store);
