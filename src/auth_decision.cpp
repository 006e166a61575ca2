#include "auth_decision.hpp"

#include <sodium.h>

#include <cstring>
#include <memory>
#include <new>

#include "auth_ldap.hpp"
#include "auth_lock.hpp"
#include "auth_profile.hpp"
#include "auth_workers.hpp"
#include "broker_metrics.hpp"
#include "gw_auth_cache.hpp"
#include "gw_credential_store.hpp"
#include "log.hpp"

bool auth_dispatch_validate_ext(gw_credential_store_t* creds, auth_ldap_ctx_t* ldap_ctx, const char* user,
                                const char* password, const char** out_backend, ldap_user_info_t* out_info) {
  if (out_backend) *out_backend = "none";
  if (out_info) {
    out_info->groups = nullptr;
    out_info->n_groups = 0;
  }
  if (user == nullptr || password == nullptr || user[0] == '\0' || password[0] == '\0') return false;
  if (creds != nullptr && gw_credential_store_validate(creds, user, password)) {
    if (out_backend) *out_backend = "file";
    return true;
  }
  if (ldap_ctx == nullptr) return false;
  const bool ok = out_info ? auth_ldap_validate_ext(ldap_ctx, user, password, out_info)
                           : auth_ldap_validate(ldap_ctx, user, password);
  if (ok && out_backend) *out_backend = "ldap";
  return ok;
}

bool auth_dispatch_validate(gw_credential_store_t* creds, auth_ldap_ctx_t* ldap_ctx, const char* user,
                            const char* password, const char** out_backend) {
  return auth_dispatch_validate_ext(creds, ldap_ctx, user, password, out_backend, nullptr);
}

namespace {

constexpr int kCoalesceWaitMs = 5000;
// Refreshes only renew grants that are still valid: a few threads keep up, and a
// directory outage cannot pile up more than a bounded queue of them.
constexpr size_t kRefreshThreads = 2;
constexpr size_t kRefreshQueue = 64;

// The groups an LDAP grant brought back, released with the user info's own free.
struct user_groups {
  ldap_user_info_t info;
  user_groups() = default;
  user_groups(const user_groups&) = delete;
  user_groups& operator=(const user_groups&) = delete;
  ~user_groups() { ldap_user_info_free(&info); }
  const char* const* list() const { return info.groups; }
  size_t count() const { return info.n_groups > 0 ? static_cast<size_t>(info.n_groups) : 0; }
};

const char* s_profile_label(const auth_profile_t* profile) {
  const char* name = auth_profile_name(profile);
  return name ? name : "default";
}

// The cache stores the profile as its untyped user data.
void* s_user_data(const auth_profile_t* profile) { return const_cast<auth_profile_t*>(profile); }

}  // namespace

struct auth_decider {
  gw_credential_store_t* creds = nullptr;
  auth_ldap_ctx_t* ldap = nullptr;
  const auth_profile_store_t* profiles = nullptr;
  gw_auth_cache_t* cache = nullptr;
  auth_lock_t* lock = nullptr;
  qm::c_ptr<auth_workers_t, auth_workers_destroy> refreshes;
};

namespace {

// No credential holds a NUL byte, and every tier behind the decider reads C strings,
// which would end at it: "pw\0junk" would be checked as "pw". Refused before any tier.
bool s_holds_nul(const std::string& text) { return text.find('\0') != std::string::npos; }

// An empty user or password is never looked up in, nor stored into, the cache.
bool s_cacheable(const auth_decider& d, const auth_question& q) {
  return d.cache != nullptr && !q.user.empty() && !q.password.empty();
}

const auth_profile_t* s_resolve(const auth_decider& d, const std::string& user, const user_groups* groups) {
  return auth_profile_resolve(d.profiles, user.c_str(), groups ? groups->list() : nullptr,
                              groups ? groups->count() : 0);
}

// ---- background refresh of grants that are getting old ----

// Renews one claimed grant. It never revokes: a failed check may be a passing directory
// outage, so the old grant runs out its TTL instead.
class refresh_job final : public auth_job {
 public:
  refresh_job(const auth_decider& d, const std::string& user, const qm::secret_string& password,
              const unsigned char* hash, uint32_t gen)
      : decider_(d), user_(user), password_(password.str()), gen_(gen) {
    memcpy(hash_, hash, sizeof hash_);
  }
  ~refresh_job() override { sodium_memzero(hash_, sizeof hash_); }

