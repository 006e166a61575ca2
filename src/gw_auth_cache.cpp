#include "gw_auth_cache.hpp"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <vector>

#include "log.hpp"
#include "qm_cpp.hpp"

namespace {

enum slot_kind_t { SLOT_FREE = 0, SLOT_GRANT = 1, SLOT_DENY = 2 };
enum verify_result_t { VRES_PENDING = 0, VRES_GRANTED = 1, VRES_DENIED = 2, VRES_ABORTED = 3 };

constexpr size_t s_hash_bytes = GW_AUTH_CACHE_HASH_BYTES;
constexpr size_t s_max_probe = 32;

struct slot_t {
  slot_kind_t kind = SLOT_FREE;
  unsigned char hash[s_hash_bytes] = {};
  int64_t expires_at_ms = 0;
  int64_t refresh_at_ms = 0;  // 0: never due
  int64_t last_used_ms = 0;
  uint32_t gen = 0;
  bool refresh_in_progress = false;
  void* user_data = nullptr;  // not owned
  bool has_user_data = false;  // user_data was given, even if as NULL
};

struct verify_inflight_t {
  bool in_use = false;
  verify_result_t result = VRES_PENDING;
  int waiters = 0;
  unsigned char hash[s_hash_bytes] = {};
  std::condition_variable cv;  // one per record: a publish wakes only that pair's waiters
};

}  // namespace

struct gw_auth_cache {
  std::vector<slot_t> slots;
  size_t capacity = 0;
  int ttl_grant_s = 0;
  int ttl_deny_s = 0;
  int refresh_threshold_pct = 0;
  std::function<int64_t()> now_ms;  // empty: the steady clock
  unsigned char salt[crypto_generichash_KEYBYTES] = {};
  std::mutex lock;
  int inflight_refreshes = 0;
  std::condition_variable inflight_drained_cv;
  std::array<verify_inflight_t, GW_AUTH_CACHE_VERIFY_INFLIGHT_CAPACITY> verify_inflight;

  gw_auth_cache() = default;
  gw_auth_cache(const gw_auth_cache&) = delete;
  gw_auth_cache& operator=(const gw_auth_cache&) = delete;
  ~gw_auth_cache() {
    sodium_memzero(salt, sizeof salt);
    if (!slots.empty()) sodium_memzero(slots.data(), slots.size() * sizeof(slot_t));
  }
};

