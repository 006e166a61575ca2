// The demo scan worker's fixed interface, driven by plain NATS requests.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>

#include "gw_nats_relay_internal.hpp"
#include "scan_fixture.hpp"

namespace {

using namespace std::chrono_literals;
using qmtest::json_member;
using qmtest::ScanEnv;

std::string s_request(natsConnection* nc, const std::string& subject, const std::string& body) {
  natsMsg* raw = nullptr;
  if (natsConnection_Request(&raw, nc, subject.c_str(), body.data(), static_cast<int>(body.size()), 10000) != NATS_OK)
    return "<no reply>";
  qm::nats_msg_ptr reply(raw);
  return std::string(natsMsg_GetData(raw), static_cast<size_t>(natsMsg_GetDataLength(raw)));
}

TEST(ScanWorker, AnswersWithSizeDigestAndVerdict) {
  ScanEnv env;
  env.start_worker("scan");
  const std::string eicar = std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
  const std::string infected = "prefix " + eicar + " suffix";
  ASSERT_EQ(kvstore_put_chunked(env.nc(), env.kv(), "infected", infected.data(), infected.size(), 0), 0);
  const std::string clean = qmtest::test_payload(1000);
  ASSERT_EQ(kvstore_put_chunked(env.nc(), env.kv(), "clean", clean.data(), clean.size(), 0), 0);

  struct Case {
    const char* request;
    const char* return_code;
    std::string size;
    std::string sha256;
    const char* verdict;
  };
  const Case cases[] = {
      {"{}", "0", "0", qmtest::sha256_hex(""), "false"},
      {R"({"_kv_key":"clean"})", "0", "1000", qmtest::sha256_hex(clean), "false"},
      {R"({"_kv_key":"infected"})", "0", std::to_string(infected.size()), qmtest::sha256_hex(infected), "true"},
      {R"({"_kv_key":"absent"})", "-1", "<absent>", "<absent>", "<absent>"},
      {"not json", "-1", "<absent>", "<absent>", "<absent>"},
      {"[1]", "-1", "<absent>", "<absent>", "<absent>"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.request);
    const std::string reply = s_request(env.nc(), "scan", c.request);
    EXPECT_EQ(json_member(reply, "ReturnCode"), c.return_code) << reply;
    EXPECT_EQ(json_member(reply, "size"), c.size);
    EXPECT_EQ(json_member(reply, "sha256"), c.sha256);
    EXPECT_EQ(json_member(reply, "infected"), c.verdict);
    if (std::string(c.return_code) == "-1") {
      EXPECT_NE(json_member(reply, "Error"), "<absent>");
    }
  }
  kvstore_delete_chunked(env.nc(), env.kv(), "infected");
  kvstore_delete_chunked(env.nc(), env.kv(), "clean");
}

TEST(ScanWorker, StopsCleanlyOnSigintAndSigterm) {
  ScanEnv env;
  for (int sig : {SIGINT, SIGTERM}) {
    qmtest::ScanWorker& worker = env.start_worker("scan", false, 4);
    worker.child().signal(sig);
    EXPECT_EQ(worker.child().wait(10s), 0) << worker.log();
  }
}

TEST(ScanWorker, RefusesAnIncompleteCommandLine) {
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"--nats-url", "nats://127.0.0.1:1"}, std::vector<std::string>{"--service", "scan"},
        std::vector<std::string>{"--nats-url", "nats://127.0.0.1:1", "--service", "scan", "--user", "u"}}) {
    std::vector<std::string> argv = {qmtest::scan_worker_binary()};
    argv.insert(argv.end(), args.begin(), args.end());
    qmtest::Child worker(argv);
    EXPECT_EQ(worker.wait(10s), 1);
    EXPECT_NE(worker.err().find("Usage:"), std::string::npos);
  }
}

}  // namespace
