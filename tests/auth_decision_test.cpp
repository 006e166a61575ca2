// The auth service's one decision path, without nats-server: what the cache may answer
// for whom, and refreshes that end before the decider does.
#include "auth_decision.hpp"

#include "test_prelude.hpp"

#include "auth_ldap.hpp"
#include "auth_lock.hpp"
#include "auth_profile.hpp"
#include "auth_verify.hpp"
#include "callout_fixture.hpp"
#include "gw_auth_cache.hpp"
#include "gw_credential_store.hpp"

namespace {

using cache_ptr = qm::c_ptr<gw_auth_cache_t, gw_auth_cache_destroy>;
using creds_ptr = qm::c_ptr<gw_credential_store_t, gw_credential_store_free>;
using profiles_ptr = qm::c_ptr<auth_profile_store_t, auth_profile_destroy>;
using decider_ptr = qm::c_ptr<auth_decider_t, auth_decider_destroy>;
using ldap_ptr = qm::c_ptr<auth_ldap_ctx_t, auth_ldap_destroy>;

std::atomic<int64_t> g_now_ms{1'000'000};
int64_t fake_clock() { return g_now_ms.load(); }

const qm::secret_string kBobPassword("builder");

class AuthDecision : public ::testing::Test {
 protected:
  void SetUp() override {
    qmtest::write_file(dir_.file("users.conf"), "user: \"bob\"\npassword: \"builder\"\nuser: \"alice\"\npassword: \"wonder\"\n");
    qmtest::write_file(dir_.file("permissions.json"),
                       R"j({"profiles": {"restricted": {"publish": {"allow": [">"], "deny": ["forbidden.>"]}}},
                            "file_user_map": [{"user": "bob", "profile": "restricted"}]})j");
    creds_.reset(gw_credential_store_load(dir_.file("users.conf").c_str()));
    profiles_.reset(auth_profile_load(dir_.file("permissions.json").c_str()));
    const gw_auth_cache_timing timing{fake_clock};
    cache_.reset(gw_auth_cache_create(64, 120, 10, 50, &timing));
    ASSERT_TRUE(creds_ && profiles_ && cache_);
  }

  decider_ptr decider(auth_ldap_ctx_t* ldap = nullptr, auth_lock_t* lock = nullptr) {
    return decider_ptr(auth_decider_create(creds_.get(), ldap, profiles_.get(), cache_.get(), lock));
  }

  TempDir dir_;
  creds_ptr creds_;
  profiles_ptr profiles_;
  cache_ptr cache_;
};

const char* profile_name(const auth_verdict& v) {
  const char* name = auth_profile_name(v.profile);
  return name ? name : "(built-in)";
}

// However a grant for bob got into the cache, a NATS login of his gets his profile: a
// verify answer resolves it too, and a grant recorded without one is, for the callout,
// a miss that is checked live and then recorded with the profile.
TEST_F(AuthDecision, ACalloutGetsTheUsersProfileWhateverPutTheGrantInTheCache) {
  const std::string bob = "bob";
  struct route {
    const char* name;
    void (*put)(gw_auth_cache_t*, auth_decider_t*);
    auth_verdict_source_t first_callout;
  };
  const route routes[] = {
      {"verify endpoint",
       [](gw_auth_cache_t*, auth_decider_t* d) {
         EXPECT_TRUE(auth_decide(d, {AUTH_ASKER_VERIFY, "bob", kBobPassword}).granted);
       },
       AUTH_VERDICT_CACHED},
      {"HTTP-style grant",
       [](gw_auth_cache_t* c, auth_decider_t*) { gw_auth_cache_insert_grant(c, "bob", "builder"); },
       AUTH_VERDICT_LIVE},
      {"HTTP-style grant, refreshed by the HTTP frontend",
       [](gw_auth_cache_t* c, auth_decider_t*) {
         gw_auth_cache_insert_grant(c, "bob", "builder");
         unsigned char hash[GW_AUTH_CACHE_HASH_BYTES];
         uint32_t gen = 0;
         g_now_ms += 61'000;
         ASSERT_TRUE(gw_auth_cache_try_claim_refresh(c, "bob", "builder", hash, &gen));
         gw_auth_cache_complete_refresh(c, hash, gen, GW_REFRESH_GRANTED);
       },
       AUTH_VERDICT_LIVE},
  };
  for (const route& r : routes) {
    SCOPED_TRACE(r.name);
    SetUp();
    decider_ptr d = decider();
    r.put(cache_.get(), d.get());
    const auth_verdict first = auth_decide(d.get(), {AUTH_ASKER_CALLOUT, bob, kBobPassword});
    EXPECT_TRUE(first.granted);
    EXPECT_EQ(first.source, r.first_callout);
    EXPECT_STREQ(profile_name(first), "restricted");
    const auth_verdict second = auth_decide(d.get(), {AUTH_ASKER_CALLOUT, bob, kBobPassword});
    EXPECT_EQ(second.source, AUTH_VERDICT_CACHED);
    EXPECT_STREQ(profile_name(second), "restricted");
    // The verify endpoint's answer is the cache's, as before.
    EXPECT_EQ(auth_decide(d.get(), {AUTH_ASKER_VERIFY, bob, kBobPassword}).source, AUTH_VERDICT_CACHED);
  }
}

