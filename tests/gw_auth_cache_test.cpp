#include "gw_auth_cache.hpp"

#include "test_prelude.hpp"

namespace {

std::atomic<int64_t> g_now_ms{1'000'000};
int64_t fake_clock() { return g_now_ms.load(); }

using CachePtr = qm::c_ptr<gw_auth_cache_t, gw_auth_cache_destroy>;

// True while thread `tid` of this process is blocked (state S in its stat line).
bool s_thread_blocked(pid_t tid) {
  const std::string stat = read_file("/proc/self/task/" + std::to_string(tid) + "/stat");
  const size_t after_name = stat.rfind(')');
  return after_name != std::string::npos && after_name + 2 < stat.size() && stat[after_name + 2] == 'S';
}

// Entry times follow a clock the test moves by hand.
class AuthCache : public ::testing::Test {
 protected:
  void SetUp() override { g_now_ms = 1'000'000; }
  static void advance_ms(int64_t ms) { g_now_ms += ms; }
  static CachePtr make(size_t entries, int grant_s, int deny_s, int pct) {
    const gw_auth_cache_timing timing{fake_clock};
    return CachePtr(gw_auth_cache_create(entries, grant_s, deny_s, pct, &timing));
  }
  // Claims the refresh of (user, password); the hash and generation land in the fixture.
  bool claim(gw_auth_cache_t* c, const char* user, const char* password) {
    return gw_auth_cache_try_claim_refresh(c, user, password, hash_, &gen_);
  }
  unsigned char hash_[GW_AUTH_CACHE_HASH_BYTES] = {};
  uint32_t gen_ = 0;
};

TEST_F(AuthCache, CreationRulesClampingAndBadArguments) {
  EXPECT_EQ(make(16, 0, 0, 50), nullptr);
  EXPECT_EQ(make(16, -5, 0, 50), nullptr);
  EXPECT_EQ(make(0, 10, 10, 50), nullptr);
  CachePtr c = make(16, 120, -3, 101);
  ASSERT_NE(c, nullptr);
  // Threshold 101 (or -1) is stored as 0: a grant never turns stale, and no refresh can be claimed.
  CachePtr negative = make(16, 120, 10, -1);
  for (gw_auth_cache_t* cache : {c.get(), negative.get()}) gw_auth_cache_insert_grant(cache, "u", "p");
  advance_ms(119'000);
  for (gw_auth_cache_t* cache : {c.get(), negative.get()}) {
    EXPECT_EQ(gw_auth_cache_lookup(cache, "u", "p"), GW_AUTH_CACHE_GRANT);
    EXPECT_FALSE(claim(cache, "u", "p"));
  }
  // Deny TTL -3 is stored as 0: denials are not recorded.
  gw_auth_cache_insert_deny(c.get(), "x", "any");
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "x", "any"), GW_AUTH_CACHE_MISS);

  // A deny-only cache ignores grants.
  CachePtr deny_only = make(16, 0, 10, 50);
  ASSERT_NE(deny_only, nullptr);
  gw_auth_cache_insert_grant(deny_only.get(), "u", "p");
  EXPECT_EQ(gw_auth_cache_lookup(deny_only.get(), "u", "p"), GW_AUTH_CACHE_MISS);
  EXPECT_FALSE(claim(deny_only.get(), "u", "p"));
  gw_auth_cache_insert_deny(deny_only.get(), "u", "p");
  EXPECT_EQ(gw_auth_cache_lookup(deny_only.get(), "u", "p"), GW_AUTH_CACHE_DENY);

  // No user, or no password, is never recorded nor found; an empty password is a password.
  CachePtr full = make(16, 120, 10, 50);
  gw_auth_cache_insert_grant(full.get(), "", "p");
  gw_auth_cache_insert_grant(full.get(), nullptr, "p");
  gw_auth_cache_insert_deny(full.get(), "", "p");
  EXPECT_EQ(gw_auth_cache_lookup(full.get(), "", "p"), GW_AUTH_CACHE_MISS);
  EXPECT_EQ(gw_auth_cache_lookup(full.get(), "u", nullptr), GW_AUTH_CACHE_MISS);
  EXPECT_EQ(gw_auth_cache_begin_verify(full.get(), "", "p"), GW_VERIFY_NOROOM);
  EXPECT_EQ(gw_auth_cache_wait_for_result(full.get(), "u", "p", 10), GW_AUTH_CACHE_MISS);
  gw_auth_cache_insert_grant(full.get(), "u", "");
  EXPECT_EQ(gw_auth_cache_lookup(full.get(), "u", ""), GW_AUTH_CACHE_GRANT);
  EXPECT_EQ(gw_auth_cache_lookup(full.get(), "u", "x"), GW_AUTH_CACHE_MISS);
}