  void run() noexcept override {
    user_groups groups;
    const char* backend = "none";
    if (auth_dispatch_validate_ext(decider_.creds, decider_.ldap, user_.c_str(), password_.c_str(), &backend,
                                   &groups.info)) {
      const auth_profile_t* profile = s_resolve(decider_, user_, &groups);
      log_debug("auth_refresh: GRANTED user=%s backend=%s profile=%s groups=%d", log_safe(user_).c_str(), backend,
                s_profile_label(profile), groups.info.n_groups);
      gw_auth_cache_complete_refresh_ex(decider_.cache, hash_, gen_, GW_REFRESH_GRANTED, s_user_data(profile));
    } else {
      log_info("auth_refresh: dispatcher returned false user=%s backend=%s \u2014 treating as ABORTED to avoid "
               "invalidating on transient LDAP failure",
               log_safe(user_).c_str(), backend);
      gw_auth_cache_complete_refresh(decider_.cache, hash_, gen_, GW_REFRESH_ABORTED);
    }
  }

  // Not run: the grant keeps its old expiry and may be claimed again.
  void cancel() noexcept override { gw_auth_cache_complete_refresh(decider_.cache, hash_, gen_, GW_REFRESH_ABORTED); }

 private:
  const auth_decider& decider_;
  std::string user_;
  qm::secret_string password_;
  unsigned char hash_[GW_AUTH_CACHE_HASH_BYTES] = {};
  uint32_t gen_ = 0;
};

// Claims the refresh of a stale grant and queues it; the request that found the grant
// stale is answered from the cache at once.
void s_dispatch_refresh(auth_decider& d, const auth_question& q) {
  unsigned char hash[GW_AUTH_CACHE_HASH_BYTES];
  uint32_t gen = 0;
  if (!gw_auth_cache_try_claim_refresh(d.cache, q.user.c_str(), q.password.c_str(), hash, &gen)) return;
  std::unique_ptr<auth_job> job;
  try {
    job = std::make_unique<refresh_job>(d, q.user, q.password, hash, gen);
  } catch (const std::bad_alloc&) {
    log_warn("auth_refresh: OOM allocating ctx user=%s", log_safe(q.user).c_str());
    gw_auth_cache_complete_refresh(d.cache, hash, gen, GW_REFRESH_ABORTED);
  }
  sodium_memzero(hash, sizeof hash);
  if (!job) return;
  if (auth_workers_submit(d.refreshes.get(), std::move(job)))
    log_trace("auth_refresh: dispatched user=%s", log_safe(q.user).c_str());
  else
    log_debug("auth_refresh: no room for another refresh (or stopping) user=%s \u2014 left to a later lookup",
              log_safe(q.user).c_str());
}

// ---- the steps of a decision ----

std::optional<auth_verdict> s_from_cache(auth_decider& d, const auth_question& q) {
  if (!s_cacheable(d, q) || q.revalidate) return std::nullopt;
  const gw_auth_cache_lookup_t hit = gw_auth_cache_lookup_ex(d.cache, q.user.c_str(), q.password.c_str());
  broker_metrics_count_cache_lookup(hit.result);
  switch (hit.result) {
    case GW_AUTH_CACHE_GRANT_STALE:
    case GW_AUTH_CACHE_GRANT:
      // A grant recorded without a profile would give the built-in, widest permissions (to
      // a NATS login, or to a door's publish check): a miss, and the live check records
      // the profile.
      if (!hit.has_user_data) return std::nullopt;
      if (hit.result == GW_AUTH_CACHE_GRANT_STALE) s_dispatch_refresh(d, q);
      return auth_verdict{true, AUTH_VERDICT_CACHED, "cache", static_cast<const auth_profile_t*>(hit.user_data), 0};
    case GW_AUTH_CACHE_DENY:
      return auth_verdict{false, AUTH_VERDICT_CACHED_DENY, "neg-cache", nullptr, 0};
    case GW_AUTH_CACHE_MISS:
      break;
  }
  return std::nullopt;
}

void s_remember_grant(auth_decider& d, const auth_question& q, const auth_verdict& verdict) {
  if (verdict.granted && s_cacheable(d, q))
    gw_auth_cache_insert_grant_ex(d.cache, q.user.c_str(), q.password.c_str(), s_user_data(verdict.profile));
}

// The credentials file is an in-memory table: checking it never waits. With no directory
// behind it, its refusal is final.
std::optional<auth_verdict> s_from_file(auth_decider& d, const auth_question& q) {
  if (q.user.empty() || q.password.empty()) return auth_verdict{};
  if (d.creds != nullptr && gw_credential_store_validate(d.creds, q.user.c_str(), q.password.c_str())) {
    const auth_verdict verdict{true, AUTH_VERDICT_LIVE, "file", s_resolve(d, q.user, nullptr), 0};
    s_remember_grant(d, q, verdict);
    return verdict;
  }
  if (d.ldap == nullptr) return auth_verdict{};
  return std::nullopt;
}

// The outcome of the identical check another caller leads, or nothing: check live.
std::optional<auth_verdict> s_join(auth_decider& d, const auth_question& q) {
  const char* user = q.user.c_str();
  const gw_auth_cache_result_t waited =
      gw_auth_cache_wait_for_result(d.cache, user, q.password.c_str(), kCoalesceWaitMs);
  if (waited == GW_AUTH_CACHE_DENY) return auth_verdict{false, AUTH_VERDICT_COALESCED, "coalesced", nullptr, 0};
  if (waited == GW_AUTH_CACHE_GRANT) {
    // Both askers need the profile the leader recorded with its grant.
    const gw_auth_cache_lookup_t again = gw_auth_cache_lookup_ex(d.cache, user, q.password.c_str());
    const bool granted = again.result == GW_AUTH_CACHE_GRANT || again.result == GW_AUTH_CACHE_GRANT_STALE;
    if (granted && again.has_user_data) {
      const auto* profile = static_cast<const auth_profile_t*>(again.user_data);
      return auth_verdict{true, AUTH_VERDICT_COALESCED, "coalesced", profile, 0};
    }
    log_debug("auth_callout: coalesce wake-then-lookup MISS user=%s \u2014 running uncoalesced live verify",
              log_safe(q.user).c_str());
    return std::nullopt;
  }
  if (q.asker == AUTH_ASKER_CALLOUT)
    log_debug("auth_callout: coalesce wait MISS user=%s \u2014 running live verify", log_safe(q.user).c_str());
  else
    log_debug("auth_verify: coalesce wait MISS user=%s \u2014 running live verify", log_safe(q.user).c_str());
  return std::nullopt;
}

// The leader of a coalesced check owes its joiners an outcome, also when it fails on
// the way.
class leadership {
 public:
  leadership(auth_decider& d, const auth_question& q, bool leading) : d_(d), q_(q), leading_(leading) {}
  leadership(const leadership&) = delete;
  leadership& operator=(const leadership&) = delete;
  ~leadership() {
    if (leading_) gw_auth_cache_abort_verify(d_.cache, q_.user.c_str(), q_.password.c_str());
  }
  void publish(bool granted) {
    if (!leading_) return;
    gw_auth_cache_publish_result(d_.cache, q_.user.c_str(), q_.password.c_str(), granted);
    leading_ = false;
  }

