// The LDAP backend against real slapd servers on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "auth_ldap.hpp"
#include "auth_ldap_testing.hpp"
#include "log.hpp"
#include "qm_cpp.hpp"
#include "log_capture.hpp"
#include "slapd_fixture.hpp"
#include "test_support.hpp"

namespace {

using namespace std::chrono_literals;
using qmtest::Slapd;
using qmtest::SlapdOptions;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::UnorderedElementsAre;

constexpr const char* kBase = "dc=qm,dc=test";
constexpr const char* kReaderDn = "cn=reader,ou=services,dc=qm,dc=test";
constexpr const char* kReaderPassword = "reader-secret";
constexpr const char* kAliceDn = "uid=alice,ou=people,dc=qm,dc=test";
constexpr const char* kAlicePassword = "alice-pw";
constexpr const char* kScanners = "cn=scanners,ou=groups,dc=qm,dc=test";
constexpr const char* kAdmins = "cn=admins,ou=groups,dc=qm,dc=test";

// memberOf as a plain user attribute that the directory keeps on each user's entry.
constexpr const char* kGroupSchema =
    "attributetype ( 1.3.6.1.4.1.4203.666.11.99.1 NAME 'memberOf'\n"
    "  EQUALITY distinguishedNameMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 )\n"
    "objectclass ( 1.3.6.1.4.1.4203.666.11.99.2 NAME 'qmGroupMember' AUXILIARY MAY memberOf )\n";

std::string s_posix_user(const std::string& dn, const std::string& uid, const std::string& password, int number,
                         const std::vector<std::string>& groups) {
  std::string entry = "dn: " + dn + "\nobjectClass: account\nobjectClass: posixAccount\n";
  if (!groups.empty()) entry += "objectClass: qmGroupMember\n";
  entry += "uid: " + uid + "\ncn: user" + std::to_string(number) + "\nuidNumber: " + std::to_string(number) +
           "\ngidNumber: 1000\nhomeDirectory: /home/user" + std::to_string(number) + "\nuserPassword: " + password +
           "\n";
  for (const auto& group : groups) entry += "memberOf: " + group + "\n";
  return entry + "\n";
}

std::string s_directory_ldif() {
  std::string ldif =
      "dn: dc=qm,dc=test\nobjectClass: dcObject\nobjectClass: organization\no: qm\ndc: qm\n\n"
      "dn: ou=people,dc=qm,dc=test\nobjectClass: organizationalUnit\nou: people\n\n"
      "dn: ou=staff,dc=qm,dc=test\nobjectClass: organizationalUnit\nou: staff\n\n"
      "dn: ou=groups,dc=qm,dc=test\nobjectClass: organizationalUnit\nou: groups\n\n"
      "dn: ou=services,dc=qm,dc=test\nobjectClass: organizationalUnit\nou: services\n\n"
      "dn: cn=reader,ou=services,dc=qm,dc=test\nobjectClass: organizationalRole\n"
      "objectClass: simpleSecurityObject\ncn: reader\nuserPassword: reader-secret\n\n"
      "dn: cn=scanners,ou=groups,dc=qm,dc=test\nobjectClass: groupOfNames\ncn: scanners\n"
      "member: uid=alice,ou=people,dc=qm,dc=test\nmember: uid=carol,ou=people,dc=qm,dc=test\n\n"
      "dn: cn=admins,ou=groups,dc=qm,dc=test\nobjectClass: groupOfNames\ncn: admins\n"
      "member: uid=alice,ou=people,dc=qm,dc=test\n\n";
  ldif += s_posix_user(kAliceDn, "alice", kAlicePassword, 1001, {kScanners, kAdmins});
  ldif += s_posix_user("uid=bob,ou=people,dc=qm,dc=test", "bob", "bob-pw", 1002, {});
  ldif += s_posix_user("uid=carol,ou=people,dc=qm,dc=test", "carol", "carol-pw", 1003, {kScanners});
  // The same uid twice: a filter on it matches two entries.
  ldif += s_posix_user("uid=twin,ou=people,dc=qm,dc=test", "twin", "twin-pw", 1004, {});
  ldif += s_posix_user("uid=twin,ou=staff,dc=qm,dc=test", "twin", "twin-pw", 1005, {});
  // Names made of filter metacharacters, to show that escaping keeps them usable.
  ldif += s_posix_user("cn=odd one,ou=people,dc=qm,dc=test", "we)(ird*", "odd-pw", 1006, {});
  ldif += s_posix_user("cn=back slash,ou=people,dc=qm,dc=test", "back\\slash", "slash-pw", 1007, {});
  return ldif;
}

std::unique_ptr<Slapd> s_start_directory() {
  SlapdOptions options;
  options.ldif = s_directory_ldif();
  options.extra_schema = kGroupSchema;
  return std::make_unique<Slapd>(options);
}

// A loopback URL on which nothing listens.
std::string s_closed_url() { return "ldap://127.0.0.1:" + std::to_string(qmtest::free_port()) + "/"; }

using ctx_ptr = qm::c_ptr<auth_ldap_ctx_t, auth_ldap_destroy>;

struct ldap_setup {
  std::string url;
  std::string fallback_url;
  int pool_size = 4;
  int idle_timeout_seconds = 300;
  std::string group_attribute = "memberOf";
  std::string bind_password = kReaderPassword;
};

ctx_ptr s_init(const ldap_setup& setup) {
  return ctx_ptr(auth_ldap_init(setup.url.c_str(), kBase, kReaderDn, setup.bind_password.c_str(), nullptr,
                                setup.fallback_url.c_str(), nullptr, nullptr, nullptr, nullptr, setup.pool_size,
                                setup.idle_timeout_seconds, setup.group_attribute.c_str(), nullptr));
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

class AuthLdapTest : public ::testing::Test {
 protected:
  void SetUp() override { directory_ = s_start_directory(); }
  ctx_ptr init(int pool_size = 4) {
    ldap_setup setup;
    setup.url = directory_->url();
    setup.pool_size = pool_size;
    return s_init(setup);
  }

  qmtest::LogCapture log_{QMLOG_TRACE};
  std::unique_ptr<Slapd> directory_;
};

// ---------------------------------------------------------------------------------------
// Verdicts

using AuthLdapVerdicts = AuthLdapTest;

TEST_F(AuthLdapVerdicts, RightPasswordGrantsWrongPasswordAndUnknownUserRefuse) {
  auto ctx = init();
  ASSERT_NE(ctx, nullptr);
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "bob", "bob-pw"));

  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", "wrong-pw"));
  EXPECT_THAT(log_.text(),
              HasSubstr(std::string("auth_ldap: user bind as ") + kAliceDn + " failed: Invalid credentials"));

  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "mallory", "whatever-pw"));
  EXPECT_THAT(log_.text(), Not(HasSubstr("user bind as uid=mallory")));
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", "alice-pw "));  // one byte more is another password

  // The server would accept an empty password as an anonymous bind.
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", ""));
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "", kAlicePassword));
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), nullptr, kAlicePassword));
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", nullptr));
  EXPECT_FALSE(auth_ldap_validate(nullptr, "alice", kAlicePassword));

  const std::string log = log_.text();
  for (const char* secret : {kAlicePassword, "wrong-pw", "whatever-pw", kReaderPassword})
    EXPECT_THAT(log, Not(HasSubstr(secret)));
}