// A refresh stuck in the directory holds up the decider's end: it must never outlive
// the directory context, the profiles or the cache it uses. Refreshes still queued when
// the decider stops are cancelled, never run: their grants may be claimed again.
TEST_F(AuthDecision, ARefreshStuckInTheDirectoryEndsBeforeTheDeciderAndQueuedOnesAreCancelled) {
  auto directory = start_directory();
  const auth_ldap_timing timing{1000, 1000, {}};
  ldap_ptr ldap(auth_ldap_init(directory->url().c_str(), "dc=qm,dc=test", kReaderDn, "reader-secret", nullptr,
                               nullptr, nullptr, nullptr, nullptr, nullptr, 1, 300, "memberOf", nullptr,
                               &timing));
  ASSERT_NE(ldap, nullptr);
  decider_ptr d = decider(ldap.get());
  // Two refresh threads: lara's and leo's refreshes run, carol's waits in the queue.
  const std::pair<std::string, qm::secret_string> users[] = {
      {"lara", qm::secret_string("lara-pw")}, {"leo", qm::secret_string("leo-pw")},
      {"carol", qm::secret_string("carol-pw")}};
  for (const auto& [user, password] : users)
    ASSERT_EQ(auth_decide(d.get(), {AUTH_ASKER_CALLOUT, user, password}).backend, std::string("ldap")) << user;

  g_now_ms += 61'000;  // past the refresh threshold
  directory->pause();
  for (const auto& [user, password] : users)
    EXPECT_EQ(auth_decide(d.get(), {AUTH_ASKER_CALLOUT, user, password}).source, AUTH_VERDICT_CACHED) << user;
  // Both running refreshes have reached the stopped directory.
  ASSERT_TRUE(wait_until([&] { return directory->connections_with_unread_requests() >= 2; }, std::chrono::seconds(10)));
  EXPECT_EQ(auth_decider_drain_refreshes(d.get(), 100), -1);
  EXPECT_EQ(gw_auth_cache_lookup(cache_.get(), "carol", "carol-pw"), GW_AUTH_CACHE_GRANT_STALE);
  d.reset();
  EXPECT_EQ(gw_auth_cache_wait_inflight_drain(cache_.get(), 0), 0);
  ldap.reset();
  directory->resume();
}

using lock_ptr = qm::c_ptr<auth_lock_t, auth_lock_destroy>;

lock_ptr fake_clock_lock(size_t max_users = 10000) {
  auth_lock_options options;
  options.max_users = max_users;
  options.now_ms = fake_clock;
  return lock_ptr(auth_lock_create(options));
}

// The brute-force lock as the verify endpoint (and so the AMQP door) answers through
// it. A script per row: "Nw" N wrong passwords of bob, "R+"/"R-" bob's right password
// granted / refused with the very answer a wrong password gets, "A+" alice's right
// password granted, "+N" N seconds pass, "LN" the locks logged so far.
TEST_F(AuthDecision, RepeatedWrongPasswordsLockOnlyThatUserForADoublingTime) {
  const struct {
    const char* name;
    const char* script;
  } rows[] = {
      {"nine failures leave the right password working", "9w R+ L0"},
      {"the tenth locks: the right password gets the wrong one's answer", "10w R- R- L1"},
      {"the first lock lasts 1 s", "10w +1 R+ L1"},
      {"each failure after a lock, within the window, locks for twice as long", "10w +1 1w R- +1 R- +1 R+ L2"},
      {"the count starts afresh once the window has passed", "9w +600 1w R+ L0"},
      {"a success resets the count", "9w R+ 9w R+ L0"},
      {"another user is never affected", "10w A+ R- L1"},
      {"a quiet window after a lock starts the doubling afresh", "10w +601 10w +1 R+ L2"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    SetUp();
    lock_ptr lock = fake_clock_lock();
    decider_ptr d = decider(nullptr, lock.get());
    qmtest::LogCapture log(QMLOG_WARN);
    const auto answer = [&](const char* user, const std::string& password) {
      return auth_verify_answer(d.get(), 0, {user, qm::secret_string(password), "plain"});
    };
    const std::string wrong_answer = R"({"ok":false,"reason":"invalid credentials","backend":"none"})";
    std::istringstream script(row.script);
    int guess = 0;
    for (std::string step; script >> step;) {
      SCOPED_TRACE(step);
      const int n = atoi(step.c_str() + (step[0] == '+' || step[0] == 'L' ? 1 : 0));
      if (step.back() == 'w') {
        for (int i = 0; i < n; ++i) ASSERT_EQ(answer("bob", "guess-" + std::to_string(++guess)), wrong_answer);
      } else if (step == "R+") {
        EXPECT_NE(answer("bob", "builder").find(R"("ok":true)"), std::string::npos);
      } else if (step == "R-") {
        EXPECT_EQ(answer("bob", "builder"), wrong_answer);
      } else if (step == "A+") {
        EXPECT_NE(answer("alice", "wonder").find(R"("ok":true)"), std::string::npos);
      } else if (step[0] == '+') {
        g_now_ms += n * 1000;
      } else {
        EXPECT_EQ(log.count("auth_lock: user=bob locked for "), static_cast<size_t>(n)) << log.text();
      }
    }
  }
}

// Made-up user names must not grow the lock's table, nor push a locked user out of it.
TEST_F(AuthDecision, AFloodOfMadeUpNamesNeitherGrowsTheLockNorFreesALockedUser) {
  lock_ptr lock = fake_clock_lock(8);
  for (int i = 0; i < 10; ++i) auth_lock_note(lock.get(), "victim", false);
  for (int i = 0; i < 1000; ++i) auth_lock_note(lock.get(), "made-up-" + std::to_string(i), false);
  EXPECT_LE(auth_lock_tracked(lock.get()), 8u);
  EXPECT_TRUE(auth_lock_refuses(lock.get(), "victim"));
  EXPECT_FALSE(auth_lock_refuses(lock.get(), "made-up-999"));
}

}  // namespace