namespace {

// A key hash that wipes itself.
struct s_hash {
  unsigned char bytes[s_hash_bytes] = {};
  s_hash() = default;
  s_hash(const s_hash&) = delete;
  s_hash& operator=(const s_hash&) = delete;
  ~s_hash() { sodium_memzero(bytes, sizeof bytes); }
};

int64_t s_now_ms(const gw_auth_cache& c) { return c.now_ms ? c.now_ms() : qm::monotonic_ms(); }

std::chrono::system_clock::time_point s_deadline(int timeout_ms) {
  return std::chrono::system_clock::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
}

bool s_usable_user(const char* user) { return user != nullptr && *user != '\0'; }

bool s_same_hash(const unsigned char* a, const unsigned char* b) { return crypto_verify_32(a, b) == 0; }

void s_hash_field(crypto_generichash_state& state, const char* text) {
  const uint64_t len = strlen(text);
  unsigned char len_bytes[sizeof len];
  for (size_t i = 0; i < sizeof len; ++i) len_bytes[i] = static_cast<unsigned char>(len >> (8 * i));
  crypto_generichash_update(&state, len_bytes, sizeof len_bytes);
  crypto_generichash_update(&state, reinterpret_cast<const unsigned char*>(text), len);
}

// The one key of a (user, password) pair, for grants and refusals alike: a salted hash
// over the length and bytes of the whole user name, then of the whole password. The
// lengths keep ("ab", "c") and ("a", "bc") apart; nothing is cut.
void s_hash_pair(const gw_auth_cache& c, const char* user, const char* password, s_hash& out) {
  crypto_generichash_state state;
  crypto_generichash_init(&state, c.salt, sizeof c.salt, sizeof out.bytes);
  s_hash_field(state, user);
  s_hash_field(state, password);
  crypto_generichash_final(&state, out.bytes, sizeof out.bytes);
  sodium_memzero(&state, sizeof state);
}

size_t s_slot_index(const gw_auth_cache& c, const unsigned char* hash) {
  uint64_t home = 0;
  for (int i = 7; i >= 0; --i) home = (home << 8) | hash[i];
  return static_cast<size_t>(home % c.capacity);
}

size_t s_probe_length(const gw_auth_cache& c) { return std::min(c.capacity, s_max_probe); }

bool s_live(const slot_t& s, int64_t now) { return now < s.expires_at_ms; }

// Index of the live entry of this kind and hash, or -1. A free slot ends the run.
long s_find_slot_locked(gw_auth_cache& c, slot_kind_t kind, const unsigned char* hash, int64_t now) {
  const size_t home = s_slot_index(c, hash);
  const size_t probe = s_probe_length(c);
  for (size_t i = 0; i < probe; ++i) {
    const size_t idx = (home + i) % c.capacity;
    const slot_t& s = c.slots[idx];
    if (s.kind == SLOT_FREE) return -1;
    if (s.kind == kind && s_live(s, now) && s_same_hash(s.hash, hash)) return static_cast<long>(idx);
  }
  return -1;
}

size_t s_pick_insert_slot_locked(gw_auth_cache& c, const unsigned char* hash, int64_t now) {
  const size_t home = s_slot_index(c, hash);
  const size_t probe = s_probe_length(c);
  long first_expired = -1;
  for (size_t i = 0; i < probe; ++i) {
    const size_t idx = (home + i) % c.capacity;
    const slot_t& s = c.slots[idx];
    if (s.kind == SLOT_FREE) return idx;
    if (s_live(s, now)) {
      if (s_same_hash(s.hash, hash)) return idx;
    } else if (first_expired < 0) {
      first_expired = static_cast<long>(idx);
    }
  }
  if (first_expired >= 0) return static_cast<size_t>(first_expired);
  // Least recently used in the whole table; it may land outside its own probe run and
  // then simply ages out unseen.
  size_t victim = 0;
  for (size_t idx = 1; idx < c.capacity; ++idx) {
    if (c.slots[idx].last_used_ms < c.slots[victim].last_used_ms) victim = idx;
  }
  return victim;
}

void s_populate_slot_locked(slot_t& s, slot_kind_t kind, const unsigned char* hash, int64_t expires_at_ms,
                            int64_t refresh_at_ms, int64_t now, void* user_data, bool overwrite_user_data) {
  const bool same_entry = s.kind == kind && s_same_hash(s.hash, hash);
  s.kind = kind;
  memcpy(s.hash, hash, s_hash_bytes);
  s.expires_at_ms = expires_at_ms;
  s.refresh_at_ms = refresh_at_ms;
  s.last_used_ms = now;
  ++s.gen;
  s.refresh_in_progress = false;
  if (overwrite_user_data || !same_entry) {
    s.user_data = user_data;
    s.has_user_data = kind == SLOT_GRANT && overwrite_user_data;
  }
}

int64_t s_grant_refresh_at_ms(const gw_auth_cache& c, int64_t now) {
  if (c.refresh_threshold_pct < 1 || c.ttl_grant_s < 1) return 0;
  return now + (static_cast<int64_t>(c.refresh_threshold_pct) * c.ttl_grant_s * 1000) / 100;
}

void s_insert(gw_auth_cache& c, slot_kind_t kind, const unsigned char* hash, void* user_data,
              bool overwrite_user_data) {
  const int64_t now = s_now_ms(c);
  const int ttl_s = kind == SLOT_GRANT ? c.ttl_grant_s : c.ttl_deny_s;
  const int64_t expires_at = now + static_cast<int64_t>(ttl_s) * 1000;
  const int64_t refresh_at = kind == SLOT_GRANT ? s_grant_refresh_at_ms(c, now) : 0;
  std::lock_guard guard(c.lock);
  slot_t& s = c.slots[s_pick_insert_slot_locked(c, hash, now)];
  s_populate_slot_locked(s, kind, hash, expires_at, refresh_at, now, user_data, overwrite_user_data);
}

void s_insert_grant(gw_auth_cache_t* c, const char* user, const char* password, void* user_data,
                    bool overwrite_user_data) {
  if (c == nullptr || c->ttl_grant_s < 1 || !s_usable_user(user) || password == nullptr) return;
  s_hash hash;
  s_hash_pair(*c, user, password, hash);
  s_insert(*c, SLOT_GRANT, hash.bytes, user_data, overwrite_user_data);
}

void s_complete_refresh(gw_auth_cache_t* c, const unsigned char* hash, uint32_t gen, gw_refresh_outcome_t outcome,
                        void* new_user_data, bool set_user_data) {
  if (c == nullptr || hash == nullptr) return;
  const int64_t now = s_now_ms(*c);
  std::lock_guard guard(c->lock);
  for (slot_t& s : c->slots) {
    if (s.kind != SLOT_GRANT || s.gen != gen || !s_same_hash(s.hash, hash)) continue;
    s.refresh_in_progress = false;
    if (outcome == GW_REFRESH_GRANTED) {
      s.expires_at_ms = now + static_cast<int64_t>(c->ttl_grant_s) * 1000;
      s.refresh_at_ms = s_grant_refresh_at_ms(*c, now);
      s.last_used_ms = now;
      if (set_user_data) {
        s.user_data = new_user_data;
        s.has_user_data = true;
      }
    } else if (outcome == GW_REFRESH_DENIED) {
      s.kind = SLOT_FREE;
      s.expires_at_ms = 0;
      s.refresh_at_ms = 0;
      s.user_data = nullptr;
      s.has_user_data = false;
      ++s.gen;
    }
    break;
  }
  if (c->inflight_refreshes > 0 && --c->inflight_refreshes == 0) c->inflight_drained_cv.notify_all();
}

verify_inflight_t* s_find_inflight_locked(gw_auth_cache& c, const unsigned char* hash) {
  verify_inflight_t* found = nullptr;
  for (verify_inflight_t& rec : c.verify_inflight) {
    if (rec.in_use && s_same_hash(rec.hash, hash) && found == nullptr) found = &rec;
  }
  return found;
}

void s_reap_inflight_locked(verify_inflight_t& rec) {
  rec.in_use = false;
  rec.result = VRES_PENDING;
  rec.waiters = 0;
  sodium_memzero(rec.hash, sizeof rec.hash);
}

void s_finish_verify(gw_auth_cache_t* c, const char* user, const char* password, verify_result_t result) {
  if (c == nullptr || !s_usable_user(user) || password == nullptr) return;
  s_hash hash;
  s_hash_pair(*c, user, password, hash);
  std::lock_guard guard(c->lock);
  verify_inflight_t* rec = s_find_inflight_locked(*c, hash.bytes);
  if (rec == nullptr || rec->result != VRES_PENDING) return;
  rec->result = result;
  rec->cv.notify_all();
  if (rec->waiters == 0) s_reap_inflight_locked(*rec);
}

}  // namespace

