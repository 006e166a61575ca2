// The AMQP front door: the real broker binary with a nats-server that sends logins to its
// auth callout and the demo scan worker, driven by Proton's C++ client.
#include "test_prelude.hpp"
#include <proton/binary.hpp>
#include <proton/codec/map.hpp>
#include <proton/codec/vector.hpp>
#include <proton/message.hpp>
#include <proton/types.hpp>
#include <proton/uuid.hpp>

#include "admin_client.hpp"
#include "amqp_fixture.hpp"
#include "gw_inflight_budget.hpp"
#include "qmhlp_network.hpp"

namespace qmtest {
namespace {

constexpr auto kWait = 60s;

// Sends one request and returns the reply's JSON ("" when none came).
std::string scan(ScanClient& c, const proton::message& request) {
  const int ticket = c.client.send(c.sender, request);
  if (c.client.outcome(ticket, kWait) != Outcome::accepted) return "";
  auto reply = c.client.receive(kWait);
  return reply ? reply_json(*reply) : "";
}

proton::message request_with_body(const proton::value& body, const std::string& reply_to) {
  proton::message msg;
  msg.body(body);
  msg.reply_to(reply_to);
  return msg;
}

TEST(AmqpScan, RepliesCarryTheVerdictAndTheRequestId) {
  AmqpEnv env;
  ScanClient c(env);
  const pid_t broker_pid = env.broker().pid();
  EXPECT_TRUE(env.wait_for_log("SASL ready (config_dir=/tmp/qm-av-broker-" + std::to_string(broker_pid) +
                               "/sasl, appname=quillmere-av-scangateway)"));
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: listening on 127.0.0.1:" + std::to_string(env.port()) +
                               " (tls=no, backlog=65535 requested, capped by net.core.somaxconn)"));
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: authenticated user 'scanner' via PLAIN"));

  // Payload sizes around a chunk, each with another kind of message id; some name the
  // service in `to`, the others leave it to the link's target.
  const struct {
    size_t size;
    proton::message_id id;
    const char* to;
  } cases[] = {
      {0, proton::message_id(std::string("id-empty")), ""},
      {1, proton::message_id(uint64_t{42}), "scan"},
      {524289, proton::message_id(proton::uuid::random()), ""},
      {17, proton::message_id(proton::binary(std::string("bin-id"))), "scan"},
  };
  for (const auto& k : cases) {
    SCOPED_TRACE(k.size);
    const std::string payload = test_payload(k.size);
    const int ticket = c.client.send(c.sender, scan_request(k.to, "{}", &payload, c.reply_address, k.id));
    ASSERT_EQ(c.client.outcome(ticket, kWait), Outcome::accepted);
    auto reply = c.client.receive(kWait);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->correlation_id(), k.id);
    EXPECT_EQ(reply->to(), c.reply_address);
    EXPECT_EQ(proton::get<std::string>(reply->id()).rfind("gw-reply." + std::to_string(broker_pid) + ".", 0), 0u);
    EXPECT_EQ(json_member(reply_json(*reply), "size"), std::to_string(k.size));
    EXPECT_EQ(json_member(reply_json(*reply), "sha256"), sha256_hex(payload));
  }
  // The door stages a caller's payload under a key bound to the caller.
  EXPECT_TRUE(env.wait_for_log("nats_relay: kv put key=c.scanner.gw-"));

  // A bare string is the whole request; a message without id gets a reply without one.
  const std::string reply = scan(c, request_with_body(proton::value(std::string("{\"SCANTIMEOUT\":5000}")), c.reply_address));
  EXPECT_EQ(json_member(reply, "size"), "0");

  SCOPED_TRACE("a reply waits for a receiver attached after the scan ended");
  const std::string late = "late";
  ASSERT_EQ(c.client.outcome(c.client.send(c.sender, scan_request("", "{}", &late, "late-replies", "late-1")), kWait),
            Outcome::accepted);
  ASSERT_TRUE(env.wait_for_log("amqp_acceptor: queued reply for 'late-replies'"));
  EXPECT_EQ(c.client.open_receiver("late-replies"), "late-replies");
  auto queued = c.client.receive(kWait);
  ASSERT_TRUE(queued);
  EXPECT_EQ(queued->correlation_id(), proton::message_id(std::string("late-1")));
  EXPECT_EQ(json_member(reply_json(*queued), "sha256"), sha256_hex(late));
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: flushed queued reply on link to 'late-replies'"));
}