TEST_F(AuthLdapVerdicts, FilterMatchingTwoEntriesIsRefused) {
  auto ctx = init();
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "twin", "twin-pw"));
  EXPECT_THAT(log_.text(), Not(HasSubstr("user bind")));
}

TEST_F(AuthLdapVerdicts, FailedServiceBindRefusesWithoutLeakingThePassword) {
  ldap_setup setup;
  setup.url = directory_->url();
  setup.bind_password = "not-the-reader-secret";
  auto ctx = s_init(setup);
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  const std::string log = log_.text();
  EXPECT_THAT(log, HasSubstr(std::string("auth_ldap: service bind as ") + kReaderDn + " on " + directory_->url() +
                             " failed: Invalid credentials"));
  EXPECT_THAT(log, HasSubstr("auth_ldap: all 1 endpoint(s) failed; no service-bind connection available"));
  EXPECT_THAT(log, Not(HasSubstr("not-the-reader-secret")));
  EXPECT_THAT(log, Not(HasSubstr(kAlicePassword)));
}

// The user name is data, never filter syntax: none of these may log in as someone else.
TEST_F(AuthLdapVerdicts, FilterMetacharactersInTheNameCannotReachAnotherEntry) {
  auto ctx = init();
  for (const char* name : {"a*", "al*", "*", "*)(uid=alice", "x)(uid=*", "alice)(uid=*", "alice)", "(alice",
                           "al\\69ce", "al\\2a", "\\2a", "alice\\"}) {
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), name, kAlicePassword)) << name;
    EXPECT_FALSE(auth_ldap_validate(ctx.get(), name, "twin-pw")) << name;
  }
  EXPECT_THAT(log_.text(), Not(HasSubstr("user bind")));
  // Names that really contain those characters still work.
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "we)(ird*", "odd-pw"));
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "back\\slash", "slash-pw"));
}

