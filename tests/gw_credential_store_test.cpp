#include "gw_credential_store.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log_capture.hpp"
#include "qm_cpp.hpp"
#include "test_support.hpp"

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
    qmtest::write_file(path_, content);
    return StorePtr(gw_credential_store_load(path_.c_str()));
  }
  Entries parse(const std::string& content) {
    StorePtr store = load(content);
    EXPECT_NE(store, nullptr);
    return entries_of(store.get());
  }
  qmtest::TempDir dir_;
  std::string path_ = dir_.file("users.conf");
};

TEST_F(CredentialFile, ReadsTheIncludeFormatAndIgnoresEverythingElse) {
  const Entries got = parse(
      "# users for the scan fleet\n"
      "authorization {\n"
      "  users = [\n"
      "    {\n"
      "      user: \"scanner1\"\n"
      "      password: \"pw of #1, with: colon\"\n"
      "    }\n"
      "    {\n"
      "\tuser :   \"scanner2\"\n"
      "\tpassword\t:\"\"\n"
      "    }\n"
      "  ]\n"
      "  include users2.conf\n"
      "}\n");
  EXPECT_EQ(got, (Entries{{"scanner1", "pw of #1, with: colon"}, {"scanner2", ""}}));
}

TEST_F(CredentialFile, PairingRulesOfThePendingUser) {
  // A second user line replaces the first; a password without a user is dropped; a
  // user left waiting at end of file is dropped.
  EXPECT_EQ(parse("user: \"a\"\nuser: \"b\"\npassword: \"pb\"\n"), (Entries{{"b", "pb"}}));
  EXPECT_EQ(parse("password: \"orphan\"\nuser: \"c\"\npassword: \"pc\"\n"), (Entries{{"c", "pc"}}));
  EXPECT_EQ(parse("user: \"d\"\npassword: \"pd\"\nuser: \"dangling\"\n"), (Entries{{"d", "pd"}}));
  // Duplicates are kept in file order.
  EXPECT_EQ(parse("user: \"e\"\npassword: \"1\"\nuser: \"e\"\npassword: \"2\"\n"),
            (Entries{{"e", "1"}, {"e", "2"}}));
}

TEST_F(CredentialFile, OneKeyPerLine) {
  EXPECT_TRUE(parse("{ user: \"a\", password: \"b\" }\n").empty());
  // ...and that line's user still waits for a password on a later line.
  EXPECT_EQ(parse("{ user: \"a\", password: \"b\" }\npassword: \"c\"\n"), (Entries{{"a", "c"}}));
}

TEST_F(CredentialFile, KeySearchIsAPlainSubstringAndOnlyTheFirstHitCounts) {
  // "username" hides the user key (n after "user"); the line is then read for a password.
  EXPECT_EQ(parse("user: \"a\"\nusername: \"x\" password: \"pw\"\n"), (Entries{{"a", "pw"}}));
  // "users" never is (its "user" is followed by "s"), but "superuser" is.
  EXPECT_TRUE(parse("users: \"u\"\npassword: \"p\"\n").empty());
  EXPECT_EQ(parse("superuser: \"root\"\npassword: \"p\"\n"), (Entries{{"root", "p"}}));
  // First "user" is not followed by a colon: the line has no user even though a later one would fit.
  EXPECT_EQ(parse("user: \"a\"\n# no\nthe user is user: \"b\"\npassword: \"p\"\n"), (Entries{{"a", "p"}}));
}

TEST_F(CredentialFile, RejectedShapes) {
  EXPECT_TRUE(parse("user = \"x\"\npassword = \"y\"\n").empty());
  EXPECT_TRUE(parse("user: x\npassword: y\n").empty());
  EXPECT_TRUE(parse("\"user\": \"x\"\n\"password\": \"y\"\n").empty());
  EXPECT_TRUE(parse("user: \"unterminated\npassword: \"y\"\n").empty());
  EXPECT_TRUE(parse("   # user: \"x\"\n\t#password: \"y\"\n").empty());
}