gw_auth_cache_t* gw_auth_cache_create(size_t max_entries, int ttl_grant_s, int ttl_deny_s,
                                      int refresh_threshold_pct, const gw_auth_cache_timing* timing) {
  if ((ttl_grant_s < 1 && ttl_deny_s < 1) || max_entries == 0) return nullptr;
  if (sodium_init() < 0) {
    log_error("auth_cache: sodium_init failed");
    return nullptr;
  }
  try {
    auto c = std::make_unique<gw_auth_cache>();
    c->slots.resize(max_entries);
    c->capacity = max_entries;
    c->ttl_grant_s = std::max(ttl_grant_s, 0);
    c->ttl_deny_s = std::max(ttl_deny_s, 0);
    c->refresh_threshold_pct = refresh_threshold_pct >= 0 && refresh_threshold_pct <= 100 ? refresh_threshold_pct : 0;
    if (timing != nullptr) c->now_ms = timing->now_ms;
    randombytes_buf(c->salt, sizeof c->salt);
    log_info(
        "auth_cache: enabled (capacity=%zu, grant_ttl=%ds, deny_ttl=%ds, refresh_threshold=%d%%, "
        "verify_inflight_capacity=%d)",
        c->capacity, c->ttl_grant_s, c->ttl_deny_s, c->refresh_threshold_pct, GW_AUTH_CACHE_VERIFY_INFLIGHT_CAPACITY);
    return c.release();
  } catch (...) {
    return nullptr;
  }
}

