#include "gw_credential_store.hpp"

#include "test_prelude.hpp"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

using StorePtr = qm::c_ptr<gw_credential_store_t, gw_credential_store_free>;

Entries entries_of(gw_credential_store_t* store) {
  Entries out;
  gw_credential_store_iterate(
      store,
      [](const char* user, const char* password, void* data) {
        static_cast<Entries*>(data)->emplace_back(user, password);
        return true;
      },
      &out);
  return out;
}

class CredentialFile : public ::testing::Test {
 protected:
  StorePtr load(const std::string& content) {
    write_file(path_, content);
    return StorePtr(gw_credential_store_load(path_.c_str()));
  }
  TempDir dir_;
  std::string path_ = dir_.file("users.conf");
};

TEST_F(CredentialFile, WhatTheLineScannerPairs) {
  struct row {
    const char* name;
    std::string content;
    Entries expected;
  };
  const char nul_values[] = "user: \"n\"\npassword: \"\0hidden\"\npassword: \"seen\"\nuser: \"x\0y\"\npassword: \"p\"\n";
  std::vector<row> rows = {
      {"the include format, everything else ignored",
       "# users for the scan fleet\nauthorization {\n  users = [\n    {\n      user: \"scanner1\"\n"
       "      password: \"pw of #1, with: colon\"\n    }\n    {\n\tuser :   \"scanner2\"\n\tpassword\t:\"\"\n    }\n"
       "  ]\n  include users2.conf\n}\n",
       {{"scanner1", "pw of #1, with: colon"}, {"scanner2", ""}}},
      {"a second user line replaces the first", "user: \"a\"\nuser: \"b\"\npassword: \"pb\"\n", {{"b", "pb"}}},
      {"a password without a user is dropped", "password: \"orphan\"\nuser: \"c\"\npassword: \"pc\"\n", {{"c", "pc"}}},
      {"a user left waiting at the end is dropped", "user: \"d\"\npassword: \"pd\"\nuser: \"dangling\"\n",
       {{"d", "pd"}}},
      {"duplicates kept in file order", "user: \"e\"\npassword: \"1\"\nuser: \"e\"\npassword: \"2\"\n",
       {{"e", "1"}, {"e", "2"}}},
      {"one key per line", "{ user: \"a\", password: \"b\" }\n", {}},
      {"that line's user waits for a later password", "{ user: \"a\", password: \"b\" }\npassword: \"c\"\n",
       {{"a", "c"}}},
      // The key is a plain substring and only its first hit counts.
      {"username hides the user key", "user: \"a\"\nusername: \"x\" password: \"pw\"\n", {{"a", "pw"}}},
      {"users is no user key", "users: \"u\"\npassword: \"p\"\n", {}},
      {"superuser is one", "superuser: \"root\"\npassword: \"p\"\n", {{"root", "p"}}},
      {"a first hit without a colon hides a later one",
       "user: \"a\"\n# no\nthe user is user: \"b\"\npassword: \"p\"\n", {{"a", "p"}}},
      {"equals sign", "user = \"x\"\npassword = \"y\"\n", {}},
      {"unquoted values", "user: x\npassword: y\n", {}},
      {"quoted keys", "\"user\": \"x\"\n\"password\": \"y\"\n", {}},
      {"unterminated value", "user: \"unterminated\npassword: \"y\"\n", {}},
      {"indented # comments", "   # user: \"x\"\n\t#password: \"y\"\n", {}},
      // nats-server reads `//` as it reads `#`: no part of a comment may become a credential.
      {"// comment", "// user: \"ghost\"\npassword: \"p\"\n", {}},
      {"indented // comment", "user: \"a\"\n  \t// password: \"commented\"\npassword: \"real\"\n", {{"a", "real"}}},
      {"a single slash starts no comment", "user: \"b\"\n/ password: \"p\"\n", {{"b", "p"}}},
      // No check can match a value that holds a NUL byte: such a key counts as absent.
      {"NUL bytes in values", std::string(nul_values, sizeof nul_values - 1), {{"n", "seen"}}},
  };
  // nats-server reads a line whole at any length.
  for (const size_t length : {1023, 1024, 5000, 200000}) {
    const std::string filler(length, 'x');
    rows.push_back({"long # comment", "# " + filler + "user: \"hidden\"\npassword: \"p\"\n", {}});
    rows.push_back({"long // comment", "// " + filler + "user: \"hidden\"\npassword: \"p\"\n", {}});
    rows.push_back({"long lines", filler + " user: \"long\"\npassword: \"" + filler + "\"", {{"long", filler}}});
  }
  for (const row& r : rows) {
    SCOPED_TRACE(std::string(r.name) + " (" + std::to_string(r.content.size()) + " bytes)");
    StorePtr store = load(r.content);
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(entries_of(store.get()), r.expected);
  }
}

