// The broker binary's auth start-up: --print-issuer-nkey, the credentials file at start
// and on SIGHUP, and the auth cache settings.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "nats_server_fixture.hpp"
#include "test_support.hpp"

namespace {

using namespace std::chrono_literals;

constexpr auto kTimeout = 30s;

TEST(PrintIssuerNkey, CreatesTheSeedOnceAndPrintsAStableAccountKey) {
  qmtest::TempDir dir;
  const std::string seed = dir.file("issuer.seed");
  std::string first;
  for (int run = 0; run < 2; ++run) {
    qmtest::Child broker({qmtest::broker_binary(), "--print-issuer-nkey", "--auth-signing-key", seed});
    ASSERT_EQ(broker.wait(kTimeout), 0) << broker.err();
    const std::string out = broker.out();
    ASSERT_EQ(out.size(), 57u) << out;
    EXPECT_EQ(out[0], 'A');
    EXPECT_EQ(out.back(), '\n');
    if (run == 0) first = out;
    EXPECT_EQ(out, first);
  }
  struct stat st {};
  ASSERT_EQ(stat(seed.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(st.st_size, 32);
}

TEST(PrintIssuerNkey, NeedsTheSigningKeyOption) {
  qmtest::Child broker({qmtest::broker_binary(), "--print-issuer-nkey"});
  ASSERT_EQ(broker.wait(kTimeout), 1);
  EXPECT_NE(broker.err().find("--print-issuer-nkey requires --auth-signing-key"), std::string::npos) << broker.err();
  EXPECT_EQ(broker.out(), "");
}

class BrokerCredentials : public ::testing::Test {
 protected:
  std::vector<std::string> args(std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {qmtest::broker_binary(),  "--nats-server-managed", "false",
                                     "--nats-url",             nats_.url(),             "--auth-file",
                                     credentials_,             "--auth-signing-key",    dir_.file("issuer.seed"),
                                     "--amqp-enabled",         "false"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
  }
  qmtest::TempDir dir_;
  std::string credentials_ = dir_.file("users.conf");
  qmtest::NatsServer nats_;
};

TEST_F(BrokerCredentials, SighupReloadsTheFileAndKeepsTheOldTableWhenItIsGone) {
  qmtest::write_file(credentials_, "user: \"a\"\npassword: \"1\"\n");
  qmtest::Child broker(args());
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", kTimeout)) << broker.err();
  EXPECT_NE(broker.err().find("Loading credentials from " + credentials_), std::string::npos);
  EXPECT_NE(broker.err().find("credential_store: loaded 1 credentials from " + credentials_), std::string::npos);
  EXPECT_NE(broker.err().find("auth_cache: enabled (capacity=1024, grant_ttl=120s, deny_ttl=10s, "
                              "refresh_threshold=50%, verify_inflight_capacity=32)"),
            std::string::npos);

  qmtest::write_file(credentials_, "user: \"a\"\npassword: \"1\"\nuser: \"b\"\npassword: \"2\"\n");
  broker.signal(SIGHUP);
  ASSERT_TRUE(broker.wait_for_err("credential_store: reloaded 2 credentials", kTimeout)) << broker.err();
  EXPECT_NE(broker.err().find("SIGHUP: reloading credential store + forwarding to nats-server"), std::string::npos);

  std::filesystem::remove(credentials_);
  broker.signal(SIGHUP);
  ASSERT_TRUE(broker.wait_for_err(
      "SIGHUP: gw_credential_store_reload failed; continuing with previously-loaded entries", kTimeout))
      << broker.err();
  EXPECT_NE(broker.err().find("credential_store: cannot open " + credentials_), std::string::npos);

  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(kTimeout), 0) << broker.err();
}

TEST_F(BrokerCredentials, MissingCredentialsFileIsFatal) {
  qmtest::Child broker(args());
  ASSERT_EQ(broker.wait(kTimeout), 1) << broker.err();
  EXPECT_NE(broker.err().find("credential_store: cannot open " + credentials_ + ": No such file or directory"),
            std::string::npos)
      << broker.err();
  EXPECT_NE(broker.err().find("Failed to load credentials from " + credentials_), std::string::npos);
  EXPECT_EQ(broker.err().find("qm-av-broker ready"), std::string::npos);
}

TEST_F(BrokerCredentials, CacheSettingsFromTheCommandLine) {
  qmtest::write_file(credentials_, "");
  {
    qmtest::Child broker(args({"--auth-cache-ttl-seconds", "0", "--auth-negative-cache-ttl-seconds", "0"}));
    ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", kTimeout)) << broker.err();
    EXPECT_NE(broker.err().find("auth_cache: disabled by config (both TTLs == 0)"), std::string::npos);
    broker.signal(SIGTERM);
    EXPECT_EQ(broker.wait(kTimeout), 0);
  }
  {
    // No grants: the refresh threshold goes in as 0; a non-positive size means 1,024.
    qmtest::Child broker(args({"--auth-cache-ttl-seconds", "0", "--auth-cache-max-entries", "-4"}));
    ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", kTimeout)) << broker.err();
    EXPECT_NE(broker.err().find("auth_cache: enabled (capacity=1024, grant_ttl=0s, deny_ttl=10s, "
                                "refresh_threshold=0%"),
              std::string::npos)
        << broker.err();
    broker.signal(SIGTERM);
    EXPECT_EQ(broker.wait(kTimeout), 0);
  }
}

}  // namespace