// Clients without PLAIN never reach the password check; bad credentials are refused by
// it with the SASL outcome "auth".
// A logged-in client, with nothing but a NATS connection, tries to own the fleet: read the
// passwords of every login, grant logins, pose as a worker, reach another client's staged
// data. Each row is one attempt; what it reports instead of "" is how it got through.
TEST(AmqpScan, AHostileClientCanNeitherSniffNorForgeNorTouchOthersData) {
  AmqpEnv env;
  AsyncErrors errors;
  NatsLogin hostile = nats_login(env.nats_url(), AmqpEnv::kUser, AmqpEnv::kPassword, 5000, &errors,
                                 std::string("_INBOX.") + AmqpEnv::kUser);
  ASSERT_EQ(hostile.status, NATS_OK) << hostile.error;
  natsConnection* nc = hostile.conn;
  auto refused = [&](const std::string& what) {
    return wait_until([&] { return errors.text().find("Permissions Violation for " + what) != std::string::npos; },
                      10s);
  };
  // Answers every message it is allowed to see with `answer`.
  auto responder = [](natsConnection* conn, natsSubscription*, natsMsg* msg, void* answer) {
    if (natsMsg_GetReply(msg) != nullptr)
      natsConnection_PublishString(conn, natsMsg_GetReply(msg), static_cast<const char*>(answer));
    natsMsg_Destroy(msg);
  };
  static const char kGrant[] = R"({"ok":true,"reason":"valid credentials","backend":"file"})";
  static const char kClean[] = R"({"ReturnCode":0,"size":68,"sha256":"","infected":false})";
  const std::string eicar = std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";

  const struct {
    const char* what;
    std::function<std::string()> attempt;
  } rows[] = {
      {"reads the callout's and the verify endpoint's requests",
       [&]() -> std::string {
         natsSubscription* callout = nullptr;
         natsSubscription* verify = nullptr;
         // One at a time: the client library keeps only the latest error text.
         natsConnection_SubscribeSync(&callout, nc, "$SYS.REQ.USER.AUTH");
         natsConnection_Flush(nc);
         const bool callout_refused = refused("Subscription to \"$SYS.REQ.USER.AUTH\"");
         natsConnection_SubscribeSync(&verify, nc, "qm.auth.verify");
         natsConnection_Flush(nc);
         const bool verify_refused = refused("Subscription to \"qm.auth.verify\"");
         const qm::nats_subscription_ptr owned_callout(callout), owned_verify(verify);
         // A NATS login asks the callout, an AMQP login the verify endpoint; both are done
         // (and their requests delivered) once they return.
         NatsLogin worker = nats_login(env.nats_url(), AmqpEnv::kWorkerUser, AmqpEnv::kWorkerPassword);
         AmqpClient amqp(env.port(), env.login());
         if (worker.status != NATS_OK || !amqp.is_open()) return "the logins themselves failed";
         for (natsSubscription* sub : {callout, verify}) {
           natsMsg* msg = nullptr;
           if (sub != nullptr && natsSubscription_NextMsg(&msg, sub, 200) == NATS_OK) {
             const std::string seen(natsMsg_GetData(msg), static_cast<size_t>(natsMsg_GetDataLength(msg)));
             natsMsg_Destroy(msg);
             return "saw " + seen;
           }
         }
         return callout_refused && verify_refused ? "" : "no permission error: " + errors.text();
       }},
      {"answers the verify queue group and lets made-up users in",
       [&]() -> std::string {
         natsSubscription* fake = nullptr;
         natsConnection_QueueSubscribe(&fake, nc, "qm.auth.verify", "qm-auth-verify", responder,
                                       const_cast<char*>(kGrant));
         const qm::nats_subscription_ptr owned(fake);
         natsConnection_Flush(nc);
         for (int i = 0; i < 10; ++i) {
           AmqpClient intruder(env.port(), env.login("intruder-" + std::to_string(i), "junk"));
           if (intruder.is_open()) return "intruder " + std::to_string(i) + " got in";
         }
         return refused("Subscription to \"qm.auth.verify\" using queue \"qm-auth-verify\"") ? "" : "no permission error: " + errors.text();
       }},
      {"joins the service's queue group and answers EICAR clean",
       [&]() -> std::string {
         natsSubscription* fake = nullptr;
         natsConnection_QueueSubscribe(&fake, nc, AmqpEnv::kService, "qm-scan-workers", responder,
                                       const_cast<char*>(kClean));
         const qm::nats_subscription_ptr owned(fake);
         natsConnection_Flush(nc);
         ScanClient c(env);
         for (int i = 0; i < 10; ++i) {
           const std::string verdict = scan(c, scan_request("", "{}", &eicar, c.reply_address, "eicar-" + std::to_string(i)));
           if (json_member(verdict, "infected") != "true") return "scan " + std::to_string(i) + ": " + verdict;
         }
         return refused("Subscription to \"scan\" using queue \"qm-scan-workers\"") ? "" : "no permission error: " + errors.text();
       }},
      {"reads, overwrites or deletes another client's staged key, or watches the bucket",
       [&]() -> std::string {
         NatsLogin gateway = nats_login(env.nats_url(), CalloutEnv::kGatewayUser, CalloutEnv::kGatewayPassword);
         jsCtx* gateway_js = nullptr;
         kvStore* gateway_kv = nullptr;
         natsConnection_JetStream(&gateway_js, gateway.conn, nullptr);
         js_KeyValue(&gateway_kv, gateway_js, "qm-av-scan-data");
         const qm::c_ptr<jsCtx, jsCtx_Destroy> owned_gateway_js(gateway_js);
         const qm::c_ptr<kvStore, kvStore_Destroy> owned_gateway_kv(gateway_kv);
         uint64_t rev = 0;
         if (kvStore_PutString(&rev, gateway_kv, "c.victim.k-0", "victim's file") != NATS_OK)
           return "the victim's key could not be staged";

         jsCtx* js = nullptr;
         kvStore* kv = nullptr;
         natsConnection_JetStream(&js, nc, nullptr);
         const qm::c_ptr<jsCtx, jsCtx_Destroy> owned_js(js);
         if (js_KeyValue(&kv, js, "qm-av-scan-data") != NATS_OK) return "the bucket is not bound";
         const qm::c_ptr<kvStore, kvStore_Destroy> owned_kv(kv);
         // Its own keys it may stage: the grant is no blanket refusal.
         if (kvStore_PutString(&rev, kv, "c.scanner.own-0", "mine") != NATS_OK) return "its own key is refused";
         kvEntry* entry = nullptr;
         if (kvStore_Get(&entry, kv, "c.victim.k-0") == NATS_OK) {
           kvEntry_Destroy(entry);
           return "read the victim's key";
         }
         if (kvStore_PutString(&rev, kv, "c.victim.k-0", "clean") == NATS_OK) return "overwrote the victim's key";
         if (kvStore_Delete(kv, "c.victim.k-0") == NATS_OK) return "deleted the victim's key";
         natsSubscription* watch = nullptr;
         natsConnection_SubscribeSync(&watch, nc, "$KV.qm-av-scan-data.>");
         const qm::nats_subscription_ptr owned_watch(watch);
         natsConnection_Flush(nc);
         if (!refused("Subscription to \"$KV.qm-av-scan-data.>\"")) return "watches the bucket";
         if (kvStore_Get(&entry, gateway_kv, "c.victim.k-0") != NATS_OK) return "the victim's key is gone";
         const std::string kept(kvEntry_ValueString(entry));
         kvEntry_Destroy(entry);
         return kept == "victim's file" ? "" : "the victim's key now holds " + kept;
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(row.attempt(), "");
  }
}

TEST(AmqpLogin, ClientsWithoutPlainAndBadCredentialsAreRefused) {
  const int admin_port = free_port();
  AmqpEnvOptions options;
  options.broker_args = admin_args(admin_port);
  AmqpEnv env(options);
  const std::string before = scrape(admin_port);
  AmqpLogin anonymous = env.login("", "");
  anonymous.mechanisms = "ANONYMOUS";
  AmqpLogin no_sasl = env.login();
  no_sasl.sasl = false;
  const struct {
    const char* what;
    AmqpLogin login;
    bool checked;
  } cases[] = {
      {"ANONYMOUS only", anonymous, false},
      {"no SASL", no_sasl, false},
      {"wrong password", env.login(AmqpEnv::kUser, "wrong-secret"), true},
      {"unknown user", env.login("nobody", "whatever"), true},
  };
  size_t refused = 0;
  for (const auto& k : cases) {
    SCOPED_TRACE(k.what);
    AmqpClient client(env.port(), k.login);
    EXPECT_FALSE(client.is_open());
    EXPECT_FALSE(client.error().empty());
    EXPECT_TRUE(env.wait_for_log("amqp_acceptor: connection closed unauthenticated", 20s, ++refused));
    if (!k.checked) {
      EXPECT_EQ(LogCapture::count_in(env.broker_log(), "sasl_checkpass:"), 0u);
      continue;
    }
    EXPECT_EQ(client.sasl_outcome(), 1);
    EXPECT_NE(client.error().find("amqp:unauthorized-access"), std::string::npos) << client.error();
    EXPECT_TRUE(env.wait_for_log("sasl_checkpass: DENY user='" + k.login.user + "'"));
  }
  EXPECT_EQ(LogCapture::count_in(env.broker_log(), "amqp_acceptor: authenticated user"), 0u);
  // Only the two password checks are verdicts of the door; every connection is gone again.
  const std::string after = scrape(admin_port);
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_auth_requests_total{source="amqp",verdict="deny"})"), 2);
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_auth_requests_total{source="amqp",verdict="grant"})"), 0);
  EXPECT_TRUE(wait_until([&] { return metric_value(scrape(admin_port), "qm_av_broker_amqp_connections") == 0; }, 10s));
}

