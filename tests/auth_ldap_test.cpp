// The LDAP backend against real slapd servers on loopback.
#include "auth_ldap.hpp"

#include "test_prelude.hpp"

#include "slapd_fixture.hpp"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

constexpr const char* kBase = "dc=qm,dc=test";
constexpr const char* kReaderPassword = "reader-secret";
constexpr const char* kAliceDn = "uid=alice,ou=people,dc=qm,dc=test";
constexpr const char* kAlicePassword = "alice-pw";

using ctx_ptr = qm::c_ptr<auth_ldap_ctx_t, auth_ldap_destroy>;

struct ldap_setup {
  std::string url;
  std::string fallback_url;
  int pool_size = 4;
  int idle_timeout_seconds = 300;
  std::string group_attribute = "memberOf";
  std::string bind_password = kReaderPassword;
  std::string ca_file;
  auth_ldap_timing timing;
};

ctx_ptr s_init(const ldap_setup& setup) {
  return ctx_ptr(auth_ldap_init(setup.url.c_str(), kBase, kReaderDn, setup.bind_password.c_str(), nullptr,
                                setup.fallback_url.c_str(), nullptr, nullptr, nullptr, nullptr, setup.pool_size,
                                setup.idle_timeout_seconds, setup.group_attribute.c_str(),
                                setup.ca_file.empty() ? nullptr : setup.ca_file.c_str(), &setup.timing));
}

std::string s_opened(const std::string& url) { return "auth_ldap: opened+bound new connection (url=" + url + ")"; }
constexpr const char* kAnyOpened = "auth_ldap: opened+bound new connection";

std::vector<std::string> s_groups(const ldap_user_info_t& info) {
  return std::vector<std::string>(info.groups, info.groups + info.n_groups);
}

std::vector<int> s_socket_fds() {
  std::vector<int> fds;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ec;
    const auto target = std::filesystem::read_symlink(entry.path(), ec);
    if (!ec && target.string().rfind("socket:", 0) == 0) fds.push_back(std::stoi(entry.path().filename().string()));
  }
  return fds;
}

// Listening with a full accept queue: the kernel drops further SYNs, so a connect hangs
// until the client gives up.
qm::unique_fd fill_accept_queue(const ReservedPort& port) {
  port.listen(0);
  return qm::unique_fd(connect_loopback(port.port()));
}

class AuthLdapTest : public ::testing::Test {
 protected:
  void SetUp() override { directory_ = start_directory(); }
  ldap_setup setup(int pool_size = 4) const {
    ldap_setup setup;
    setup.url = directory_->url();
    setup.pool_size = pool_size;
    return setup;
  }
  ctx_ptr init(int pool_size = 4, const auth_ldap_timing& timing = {}) const {
    ldap_setup with = setup(pool_size);
    with.timing = timing;
    return s_init(with);
  }
  bool wait_for_connections(int n) const {
    return wait_until([&] { return directory_->established_connections() == n; }, 5s);
  }

  LogCapture log_{QMLOG_TRACE};
  std::unique_ptr<Slapd> directory_;
};

// ---------------------------------------------------------------------------------------
// Verdicts, groups and configuration

using AuthLdapVerdicts = AuthLdapTest;

