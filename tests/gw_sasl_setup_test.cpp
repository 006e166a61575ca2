// The SASL set-up: the generated Cyrus configuration, the callbacks, and the password
// check over "qm.auth.verify" against a real nats-server, with Cyrus's own server API
// driving the PLAIN exchanges.
#include "gw_sasl_setup.hpp"

#include "test_prelude.hpp"
#include <sasl/sasl.h>

#include "amqp_fixture.hpp"

namespace qmtest {
namespace {

constexpr const char* kApp = GW_SASL_SERVICE_NAME;

mode_t mode_of(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

// The set-up's callback for `id`, as Cyrus finds it in the table.
template <typename Fn>
Fn callback(unsigned long id) {
  for (const sasl_callback_t* cb = gw_sasl_callbacks(); cb->id != SASL_CB_LIST_END; ++cb) {
    if (cb->id == id) return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(cb->proc));
  }
  ADD_FAILURE() << "no callback " << id;
  return nullptr;
}

using checkpass_fn = int (*)(sasl_conn_t*, void*, const char*, const char*, unsigned, propctx*);
using canon_user_fn = int (*)(sasl_conn_t*, void*, const char*, unsigned, unsigned, const char*, char*, unsigned,
                              unsigned*);

// The password check as Cyrus calls it.
int checkpass(const char* user, const char* password, unsigned len) {
  return callback<checkpass_fn>(SASL_CB_SERVER_USERDB_CHECKPASS)(nullptr, nullptr, user, password, len, nullptr);
}

// A nats-server, a relay to it and a verify endpoint that knows `users`.
struct VerifyEnv {
  explicit VerifyEnv(user_list users = {{"alice", "alice-secret"}})
      : relay(scan.make_relay()), verify(scan.nc(), std::move(users)) {}
  ScanEnv scan;
  relay_ptr relay;
  VerifyEndpoint verify;
  TempDir dir;
  std::string runtime_dir() const { return dir.file("rt"); }
};

// One PLAIN exchange through Cyrus as the AMQP side runs it; SASL_OK when admitted.
int plain_login(const std::string& user, const std::string& password) {
  sasl_conn_t* conn = nullptr;
  if (sasl_server_new("amqp", "localhost", nullptr, nullptr, nullptr, nullptr, 0, &conn) != SASL_OK) return SASL_FAIL;
  const std::string initial = std::string(1, '\0') + user + std::string(1, '\0') + password;
  const char* out = nullptr;
  unsigned out_len = 0;
  const int rc = sasl_server_start(conn, "PLAIN", initial.data(), static_cast<unsigned>(initial.size()), &out, &out_len);
  sasl_dispose(&conn);
  return rc;
}

std::string mechanisms() {
  sasl_conn_t* conn = nullptr;
  if (sasl_server_new("amqp", "localhost", nullptr, nullptr, nullptr, nullptr, 0, &conn) != SASL_OK) return "";
  const char* list = nullptr;
  const std::string result = sasl_listmech(conn, nullptr, "", " ", "", &list, nullptr, nullptr) == SASL_OK ? list : "";
  sasl_dispose(&conn);
  return result;
}

// Cyrus initialised again, with the set-up's own callbacks, after conf_text has replaced
// the generated file.
void reinit_with(const std::string& conf_path, const std::string& conf_text) {
  sasl_server_done();
  write_file(conf_path, conf_text);
  ASSERT_EQ(sasl_server_init(gw_sasl_callbacks(), kApp), SASL_OK);
}

TEST(SaslSetup, WritesTheFileInPrivateDirectoriesOnceAndTearsDownWhatAFailureLeft) {
  VerifyEnv env;
  LogCapture log(QMLOG_TRACE);
  const char* config_dir = gw_sasl_setup(kApp, env.runtime_dir().c_str(), env.relay.get());
  ASSERT_NE(config_dir, nullptr);
  const std::string conf = env.runtime_dir() + "/sasl/" + kApp + ".conf";
  EXPECT_EQ(std::string(config_dir), env.runtime_dir() + "/sasl");
  EXPECT_EQ(mode_of(env.runtime_dir()), 0700u);
  EXPECT_EQ(mode_of(config_dir), 0700u);
  EXPECT_EQ(mode_of(conf), 0600u);
  EXPECT_TRUE(log.contains("sasl_setup: ready (appname=quillmere-av-scangateway, config_dir=" + std::string(config_dir) +
                           ", validator=qm.auth.verify via NATS relay)"));

  // A second set-up changes nothing and hands back the same directory.
  struct stat before {};
  ASSERT_EQ(stat(conf.c_str(), &before), 0);
  EXPECT_EQ(gw_sasl_setup(kApp, "/elsewhere", env.relay.get()), config_dir);
  struct stat after {};
  ASSERT_EQ(stat(conf.c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
  EXPECT_FALSE(fs::exists("/elsewhere"));

  gw_sasl_teardown();
  EXPECT_FALSE(fs::exists(env.runtime_dir()));

  // An existing runtime directory is made private; a symlink in its place is refused.
  fs::create_directory(env.runtime_dir());
  fs::permissions(env.runtime_dir(), fs::perms(0755));
  ASSERT_NE(gw_sasl_setup(kApp, env.runtime_dir().c_str(), env.relay.get()), nullptr);
  EXPECT_EQ(mode_of(env.runtime_dir()), 0700u);
  gw_sasl_teardown();
  fs::create_directory_symlink(env.dir.path(), env.runtime_dir());
  EXPECT_EQ(gw_sasl_setup(kApp, env.runtime_dir().c_str(), env.relay.get()), nullptr);
  EXPECT_FALSE(fs::exists(env.dir.file("sasl")));
  fs::remove(env.runtime_dir());
  gw_sasl_teardown();

  // Teardown after a failed set-up removes, quietly, what was created.
  EXPECT_EQ(gw_sasl_setup(nullptr, env.runtime_dir().c_str(), env.relay.get()), nullptr);
  // The parent is missing: nothing is made, and teardown has nothing to say.
  const std::string orphan = env.dir.file("missing/rt");
  EXPECT_EQ(gw_sasl_setup(kApp, orphan.c_str(), env.relay.get()), nullptr);
  log.clear();
  gw_sasl_teardown();
  EXPECT_EQ(log.text(), "");

  // Both directories exist before the name proves too long; teardown removes them quietly.
  const std::string long_name(4100, 'n');
  EXPECT_EQ(gw_sasl_setup(long_name.c_str(), env.runtime_dir().c_str(), env.relay.get()), nullptr);
  EXPECT_TRUE(fs::exists(env.runtime_dir() + "/sasl"));
  log.clear();
  gw_sasl_teardown();
  EXPECT_FALSE(fs::exists(env.runtime_dir()));
  EXPECT_EQ(log.text(), "");

  // A set-up after the failures works.
  EXPECT_NE(gw_sasl_setup(kApp, env.runtime_dir().c_str(), env.relay.get()), nullptr);
  gw_sasl_teardown();
}

// Cyrus reads the generated file (its mech_list alone leaves PLAIN of all the installed
// mechanisms), and a refusal by the auth service is final even where a sasldb that Cyrus
// would otherwise consult admits the user.
TEST(SaslSetup, ARefusalIsFinalEvenWithASasldbEntry) {
  VerifyEnv env;
  ASSERT_NE(gw_sasl_setup(kApp, env.runtime_dir().c_str(), env.relay.get()), nullptr);
  const std::string conf = env.runtime_dir() + "/sasl/" + kApp + ".conf";
  std::string generated = read_file(conf);
  EXPECT_EQ(mechanisms(), "PLAIN");
  EXPECT_EQ(plain_login("alice", "alice-secret"), SASL_OK);
  EXPECT_NE(plain_login("mallory", "mallory-pw"), SASL_OK);

  // Without the generated lines, a sasldb with mallory admits her although the auth
  // service refuses: the fallback the file has to shut.
  const std::string sasldb = env.dir.file("sasldb2");
  reinit_with(conf, "mech_list: PLAIN\nsasldb_path: " + sasldb + "\n");
  sasl_conn_t* conn = nullptr;
  ASSERT_EQ(sasl_server_new("amqp", "localhost", nullptr, nullptr, nullptr, nullptr, 0, &conn), SASL_OK);
  ASSERT_EQ(sasl_setpass(conn, "mallory", "mallory-pw", 10, nullptr, 0, SASL_SET_CREATE), SASL_OK);
  sasl_dispose(&conn);
  const size_t requests = env.verify.requests().size();
  EXPECT_EQ(plain_login("mallory", "mallory-pw"), SASL_OK);
  EXPECT_GT(env.verify.requests().size(), requests) << "the auth service was not asked first";

  // The generated file, pointed at that same sasldb, keeps her out.
  ASSERT_NE(generated.find("/dev/null"), std::string::npos) << generated;
  generated.replace(generated.find("/dev/null"), strlen("/dev/null"), sasldb);
  reinit_with(conf, generated);
  EXPECT_NE(plain_login("mallory", "mallory-pw"), SASL_OK);
  EXPECT_EQ(plain_login("alice", "alice-secret"), SASL_OK);
  gw_sasl_teardown();
}

TEST(SaslCheckpass, PasswordBoundariesAndEmptyCredentials) {
  const std::string longest(255, 'p');
  VerifyEnv env(user_list{{"alice", longest}});
  ASSERT_NE(gw_sasl_setup(kApp, env.runtime_dir().c_str(), env.relay.get()), nullptr);
  EXPECT_EQ(checkpass("alice", longest.data(), 255), SASL_OK);
  EXPECT_EQ(json_member(env.verify.requests().back(), "password"), longest);
  EXPECT_EQ(gw_sasl_take_checkpass_verdict(), SASL_OK);
  EXPECT_EQ(gw_sasl_take_checkpass_verdict(), 0);
  // A NUL byte does not cut the password short: all of it is checked (and refused).
  const std::string with_nul = longest.substr(0, 200) + std::string(1, '\0') + "junk";
  EXPECT_EQ(checkpass("alice", with_nul.data(), 205), SASL_BADAUTH);
  EXPECT_EQ(json_member(env.verify.requests().back(), "password"), with_nul);

  const size_t requests = env.verify.requests().size();
  const std::string too_long(256, 'p');
  EXPECT_EQ(checkpass("alice", too_long.data(), 256), SASL_BADAUTH);
  EXPECT_EQ(checkpass("", "pw", 2), SASL_BADAUTH);
  EXPECT_EQ(checkpass(nullptr, "pw", 2), SASL_BADAUTH);
  EXPECT_EQ(checkpass("alice", "pw", 0), SASL_BADAUTH);
  EXPECT_EQ(checkpass("alice", nullptr, 2), SASL_BADAUTH);
  EXPECT_EQ(env.verify.requests().size(), requests);
  gw_sasl_teardown();

  EXPECT_EQ(checkpass("alice", "pw", 2), SASL_TRYAGAIN);
}

TEST(SaslCheckpass, VerifyRepliesBecomeVerdicts) {
  VerifyEnv env;
  ASSERT_NE(gw_sasl_setup(kApp, env.runtime_dir().c_str(), env.relay.get()), nullptr);
  const struct {
    const char* reply;
    int verdict;
    const char* logged;
  } cases[] = {
      {"{\"ok\":true}", SASL_OK, "sasl_checkpass: GRANT user='alice' backend=(unknown)"},
      {"{\"ok\":true,\"backend\":\"ldap\"}", SASL_OK, "sasl_checkpass: GRANT user='alice' backend=ldap"},
      {"{\"ok\":false,\"backend\":\"file\"}", SASL_BADAUTH, "sasl_checkpass: DENY user='alice' backend=file"},
      {"{\"backend\":\"file\"}", SASL_BADAUTH, "sasl_checkpass: DENY user='alice' backend=file"},
      {"{\"ok\":\"true\"}", SASL_BADAUTH, "sasl_checkpass: DENY user='alice' backend=(unknown)"},
      {"{\"ok\":truE}", SASL_TRYAGAIN, "malformed qm.auth.verify reply"},
      {"not json", SASL_TRYAGAIN,
       "sasl_checkpass: malformed qm.auth.verify reply for user='alice' \xE2\x80\x94 treating as transient and asking "
       "client to retry"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.reply);
    LogCapture log;
    env.verify.script({{"alice", c.reply}});
    EXPECT_EQ(checkpass("alice", "whatever", 8), c.verdict);
    EXPECT_LOGGED(log, c.logged);
  }
  gw_sasl_teardown();
}

// A name that does not fit is refused whole: cut, it would be checked as another name.
TEST(SaslCallbacks, NamesPassThroughUnchangedOrAreRefusedWhole) {
  LogCapture log(QMLOG_TRACE);
  const auto sasl_canon_user_cb = callback<canon_user_fn>(SASL_CB_CANON_USER);
  char out[5];
  unsigned out_len = 0;
  EXPECT_EQ(sasl_canon_user_cb(nullptr, nullptr, "Alice@Realm", 11, SASL_CU_AUTHID, nullptr, out, sizeof out, &out_len),
            SASL_BUFOVER);
  EXPECT_LOGGED(log, "sasl_canon: authid of 11 bytes is longer than the 4 bytes SASL can carry");
  EXPECT_EQ(sasl_canon_user_cb(nullptr, nullptr, "Alic", 4, SASL_CU_AUTHID, nullptr, out, sizeof out, &out_len), SASL_OK);
  EXPECT_EQ(std::string(out, out_len), "Alic");
  EXPECT_EQ(out[4], '\0');
  EXPECT_LOGGED(log, "sasl_canon: authid='Alice@Realm' realm_param='(null)' (passing through verbatim)");
  char wide[64];
  EXPECT_EQ(sasl_canon_user_cb(nullptr, nullptr, "bob", 3, SASL_CU_AUTHZID, "R", wide, sizeof wide, &out_len), SASL_OK);
  EXPECT_EQ(std::string(wide), "bob");
  EXPECT_LOGGED(log, "sasl_canon: authzid='bob' realm_param='R' (passing through verbatim)");
  EXPECT_EQ(sasl_canon_user_cb(nullptr, nullptr, "eve", 3, 0, nullptr, nullptr, 8, &out_len), SASL_BADPARAM);
  EXPECT_EQ(sasl_canon_user_cb(nullptr, nullptr, "eve", 3, 0, nullptr, wide, sizeof wide, nullptr), SASL_BADPARAM);
}

}  // namespace
}  // namespace qmtest