TEST_F(CredentialFile, ValidateComparesExactlyAndHoldsAt128Entries) {
  // Two names alike in their first 1,099 bytes: each is its own user.
  const std::string long_a(1100, 'n');
  const std::string long_b = long_a.substr(0, 1099) + "b";
  std::string content = "user: \"Alice\"\npassword: \"secret\"\nuser: \"empty\"\npassword: \"\"\n";
  content += "user: \"" + long_a + "\"\npassword: \"pa\"\nuser: \"" + long_b + "\"\npassword: \"pb\"\n";
  for (int i = 4; i < 200; ++i) content += "user: \"u" + std::to_string(i) + "\"\npassword: \"p\"\n";
  qmtest::LogCapture log(QMLOG_WARN);
  StorePtr store = load(content);
  ASSERT_NE(store, nullptr);
  // The first user dropped is named once, with the limit.
  EXPECT_EQ(log.count("holds more than 128 credentials; user 'u128' and every one after it are ignored"), 1u);
  const Entries got = entries_of(store.get());
  ASSERT_EQ(got.size(), 128u);
  EXPECT_EQ(got.back(), (std::pair<std::string, std::string>{"u127", "p"}));
  const struct {
    const char* user;
    const char* password;
    bool valid;
  } checks[] = {
      {"Alice", "secret", true},   {"alice", "secret", false}, {"Alice", "secret ", false}, {"Alice", "secre", false},
      {"empty", "", true},         {"empty", "x", false},      {"u127", "p", true},         {"u128", "p", false},
      {nullptr, "secret", false},  {"Alice", nullptr, false},
      {long_a.c_str(), "pa", true}, {long_b.c_str(), "pb", true}, {long_a.c_str(), "pb", false},
      {long_b.c_str(), "pa", false},
  };
  for (const auto& c : checks) {
    EXPECT_EQ(gw_credential_store_validate(store.get(), c.user, c.password), c.valid)
        << (c.user ? std::string(c.user).substr(0, 40) : "(null)") << " / " << (c.password ? c.password : "(null)");
  }
  EXPECT_FALSE(gw_credential_store_validate(nullptr, "Alice", "secret"));
  int calls = 0;
  gw_credential_store_iterate(
      store.get(), [](const char*, const char*, void* n) { return ++*static_cast<int*>(n) < 1; }, &calls);
  EXPECT_EQ(calls, 1);
}

TEST_F(CredentialFile, LoadAndReloadLogAndKeepTheTableWhenTheFileCannotBeRead) {
  LogCapture log(QMLOG_TRACE);
  StorePtr store = load("user: \"old\"\npassword: \"1\"\n");
  ASSERT_NE(store, nullptr);
  EXPECT_LOGGED(log, "credential_store: loaded 1 credentials from " + path_);
  const std::string missing = dir_.file("missing.conf");
  EXPECT_EQ(gw_credential_store_load(missing.c_str()), nullptr);
  EXPECT_LOGGED(log, "credential_store: cannot open " + missing + ": No such file or directory");

  write_file(path_, "user: \"new\"\npassword: \"2\"\nuser: \"new2\"\npassword: \"3\"\n");
  ASSERT_EQ(gw_credential_store_reload(store.get()), 0);
  EXPECT_LOGGED(log, "credential_store: reloaded 2 credentials");
  EXPECT_FALSE(gw_credential_store_validate(store.get(), "old", "1"));
  EXPECT_TRUE(gw_credential_store_validate(store.get(), "new", "2"));

  // A path that opens but cannot be read is no empty file either (a missing one keeps
  // the table too: the callout reload test shows it).
  std::filesystem::remove(path_);
  std::filesystem::create_directory(path_);
  EXPECT_EQ(gw_credential_store_reload(store.get()), -1);
  EXPECT_LOGGED(log, "credential_store: cannot open " + path_ + ": Is a directory");
  EXPECT_TRUE(gw_credential_store_validate(store.get(), "new2", "3"));
  EXPECT_EQ(gw_credential_store_load(path_.c_str()), nullptr);
  std::filesystem::remove(path_);

  write_file(path_, "# nobody left\n");
  ASSERT_EQ(gw_credential_store_reload(store.get()), 0);
  EXPECT_TRUE(entries_of(store.get()).empty());
  EXPECT_LOGGED(log, "credential_store: reloaded 0 credentials");
}

// Readers must see either the whole old table or the whole new one, never a mix.
TEST_F(CredentialFile, ReloadWhileEightThreadsValidateSeesNoTornTable) {
  // 127 entries tagged by the table's version, then one that both versions share.
  auto table = [](const std::string& tag) {
    std::string content;
    for (int i = 0; i < 127; ++i) {
      content += "user: \"u" + std::to_string(i) + "\"\npassword: \"" + tag + std::to_string(i) + "\"\n";
    }
    return content + "user: \"steady\"\npassword: \"constant\"\n";
  };
  StorePtr store = load(table("a"));
  ASSERT_NE(store, nullptr);

  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::atomic<long> checks{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 8; ++t) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        // One consistent snapshot: every entry carries the same tag.
        std::pair<int, int> tags{0, 0};  // a-count, b-count
        gw_credential_store_iterate(
            store.get(),
            [](const char*, const char* password, void* data) {
              auto* counts = static_cast<std::pair<int, int>*>(data);
              if (password[0] == 'a') counts->first++;
              if (password[0] == 'b') counts->second++;
              return true;
            },
            &tags);
        if (!((tags.first == 127 && tags.second == 0) || (tags.first == 0 && tags.second == 127))) torn++;
        if (!gw_credential_store_validate(store.get(), "steady", "constant")) torn++;
        checks++;
      }
    });
  }
  for (int round = 0; round < 50; ++round) {
    write_file(path_ + ".tmp", table(round % 2 == 0 ? "b" : "a"));
    std::filesystem::rename(path_ + ".tmp", path_);
    EXPECT_EQ(gw_credential_store_reload(store.get()), 0);
    // The readers look at every table, not only at the last one a burst of reloads left.
    const long seen = checks.load();
    EXPECT_TRUE(wait_until([&] { return checks.load() >= seen + 8; }, 10s));
  }
  stop = true;
  for (auto& r : readers) r.join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_GT(checks.load(), 0);
}

}  // namespace
