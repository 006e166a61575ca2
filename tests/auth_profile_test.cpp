#include "auth_profile.hpp"

#include "test_prelude.hpp"

namespace {

using StorePtr = qm::c_ptr<auth_profile_store_t, auth_profile_destroy>;

std::vector<std::string> list(const char* const* items) {
  std::vector<std::string> out;
  for (; *items != nullptr; ++items) out.emplace_back(*items);
  return out;
}

class Permissions : public ::testing::Test {
 protected:
  StorePtr load(const std::string& json) {
    write_file(path_, json);
    return StorePtr(auth_profile_load(path_.c_str()));
  }
  TempDir dir_;
  std::string path_ = dir_.file("permissions.json");
};

TEST_F(Permissions, LoadsProfilesListsAndMaps) {
  LogCapture log(QMLOG_TRACE);
  StorePtr store = load(R"({
    "profiles": {
      "scanner": {"publish": {"allow": ["scan.>", "_INBOX.>"], "deny": ["admin.>"]},
                  "subscribe": {"allow": ["_INBOX.>"]}},
      "nothing": {},
      "odd": {"publish": "not an object", "subscribe": {"allow": null, "deny": ["x"]}}
    },
    "default_profile": "nothing",
    "file_user_map": [{"user": "alice", "profile": "scanner"}],
    "ldap_group_map": [],
    "ignored": 1
  })");
  ASSERT_NE(store, nullptr);
  EXPECT_TRUE(log.contains("auth_profile: loaded " + path_ +
                           " \u2014 3 profile(s), default=nothing, 1 file user map(s), 0 LDAP group map(s)"));
  // The lists of a mapped profile reach the server: the callout tests show them enforced.
  const auth_profile_t* alice = auth_profile_resolve(store.get(), "alice", nullptr, 0);
  EXPECT_STREQ(auth_profile_name(alice), "scanner");
  EXPECT_TRUE(list(auth_profile_sub_deny(alice)).empty());

  // Lists the file leaves out (or gives as null) are empty, never NULL; so are a NULL profile's.
  const auth_profile_t* other = auth_profile_resolve(store.get(), "bob", nullptr, 0);
  EXPECT_STREQ(auth_profile_name(other), "nothing");
  for (auto accessor : {auth_profile_pub_allow, auth_profile_pub_deny, auth_profile_sub_allow, auth_profile_sub_deny}) {
    EXPECT_TRUE(list(accessor(other)).empty());
    EXPECT_TRUE(list(accessor(nullptr)).empty());
  }
}

TEST_F(Permissions, ResolutionOrder) {
  StorePtr store = load(R"({
    "profiles": {"A": {}, "B": {}, "U": {}, "D": {}},
    "default_profile": "D",
    "file_user_map": [{"user": "carol", "profile": "U"}, {"user": "carol", "profile": "A"}],
    "ldap_group_map": [{"group_dn": "cn=G2,dc=x", "profile": "B"}, {"group_dn": "cn=G1,dc=x", "profile": "A"}]
  })");
  ASSERT_NE(store, nullptr);
  const char* groups[] = {"cn=G1,dc=x", "cn=G2,dc=x"};
  // The user map beats the group map; the first user-map entry wins.
  EXPECT_STREQ(auth_profile_name(auth_profile_resolve(store.get(), "carol", groups, 2)), "U");
  // Among groups the map's order decides, not the user's.
  EXPECT_STREQ(auth_profile_name(auth_profile_resolve(store.get(), "dave", groups, 2)), "B");
  EXPECT_STREQ(auth_profile_name(auth_profile_resolve(store.get(), "dave", groups, 1)), "A");
  // Exact, case-sensitive DNs; NULL entries are skipped.
  const char* upper[] = {nullptr, "CN=G2,DC=X"};
  EXPECT_STREQ(auth_profile_name(auth_profile_resolve(store.get(), "dave", upper, 2)), "D");
  // Empty or NULL user names skip the user map; no groups skip the group map.
  EXPECT_STREQ(auth_profile_name(auth_profile_resolve(store.get(), "", groups, 2)), "B");
  EXPECT_STREQ(auth_profile_name(auth_profile_resolve(store.get(), nullptr, nullptr, 0)), "D");
  EXPECT_STREQ(auth_profile_name(auth_profile_resolve(store.get(), "Carol", groups, 0)), "D");

  // Without a default nobody unmatched gets a profile (the caller uses the built-in one).
  StorePtr no_default = load(R"({"profiles": {"p": {}}})");
  ASSERT_NE(no_default, nullptr);
  EXPECT_EQ(auth_profile_resolve(no_default.get(), "anyone", nullptr, 0), nullptr);
  EXPECT_EQ(auth_profile_resolve(nullptr, "anyone", nullptr, 0), nullptr);
}