 private:
  auth_decider& d_;
  const auth_question& q_;
  bool leading_;
};

auth_verdict s_check_live(auth_decider& d, const auth_question& q, leadership& lead) {
  user_groups groups;
  auth_verdict verdict;
  verdict.granted = auth_dispatch_validate_ext(d.creds, d.ldap, q.user.c_str(), q.password.c_str(), &verdict.backend,
                                               &groups.info);
  verdict.n_groups = groups.info.n_groups;
  if (verdict.granted) verdict.profile = s_resolve(d, q.user, &groups);
  // Only grants are remembered here: a refusal may be a directory outage.
  s_remember_grant(d, q, verdict);
  lead.publish(verdict.granted);
  return verdict;
}

// A check only the directory can decide: join an identical one under way, or lead one
// (those that come meanwhile join it).
auth_verdict s_decide_by_directory(auth_decider& d, const auth_question& q) {
  gw_verify_role_t role = GW_VERIFY_NOROOM;
  if (s_cacheable(d, q)) role = gw_auth_cache_begin_verify(d.cache, q.user.c_str(), q.password.c_str());
  if (role == GW_VERIFY_JOINED) {
    if (std::optional<auth_verdict> joined = s_join(d, q)) return *joined;
  }
  leadership lead(d, q, role == GW_VERIFY_LEAD);
  return s_check_live(d, q, lead);
}

// Every password check counts for the lock, a refusal from the cache too; a question
// without a user name locks nobody.
void s_note_outcome(auth_decider& d, const auth_question& q, const auth_verdict& verdict) {
  if (!q.user.empty()) auth_lock_note(d.lock, q.user, verdict.granted);
}

}  // namespace