// Nobody answers "qm.auth.verify" at first: the client is asked to try again. Then the
// check runs off the event loop: while one login waits for the auth service, another
// connection's scans go on.
TEST(AmqpLogin, AuthServiceDownAsksForARetryAndAWaitingCheckHoldsUpNoOne) {
  AmqpEnvOptions options;
  options.callout_service = false;
  AmqpEnv env(options);
  AmqpClient refused(env.port(), env.login());
  EXPECT_FALSE(refused.is_open());
  EXPECT_EQ(refused.sasl_outcome(), 4);  // sys-temp: try again later
  EXPECT_TRUE(env.wait_for_log("sasl_checkpass: qm.auth.verify failed for user='scanner' (relay rc=-1) \u2014 asking "
                               "client to retry"));

  NatsLogin verifier = nats_login(env.nats_url(), CalloutEnv::kAuthUser, CalloutEnv::kAuthPassword);
  ASSERT_EQ(verifier.status, NATS_OK) << verifier.error;
  VerifyEndpoint verify(verifier.conn, {{AmqpEnv::kUser, AmqpEnv::kPassword}});
  ScanClient early(env);
  verify.hold();
  std::atomic<bool> late_open{false};
  std::thread late_login([&] { late_open = AmqpClient(env.port(), env.login()).is_open(); });
  ASSERT_TRUE(wait_until([&] { return verify.requests().size() == 2; }, kWait));
  const std::string payload = "meanwhile";
  EXPECT_EQ(json_member(scan(early, scan_request("", "{}", &payload, early.reply_address, "m-1")), "sha256"),
            sha256_hex(payload));
  EXPECT_FALSE(late_open.load());
  verify.release();
  late_login.join();
  EXPECT_TRUE(late_open.load());
}