// nats-server reads `//` as it reads `#`, and reads a line whole at any length: no part
// of a comment may become a credential here.
TEST_F(CredentialFile, CommentsAndLongLinesAreReadAsNatsServerReadsThem) {
  EXPECT_TRUE(parse("// user: \"ghost\"\npassword: \"p\"\n").empty());
  EXPECT_EQ(parse("user: \"a\"\n  \t// password: \"commented\"\npassword: \"real\"\n"), (Entries{{"a", "real"}}));
  // A single slash starts no comment (the line just has no key).
  EXPECT_EQ(parse("user: \"b\"\n/ password: \"p\"\n"), (Entries{{"b", "p"}}));
  for (const size_t length : {1023, 1024, 5000, 200000}) {
    SCOPED_TRACE(length);
    const std::string filler(length, 'x');
    EXPECT_TRUE(parse("# " + filler + "user: \"hidden\"\npassword: \"p\"\n").empty());
    EXPECT_TRUE(parse("// " + filler + "user: \"hidden\"\npassword: \"p\"\n").empty());
    EXPECT_EQ(parse(filler + " user: \"long\"\npassword: \"" + filler + "\""), (Entries{{"long", filler}}));
  }
}

TEST_F(CredentialFile, BinaryJunkAndNulBytesLoadWithoutHarm) {
  std::string junk;
  for (int i = 0; i < 8192; ++i) junk.push_back(static_cast<char>((i * 131 + 7) & 0xff));
  EXPECT_TRUE(parse(junk).empty());
  // No check can match a value that holds a NUL byte: such a key counts as absent.
  const char raw[] = "user: \"n\"\npassword: \"\0hidden\"\npassword: \"seen\"\nuser: \"x\0y\"\npassword: \"p\"\n";
  const std::string with_nul(raw, sizeof raw - 1);
  EXPECT_EQ(parse(with_nul), (Entries{{"n", "seen"}}));
}

TEST_F(CredentialFile, CapacityIs128AndLaterPairsAreIgnored) {
  std::string content;
  for (int i = 0; i < 10000; ++i) {
    content += "user: \"u" + std::to_string(i) + "\"\npassword: \"p" + std::to_string(i) + "\"\n";
  }
  StorePtr store = load(content);
  ASSERT_NE(store, nullptr);
  const Entries got = entries_of(store.get());
  ASSERT_EQ(got.size(), 128u);
  EXPECT_EQ(got.back(), (std::pair<std::string, std::string>{"u127", "p127"}));
  EXPECT_TRUE(gw_credential_store_validate(store.get(), "u127", "p127"));
  EXPECT_FALSE(gw_credential_store_validate(store.get(), "u128", "p128"));
}

TEST_F(CredentialFile, ValidateComparesExactly) {
  StorePtr store = load("user: \"Alice\"\npassword: \"secret\"\nuser: \"empty\"\npassword: \"\"\n");
  ASSERT_NE(store, nullptr);
  EXPECT_TRUE(gw_credential_store_validate(store.get(), "Alice", "secret"));
  EXPECT_FALSE(gw_credential_store_validate(store.get(), "alice", "secret"));
  EXPECT_FALSE(gw_credential_store_validate(store.get(), "Alice", "secret "));
  EXPECT_FALSE(gw_credential_store_validate(store.get(), "Alice", "secre"));
  EXPECT_TRUE(gw_credential_store_validate(store.get(), "empty", ""));
  EXPECT_FALSE(gw_credential_store_validate(store.get(), "empty", "x"));
  EXPECT_FALSE(gw_credential_store_validate(store.get(), nullptr, "secret"));
  EXPECT_FALSE(gw_credential_store_validate(store.get(), "Alice", nullptr));
  EXPECT_FALSE(gw_credential_store_validate(nullptr, "Alice", "secret"));
}

// A check must not tell by its duration how much of a guess was right, nor whether it
// was. The cases are timed against each other, never against a budget: the cheapest of
// many interleaved runs of each, which load can make slower but never faster. 128
// entries hold the same long password (duplicates are kept), so a comparison that stops
// at the first wrong byte, or at the first match, would stand out.
TEST_F(CredentialFile, ValidationTakesAsLongWhereverAGuessGoesWrong) {
  const std::string password(1000, 'k');
  std::string content;
  for (int i = 0; i < GW_CREDENTIAL_STORE_CAPACITY; ++i) content += "user: \"u\"\npassword: \"" + password + "\"\n";
  StorePtr store = load(content);
  ASSERT_NE(store, nullptr);
  std::string wrong_first = password;
  wrong_first.front() = 'x';
  std::string wrong_last = password;
  wrong_last.back() = 'x';
  const std::string* guesses[] = {&password, &wrong_first, &wrong_last};
  using clock = std::chrono::steady_clock;
  clock::duration best[3] = {clock::duration::max(), clock::duration::max(), clock::duration::max()};
  for (int run = 0; run < 2000; ++run) {
    for (size_t g = 0; g < 3; ++g) {
      const auto start = clock::now();
      const bool valid = gw_credential_store_validate(store.get(), "u", guesses[g]->c_str());
      best[g] = std::min(best[g], clock::now() - start);
      ASSERT_EQ(valid, g == 0);
    }
  }
  const auto [fastest, slowest] = std::minmax({best[0], best[1], best[2]});
  // An early exit shows as a many-fold difference; a third of slack keeps a loaded machine quiet.
  EXPECT_LT((slowest - fastest) * 3, fastest) << "right: " << best[0].count() << " ns, first byte wrong: "
                                               << best[1].count() << " ns, last byte wrong: " << best[2].count()
                                               << " ns";
}