// Every fault makes the whole load fail, with its own line in the log.
TEST_F(Permissions, EveryFaultFailsTheLoadWithItsMessage) {
  {
    LogCapture log(QMLOG_TRACE);
    EXPECT_EQ(auth_profile_load(nullptr), nullptr);
    EXPECT_EQ(auth_profile_load(""), nullptr);
    EXPECT_LOGGED(log,
        "auth_profile: no permissions file configured \u2014 using compiled-in defaults for every callout user");
    const std::string missing = dir_.file("missing.json");
    EXPECT_EQ(auth_profile_load(missing.c_str()), nullptr);
    EXPECT_LOGGED(log, "auth_profile: cannot open " + missing + ": No such file or directory");
  }
  const std::string file = "auth_profile: " + path_;
  const std::string p = R"("profiles": {"p": {}}, )";
  const struct {
    std::string json;
    std::string message;
  } rows[] = {
      {"{\"profiles\": ", file + " parse failed: "},
      {"", file + " parse failed: "},
      {"{\"a\" 1}", file + " parse failed: "},
      {"[1, 2]", file + " top-level is not an object"},
      {"\"text\"", file + " top-level is not an object"},
      {"{}", file + " missing required \"profiles\" object"},
      {R"({"profiles": []})", "auth_profile: \"profiles\" is not an object"},
      {R"({"profiles": null})", "auth_profile: \"profiles\" is not an object"},
      {R"({"profiles": {}})", "auth_profile: \"profiles\" is empty \u2014 at least one profile must be defined"},
      {R"({"profiles": {"p": 5}})", "auth_profile: profile \"p\" body is not an object"},
      {R"({"profiles": {"p": {"publish": {"allow": "x"}}}})", "auth_profile: publish.allow is not an array"},
      {R"({"profiles": {"p": {"subscribe": {"deny": {}}}}})", "auth_profile: subscribe.deny is not an array"},
      {R"({"profiles": {"p": {"publish": {"allow": ["a", 1]}}}})", "auth_profile: publish.allow[1] is not a string"},
      {R"({"profiles": {"p": {"subscribe": {"allow": [null]}}}})", "auth_profile: subscribe.allow[0] is not a string"},
      {"{" + p + R"("default_profile": 1})", "auth_profile: \"default_profile\" must be a string"},
      {"{" + p + R"("default_profile": "P"})", "auth_profile: \"default_profile\"=\"P\" not in profiles{}"},
      {"{" + p + R"("file_user_map": {}})", "auth_profile: \"file_user_map\" is not an array"},
      {"{" + p + R"("file_user_map": [{"user": "a", "profile": "p"}, 3]})",
       "auth_profile: file_user_map[1] is not an object"},
      {"{" + p + R"("file_user_map": [{"user": 1, "profile": "p"}]})",
       "auth_profile: file_user_map[0] missing user/profile string"},
      {"{" + p + R"("file_user_map": [{"user": "a"}]})", "auth_profile: file_user_map[0] missing user/profile string"},
      {"{" + p + R"("file_user_map": [{"user": "a", "profile": "q"}]})",
       "auth_profile: file_user_map[0] references unknown profile \"q\""},
      {"{" + p + R"("ldap_group_map": "x"})", "auth_profile: \"ldap_group_map\" is not an array"},
      {"{" + p + R"("ldap_group_map": [[]]})", "auth_profile: ldap_group_map[0] is not an object"},
      {"{" + p + R"("ldap_group_map": [{"group_dn": "cn=x", "profile": null}]})",
       "auth_profile: ldap_group_map[0] missing group_dn/profile string"},
      {"{" + p + R"("ldap_group_map": [{"group_dn": "cn=x", "profile": "P"}]})",
       "auth_profile: ldap_group_map[0] references unknown profile \"P\""},
      // Staged keys only ever bound to the login, and no wider entry beside them.
      {R"({"profiles": {"p": {"publish": {"allow": ["$KV.qm-av-scan-data.>"]}}}})",
       "auth_profile: profile \"p\" publish.allow \"$KV.qm-av-scan-data.>\" writes staged keys not bound to {user}"},
      {R"({"profiles": {"p": {"publish": {"allow": ["$KV.qm-av-scan-data.c.{user}.>", "$KV.*.>"]}}}})",
       "auth_profile: profile \"p\" publish.allow \"$KV.*.>\" reaches the staged-data bucket beside entries"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.json);
    LogCapture log(QMLOG_TRACE);
    EXPECT_EQ(load(row.json), nullptr);
    EXPECT_LOGGED(log, row.message);
  }
}