TEST(AmqpLimits, OversizeAndTooSlowRequests) {
  AmqpEnvOptions options;
  options.broker_args = {"--max-msg-size-mb", "1", "--relay-timeout-ms", "1000"};
  AmqpEnv env(options);
  ScanClient c(env);
  // Complete when it crosses the cap: rejected, and its credit stays spent.
  const std::string just_over = test_payload(1048576);
  int ticket = c.client.send(c.sender, scan_request("", "{}", &just_over, c.reply_address, "just-over"));
  EXPECT_EQ(c.client.outcome(ticket, kWait), Outcome::rejected);
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: rejecting delivery with pending="));
  EXPECT_EQ(c.client.credit(c.sender), 9);
  // Crossing the cap while still arriving: read away, rejected, credit given back.
  const std::string far_over = test_payload(3 * 1048576);
  ticket = c.client.send(c.sender, scan_request("", "{}", &far_over, c.reply_address, "far-over"));
  EXPECT_EQ(c.client.outcome(ticket, kWait), Outcome::rejected);
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: rejecting oversize partial delivery (pending="));
  EXPECT_EQ(c.client.credit(c.sender), 9);

  // A worker slower than the relay's wait: a synthetic error reply, or only a log line
  // when there is no reply address.
  const std::string payload = "slow";
  const std::string reply = scan(c, scan_request("", "{\"delay_ms\":4000}", &payload, c.reply_address, "slow-1"));
  const char* host = qmhlp_GetMyFQDN();
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(reply, "{\"ReturnCode\":-1000,\"Error\":\"gateway " + std::string(host) + ": relay to scan failed (rc=-1)\"}");
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: relay job failed user=scanner subject=scan (rc=-1) \u2014 sending "
                               "synthetic SCAN_ERROR reply to " + c.reply_address));
  ticket = c.client.send(c.sender, scan_request("", "{\"delay_ms\":4000}", &payload, "", "slow-2"));
  EXPECT_EQ(c.client.outcome(ticket, kWait), Outcome::accepted);
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: relay job failed user=scanner subject=scan (rc=-1, no reply_to)"));

  const std::string small = "fits";
  EXPECT_EQ(json_member(scan(c, scan_request("", "{}", &small, c.reply_address, "small")), "size"), "4");
}

