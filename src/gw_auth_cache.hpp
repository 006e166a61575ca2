// Recent credential decisions, keyed only by salted hashes of the whole (user, password)
// pair, grants and refusals alike: a wrong password never blocks the right one.
// Stale-while-revalidate refresh of grants,
// and coalescing of concurrent identical checks. Fixed size; nothing allocates after
// creation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

struct gw_auth_cache;
using gw_auth_cache_t = gw_auth_cache;

enum gw_auth_cache_result_t {
  GW_AUTH_CACHE_MISS = 0,
  GW_AUTH_CACHE_GRANT = 1,
  GW_AUTH_CACHE_GRANT_STALE = 2,  // still valid; the caller should claim a refresh
  GW_AUTH_CACHE_DENY = 3,
};

struct gw_auth_cache_lookup_t {
  gw_auth_cache_result_t result;
  void* user_data;  // the grant's pointer, else NULL
  // The grant's user data was given (by an _ex insert or refresh), even if as NULL. A grant
  // recorded without it (gw_auth_cache_insert_grant) says only that the password was right.
  bool has_user_data = false;
};

enum gw_refresh_outcome_t {
  GW_REFRESH_GRANTED = 1,
  GW_REFRESH_DENIED = 2,
  GW_REFRESH_ABORTED = 3,
};

enum gw_verify_role_t {
  GW_VERIFY_LEAD = 1,    // verify live, then publish or abort
  GW_VERIFY_JOINED = 2,  // wait for the leader's result
  GW_VERIFY_NOROOM = 3,  // verify alone and publish nothing
};

inline constexpr int GW_AUTH_CACHE_VERIFY_INFLIGHT_CAPACITY = 32;
inline constexpr size_t GW_AUTH_CACHE_HASH_BYTES = 32;

// The clock of a cache's entry times.
struct gw_auth_cache_timing {
  // Monotonic milliseconds; empty: the steady clock.
  std::function<int64_t()> now_ms;
};

// NULL when both TTLs are below 1, max_entries is 0, or set-up fails. Negative TTLs
// count as 0 (that kind disabled); a threshold outside 0..100 as 0 (no refresh).
// `timing` NULL: the steady clock.
gw_auth_cache_t* gw_auth_cache_create(size_t max_entries, int ttl_grant_s, int ttl_deny_s,
                                      int refresh_threshold_pct, const gw_auth_cache_timing* timing = nullptr);
// Accepts NULL. Only when no refresh is in flight (see gw_auth_cache_wait_inflight_drain).
void gw_auth_cache_destroy(gw_auth_cache_t* c);

gw_auth_cache_lookup_t gw_auth_cache_lookup_ex(gw_auth_cache_t* c, const char* user, const char* password);
gw_auth_cache_result_t gw_auth_cache_lookup(gw_auth_cache_t* c, const char* user, const char* password);

// Records a grant; the _ex form sets user_data (and has_user_data), the plain form keeps
// the user data of an existing identical entry (none for a new one).
void gw_auth_cache_insert_grant_ex(gw_auth_cache_t* c, const char* user, const char* password, void* user_data);
void gw_auth_cache_insert_grant(gw_auth_cache_t* c, const char* user, const char* password);
// Records a denial of this password for `user`; other passwords are not affected.
void gw_auth_cache_insert_deny(gw_auth_cache_t* c, const char* user, const char* password);

// Forgets every grant and denial: the credentials they were decided on have changed, so
// each user's next check is live. A refresh under way finds its entry gone when it
// completes and changes nothing. Returns how many entries were dropped; 0 for NULL.
size_t gw_auth_cache_invalidate(gw_auth_cache_t* c);

// Claims the background refresh of a live grant. On true, out_hash (32 bytes) and
// out_gen identify the entry for gw_auth_cache_complete_refresh, which must follow.
bool gw_auth_cache_try_claim_refresh(gw_auth_cache_t* c, const char* user, const char* password,
                                     unsigned char* out_hash, uint32_t* out_gen);
// Ends a claimed refresh. Touches the entry only if it is still the claimed one. The _ex
// form gives a granted entry new user data; the plain form leaves it as it is.
void gw_auth_cache_complete_refresh_ex(gw_auth_cache_t* c, const unsigned char* hash, uint32_t gen,
                                       gw_refresh_outcome_t outcome, void* new_user_data);
void gw_auth_cache_complete_refresh(gw_auth_cache_t* c, const unsigned char* hash, uint32_t gen,
                                    gw_refresh_outcome_t outcome);
// 0 when no refresh is (or remains) in flight, -1 after timeout_ms (logged).
int gw_auth_cache_wait_inflight_drain(gw_auth_cache_t* c, int timeout_ms);

// Coalescing: the first caller for a pair leads, later ones join and wait.
gw_verify_role_t gw_auth_cache_begin_verify(gw_auth_cache_t* c, const char* user, const char* password);
// GRANT, DENY, or MISS (no record, aborted, or timed out).
gw_auth_cache_result_t gw_auth_cache_wait_for_result(gw_auth_cache_t* c, const char* user, const char* password,
                                                     int timeout_ms);
void gw_auth_cache_publish_result(gw_auth_cache_t* c, const char* user, const char* password, bool granted);
void gw_auth_cache_abort_verify(gw_auth_cache_t* c, const char* user, const char* password);

// Callers currently waiting in gw_auth_cache_wait_for_result for this pair (-1 when no
// record exists).
int gw_auth_cache_verify_waiters(gw_auth_cache_t* c, const char* user, const char* password);