// ---------------------------------------------------------------------------------------
// Groups

using AuthLdapGroups = AuthLdapTest;

TEST_F(AuthLdapGroups, EveryValueOfTheAttributeIsReturned) {
  auto ctx = init();
  ldap_user_info_t info;
  ASSERT_TRUE(auth_ldap_validate_ext(ctx.get(), "alice", kAlicePassword, &info));
  EXPECT_THAT(s_groups(info), UnorderedElementsAre(kScanners, kAdmins));
  ldap_user_info_free(&info);
  EXPECT_EQ(info.groups, nullptr);
  EXPECT_EQ(info.n_groups, 0);
  ldap_user_info_free(&info);
  ldap_user_info_free(nullptr);

  ASSERT_TRUE(auth_ldap_validate_ext(ctx.get(), "carol", "carol-pw", &info));
  EXPECT_THAT(s_groups(info), UnorderedElementsAre(kScanners));
  ldap_user_info_free(&info);
}

TEST_F(AuthLdapGroups, UserWithoutGroupsIsGrantedWithNone) {
  auto ctx = init();
  ldap_user_info_t info;
  ASSERT_TRUE(auth_ldap_validate_ext(ctx.get(), "bob", "bob-pw", &info));
  EXPECT_EQ(info.n_groups, 0);
  EXPECT_EQ(info.groups, nullptr);
}

TEST_F(AuthLdapGroups, RefusalOrNoGroupAttributeLeavesTheOutputEmpty) {
  auto ctx = init();
  char* junk[1] = {nullptr};
  ldap_user_info_t info{junk, 7};  // whatever the caller left there is overwritten, not freed
  EXPECT_FALSE(auth_ldap_validate_ext(ctx.get(), "alice", "wrong-pw", &info));
  EXPECT_EQ(info.groups, nullptr);
  EXPECT_EQ(info.n_groups, 0);

  ldap_setup setup;
  setup.url = directory_->url();
  setup.group_attribute = "";
  auto no_groups = s_init(setup);
  ASSERT_TRUE(auth_ldap_validate_ext(no_groups.get(), "alice", kAlicePassword, &info));
  EXPECT_EQ(info.n_groups, 0);
}

// ---------------------------------------------------------------------------------------
// Configuration

TEST(AuthLdapConfig, UrlAndBaseAreRequired) {
  EXPECT_EQ(auth_ldap_init(nullptr, kBase, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 4,
                           300, nullptr, nullptr),
            nullptr);
  EXPECT_EQ(auth_ldap_init("ldap://127.0.0.1/", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                           nullptr, nullptr, 4, 300, nullptr, nullptr),
            nullptr);
  auth_ldap_destroy(nullptr);
}

using AuthLdapFallbackConfig = AuthLdapTest;