TEST_F(AuthLdapVerdicts, PasswordsFilterEscapingAndGroups) {
  auto ctx = init();
  ASSERT_NE(ctx, nullptr);
  {
    SCOPED_TRACE("right and wrong passwords, unknown users");
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "bob", "bob-pw"));
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", "wrong-pw"));
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "mallory", "whatever-pw"));
    EXPECT_THAT(log_.text(), Not(HasSubstr("user bind as uid=mallory")));
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", "alice-pw "));  // one byte more is another password
    // The directory takes a name with an empty password as an anonymous bind that succeeds.
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", ""));
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "", kAlicePassword));
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), nullptr, kAlicePassword));
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", nullptr));
    EXPECT_FALSE(auth_ldap_validate(nullptr, "alice", kAlicePassword));
    for (const char* secret : {kAlicePassword, "wrong-pw", "whatever-pw", kReaderPassword})
      EXPECT_THAT(log_.text(), Not(HasSubstr(secret)));
  }
  {
    // The user name is data, never filter syntax: none of these may log in as someone else,
    // and a filter that matches two entries refuses.
    SCOPED_TRACE("filter metacharacters and ambiguous names");
    log_.clear();
    for (const char* name : {"twin", "a*", "al*", "*", "*)(uid=alice", "x)(uid=*", "alice)(uid=*", "alice)",
                             "(alice", "al\\69ce", "al\\2a", "\\2a", "alice\\"}) {
      EXPECT_FALSE(auth_ldap_validate(ctx.get(), name, kAlicePassword)) << name;
      EXPECT_FALSE(auth_ldap_validate(ctx.get(), name, "twin-pw")) << name;
    }
    EXPECT_THAT(log_.text(), Not(HasSubstr("user bind")));
    // Names that really contain those characters still work.
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "we)(ird*", "odd-pw"));
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "back\\slash", "slash-pw"));
  }
  {
    SCOPED_TRACE("every value of the group attribute, none on a refusal or without the attribute");
    ldap_user_info_t info;
    ASSERT_TRUE(auth_ldap_validate_ext(ctx.get(), "alice", kAlicePassword, &info));
    EXPECT_THAT(s_groups(info), UnorderedElementsAre(kScannersGroup, kAdminsGroup));
    ldap_user_info_free(&info);
    EXPECT_EQ(info.groups, nullptr);
    EXPECT_EQ(info.n_groups, 0);
    ldap_user_info_free(&info);
    ASSERT_TRUE(auth_ldap_validate_ext(ctx.get(), "carol", "carol-pw", &info));
    EXPECT_THAT(s_groups(info), UnorderedElementsAre(kScannersGroup));
    ldap_user_info_free(&info);
    ASSERT_TRUE(auth_ldap_validate_ext(ctx.get(), "bob", "bob-pw", &info));
    EXPECT_EQ(info.groups, nullptr);
    EXPECT_EQ(info.n_groups, 0);

    char* junk[1] = {nullptr};
    info = {junk, 7};  // whatever the caller left there is overwritten, not freed
    EXPECT_FALSE(auth_ldap_validate_ext(ctx.get(), "alice", "wrong-pw", &info));
    EXPECT_EQ(info.groups, nullptr);
    EXPECT_EQ(info.n_groups, 0);
    ldap_setup no_attribute = setup();
    no_attribute.group_attribute = "";
    ASSERT_TRUE(auth_ldap_validate_ext(s_init(no_attribute).get(), "alice", kAlicePassword, &info));
    EXPECT_EQ(info.n_groups, 0);
  }
}

TEST_F(AuthLdapVerdicts, ConfigurationServiceBindAndFallbackInheritance) {
  // (A directory without a URL: the broker's degraded start shows it.)
  EXPECT_EQ(auth_ldap_init("ldap://127.0.0.1/", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                           nullptr, nullptr, 4, 300, nullptr, nullptr),
            nullptr);
  {
    SCOPED_TRACE("a failed service bind refuses without leaking the password");
    ldap_setup wrong = setup();
    wrong.bind_password = "not-the-reader-secret";
    EXPECT_FALSE(auth_ldap_validate(s_init(wrong).get(), "alice", kAlicePassword));
    const std::string log = log_.text();
    EXPECT_THAT(log, HasSubstr(std::string("auth_ldap: service bind as ") + kReaderDn + " on " + directory_->url() +
                               " failed: Invalid credentials"));
    EXPECT_LOGGED(log, "auth_ldap: all 1 endpoint(s) failed; no service-bind connection available");
    EXPECT_THAT(log, Not(HasSubstr("not-the-reader-secret")));
    EXPECT_THAT(log, Not(HasSubstr(kAlicePassword)));
  }
  {
    // A fallback given only as a URL searches with the primary's base, account and filter.
    SCOPED_TRACE("unset fallback fields inherit the primary's");
    const ReservedPort closed;  // bound, never listening: refused at once
    const std::string primary = closed.url("ldap") + "/";
    auto ctx = ctx_ptr(auth_ldap_init(primary.c_str(), kBase, kReaderDn, kReaderPassword,
                                      "(&(objectClass=posixAccount)(uid=%s))", directory_->url().c_str(), "", "",
                                      nullptr, "", 0, 300, "memberOf", nullptr));
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    // Fields of its own override the primary's.
    auto own = ctx_ptr(auth_ldap_init(primary.c_str(), "ou=nowhere,dc=qm,dc=test", "cn=nobody", "nothing", "(cn=%s)",
                                      directory_->url().c_str(), "ou=people,dc=qm,dc=test", kReaderDn,
                                      kReaderPassword, "(&(objectClass=account)(uid=%s))", 0, 300, nullptr, nullptr));
    EXPECT_TRUE(auth_ldap_validate(own.get(), "alice", kAlicePassword));
    // ou=people only: the twin in ou=staff is out of reach, so the filter matches once.
    EXPECT_TRUE(auth_ldap_validate(own.get(), "twin", "twin-pw"));
  }
}