TEST_F(AuthCache, GrantTurnsStaleAtTheThresholdAndExpiresAtTheTtlDenyAtItsOwn) {
  CachePtr c = make(64, 120, 10, 50);
  gw_auth_cache_insert_grant(c.get(), "alice", "pw");
  gw_auth_cache_insert_deny(c.get(), "bob", "other");
  // A refusal is for that password alone: neither another password nor another user is refused.
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "bob", "right"), GW_AUTH_CACHE_MISS);
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "Bob", "other"), GW_AUTH_CACHE_MISS);
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "alice", "wrong"), GW_AUTH_CACHE_MISS);
  // The same pair decided again: the newer verdict replaces the older.
  gw_auth_cache_insert_deny(c.get(), "alice", "pw");
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "alice", "pw"), GW_AUTH_CACHE_DENY);
  gw_auth_cache_insert_grant(c.get(), "alice", "pw");
  const struct {
    int64_t at_ms;
    gw_auth_cache_result_t alice, bob_other_password;
  } rows[] = {
      {9'999, GW_AUTH_CACHE_GRANT, GW_AUTH_CACHE_DENY},
      {10'000, GW_AUTH_CACHE_GRANT, GW_AUTH_CACHE_MISS},
      {59'999, GW_AUTH_CACHE_GRANT, GW_AUTH_CACHE_MISS},
      {60'000, GW_AUTH_CACHE_GRANT_STALE, GW_AUTH_CACHE_MISS},
      {119'999, GW_AUTH_CACHE_GRANT_STALE, GW_AUTH_CACHE_MISS},
      {120'000, GW_AUTH_CACHE_MISS, GW_AUTH_CACHE_MISS},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.at_ms);
    g_now_ms = 1'000'000 + row.at_ms;
    EXPECT_EQ(gw_auth_cache_lookup(c.get(), "alice", "pw"), row.alice);
    EXPECT_EQ(gw_auth_cache_lookup(c.get(), "bob", "other"), row.bob_other_password);
  }
}

// The key covers the whole user name and the whole password with their lengths: pairs
// that share a long prefix, or split the same bytes differently, never meet.
TEST_F(AuthCache, PairsDifferingAnywhereNeverShareAVerdict) {
  CachePtr c = make(64, 120, 10, 50);
  const std::string user(1100, 'u'), password(5000, 'p');
  const std::pair<std::string, std::string> granted[] = {{user, "secret"}, {"alice", password}, {"ab", "c"}};
  const std::pair<std::string, std::string> others[] = {
      {user.substr(0, 1099) + "v", "secret"}, {user, "s"}, {"alice", password.substr(0, 4999) + "q"}, {"a", "bc"}};
  for (const auto& [u, p] : granted) gw_auth_cache_insert_grant(c.get(), u.c_str(), p.c_str());
  for (const auto& [u, p] : others) {
    EXPECT_EQ(gw_auth_cache_lookup(c.get(), u.c_str(), p.c_str()), GW_AUTH_CACHE_MISS) << u.size() << " " << p.size();
    gw_auth_cache_insert_deny(c.get(), u.c_str(), p.c_str());
  }
  for (const auto& [u, p] : granted) EXPECT_EQ(gw_auth_cache_lookup(c.get(), u.c_str(), p.c_str()), GW_AUTH_CACHE_GRANT);
}

TEST_F(AuthCache, UserDataTravelsWithTheGrant) {
  CachePtr c = make(64, 120, 10, 50);
  int profile_a = 0, profile_b = 0;
  auto user_data_of = [&](const char* user) {
    const gw_auth_cache_lookup_t hit = gw_auth_cache_lookup_ex(c.get(), user, "p");
    return std::pair{hit.user_data, hit.has_user_data};
  };
  using held = std::pair<void*, bool>;
  gw_auth_cache_insert_grant_ex(c.get(), "u", "p", &profile_a);
  EXPECT_EQ(user_data_of("u"), held(&profile_a, true));
  gw_auth_cache_insert_grant(c.get(), "u", "p");  // same entry: keeps its pointer
  EXPECT_EQ(user_data_of("u"), held(&profile_a, true));
  gw_auth_cache_insert_grant_ex(c.get(), "u", "p", &profile_b);
  EXPECT_EQ(user_data_of("u"), held(&profile_b, true));
  gw_auth_cache_insert_grant(c.get(), "v", "p");  // new entry: none at all
  EXPECT_EQ(user_data_of("v"), held(nullptr, false));
  gw_auth_cache_insert_grant_ex(c.get(), "n", "p", nullptr);  // NULL given is user data too
  EXPECT_EQ(user_data_of("n"), held(nullptr, true));
  gw_auth_cache_insert_deny(c.get(), "w", "p");
  EXPECT_EQ(user_data_of("w"), held(nullptr, false));
}

TEST_F(AuthCache, ClaimAndCompleteWithGenerations) {
  CachePtr c = make(64, 120, 10, 50);
  int old_profile = 0, new_profile = 0;
  gw_auth_cache_insert_grant_ex(c.get(), "u", "p", &old_profile);
  advance_ms(61'000);
  ASSERT_EQ(gw_auth_cache_lookup(c.get(), "u", "p"), GW_AUTH_CACHE_GRANT_STALE);
  ASSERT_TRUE(claim(c.get(), "u", "p"));
  // Claimed: fresh again to other callers, and nobody else may claim.
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "u", "p"), GW_AUTH_CACHE_GRANT);
  unsigned char other_hash[GW_AUTH_CACHE_HASH_BYTES];
  uint32_t other_gen = 0;
  EXPECT_FALSE(gw_auth_cache_try_claim_refresh(c.get(), "u", "p", other_hash, &other_gen));
  EXPECT_FALSE(gw_auth_cache_try_claim_refresh(c.get(), "u", "other", other_hash, &other_gen));

  // Granted at 70 s: valid until 190 s, due again at 130 s, with the new pointer.
  advance_ms(9'000);
  gw_auth_cache_complete_refresh_ex(c.get(), hash_, gen_, GW_REFRESH_GRANTED, &new_profile);
  EXPECT_EQ(gw_auth_cache_wait_inflight_drain(c.get(), 0), 0);
  advance_ms(59'000);  // 129 s
  gw_auth_cache_lookup_t hit = gw_auth_cache_lookup_ex(c.get(), "u", "p");
  EXPECT_EQ(hit.result, GW_AUTH_CACHE_GRANT);
  EXPECT_EQ(hit.user_data, &new_profile);
  EXPECT_TRUE(hit.has_user_data);
  advance_ms(1'000);  // 130 s
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "u", "p"), GW_AUTH_CACHE_GRANT_STALE);

  // Aborted: the grant keeps its expiry and can be claimed again.
  ASSERT_TRUE(claim(c.get(), "u", "p"));
  gw_auth_cache_complete_refresh(c.get(), hash_, gen_, GW_REFRESH_ABORTED);
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "u", "p"), GW_AUTH_CACHE_GRANT_STALE);
  advance_ms(60'000);  // 190 s
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "u", "p"), GW_AUTH_CACHE_MISS);
}

TEST_F(AuthCache, DeniedRefreshRevokesAndAStaleClaimChangesNothing) {
  CachePtr c = make(64, 120, 10, 50);
  gw_auth_cache_insert_grant(c.get(), "u", "p");
  advance_ms(61'000);
  ASSERT_TRUE(claim(c.get(), "u", "p"));
  gw_auth_cache_complete_refresh(c.get(), hash_, gen_, GW_REFRESH_DENIED);
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "u", "p"), GW_AUTH_CACHE_MISS);
  EXPECT_EQ(gw_auth_cache_wait_inflight_drain(c.get(), 0), 0);

  // Re-inserted while a refresh runs: the late completion must not touch the new entry.
  gw_auth_cache_insert_grant(c.get(), "v", "p");
  advance_ms(61'000);
  ASSERT_TRUE(claim(c.get(), "v", "p"));
  gw_auth_cache_insert_grant(c.get(), "v", "p");
  gw_auth_cache_complete_refresh(c.get(), hash_, gen_, GW_REFRESH_DENIED);
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "v", "p"), GW_AUTH_CACHE_GRANT);
  EXPECT_EQ(gw_auth_cache_wait_inflight_drain(c.get(), 0), 0);
  // A completion nobody claimed does not drive the count below zero.
  gw_auth_cache_complete_refresh(c.get(), hash_, gen_, GW_REFRESH_ABORTED);
  ASSERT_TRUE(claim(c.get(), "v", "p"));
  EXPECT_EQ(gw_auth_cache_wait_inflight_drain(c.get(), 0), -1);
  gw_auth_cache_complete_refresh(c.get(), hash_, gen_, GW_REFRESH_ABORTED);
  EXPECT_EQ(gw_auth_cache_wait_inflight_drain(c.get(), 0), 0);
}