// A fallback given only as a URL searches with the primary's base, account and filter.
TEST_F(AuthLdapFallbackConfig, UnsetFieldsInheritThePrimarysSettings) {
  const std::string primary = s_closed_url();
  auto ctx = ctx_ptr(auth_ldap_init(primary.c_str(), kBase, kReaderDn, kReaderPassword,
                                    "(&(objectClass=posixAccount)(uid=%s))", directory_->url().c_str(), "", "",
                                    nullptr, "", 0, 300, "memberOf", nullptr));
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));

  // Fields of its own override the primary's.
  auto own = ctx_ptr(auth_ldap_init(primary.c_str(), "ou=nowhere,dc=qm,dc=test", "cn=nobody", "nothing", "(cn=%s)",
                                    directory_->url().c_str(), "ou=people,dc=qm,dc=test", kReaderDn, kReaderPassword,
                                    "(&(objectClass=account)(uid=%s))", 0, 300, nullptr, nullptr));
  EXPECT_TRUE(auth_ldap_validate(own.get(), "alice", kAlicePassword));
  // ou=people only: the twin in ou=staff is out of reach, so the filter matches once.
  EXPECT_TRUE(auth_ldap_validate(own.get(), "twin", "twin-pw"));
}

// ---------------------------------------------------------------------------------------
// TLS: ldaps:// with the CA file given to the context.

class AuthLdapTls : public ::testing::Test {
 protected:
  void SetUp() override {
    SlapdOptions options;
    options.ldif = s_directory_ldif();
    options.extra_schema = kGroupSchema;
    options.tls = true;
    directory_ = std::make_unique<Slapd>(options);
  }
  // Without a pool, so that every check makes its own TLS handshake.
  static ctx_ptr init(const std::string& url, const std::string& cacert) {
    return ctx_ptr(auth_ldap_init(url.c_str(), kBase, kReaderDn, kReaderPassword, nullptr, nullptr, nullptr, nullptr,
                                  nullptr, nullptr, 0, 300, nullptr, cacert.c_str()));
  }

  qmtest::LogCapture log_{QMLOG_TRACE};
  std::unique_ptr<Slapd> directory_;
};

TEST_F(AuthLdapTls, EachContextTrustsOnlyItsOwnCaFile) {
  auto trusting = init(directory_->ldaps_url(), directory_->ca_file());
  auto other_cas = init(directory_->ldaps_url(), "/etc/ssl/certs/ca-certificates.crt");
  EXPECT_TRUE(auth_ldap_validate(trusting.get(), "alice", kAlicePassword));
  EXPECT_FALSE(auth_ldap_validate(other_cas.get(), "alice", kAlicePassword));
  EXPECT_THAT(log_.text(), HasSubstr("auth_ldap: service bind as " + std::string(kReaderDn) + " on " +
                                     directory_->ldaps_url() + " failed: "));
  // The refusal left nothing behind that changes the first context's handshakes.
  EXPECT_TRUE(auth_ldap_validate(trusting.get(), "alice", kAlicePassword));
}

TEST_F(AuthLdapTls, UnusableCaFileWarnsAndRefuses) {
  auto ctx = init(directory_->ldaps_url(), "/nonexistent/ca.pem");
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_THAT(log_.text(), HasSubstr("auth_ldap: LDAP_OPT_X_TLS_NEWCTX failed: "));
  EXPECT_THAT(log_.text(), HasSubstr("TLS options above may not have taken effect"));

  // A plain ldap:// endpoint ignores the CA file altogether.
  auto plain = init(directory_->url(), "/nonexistent/ca.pem");
  EXPECT_TRUE(auth_ldap_validate(plain.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count("LDAP_OPT_X_TLS_NEWCTX failed"), 1u);
}

// ---------------------------------------------------------------------------------------
// Failover

class AuthLdapFailover : public AuthLdapTest {
 protected:
  void SetUp() override {
    AuthLdapTest::SetUp();
    fallback_ = s_start_directory();
  }
  ctx_ptr init_pair(int pool_size) {
    ldap_setup setup;
    setup.url = directory_->url();
    setup.fallback_url = fallback_->url();
    setup.pool_size = pool_size;
    return s_init(setup);
  }
  std::unique_ptr<Slapd> fallback_;
};

TEST_F(AuthLdapFailover, EveryNewConnectionTriesThePrimaryFirst) {
  auto ctx = init_pair(0);
  const std::string fallback_warning =
      "auth_ldap: primary endpoint unreachable; using fallback (url=" + fallback_->url() + ")";
  directory_->stop();
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "bob", "bob-pw"));
  EXPECT_EQ(log_.count(fallback_warning), 2u);
  EXPECT_EQ(log_.count(s_opened(fallback_->url())), 2u);
  EXPECT_THAT(log_.text(), HasSubstr("auth_ldap: service bind as " + std::string(kReaderDn) + " on " +
                                     directory_->url() + " failed: Can't contact LDAP server"));

  directory_->start();
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count(s_opened(directory_->url())), 1u);
  EXPECT_EQ(log_.count(fallback_warning), 2u);
}