// What the doors ask before relaying for a caller, against the shipped roles and the
// built-in permissions: the denies every grant carries win over any allow entry.
TEST_F(Permissions, PublishCheckOfShippedRolesAndBuiltinGrant) {
  StorePtr store = load(read_file(std::string(QM_SOURCE_DIR) + "/packaging/qm-av-permissions.json"));
  ASSERT_NE(store, nullptr);
  const auth_profile_t* client = auth_profile_find(store.get(), "client");
  const auth_profile_t* worker = auth_profile_find(store.get(), "worker");
  ASSERT_NE(client, nullptr);
  ASSERT_NE(worker, nullptr);
  EXPECT_EQ(auth_profile_find(store.get(), "Client"), nullptr);
  EXPECT_EQ(auth_profile_find(nullptr, "client"), nullptr);
  EXPECT_EQ(auth_profile_find(store.get(), nullptr), nullptr);
  EXPECT_EQ(auth_profile_resolve(store.get(), "scan-worker", nullptr, 0), worker);
  EXPECT_EQ(auth_profile_resolve(store.get(), "demo", nullptr, 0), client);

  const struct {
    const auth_profile_t* profile;
    const char* user;
    const char* subject;
    bool permitted;
  } rows[] = {
      {client, "demo", "scan", true},
      {client, "demo", "jobs.scanjs", true},
      {client, "demo", "qm-av-quarantine.x", true},
      {client, "demo", "$KV.qm-av-scan-data.c.demo.k-0", true},
      {client, "demo", "$KV.qm-av-scan-data.c.alice.k-0", false},
      {client, "demo", "$KV.qm-av-scan-data.w.demo.k", false},
      {client, "demo", "_INBOX.alice.r1", false},  // a client never publishes a reply
      {client, "demo", "qm.auth.verify", false},
      {client, "demo", "$SYS.REQ.USER.AUTH", false},
      {client, "demo", "$JS.API.STREAM.NAMES", false},
      {client, "demo", "a.b.c", false},
      {client, nullptr, "scan", false},
      {worker, "scan-worker", "$KV.qm-av-scan-data.w.scan-worker.r-0", true},
      {worker, "scan-worker", "$KV.qm-av-scan-data.c.demo.k-0", false},
      {worker, "scan-worker", "$JS.API.DIRECT.GET.KV_qm-av-scan-data.$KV.qm-av-scan-data.c.demo.k", true},
      {worker, "scan-worker", "$JS.API.CONSUMER.DELETE.JOBS_scanjs.WORK_scanjs", false},
      {worker, "scan-worker", "_QMGW_INBOX.x.1", false},
      // The built-in permissions: anywhere, but for what every grant denies.
      {nullptr, "de.mo", "anything.at.all", true},
      {nullptr, "demo", "qm.auth.verify", false},
      {nullptr, "demo", "$SYS.REQ.USER.AUTH", false},
      {nullptr, "demo", "_QMGW_INBOX.abc.1", false},
      {nullptr, "demo", "$JS.API.STREAM.DELETE.KV_qm-av-scan-data", false},
      {nullptr, "demo", "$JS.API.STREAM.NAMES", false},
      {nullptr, "demo", "$KV.qm-av-scan-data.c.demo.k", false},
      {nullptr, "demo", "$JS.API.DIRECT.GET.KV_qm-av-scan-data", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(auth_profile_name(row.profile) ? auth_profile_name(row.profile) : "(built-in)") + " " +
                 (row.user ? row.user : "(null)") + " -> " + row.subject);
    EXPECT_EQ(auth_profile_permits_publish(row.profile, row.user, row.subject), row.permitted);
  }
  EXPECT_FALSE(auth_profile_permits_publish(client, "demo", nullptr));
  // A templated grant for a name that would add tokens or wildcards.
  for (const char* name : {"de.mo", "*", ">", "de mo", "de\tmo", "de\x01mo", "de\x7fmo", ""}) {
    EXPECT_FALSE(auth_profile_permits_publish(client, name, "scan")) << name;
    auth_grant grant;
    EXPECT_FALSE(auth_profile_grant(client, name, grant)) << name;
  }
}

}  // namespace