// ---------------------------------------------------------------------------------------
// TLS: ldaps:// with the CA file given to the context; without a pool, so that every
// check makes its own TLS handshake.

TEST(AuthLdapTls, EachContextTrustsOnlyItsOwnUsableCaFile) {
  LogCapture log(QMLOG_TRACE);
  auto directory = start_directory(true);
  auto init = [&](const std::string& url, const std::string& ca_file) {
    ldap_setup setup;
    setup.url = url;
    setup.pool_size = 0;
    setup.group_attribute = "";
    setup.ca_file = ca_file;
    return s_init(setup);
  };
  auto trusting = init(directory->ldaps_url(), directory->ca_file());
  auto other_cas = init(directory->ldaps_url(), "/etc/ssl/certs/ca-certificates.crt");
  EXPECT_TRUE(auth_ldap_validate(trusting.get(), "alice", kAlicePassword));
  EXPECT_FALSE(auth_ldap_validate(other_cas.get(), "alice", kAlicePassword));
  EXPECT_LOGGED(log,
      "auth_ldap: service bind as " + std::string(kReaderDn) + " on " + directory->ldaps_url() + " failed: ");
  // The refusal left nothing behind that changes the first context's handshakes.
  EXPECT_TRUE(auth_ldap_validate(trusting.get(), "alice", kAlicePassword));

  auto unusable = init(directory->ldaps_url(), "/nonexistent/ca.pem");
  EXPECT_FALSE(auth_ldap_validate(unusable.get(), "alice", kAlicePassword));
  EXPECT_LOGGED(log, "TLS options above may not have taken effect");
  // A plain ldap:// endpoint ignores the CA file altogether.
  auto plain = init(directory->url(), "/nonexistent/ca.pem");
  EXPECT_TRUE(auth_ldap_validate(plain.get(), "alice", kAlicePassword));
  EXPECT_EQ(log.count("auth_ldap: LDAP_OPT_X_TLS_NEWCTX failed: "), 1u) << log.text();
}

// ---------------------------------------------------------------------------------------
// Failover

class AuthLdapFailover : public AuthLdapTest {
 protected:
  void SetUp() override {
    AuthLdapTest::SetUp();
    fallback_ = start_directory();
  }
  ctx_ptr init_pair(int pool_size, const auth_ldap_timing& timing = {}) const {
    ldap_setup pair = setup(pool_size);
    pair.timing = timing;
    pair.fallback_url = fallback_->url();
    return s_init(pair);
  }
  std::unique_ptr<Slapd> fallback_;
};

TEST_F(AuthLdapFailover, RetriesWalksAndThePrimaryFirst) {
  const std::string retrying = "retrying via failover walk";
  {
    SCOPED_TRACE("an ambiguous filter is retried once, then refused");
    auto ctx = init_pair(4);
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "twin", "twin-pw"));
    EXPECT_EQ(log_.count("failed (rc=Size limit exceeded); " + retrying), 1u);
    EXPECT_THAT(log_.text(), Not(HasSubstr("user bind")));
  }
  {
    // A pooled connection whose server went away fails its search; the retry walks again.
    SCOPED_TRACE("a dead pooled connection is discarded and the search retried");
    log_.clear();
    auto ctx = init_pair(1);
    ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    directory_->stop();
    directory_->start();
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count("auth_ldap: search on endpoint " + directory_->url() +
                         " failed (rc=Can't contact LDAP server); " + retrying),
              1u);
    EXPECT_EQ(log_.count(s_opened(directory_->url())), 2u);
    // The replacement went into the pool.
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count(kAnyOpened), 2u);
  }
  {
    SCOPED_TRACE("every new connection tries the primary first");
    log_.clear();
    auto ctx = init_pair(0);
    const std::string fallback_warning =
        "auth_ldap: primary endpoint unreachable; using fallback (url=" + fallback_->url() + ")";
    directory_->stop();
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "bob", "bob-pw"));
    EXPECT_EQ(log_.count(fallback_warning), 2u);
    EXPECT_EQ(log_.count(s_opened(fallback_->url())), 2u);
    directory_->start();
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count(s_opened(directory_->url())), 1u);
    EXPECT_EQ(log_.count(fallback_warning), 2u);
  }
  {
    SCOPED_TRACE("both down refuses without retrying, and nothing of it sticks");
    log_.clear();
    auto ctx = init_pair(4);
    directory_->stop();
    fallback_->stop();
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count("auth_ldap: all 2 endpoint(s) failed; no service-bind connection available"), 1u);
    EXPECT_THAT(log_.text(), Not(HasSubstr(retrying)));
    fallback_->start();
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  }
  {
    SCOPED_TRACE("a paused primary falls over after the operation time-out");
    log_.clear();
    directory_->start();
    auto ctx = init_pair(4, {1000, 1000, {}});
    directory_->pause();
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count("auth_ldap: primary endpoint unreachable; using fallback (url=" + fallback_->url() + ")"), 1u);
  }
}

