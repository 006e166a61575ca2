// The demo scan worker's fixed interface, driven by plain NATS requests.
#include "test_prelude.hpp"

#include "gw_nats_relay_internal.hpp"
#include "scan_fixture.hpp"

namespace {

TEST(ScanWorker, AnswersWithSizeDigestAndVerdictAndStopsCleanly) {
  ScanEnv env;
  ScanWorker& worker = env.start_worker("scan");
  const std::string eicar = std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
  const std::string infected = "prefix " + eicar + " suffix";
  const std::string clean = test_payload(1000);
  ASSERT_EQ(kvstore_put_chunked(env.nc(), env.kv(), "infected", infected.data(), infected.size(), 0), 0);
  ASSERT_EQ(kvstore_put_chunked(env.nc(), env.kv(), "clean", clean.data(), clean.size(), 0), 0);
  const struct {
    const char* request;
    const char* return_code;
    std::string size, sha256;
    const char* verdict;
  } cases[] = {
      {"{}", "0", "0", sha256_hex(""), "false"},
      {R"({"_kv_key":"clean"})", "0", "1000", sha256_hex(clean), "false"},
      {R"({"_kv_key":"infected"})", "0", std::to_string(infected.size()), sha256_hex(infected), "true"},
      {R"({"_kv_key":"absent"})", "-1", "<absent>", "<absent>", "<absent>"},
      {"not json", "-1", "<absent>", "<absent>", "<absent>"},
      {"[1]", "-1", "<absent>", "<absent>", "<absent>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    const std::string reply = env.js_api("scan", c.request);
    EXPECT_EQ(json_member(reply, "ReturnCode"), c.return_code) << reply;
    EXPECT_EQ(json_member(reply, "size"), c.size);
    EXPECT_EQ(json_member(reply, "sha256"), c.sha256);
    EXPECT_EQ(json_member(reply, "infected"), c.verdict);
    EXPECT_EQ(json_member(reply, "Error") == "<absent>", std::string(c.return_code) == "0");
  }
  worker.child().signal(SIGTERM);
  EXPECT_EQ(worker.child().wait(30s), 0) << worker.log();
}

TEST(ScanWorker, RefusesAnIncompleteCommandLine) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--nats-url", "nats://127.0.0.1:1"}, std::vector<std::string>{"--service", "scan"},
        std::vector<std::string>{"--nats-url", "nats://127.0.0.1:1", "--service", "scan", "--user", "u"}}) {
    std::vector<std::string> argv = {scan_worker_binary()};
    argv.insert(argv.end(), args.begin(), args.end());
    Child worker(argv);
    EXPECT_EQ(worker.wait(10s), 1);
    EXPECT_LOGGED(worker.err(), "Usage:");
  }
}

}  // namespace