// Accepted deliveries give their credit back once answered; rejected ones spend it.
TEST(AmqpLimits, BodiesWithoutJsonAreRejectedAndSpendTheirCredit) {
  const int admin_port = free_port();
  AmqpEnvOptions options;
  options.broker_args = admin_args(admin_port);
  AmqpEnv env(options);
  const std::string before = scrape(admin_port);
  ScanClient c(env);
  const std::string payload = "x";
  std::vector<int> tickets;
  for (int i = 0; i < 10; ++i)
    tickets.push_back(c.client.send(c.sender, scan_request("", "{}", &payload, c.reply_address, "ok-" + std::to_string(i))));
  for (int t : tickets) EXPECT_EQ(c.client.outcome(t, kWait), Outcome::accepted);
  for (int i = 0; i < 10; ++i) EXPECT_TRUE(c.client.receive(kWait));  // each reply gives its credit back
  EXPECT_EQ(c.client.credit(c.sender), 10);

  std::vector<proton::value> garbage = {
      proton::value(std::map<std::string, std::string>{{"json", "{}"}}),
      proton::value(std::vector<proton::value>{proton::value(int32_t{1}), proton::value(int32_t{2})}),
      proton::value(std::vector<proton::value>{proton::value(int32_t{1}), proton::value(std::string("{}"))}),
      proton::value(std::vector<proton::value>{}),
  };
  for (int32_t i = 0; garbage.size() < 10; ++i) garbage.emplace_back(i);
  const int fresh = c.client.open_sender(AmqpEnv::kService);
  for (const proton::value& body : garbage) {
    SCOPED_TRACE(proton::to_string(body));
    EXPECT_EQ(c.client.outcome(c.client.send(fresh, request_with_body(body, c.reply_address)), kWait),
              Outcome::rejected);
  }
  EXPECT_EQ(c.client.credit(fresh), 0);
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: could not extract JSON body from delivery on 'scan' \u2014 rejecting",
                               20s, garbage.size()));

  // Neither `to` nor a link target: nowhere to send it.
  const int anonymous = c.client.open_sender("");
  EXPECT_EQ(c.client.outcome(c.client.send(anonymous, scan_request("", "{}", &payload, c.reply_address, "lost")), kWait),
            Outcome::rejected);
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: delivery has no target address \u2014 rejecting"));
  const std::string after = scrape(admin_port);
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_amqp_messages_total{outcome="accepted"})"), 10);
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_amqp_messages_total{outcome="rejected"})"), garbage.size() + 1);
  EXPECT_EQ(metric_value(after, "qm_av_broker_amqp_connections"), 1);
}