// ---------------------------------------------------------------------------------------
// Pool

using AuthLdapPool = AuthLdapTest;

TEST_F(AuthLdapPool, ConnectionsAreReusedReplacedAndClosed) {
  {
    SCOPED_TRACE("without a pool every check opens and closes its own connection");
    auto ctx = init(0);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count(kAnyOpened), 3u);
    EXPECT_TRUE(wait_for_connections(0));
  }
  {
    SCOPED_TRACE("a pooled connection is reused and stays open until the context goes");
    log_.clear();
    auto ctx = init(4);
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count(kAnyOpened), 1u);
    EXPECT_TRUE(wait_for_connections(1));
    // A pooled socket must not leak into the nats-server child the daemon forks.
    const std::vector<int> sockets = s_socket_fds();
    EXPECT_FALSE(sockets.empty());
    for (const int fd : sockets) EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
    ctx.reset();
    EXPECT_TRUE(wait_for_connections(0));
  }
  {
    SCOPED_TRACE("a failed search discards the pooled connection, without a retry when there is no fallback");
    log_.clear();
    auto ctx = init(1);
    ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "twin", "twin-pw"));  // size limit exceeded
    EXPECT_TRUE(wait_for_connections(0));
    ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count(kAnyOpened), 2u);
    EXPECT_THAT(log_.text(), Not(HasSubstr("retrying via failover walk")));
  }
  {
    SCOPED_TRACE("an idle connection past the time-out is unbound and replaced");
    log_.clear();
    std::atomic<int64_t> now_ms{1'000'000};
    auto ctx = init(4, {10000, 10000, [&] { return now_ms.load(); }});
    ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    now_ms += 299'000;
    ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count(kAnyOpened), 1u);
    now_ms += 301'000;  // measured from the last release
    ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count(kAnyOpened), 2u);
    EXPECT_TRUE(wait_for_connections(1));
  }
  {
    SCOPED_TRACE("an idle time-out below one second keeps connections for ever");
    std::atomic<int64_t> now_ms{0};
    for (const int idle_timeout_seconds : {0, -5, INT_MAX}) {
      ldap_setup forever = setup();
      forever.idle_timeout_seconds = idle_timeout_seconds;
      forever.timing.now_ms = [&] { return now_ms.load(); };
      auto ctx = s_init(forever);
      const size_t opened_before = log_.count(kAnyOpened);
      ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
      now_ms += int64_t{86400} * 24 * 1000;  // 24 days: just under INT_MAX ms
      ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
      EXPECT_EQ(log_.count(kAnyOpened) - opened_before, 1u) << idle_timeout_seconds;
    }
  }
  {
    SCOPED_TRACE("a second concurrent check on a pool of one uses a one-shot connection");
    log_.clear();
    auto ctx = init(1);
    ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    // With the server paused, the first check holds the pooled connection while its search waits.
    directory_->pause();
    std::atomic<bool> first_ok{false};
    std::thread first([&] { first_ok = auth_ldap_validate(ctx.get(), "alice", kAlicePassword); });
    ASSERT_TRUE(wait_until([&] { return directory_->connections_with_unread_requests() > 0; }, 5s));
    std::atomic<bool> second_ok{false};
    std::thread second([&] { second_ok = auth_ldap_validate(ctx.get(), "carol", "carol-pw"); });
    EXPECT_TRUE(wait_until(
        [&] { return log_.count("auth_ldap: pool exhausted (size=1); using one-shot connection") == 1u; }, 5s));
    directory_->resume();
    first.join();
    second.join();
    EXPECT_TRUE(first_ok);
    EXPECT_TRUE(second_ok);
    EXPECT_EQ(log_.count(kAnyOpened), 2u);
    // The one-shot connection is closed, the pooled one kept.
    EXPECT_TRUE(wait_for_connections(1));
  }
}