TEST_F(AuthLdapFailover, BothDownRefusesWithoutRetrying) {
  auto ctx = init_pair(4);
  directory_->stop();
  fallback_->stop();
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count("auth_ldap: all 2 endpoint(s) failed; no service-bind connection available"), 1u);
  EXPECT_THAT(log_.text(), Not(HasSubstr("retrying via failover walk")));

  // Nothing of the failure sticks: the next check after recovery succeeds.
  fallback_->start();
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
}

// A pooled connection whose server went away fails its search; the retry walks again.
TEST_F(AuthLdapFailover, DeadPooledConnectionIsDiscardedAndTheSearchRetried) {
  auto ctx = init_pair(1);
  ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  directory_->stop();
  directory_->start();
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count("auth_ldap: search on endpoint " + directory_->url() +
                       " failed (rc=Can't contact LDAP server); retrying via failover walk"),
            1u);
  EXPECT_EQ(log_.count(s_opened(directory_->url())), 2u);
  // The replacement went into the pool.
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count(kAnyOpened), 2u);
}

TEST_F(AuthLdapFailover, AmbiguousFilterIsRetriedOnceThenRefused) {
  auto ctx = init_pair(4);
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "twin", "twin-pw"));
  EXPECT_EQ(log_.count("failed (rc=Size limit exceeded); retrying via failover walk"), 1u);
  EXPECT_THAT(log_.text(), Not(HasSubstr("user bind")));
}

// ---------------------------------------------------------------------------------------
// Pool

using AuthLdapPool = AuthLdapTest;

TEST_F(AuthLdapPool, WithoutPoolEveryCheckOpensAndClosesItsOwnConnection) {
  auto ctx = init(0);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count(kAnyOpened), 3u);
  EXPECT_TRUE(qmtest::wait_until([&] { return directory_->established_connections() == 0; }, 5s));
}

TEST_F(AuthLdapPool, PooledConnectionIsReusedAndStaysOpen) {
  auto ctx = init(4);
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count(kAnyOpened), 1u);
  EXPECT_TRUE(qmtest::wait_until([&] { return directory_->established_connections() == 1; }, 5s));
  // A pooled socket must not leak into the nats-server child the daemon forks.
  const std::vector<int> sockets = s_socket_fds();
  EXPECT_FALSE(sockets.empty());
  for (const int fd : sockets) EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC) << fd;
  ctx.reset();
  EXPECT_TRUE(qmtest::wait_until([&] { return directory_->established_connections() == 0; }, 5s));
}

TEST_F(AuthLdapPool, SecondConcurrentCheckOnPoolOfOneUsesOneShotConnection) {
  auto ctx = init(1);
  ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  // With the server paused, the first check holds the pooled connection while its search waits.
  directory_->pause();
  std::atomic<bool> first_ok{false};
  std::thread first([&] { first_ok = auth_ldap_validate(ctx.get(), "alice", kAlicePassword); });
  ASSERT_TRUE(qmtest::wait_until([&] { return directory_->unread_request_bytes() > 0; }, 5s));
  std::atomic<bool> second_ok{false};
  std::thread second([&] { second_ok = auth_ldap_validate(ctx.get(), "carol", "carol-pw"); });
  EXPECT_TRUE(qmtest::wait_until(
      [&] { return log_.count("auth_ldap: pool exhausted (size=1); using one-shot connection") == 1u; }, 5s));
  directory_->resume();
  first.join();
  second.join();
  EXPECT_TRUE(first_ok);
  EXPECT_TRUE(second_ok);
  EXPECT_EQ(log_.count(kAnyOpened), 2u);
  // The one-shot connection is closed, the pooled one kept.
  EXPECT_TRUE(qmtest::wait_until([&] { return directory_->established_connections() == 1; }, 5s));
}