void gw_auth_cache_destroy(gw_auth_cache_t* c) { std::unique_ptr<gw_auth_cache> owned(c); }

gw_auth_cache_lookup_t gw_auth_cache_lookup_ex(gw_auth_cache_t* c, const char* user, const char* password) {
  gw_auth_cache_lookup_t out{GW_AUTH_CACHE_MISS, nullptr};
  if (c == nullptr || !s_usable_user(user) || password == nullptr) return out;
  s_hash hash;
  s_hash_pair(*c, user, password, hash);
  const int64_t now = s_now_ms(*c);
  std::lock_guard guard(c->lock);
  if (c->ttl_grant_s > 0) {
    const long idx = s_find_slot_locked(*c, SLOT_GRANT, hash.bytes, now);
    if (idx >= 0) {
      slot_t& s = c->slots[static_cast<size_t>(idx)];
      s.last_used_ms = now;
      const bool due = s.refresh_at_ms != 0 && now >= s.refresh_at_ms && !s.refresh_in_progress;
      out.result = due ? GW_AUTH_CACHE_GRANT_STALE : GW_AUTH_CACHE_GRANT;
      out.user_data = s.user_data;
      out.has_user_data = s.has_user_data;
      return out;
    }
  }
  if (c->ttl_deny_s > 0) {
    const long idx = s_find_slot_locked(*c, SLOT_DENY, hash.bytes, now);
    if (idx >= 0) {
      c->slots[static_cast<size_t>(idx)].last_used_ms = now;
      out.result = GW_AUTH_CACHE_DENY;
    }
  }
  return out;
}

gw_auth_cache_result_t gw_auth_cache_lookup(gw_auth_cache_t* c, const char* user, const char* password) {
  return gw_auth_cache_lookup_ex(c, user, password).result;
}

void gw_auth_cache_insert_grant_ex(gw_auth_cache_t* c, const char* user, const char* password, void* user_data) {
  s_insert_grant(c, user, password, user_data, true);
}

void gw_auth_cache_insert_grant(gw_auth_cache_t* c, const char* user, const char* password) {
  s_insert_grant(c, user, password, nullptr, false);
}

void gw_auth_cache_insert_deny(gw_auth_cache_t* c, const char* user, const char* password) {
  if (c == nullptr || c->ttl_deny_s < 1 || !s_usable_user(user) || password == nullptr) return;
  s_hash hash;
  s_hash_pair(*c, user, password, hash);
  s_insert(*c, SLOT_DENY, hash.bytes, nullptr, true);
}

size_t gw_auth_cache_invalidate(gw_auth_cache_t* c) {
  if (c == nullptr) return 0;
  size_t dropped = 0;
  std::lock_guard guard(c->lock);
  for (slot_t& s : c->slots) {
    if (s.kind == SLOT_FREE) continue;
    const uint32_t next_gen = s.gen + 1;  // a refresh claimed on the old entry must not match
    sodium_memzero(&s, sizeof s);
    s.gen = next_gen;
    ++dropped;
  }
  return dropped;
}

bool gw_auth_cache_try_claim_refresh(gw_auth_cache_t* c, const char* user, const char* password,
                                     unsigned char* out_hash, uint32_t* out_gen) {
  if (c == nullptr || c->refresh_threshold_pct < 1 || c->ttl_grant_s < 1) return false;
  if (!s_usable_user(user) || password == nullptr || out_hash == nullptr || out_gen == nullptr) return false;
  s_hash hash;
  s_hash_pair(*c, user, password, hash);
  const int64_t now = s_now_ms(*c);
  std::lock_guard guard(c->lock);
  const long idx = s_find_slot_locked(*c, SLOT_GRANT, hash.bytes, now);
  if (idx < 0) return false;
  slot_t& s = c->slots[static_cast<size_t>(idx)];
  if (s.refresh_in_progress) return false;
  s.refresh_in_progress = true;
  ++c->inflight_refreshes;
  memcpy(out_hash, s.hash, s_hash_bytes);
  *out_gen = s.gen;
  return true;
}