// After a credentials reload nothing decided on the old table may answer, and a refresh
// claimed before it must not bring a grant back.
TEST_F(AuthCache, InvalidateForgetsEveryVerdictAndOutlivesRefreshesUnderWay) {
  CachePtr c = make(64, 120, 10, 50);
  EXPECT_EQ(gw_auth_cache_invalidate(c.get()), 0u);
  gw_auth_cache_insert_grant(c.get(), "u", "p");
  gw_auth_cache_insert_grant_ex(c.get(), "v", "p", c.get());
  gw_auth_cache_insert_deny(c.get(), "w", "p");
  advance_ms(61'000);
  ASSERT_TRUE(claim(c.get(), "u", "p"));
  EXPECT_EQ(gw_auth_cache_invalidate(c.get()), 3u);
  for (const char* user : {"u", "v", "w"}) EXPECT_EQ(gw_auth_cache_lookup(c.get(), user, "p"), GW_AUTH_CACHE_MISS);
  gw_auth_cache_complete_refresh(c.get(), hash_, gen_, GW_REFRESH_GRANTED);
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "u", "p"), GW_AUTH_CACHE_MISS);
  EXPECT_EQ(gw_auth_cache_wait_inflight_drain(c.get(), 0), 0);
  // The table takes new verdicts as before.
  gw_auth_cache_insert_grant(c.get(), "u", "p");
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "u", "p"), GW_AUTH_CACHE_GRANT);
}