TEST_F(AuthLdapPool, IdleConnectionPastTheTimeoutIsReplaced) {
  std::atomic<int64_t> now_ms{1'000'000};
  ldap_setup setup;
  setup.url = directory_->url();
  setup.idle_timeout_seconds = 300;
  auto ctx = s_init(setup);
  auth_ldap_set_clock(ctx.get(), [&] { return now_ms.load(); });

  ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  now_ms += 299'000;
  ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count(kAnyOpened), 1u);
  now_ms += 301'000;  // measured from the last release
  ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count(kAnyOpened), 2u);
  // The stale connection was unbound, not merely forgotten.
  EXPECT_TRUE(qmtest::wait_until([&] { return directory_->established_connections() == 1; }, 5s));
}

TEST_F(AuthLdapPool, IdleTimeoutBelowOneKeepsConnectionsForEver) {
  std::atomic<int64_t> now_ms{0};
  for (const int idle_timeout_seconds : {0, -5, INT_MAX}) {
    ldap_setup setup;
    setup.url = directory_->url();
    setup.idle_timeout_seconds = idle_timeout_seconds;
    auto ctx = s_init(setup);
    auth_ldap_set_clock(ctx.get(), [&] { return now_ms.load(); });
    const size_t opened_before = log_.count(kAnyOpened);
    ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    now_ms += int64_t{86400} * 24 * 1000;  // 24 days: just under INT_MAX ms
    ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
    EXPECT_EQ(log_.count(kAnyOpened) - opened_before, 1u) << idle_timeout_seconds;
  }
}

TEST_F(AuthLdapPool, FailedSearchDiscardsThePooledConnection) {
  auto ctx = init(1);
  ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "twin", "twin-pw"));  // size limit exceeded
  EXPECT_TRUE(qmtest::wait_until([&] { return directory_->established_connections() == 0; }, 5s));
  ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count(kAnyOpened), 2u);
  // Without a fallback there is no retry.
  EXPECT_THAT(log_.text(), Not(HasSubstr("retrying via failover walk")));
}

