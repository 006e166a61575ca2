#include "auth_profile.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "log_capture.hpp"
#include "qm_cpp.hpp"
#include "test_support.hpp"

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
    qmtest::write_file(path_, json);
    return StorePtr(auth_profile_load(path_.c_str()));
  }
  // Loading must fail and log exactly this line.
  void expect_failure(const std::string& json, const std::string& message) {
    qmtest::LogCapture log(QMLOG_TRACE);
    StorePtr store = load(json);
    EXPECT_EQ(store, nullptr) << json;
    EXPECT_TRUE(log.contains(message)) << "expected: " << message << "\nlog:\n" << log.text();
  }
  qmtest::TempDir dir_;
  std::string path_ = dir_.file("permissions.json");
};

TEST_F(Permissions, LoadsProfilesListsAndMaps) {
  qmtest::LogCapture log(QMLOG_TRACE);
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
  const auth_profile_t* alice = auth_profile_resolve(store.get(), "alice", nullptr, 0);
  EXPECT_STREQ(auth_profile_name(alice), "scanner");
  EXPECT_EQ(list(auth_profile_pub_allow(alice)), (std::vector<std::string>{"scan.>", "_INBOX.>"}));
  EXPECT_EQ(list(auth_profile_pub_deny(alice)), (std::vector<std::string>{"admin.>"}));
  EXPECT_EQ(list(auth_profile_sub_allow(alice)), (std::vector<std::string>{"_INBOX.>"}));
  EXPECT_TRUE(list(auth_profile_sub_deny(alice)).empty());

  const auth_profile_t* other = auth_profile_resolve(store.get(), "bob", nullptr, 0);
  EXPECT_STREQ(auth_profile_name(other), "nothing");
  for (auto accessor : {auth_profile_pub_allow, auth_profile_pub_deny, auth_profile_sub_allow, auth_profile_sub_deny}) {
    ASSERT_NE(accessor(other), nullptr);
    EXPECT_EQ(accessor(other)[0], nullptr);
    ASSERT_NE(accessor(nullptr), nullptr);
    EXPECT_EQ(accessor(nullptr)[0], nullptr);
  }
  EXPECT_EQ(auth_profile_name(nullptr), nullptr);
}

TEST_F(Permissions, NoDefaultAndNoMatchGivesNull) {
  StorePtr store = load(R"({"profiles": {"p": {}}})");
  ASSERT_NE(store, nullptr);
  EXPECT_EQ(auth_profile_resolve(store.get(), "anyone", nullptr, 0), nullptr);
  EXPECT_EQ(auth_profile_resolve(nullptr, "anyone", nullptr, 0), nullptr);
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
}

TEST_F(Permissions, FileLevelErrors) {
  {
    qmtest::LogCapture log(QMLOG_TRACE);
    EXPECT_EQ(auth_profile_load(nullptr), nullptr);
    EXPECT_EQ(auth_profile_load(""), nullptr);
    EXPECT_TRUE(log.contains(
        "auth_profile: no permissions file configured \u2014 using compiled-in defaults for every callout user"));
    const std::string missing = dir_.file("missing.json");
    EXPECT_EQ(auth_profile_load(missing.c_str()), nullptr);
    EXPECT_TRUE(log.contains("auth_profile: cannot open " + missing + ": No such file or directory"));
  }
  expect_failure("{\"profiles\": ", "auth_profile: " + path_ + " parse failed: ");
  expect_failure("", "auth_profile: " + path_ + " parse failed: ");
  expect_failure("{\"a\" 1}", "auth_profile: " + path_ + " parse failed: ");
  expect_failure("[1, 2]", "auth_profile: " + path_ + " top-level is not an object");
  expect_failure("\"text\"", "auth_profile: " + path_ + " top-level is not an object");
  expect_failure("{}", "auth_profile: " + path_ + " missing required \"profiles\" object");
}

TEST_F(Permissions, ProfileErrors) {
  expect_failure(R"({"profiles": []})", "auth_profile: \"profiles\" is not an object");
  expect_failure(R"({"profiles": null})", "auth_profile: \"profiles\" is not an object");
  expect_failure(R"({"profiles": {}})",
                 "auth_profile: \"profiles\" is empty \u2014 at least one profile must be defined");
  expect_failure(R"({"profiles": {"p": 5}})", "auth_profile: profile \"p\" body is not an object");
  expect_failure(R"({"profiles": {"p": {"publish": {"allow": "x"}}}})",
                 "auth_profile: publish.allow is not an array");
  expect_failure(R"({"profiles": {"p": {"subscribe": {"deny": {}}}}})",
                 "auth_profile: subscribe.deny is not an array");
  expect_failure(R"({"profiles": {"p": {"publish": {"allow": ["a", 1]}}}})",
                 "auth_profile: publish.allow[1] is not a string");
  expect_failure(R"({"profiles": {"p": {"subscribe": {"allow": [null]}}}})",
                 "auth_profile: subscribe.allow[0] is not a string");
}

TEST_F(Permissions, DefaultAndMapErrors) {
  expect_failure(R"({"profiles": {"p": {}}, "default_profile": 1})",
                 "auth_profile: \"default_profile\" must be a string");
  expect_failure(R"({"profiles": {"p": {}}, "default_profile": "P"})",
                 "auth_profile: \"default_profile\"=\"P\" not in profiles{}");
  expect_failure(R"({"profiles": {"p": {}}, "file_user_map": {}})",
                 "auth_profile: \"file_user_map\" is not an array");
  expect_failure(R"({"profiles": {"p": {}}, "file_user_map": [{"user": "a", "profile": "p"}, 3]})",
                 "auth_profile: file_user_map[1] is not an object");
  expect_failure(R"({"profiles": {"p": {}}, "file_user_map": [{"user": 1, "profile": "p"}]})",
                 "auth_profile: file_user_map[0] missing user/profile string");
  expect_failure(R"({"profiles": {"p": {}}, "file_user_map": [{"user": "a"}]})",
                 "auth_profile: file_user_map[0] missing user/profile string");
  expect_failure(R"({"profiles": {"p": {}}, "file_user_map": [{"user": "a", "profile": "q"}]})",
                 "auth_profile: file_user_map[0] references unknown profile \"q\"");
  expect_failure(R"({"profiles": {"p": {}}, "ldap_group_map": "x"})",
                 "auth_profile: \"ldap_group_map\" is not an array");
  expect_failure(R"({"profiles": {"p": {}}, "ldap_group_map": [[]]})",
                 "auth_profile: ldap_group_map[0] is not an object");
  expect_failure(R"({"profiles": {"p": {}}, "ldap_group_map": [{"group_dn": "cn=x", "profile": null}]})",
                 "auth_profile: ldap_group_map[0] missing group_dn/profile string");
  expect_failure(R"({"profiles": {"p": {}}, "ldap_group_map": [{"group_dn": "cn=x", "profile": "P"}]})",
                 "auth_profile: ldap_group_map[0] references unknown profile \"P\"");
}

}  // namespace