auth_decider_t* auth_decider_create(gw_credential_store_t* creds, auth_ldap_ctx_t* ldap_ctx,
                                    const auth_profile_store_t* profiles, gw_auth_cache_t* cache,
                                    auth_lock_t* lock) {
  try {
    auto d = std::make_unique<auth_decider>();
    d->lock = lock;
    d->creds = creds;
    d->ldap = ldap_ctx;
    d->profiles = profiles;
    d->cache = cache;
    if (cache != nullptr) {
      d->refreshes.reset(auth_workers_create(kRefreshThreads, kRefreshQueue));
      if (!d->refreshes) return nullptr;
    }
    return d.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

std::optional<auth_verdict> auth_decide_now(auth_decider_t* d, const auth_question& q) {
  if (d == nullptr || s_holds_nul(q.user) || s_holds_nul(q.password.str())) return auth_verdict{};
  // A locked user gets what a wrong password gets, and nothing is checked.
  if (auth_lock_refuses(d->lock, q.user)) return auth_verdict{};
  std::optional<auth_verdict> verdict = s_from_cache(*d, q);
  if (!verdict) verdict = s_from_file(*d, q);
  if (verdict) s_note_outcome(*d, q, *verdict);
  return verdict;
}

auth_verdict auth_decide(auth_decider_t* d, const auth_question& q) {
  if (std::optional<auth_verdict> now = auth_decide_now(d, q)) return *now;
  const auth_verdict verdict = s_decide_by_directory(*d, q);
  s_note_outcome(*d, q, verdict);
  return verdict;
}

int auth_decider_drain_refreshes(auth_decider_t* d, int timeout_ms) {
  if (d == nullptr || d->cache == nullptr) return 0;
  auth_workers_stop(d->refreshes.get(), AUTH_WORKERS_CANCEL_QUEUED);
  return gw_auth_cache_wait_inflight_drain(d->cache, timeout_ms);
}

void auth_decider_destroy(auth_decider_t* d) {
  if (d == nullptr) return;
  // The refreshes borrow the tiers: none may run once the owner frees them.
  auth_workers_stop(d->refreshes.get(), AUTH_WORKERS_CANCEL_QUEUED);
  std::unique_ptr<auth_decider> owned(d);
}

gw_credential_store_t* auth_decider_creds(const auth_decider_t* d) { return d ? d->creds : nullptr; }

auth_ldap_ctx_t* auth_decider_ldap(const auth_decider_t* d) { return d ? d->ldap : nullptr; }