TEST_F(AuthCache, FullTableEvictsTheLeastRecentlyUsed) {
  // With 4 slots the probe run covers the whole table, so every entry stays findable.
  CachePtr c = make(4, 120, 10, 50);
  for (const char* u : {"a", "b", "c", "d"}) {
    gw_auth_cache_insert_grant(c.get(), u, "p");
    advance_ms(1);
  }
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "a", "p"), GW_AUTH_CACHE_GRANT);  // a is now the most recent
  advance_ms(1);
  gw_auth_cache_insert_grant(c.get(), "e", "p");
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "b", "p"), GW_AUTH_CACHE_MISS);
  for (const char* u : {"a", "c", "d", "e"}) EXPECT_EQ(gw_auth_cache_lookup(c.get(), u, "p"), GW_AUTH_CACHE_GRANT) << u;

  // An expired entry is reused before anything live is evicted.
  for (const char* u : {"c", "d", "e", "a"}) {
    advance_ms(1);
    gw_auth_cache_lookup(c.get(), u, "p");
  }
  gw_auth_cache_insert_deny(c.get(), "z", "p");  // evicts c, now the least recently used
  EXPECT_EQ(gw_auth_cache_lookup(c.get(), "c", "p"), GW_AUTH_CACHE_MISS);
  advance_ms(10'000);  // z expires, the grants live on
  gw_auth_cache_insert_grant(c.get(), "f", "p");
  for (const char* u : {"a", "d", "e", "f"}) EXPECT_EQ(gw_auth_cache_lookup(c.get(), u, "p"), GW_AUTH_CACHE_GRANT) << u;
}