// Eight threads of checks, right and wrong passwords mixed, each must get the verdict it
// deserves, with alice's two groups on every grant; no more connections outlive their
// check than the pool holds. A clock that jumps past the idle time-out on every reading
// makes slots go stale and be replaced while other threads take and return theirs.
TEST_F(AuthLdapPool, EightThreadsShareThePool) {
  const struct {
    int pool_size;
    bool stale_clock;
    int checks_per_thread;
  } rows[] = {{4, false, 25}, {1, false, 25}, {4, true, 15}};
  for (const auto& row : rows) {
    SCOPED_TRACE("pool of " + std::to_string(row.pool_size) + (row.stale_clock ? ", stale clock" : ""));
    log_.clear();
    std::atomic<int64_t> now_ms{0};
    ldap_setup shared = setup(row.pool_size);
    if (row.stale_clock) {
      shared.idle_timeout_seconds = 1;
      shared.timing.now_ms = [&] { return now_ms.fetch_add(1000); };
    }
    auto ctx = s_init(shared);
    std::atomic<int> correct{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < row.checks_per_thread; ++i) {
          const bool wrong = (t + i) % 5 == 0;
          ldap_user_info_t info;
          const bool ok = auth_ldap_validate_ext(ctx.get(), "alice", wrong ? "wrong-pw" : kAlicePassword, &info);
          if (ok == !wrong && (!ok || info.n_groups == 2)) ++correct;
          ldap_user_info_free(&info);
        }
      });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(correct, 8 * row.checks_per_thread);
    EXPECT_TRUE(wait_until(
        [&] { return directory_->established_connections() <= row.pool_size; }, 5s));
    if (!row.stale_clock) {
      const size_t pooled_opens = log_.count(kAnyOpened) - log_.count("using one-shot connection");
      EXPECT_GE(pooled_opens, 1u);
      EXPECT_LE(pooled_opens, static_cast<size_t>(row.pool_size));
    }
    ctx.reset();
    EXPECT_TRUE(wait_for_connections(0));
  }
}

// ---------------------------------------------------------------------------------------
// Time-outs: a paused slapd completes the TCP handshake but never answers.

using AuthLdapTimeouts = AuthLdapTest;

TEST_F(AuthLdapTimeouts, UnansweredConnectsSearchesAndBindsEndTheCheck) {
  {
    SCOPED_TRACE("an unanswered connect ends after the network time-out");
    const ReservedPort black_hole;
    const qm::unique_fd filler = fill_accept_queue(black_hole);
    ldap_setup setup;
    setup.url = black_hole.url("ldap") + "/";
    setup.fallback_url = directory_->url();
    setup.timing = {500, 5000, {}};
    auto ctx = s_init(setup);
    const auto started = std::chrono::steady_clock::now();
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    // Bounded by the network time-out, not by the longer operation time-out.
    EXPECT_LT(std::chrono::steady_clock::now() - started, 4s);
    EXPECT_LOGGED(log_, "on " + black_hole.url("ldap") + "/ failed: Can't contact LDAP server");
    EXPECT_EQ(log_.count("auth_ldap: primary endpoint unreachable; using fallback"), 1u);
  }
  {
    SCOPED_TRACE("a search on a pooled connection to a paused server times out and drops it");
    log_.clear();
    auto ctx = init(1, {1000, 1000, {}});
    ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    directory_->pause();
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    directory_->resume();
    EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count(kAnyOpened), 2u);
  }
  {
    SCOPED_TRACE("an unanswered service bind ends after the operation time-out, not the network one");
    log_.clear();
    auto ctx = init(0, {5000, 1000, {}});
    directory_->pause();
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    const auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_GE(waited, 900ms);
    EXPECT_LT(waited, 4s);
    EXPECT_LOGGED(log_, "on " + directory_->url() + " failed: Timed out");
    EXPECT_LOGGED(log_, "auth_ldap: all 1 endpoint(s) failed");
  }
  // Without a timing the broker runs with these limits: the waits above, at full length.
  EXPECT_EQ(auth_ldap_timing{}.network_ms, 10000);
  EXPECT_EQ(auth_ldap_timing{}.operation_ms, 10000);
}

}  // namespace