// Without a cap a 3 MiB request goes through, its echo coming back as the reply's second
// string. A client gone mid-scan leaves nothing behind; a broker stopped with a job in
// flight closes the connection and finishes the job before it exits.
TEST(AmqpConnections, ClientOrBrokerGoingMidScanLeavesNothingBehind) {
  AmqpEnvOptions options;
  options.broker_args = {"--max-msg-size-mb", "0"};
  AmqpEnv env(options);
  {
    ScanClient c(env);
    const std::string payload = test_payload(700000);
    const int ticket = c.client.send(c.sender, scan_request("", "{\"delay_ms\":1500}", &payload, c.reply_address, "gone"));
    ASSERT_EQ(c.client.outcome(ticket, kWait), Outcome::accepted);
  }
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: connection closed (user=scanner)"));
  ScanClient after(env);
  const std::string large = test_payload(3 * 1048576);
  int ticket = after.client.send(after.sender, scan_request("", "{\"echo\":true}", &large, after.reply_address, "echo"));
  ASSERT_EQ(after.client.outcome(ticket, kWait), Outcome::accepted);
  auto reply = after.client.receive(kWait);
  ASSERT_TRUE(reply);
  std::vector<std::string> parts;
  proton::get(reply->body(), parts);
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_TRUE(parts[1] == large);

  const std::string payload = "in flight";
  ticket = after.client.send(after.sender, scan_request("", "{\"delay_ms\":1500}", &payload, after.reply_address, "f-1"));
  ASSERT_EQ(after.client.outcome(ticket, kWait), Outcome::accepted);
  const std::string runtime_dir = "/tmp/qm-av-broker-" + std::to_string(env.broker().pid());
  EXPECT_TRUE(std::filesystem::exists(runtime_dir));
  EXPECT_EQ(env.stop_broker(), 0);  // what the sanitizers find at exit fails the test as well
  EXPECT_TRUE(after.client.wait_closed(kWait));
  EXPECT_FALSE(std::filesystem::exists(runtime_dir));
}

// 20 connections with 50 requests each, all in flight at once: every reply comes back on
// the connection that asked, for the request it names, with that request's digest.
TEST(AmqpConnections, AThousandConcurrentRequestsOverTwentyConnections) {
  AmqpEnvOptions options;
  options.tracelevel = 4;
  AmqpEnv env(options);
  constexpr int kConnections = 20;
  constexpr int kPerConnection = 50;
  std::vector<std::unique_ptr<ScanClient>> clients;
  for (int i = 0; i < kConnections; ++i) clients.push_back(std::make_unique<ScanClient>(env));
  std::vector<std::map<std::string, std::string>> digests(kConnections);
  for (int i = 0; i < kConnections; ++i) {
    for (int j = 0; j < kPerConnection; ++j) {
      const std::string id = "c" + std::to_string(i) + "-r" + std::to_string(j);
      const std::string payload = "payload of " + id;
      digests[i][id] = sha256_hex(payload);
      ASSERT_GT(clients[i]->client.send(clients[i]->sender, scan_request("", "{}", &payload, clients[i]->reply_address, id)), 0);
    }
  }
  for (int i = 0; i < kConnections; ++i) {
    std::set<std::string> seen;
    for (int j = 0; j < kPerConnection; ++j) {
      auto reply = clients[i]->client.receive(kWait);
      ASSERT_TRUE(reply) << "connection " << i << " got " << j << " replies";
      const std::string id = proton::get<std::string>(reply->correlation_id());
      ASSERT_EQ(digests[i].count(id), 1u) << id << " arrived on connection " << i;
      EXPECT_EQ(json_member(reply_json(*reply), "sha256"), digests[i][id]) << id;
      EXPECT_TRUE(seen.insert(id).second) << id << " twice";
    }
    EXPECT_FALSE(clients[i]->client.receive(0ms));
  }
}