TEST_F(AuthCache, DrainWaitsForTheLastRefreshOrTimesOut) {
  CachePtr c = make(64, 120, 10, 50);
  gw_auth_cache_insert_grant(c.get(), "u", "p");
  ASSERT_TRUE(claim(c.get(), "u", "p"));
  EXPECT_EQ(gw_auth_cache_wait_inflight_drain(c.get(), 50), -1);
  // The refresh completes only once the drain below is blocked waiting for it: the drain
  // must be woken, not time out.
  const pid_t drainer = gettid();
  std::thread refresher([&] {
    wait_until([&] { return s_thread_blocked(drainer); }, 30s);
    gw_auth_cache_complete_refresh(c.get(), hash_, gen_, GW_REFRESH_GRANTED);
  });
  EXPECT_EQ(gw_auth_cache_wait_inflight_drain(c.get(), 120'000), 0);
  refresher.join();
}

class Coalescing : public AuthCache {};

TEST_F(Coalescing, OneLeaderManyJoinersAllGetItsResult) {
  CachePtr c = make(64, 120, 10, 50);
  for (bool granted : {true, false}) {
    ASSERT_EQ(gw_auth_cache_begin_verify(c.get(), "u", "p"), GW_VERIFY_LEAD);
    constexpr int kJoiners = 16;
    std::vector<gw_auth_cache_result_t> results(kJoiners, GW_AUTH_CACHE_MISS);
    std::vector<std::thread> joiners;
    for (int i = 0; i < kJoiners; ++i) {
      joiners.emplace_back([&, i] {
        EXPECT_EQ(gw_auth_cache_begin_verify(c.get(), "u", "p"), GW_VERIFY_JOINED);
        results[i] = gw_auth_cache_wait_for_result(c.get(), "u", "p", 60'000);
      });
    }
    EXPECT_TRUE(wait_until(
        [&] { return gw_auth_cache_verify_waiters(c.get(), "u", "p") == kJoiners; }, 30s));
    // Another pair is not held up by this one.
    EXPECT_EQ(gw_auth_cache_begin_verify(c.get(), "u", "other"), GW_VERIFY_LEAD);
    gw_auth_cache_abort_verify(c.get(), "u", "other");
    gw_auth_cache_publish_result(c.get(), "u", "p", granted);
    for (auto& t : joiners) t.join();
    for (auto r : results) EXPECT_EQ(r, granted ? GW_AUTH_CACHE_GRANT : GW_AUTH_CACHE_DENY);
    // The last waiter reaped the record: the next caller leads again.
    EXPECT_EQ(gw_auth_cache_verify_waiters(c.get(), "u", "p"), -1);
  }
  ASSERT_EQ(gw_auth_cache_begin_verify(c.get(), "u", "p"), GW_VERIFY_LEAD);
  gw_auth_cache_publish_result(c.get(), "u", "p", true);  // nobody waits: reaped at once
  EXPECT_EQ(gw_auth_cache_begin_verify(c.get(), "u", "p"), GW_VERIFY_LEAD);
  gw_auth_cache_abort_verify(c.get(), "u", "p");
}

TEST_F(Coalescing, ThirtyThreeDistinctChecksLeaveTheLastWithoutRoom) {
  CachePtr c = make(64, 120, 10, 50);
  std::atomic<int> leads{0}, norooms{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 33; ++i) {
    callers.emplace_back([&, i] {
      const gw_verify_role_t role = gw_auth_cache_begin_verify(c.get(), ("user" + std::to_string(i)).c_str(), "p");
      if (role == GW_VERIFY_LEAD) leads++;
      if (role == GW_VERIFY_NOROOM) norooms++;
    });
  }
  for (auto& t : callers) t.join();
  EXPECT_EQ(leads.load(), 32);
  EXPECT_EQ(norooms.load(), 1);
  // Freeing one record makes room again.
  for (int i = 0; i < 33; ++i) gw_auth_cache_publish_result(c.get(), ("user" + std::to_string(i)).c_str(), "p", true);
  EXPECT_EQ(gw_auth_cache_begin_verify(c.get(), "late", "p"), GW_VERIFY_LEAD);
}

TEST_F(Coalescing, AJoinerWhoseLeaderNeverAnswersTimesOut) {
  CachePtr c = make(64, 120, 10, 50);
  ASSERT_EQ(gw_auth_cache_begin_verify(c.get(), "u", "p"), GW_VERIFY_LEAD);
  EXPECT_EQ(gw_auth_cache_wait_for_result(c.get(), "u", "p", 50), GW_AUTH_CACHE_MISS);
  // Still in use until the leader finishes.
  EXPECT_EQ(gw_auth_cache_begin_verify(c.get(), "u", "p"), GW_VERIFY_JOINED);

  std::thread joiner([&] { EXPECT_EQ(gw_auth_cache_wait_for_result(c.get(), "u", "p", 60'000), GW_AUTH_CACHE_MISS); });
  EXPECT_TRUE(
      wait_until([&] { return gw_auth_cache_verify_waiters(c.get(), "u", "p") == 1; }, 30s));
  gw_auth_cache_abort_verify(c.get(), "u", "p");  // aborted counts as a miss
  joiner.join();
  EXPECT_EQ(gw_auth_cache_begin_verify(c.get(), "u", "p"), GW_VERIFY_LEAD);
  gw_auth_cache_publish_result(c.get(), "u", "p", false);
  gw_auth_cache_publish_result(c.get(), "u", "p", true);  // no record any more: ignored
  EXPECT_EQ(gw_auth_cache_wait_for_result(c.get(), "u", "p", 10), GW_AUTH_CACHE_MISS);
}

}  // namespace