TEST_F(CredentialFile, IterateStopsWhenTheCallbackSaysSo) {
  StorePtr store = load("user: \"a\"\npassword: \"1\"\nuser: \"b\"\npassword: \"2\"\n");
  int calls = 0;
  gw_credential_store_iterate(
      store.get(), [](const char*, const char*, void* n) { return ++*static_cast<int*>(n) < 1; }, &calls);
  EXPECT_EQ(calls, 1);
  gw_credential_store_iterate(store.get(), nullptr, nullptr);
  gw_credential_store_iterate(nullptr, [](const char*, const char*, void*) { return true; }, nullptr);
}

TEST_F(CredentialFile, LoadLogsTheCountOrTheOpenError) {
  qmtest::LogCapture log(QMLOG_TRACE);
  StorePtr store = load("user: \"a\"\npassword: \"1\"\n");
  ASSERT_NE(store, nullptr);
  EXPECT_TRUE(log.contains("credential_store: loaded 1 credentials from " + path_));

  const std::string missing = dir_.file("missing.conf");
  EXPECT_EQ(gw_credential_store_load(missing.c_str()), nullptr);
  EXPECT_TRUE(log.contains("credential_store: cannot open " + missing + ": No such file or directory"));
  EXPECT_EQ(gw_credential_store_load(nullptr), nullptr);
  gw_credential_store_free(nullptr);
}

TEST_F(CredentialFile, ReloadSwapsTheTableOrKeepsItWhenTheFileIsGone) {
  qmtest::LogCapture log(QMLOG_TRACE);
  StorePtr store = load("user: \"old\"\npassword: \"1\"\n");
  ASSERT_NE(store, nullptr);

  qmtest::write_file(path_, "user: \"new\"\npassword: \"2\"\nuser: \"new2\"\npassword: \"3\"\n");
  ASSERT_EQ(gw_credential_store_reload(store.get()), 0);
  EXPECT_TRUE(log.contains("credential_store: reloaded 2 credentials"));
  EXPECT_FALSE(gw_credential_store_validate(store.get(), "old", "1"));
  EXPECT_TRUE(gw_credential_store_validate(store.get(), "new", "2"));

  std::filesystem::remove(path_);
  EXPECT_EQ(gw_credential_store_reload(store.get()), -1);
  EXPECT_TRUE(gw_credential_store_validate(store.get(), "new2", "3"));

  // A path that opens but cannot be read is no empty file either.
  std::filesystem::create_directory(path_);
  EXPECT_EQ(gw_credential_store_reload(store.get()), -1);
  EXPECT_TRUE(log.contains("credential_store: cannot open " + path_ + ": Is a directory"));
  EXPECT_TRUE(gw_credential_store_validate(store.get(), "new2", "3"));
  EXPECT_EQ(gw_credential_store_load(path_.c_str()), nullptr);
  std::filesystem::remove(path_);

  qmtest::write_file(path_, "# nobody left\n");
  ASSERT_EQ(gw_credential_store_reload(store.get()), 0);
  EXPECT_TRUE(entries_of(store.get()).empty());
  EXPECT_TRUE(log.contains("credential_store: reloaded 0 credentials"));
  EXPECT_EQ(gw_credential_store_reload(nullptr), -1);
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
  for (int round = 0; round < 200; ++round) {
    qmtest::write_file(path_ + ".tmp", table(round % 2 == 0 ? "b" : "a"));
    std::filesystem::rename(path_ + ".tmp", path_);
    ASSERT_EQ(gw_credential_store_reload(store.get()), 0);
  }
  stop = true;
  for (auto& r : readers) r.join();
  EXPECT_EQ(torn.load(), 0);
  EXPECT_GT(checks.load(), 0);
}

}  // namespace