// A plain TCP connection to the door that has sent `bytes` (maybe nothing) and says no more.
qm::unique_fd raw_connection(int port, const std::string& bytes) {
  qm::unique_fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  if (!bytes.empty()) {
    EXPECT_EQ(send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));
  }
  return fd;
}

// True once the peer has closed: whatever it wrote is read away first.
bool closed_by_peer(const qm::unique_fd& fd) {
  char buffer[512];
  for (;;) {
    const ssize_t n = recv(fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (n == 0) return true;
    if (n < 0) return errno != EAGAIN && errno != EWOULDBLOCK;
  }
}

// Sockets that never log in (idle, or stopped after the SASL header) are closed at the
// handshake deadline while a logged-in client is served; the connection limit refuses
// one connection more and serves the rest.
TEST(AmqpConnections, IdleLoginsAreClosedAtTheDeadlineAndTheLimitRefusesOneMore) {
  AmqpEnvOptions options;
  options.broker_args = {"--amqp-max-connections", "3", "--amqp-handshake-timeout-ms", "1500"};
  options.tracelevel = 4;
  AmqpEnv env(options);
  const qm::unique_fd idle = raw_connection(env.port(), "");
  const qm::unique_fd stalled = raw_connection(env.port(), std::string("AMQP\x03\x01\x00\x00", 8));
  ScanClient c(env);
  const std::string payload = "served meanwhile";
  EXPECT_EQ(json_member(scan(c, scan_request("", "{}", &payload, c.reply_address, "m-1")), "sha256"),
            sha256_hex(payload));
  EXPECT_TRUE(wait_until([&] { return closed_by_peer(idle) && closed_by_peer(stalled); }, kWait));
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: closing connection not logged in within 1500 ms"));

  ScanClient second(env);
  ScanClient third(env);
  AmqpClient refused(env.port(), env.login());
  EXPECT_FALSE(refused.is_open());
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: refusing new connection \u2014 3 connections open"));
  EXPECT_EQ(json_member(scan(third, scan_request("", "{}", &payload, third.reply_address, "m-2")), "sha256"),
            sha256_hex(payload));
  EXPECT_EQ(json_member(scan(c, scan_request("", "{}", &payload, c.reply_address, "m-3")), "sha256"),
            sha256_hex(payload));
}

// One connection floods a slow worker: it never holds more than its cap of requests and
// credit, another connection is answered meanwhile, and SIGTERM ends the broker without
// waiting for the scans (each would take two minutes).
TEST(AmqpConnections, AFloodGetsNoMoreThanItsCapAndAStopDoesNotWaitForIt) {
  AmqpEnvOptions options;
  options.broker_args = {"--amqp-max-inflight", "4", "--amqp-relay-workers", "6", "--relay-timeout-ms", "120000"};
  options.tracelevel = 4;
  AmqpEnv env(options);
  ScanClient flood(env);
  const std::string payload = "flood";
  std::vector<int> tickets;
  for (int i = 0; i < 40; ++i) {
    tickets.push_back(flood.client.send(
        flood.sender, scan_request("", "{\"delay_ms\":120000}", &payload, flood.reply_address, "f-" + std::to_string(i))));
  }
  for (int i = 0; i < 4; ++i) EXPECT_EQ(flood.client.outcome(tickets[i], kWait), Outcome::accepted);
  EXPECT_EQ(flood.client.credit(flood.sender), 0);

  ScanClient other(env);
  EXPECT_EQ(json_member(scan(other, scan_request("", "{}", &payload, other.reply_address, "o-1")), "sha256"),
            sha256_hex(payload));
  EXPECT_EQ(flood.client.outcome(tickets[4], 0ms), Outcome::pending);
  EXPECT_EQ(flood.client.credit(flood.sender), 0);

  EXPECT_EQ(env.stop_broker(), 0);
  EXPECT_TRUE(env.wait_for_log("gw_relay_pool: 4 job(s) still relaying 5000 ms into the stop"));
}

// With the doors' budget spent, a new link gets no credit and an answered request's
// credit stays withheld, until bytes are freed; a reply nobody takes is counted against
// the budget for as long as it is held.
TEST(AmqpBudget, CreditWaitsForBytesToBeFreed) {
  constexpr uint64_t kLimit = 1048576;
  std::unique_ptr<gw_inflight_budget, decltype(&gw_inflight_budget_destroy)> budget(
      gw_inflight_budget_create(kLimit), gw_inflight_budget_destroy);
  AmqpDoor door([&](gw_config_t& cfg) { cfg.inflight_budget = budget.get(); });
  ScanClient c(door.port(), door.login());
  ASSERT_EQ(c.client.credit(c.sender), 10);

  ASSERT_EQ(gw_inflight_budget_try_acquire(budget.get(), kLimit), 0);  // spent by others
  const int fresh = c.client.open_sender(AmqpEnv::kService);
  const std::string payload = test_payload(2000);
  EXPECT_EQ(json_member(scan(c, scan_request("", "{}", &payload, c.reply_address, "b-1")), "sha256"),
            sha256_hex(payload));
  EXPECT_EQ(c.client.credit(c.sender), 9);
  EXPECT_EQ(c.client.credit(fresh), 0);
  EXPECT_EQ(gw_inflight_budget_in_use(budget.get()), kLimit);  // the request's bytes are back

  gw_inflight_budget_release(budget.get(), kLimit);
  EXPECT_TRUE(wait_until([&] { return c.client.credit(c.sender) == 10 && c.client.credit(fresh) == 10; }, kWait));

  // A reply to an address no link of the client serves stays queued, and counted.
  const int ticket = c.client.send(c.sender, scan_request("", "{}", &payload, "nobody-listens", "b-2"));
  EXPECT_EQ(c.client.outcome(ticket, kWait), Outcome::accepted);
  EXPECT_TRUE(wait_until(
      [&] {
        const uint64_t held = gw_inflight_budget_in_use(budget.get());
        return held > 0 && held < payload.size();  // the request's bytes are gone, the reply's held
      },
      kWait));
  EXPECT_EQ(c.client.credit(c.sender), 9);
  c.client.close();
  EXPECT_TRUE(wait_until([&] { return gw_inflight_budget_in_use(budget.get()) == 0; }, kWait));
}

TEST(AmqpTls, AmqpsWithTheTestCa) {
  AmqpEnvOptions options;
  options.tls = true;
  AmqpEnv env(options);
  EXPECT_TRUE(env.wait_for_log("(tls=yes, backlog=65535 requested"));
  ScanClient c(env);
  const std::string payload = test_payload(1000);
  EXPECT_EQ(json_member(scan(c, scan_request("", "{}", &payload, c.reply_address, "tls-1")), "sha256"),
            sha256_hex(payload));

  AmqpLogin plaintext = env.login();
  plaintext.ca_file.clear();
  AmqpClient refused(env.port(), plaintext);
  EXPECT_FALSE(refused.is_open());

  // The client tool of the README, over amqps with the same CA.
  TempDir files;
  write_file(files.file("hello.txt"), "hello scanner\n");
  const auto tool = [&](const std::string& password) {
    auto child = std::make_unique<Child>(
        std::vector<std::string>{QM_AMQP_SCAN_BINARY, "--url", "amqps://127.0.0.1:" + std::to_string(env.port()),
                                 "--ca", env.login().ca_file, "--user", AmqpEnv::kUser, "--service",
                                 AmqpEnv::kService, "--file", files.file("hello.txt")},
        std::vector<std::string>{"QM_AMQP_PASSWORD=" + password});
    child->wait(kWait);
    return child;
  };
  auto scanned = tool(AmqpEnv::kPassword);
  EXPECT_EQ(scanned->wait(0ms), 0) << scanned->err();
  EXPECT_EQ(json_member(scanned->out(), "sha256"), sha256_hex("hello scanner\n"));
  auto refused_tool = tool("wrong");
  EXPECT_EQ(refused_tool->wait(0ms), 1);
  EXPECT_LOGGED(refused_tool->err(), "amqp:unauthorized-access");
}

}  // namespace
}  // namespace qmtest