// Eight threads of checks, right and wrong passwords mixed; returns how many got the
// verdict they deserved, with alice's two groups on every grant.
int s_run_eight_threads(auth_ldap_ctx_t* ctx, int checks_per_thread) {
  std::atomic<int> correct{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < checks_per_thread; ++i) {
        const bool wrong = (t + i) % 5 == 0;
        ldap_user_info_t info;
        const bool ok = auth_ldap_validate_ext(ctx, "alice", wrong ? "wrong-pw" : kAlicePassword, &info);
        if (ok == !wrong && (!ok || info.n_groups == 2)) ++correct;
        ldap_user_info_free(&info);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  return correct;
}

TEST_F(AuthLdapPool, EightThreadsShareAPoolOfFour) {
  auto ctx = init(4);
  EXPECT_EQ(s_run_eight_threads(ctx.get(), 25), 8 * 25);
  // At most four connections outlive their check.
  EXPECT_TRUE(qmtest::wait_until([&] { return directory_->established_connections() <= 4; }, 5s));
  const int pooled_opens = log_.count(kAnyOpened) - log_.count("using one-shot connection");
  EXPECT_GE(pooled_opens, 1);
  EXPECT_LE(pooled_opens, 4);
}

TEST_F(AuthLdapPool, EightThreadsOnAPoolOfOneKeepOnePooledConnection) {
  auto ctx = init(1);
  EXPECT_EQ(s_run_eight_threads(ctx.get(), 25), 8 * 25);
  EXPECT_EQ(log_.count(kAnyOpened) - log_.count("using one-shot connection"), 1u);
  EXPECT_TRUE(qmtest::wait_until([&] { return directory_->established_connections() <= 1; }, 5s));
}

// A clock that jumps past the idle time-out on every reading: slots go stale and are
// replaced while other threads take and return theirs.
TEST_F(AuthLdapPool, EightThreadsReplacingStaleConnections) {
  std::atomic<int64_t> now_ms{0};
  ldap_setup setup;
  setup.url = directory_->url();
  setup.idle_timeout_seconds = 1;
  auto ctx = s_init(setup);
  auth_ldap_set_clock(ctx.get(), [&] { return now_ms.fetch_add(1000); });
  EXPECT_EQ(s_run_eight_threads(ctx.get(), 15), 8 * 15);
  EXPECT_TRUE(qmtest::wait_until([&] { return directory_->established_connections() <= 4; }, 5s));
}

// ---------------------------------------------------------------------------------------
// Time-outs: a paused slapd completes the TCP handshake but never answers.

using AuthLdapTimeouts = AuthLdapTest;

TEST_F(AuthLdapTimeouts, PausedServerEndsTheCheckAfterTheTenSecondTimeout) {
  auto ctx = init(0);
  directory_->pause();
  const auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  const auto waited = std::chrono::steady_clock::now() - started;
  EXPECT_GE(waited, 9s);
  EXPECT_LT(waited, 40s);
  EXPECT_THAT(log_.text(), HasSubstr("on " + directory_->url() + " failed: Timed out"));
  EXPECT_THAT(log_.text(), HasSubstr("auth_ldap: all 1 endpoint(s) failed"));
}

TEST_F(AuthLdapTimeouts, PausedPrimaryFallsOverAfterTheTimeout) {
  auto fallback = s_start_directory();
  ldap_setup setup;
  setup.url = directory_->url();
  setup.fallback_url = fallback->url();
  auto ctx = s_init(setup);
  auth_ldap_set_timeouts(ctx.get(), auth_ldap_timeouts{1000, 1000});
  directory_->pause();
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count("auth_ldap: primary endpoint unreachable; using fallback (url=" + fallback->url() + ")"), 1u);
}

// A listener whose accept queue is full: the kernel drops further SYNs, so a connect
// to it hangs until the client gives up.
class FullListener {
 public:
  FullListener() {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listener_, 0) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
      throw std::runtime_error("listener set-up failed");
    port_ = ntohs(addr.sin_port);
    filler_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(filler_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
      throw std::runtime_error("filler connect failed");
  }
  ~FullListener() {
    close(filler_);
    close(listener_);
  }
  FullListener(const FullListener&) = delete;
  FullListener& operator=(const FullListener&) = delete;
  std::string url() const { return "ldap://127.0.0.1:" + std::to_string(port_) + "/"; }

 private:
  int listener_ = -1;
  int filler_ = -1;
  int port_ = 0;
};

TEST_F(AuthLdapTimeouts, UnansweredConnectEndsAfterTheNetworkTimeout) {
  FullListener black_hole;
  ldap_setup setup;
  setup.url = black_hole.url();
  setup.fallback_url = directory_->url();
  auto ctx = s_init(setup);
  auth_ldap_set_timeouts(ctx.get(), auth_ldap_timeouts{500, 5000});
  const auto started = std::chrono::steady_clock::now();
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  // Bounded by the network time-out, not by the longer operation time-out.
  EXPECT_LT(std::chrono::steady_clock::now() - started, 4s);
  EXPECT_THAT(log_.text(), HasSubstr("on " + black_hole.url() + " failed: Can't contact LDAP server"));
  EXPECT_EQ(log_.count("auth_ldap: primary endpoint unreachable; using fallback"), 1u);
}

TEST_F(AuthLdapTimeouts, SearchOnPooledConnectionToPausedServerTimesOut) {
  auto ctx = init(1);
  auth_ldap_set_timeouts(ctx.get(), auth_ldap_timeouts{1000, 1000});
  ASSERT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  directory_->pause();
  EXPECT_FALSE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  directory_->resume();
  // The timed-out connection was dropped; the next check opens a new one.
  EXPECT_TRUE(auth_ldap_validate(ctx.get(), "alice", kAlicePassword));
  EXPECT_EQ(log_.count(kAnyOpened), 2u);
}

}  // namespace
