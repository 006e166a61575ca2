#include "gw_subject_policy.hpp"

#include "test_prelude.hpp"

#include "auth_profile.hpp"

namespace {

using StorePtr = qm::c_ptr<auth_profile_store_t, auth_profile_destroy>;

// What a client may name as its target (ingress spelling) for a caller whose profile may
// publish to "scan" and its own "user.<name>.>" only.
TEST(SubjectPolicy, TargetsAreLiteralServiceSubjectsTheCallerMayReach) {
  TempDir dir;
  write_file(dir.file("p.json"), R"({"profiles": {"client": {"publish": {
      "allow": ["scan", "scanjs", "qm-av-quarantine.>", "user.{user}.>", "$JS.API.>", "_INBOX.>"],
      "deny": ["scanjs"]}}}})");
  const StorePtr store(auth_profile_load(dir.file("p.json").c_str()));
  ASSERT_NE(store, nullptr);
  const auth_profile_t* client = auth_profile_find(store.get(), "client");
  ASSERT_NE(client, nullptr);
  const std::string longest(GW_SUBJECT_MAX_BYTES, 's');
  const struct {
    std::string target;
    const char* services;  // --gw-services
    const auth_profile_t* profile;
    gw_target_verdict_t verdict;
  } rows[] = {
      {"scan", nullptr, client, GW_TARGET_OK},             {"scan", nullptr, nullptr, GW_TARGET_OK},
      {"qm-av-quarantine_store", nullptr, client, GW_TARGET_OK}, {"user.alice.files", nullptr, client, GW_TARGET_OK},
      {longest, nullptr, nullptr, GW_TARGET_OK},           {longest + "s", nullptr, nullptr, GW_TARGET_MALFORMED},
      {"", nullptr, nullptr, GW_TARGET_MALFORMED},         {"a b", nullptr, nullptr, GW_TARGET_MALFORMED},
      {"scan\r\nPUB x 2", nullptr, nullptr, GW_TARGET_MALFORMED}, {"scan\x7f", nullptr, nullptr, GW_TARGET_MALFORMED},
      {"sc\xc3\xa4n", nullptr, nullptr, GW_TARGET_MALFORMED}, {"a..b", nullptr, nullptr, GW_TARGET_MALFORMED},
      {"scan.", nullptr, nullptr, GW_TARGET_MALFORMED},    {"scan.>", nullptr, nullptr, GW_TARGET_MALFORMED},
      {"sc*n", nullptr, nullptr, GW_TARGET_MALFORMED},     {"$JS.API.STREAM.NAMES", nullptr, client, GW_TARGET_RESERVED},
      {"scan.$SYS", nullptr, nullptr, GW_TARGET_RESERVED}, {"_INBOX.abc", nullptr, client, GW_TARGET_RESERVED},
      {"_INBOXES", nullptr, nullptr, GW_TARGET_OK},        {"scan", "scanjs, scan", client, GW_TARGET_OK},
      {"scanx", "scanjs, scan", nullptr, GW_TARGET_NOT_OFFERED},
      {"qm-av-quarantine_store", "scan", client, GW_TARGET_NOT_OFFERED},
      {"scanjs", nullptr, client, GW_TARGET_FORBIDDEN},    {"user.bob.files", nullptr, client, GW_TARGET_FORBIDDEN},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.target.substr(0, 40));
    const gw_target got = gw_subject_policy_admit(row.target.c_str(), row.services, row.profile, "alice");
    EXPECT_EQ(got.verdict, row.verdict) << gw_target_verdict_text(got.verdict);
  }
  EXPECT_EQ(gw_subject_policy_admit(nullptr, nullptr, nullptr, "alice").verdict, GW_TARGET_MALFORMED);
  // The relay's own subjects pass the syntax check whatever their first character.
  EXPECT_TRUE(gw_subject_is_publishable("$KV.qm-av-scan-data.gw-1-2-3"));
  EXPECT_FALSE(gw_subject_is_publishable(nullptr));
}

}  // namespace