void gw_auth_cache_complete_refresh_ex(gw_auth_cache_t* c, const unsigned char* hash, uint32_t gen,
                                       gw_refresh_outcome_t outcome, void* new_user_data) {
  s_complete_refresh(c, hash, gen, outcome, new_user_data, true);
}

void gw_auth_cache_complete_refresh(gw_auth_cache_t* c, const unsigned char* hash, uint32_t gen,
                                    gw_refresh_outcome_t outcome) {
  s_complete_refresh(c, hash, gen, outcome, nullptr, false);
}

int gw_auth_cache_wait_inflight_drain(gw_auth_cache_t* c, int timeout_ms) {
  if (c == nullptr) return 0;
  std::unique_lock guard(c->lock);
  if (c->inflight_drained_cv.wait_until(guard, s_deadline(timeout_ms), [c] { return c->inflight_refreshes == 0; })) {
    return 0;
  }
  log_warn("auth_cache: %d refresh(es) still in flight at shutdown drain deadline; cache will not be destroyed to "
           "avoid UAF",
           c->inflight_refreshes);
  return -1;
}

gw_verify_role_t gw_auth_cache_begin_verify(gw_auth_cache_t* c, const char* user, const char* password) {
  if (c == nullptr || !s_usable_user(user) || password == nullptr) return GW_VERIFY_NOROOM;
  s_hash hash;
  s_hash_pair(*c, user, password, hash);
  std::lock_guard guard(c->lock);
  if (s_find_inflight_locked(*c, hash.bytes) != nullptr) return GW_VERIFY_JOINED;
  for (verify_inflight_t& rec : c->verify_inflight) {
    if (rec.in_use) continue;
    rec.in_use = true;
    rec.result = VRES_PENDING;
    rec.waiters = 0;
    memcpy(rec.hash, hash.bytes, s_hash_bytes);
    return GW_VERIFY_LEAD;
  }
  return GW_VERIFY_NOROOM;
}

gw_auth_cache_result_t gw_auth_cache_wait_for_result(gw_auth_cache_t* c, const char* user, const char* password,
                                                     int timeout_ms) {
  if (c == nullptr || !s_usable_user(user) || password == nullptr) return GW_AUTH_CACHE_MISS;
  s_hash hash;
  s_hash_pair(*c, user, password, hash);
  std::unique_lock guard(c->lock);
  verify_inflight_t* rec = s_find_inflight_locked(*c, hash.bytes);
  if (rec == nullptr) return GW_AUTH_CACHE_MISS;
  ++rec->waiters;
  rec->cv.wait_until(guard, s_deadline(timeout_ms), [rec] { return rec->result != VRES_PENDING; });
  const verify_result_t result = rec->result;
  --rec->waiters;
  if (result != VRES_PENDING && rec->waiters == 0) s_reap_inflight_locked(*rec);
  if (result == VRES_GRANTED) return GW_AUTH_CACHE_GRANT;
  if (result == VRES_DENIED) return GW_AUTH_CACHE_DENY;
  return GW_AUTH_CACHE_MISS;
}

void gw_auth_cache_publish_result(gw_auth_cache_t* c, const char* user, const char* password, bool granted) {
  s_finish_verify(c, user, password, granted ? VRES_GRANTED : VRES_DENIED);
}

void gw_auth_cache_abort_verify(gw_auth_cache_t* c, const char* user, const char* password) {
  s_finish_verify(c, user, password, VRES_ABORTED);
}

int gw_auth_cache_verify_waiters(gw_auth_cache_t* c, const char* user, const char* password) {
  if (c == nullptr || !s_usable_user(user) || password == nullptr) return -1;
  s_hash hash;
  s_hash_pair(*c, user, password, hash);
  std::lock_guard guard(c->lock);
  const verify_inflight_t* rec = s_find_inflight_locked(*c, hash.bytes);
  return rec ? rec->waiters : -1;
}
