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
#include "http_fixture.hpp"
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

// True when c's request with `payload` is answered with the payload's digest.
bool served(ScanClient& c, const std::string& payload) {
  const std::string reply = scan(c, scan_request("", "{}", &payload, c.reply_address, "served"));
  return json_member(reply, "sha256") == sha256_hex(payload);
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
  const proton::value bare(std::string("{\"SCANTIMEOUT\":5000}"));
  const std::string reply = scan(c, request_with_body(bare, c.reply_address));
  EXPECT_EQ(json_member(reply, "size"), "0");
}

// A logged-in client, with nothing but a NATS connection, tries to own the fleet: read the
// passwords of every login, answer for the auth service or the workers, reach another
// client's staged data. The server refuses each attempt, and says so.
TEST(AmqpScan, AHostileClientCanNeitherSniffNorForgeNorTouchOthersData) {
  AmqpEnv env;
  AsyncErrors errors;
  NatsLogin hostile = nats_login(env.nats_url(), AmqpEnv::kUser, AmqpEnv::kPassword, 5000, &errors,
                                 std::string("_INBOX.") + AmqpEnv::kUser);
  ASSERT_EQ(hostile.status, NATS_OK) << hostile.error;
  natsConnection* nc = hostile.conn;
  // Its own keys it may stage, as the stream's acknowledgement shows: the grant is no
  // blanket refusal.
  natsMsg* ack = nullptr;
  ASSERT_EQ(natsConnection_RequestString(&ack, nc, "$KV.qm-av-scan-data.c.scanner.own-0", "mine", 10000), NATS_OK);
  const qm::nats_msg_ptr owned_ack(ack);
  EXPECT_NE(std::string(natsMsg_GetData(ack)).find("\"seq\":"), std::string::npos) << natsMsg_GetData(ack);

  // Each attempt is refused with an error line that ends with the subject (and queue): a
  // bare subject's line is no prefix of its queue group's.
  const struct {
    bool publish;
    const char* subject;
    const char* queue;
  } attempts[] = {
      {false, "$SYS.REQ.USER.AUTH", nullptr},       // the callout's requests carry every NATS password
      {false, "qm.auth.verify", nullptr},           // and the verify endpoint's every AMQP password
      {false, "qm.auth.verify", "qm-auth-verify"},  // answering them would let made-up users in
      {false, "scan", "qm-scan-workers"},           // a fake worker would answer EICAR clean
      {false, "$KV.qm-av-scan-data.>", nullptr},    // watching the bucket shows everyone's files
      // Reading another client's staged file, and overwriting or deleting it (both writes).
      {true, "$JS.API.DIRECT.GET.KV_qm-av-scan-data.$KV.qm-av-scan-data.c.victim.k-0", nullptr},
      {true, "$KV.qm-av-scan-data.c.victim.k-0", nullptr},
  };
  for (const auto& row : attempts) {
    std::string what = std::string(row.publish ? "Publish" : "Subscription") + " to \"" + row.subject + "\"";
    if (row.queue != nullptr) what += std::string(" using queue \"") + row.queue + "\"";
    SCOPED_TRACE(what);
    natsSubscription* sub = nullptr;
    if (row.publish) {
      natsConnection_PublishString(nc, row.subject, "clean");
    } else if (row.queue == nullptr) {
      natsConnection_SubscribeSync(&sub, nc, row.subject);
    } else {
      natsConnection_QueueSubscribeSync(&sub, nc, row.subject, row.queue);
    }
    const qm::nats_subscription_ptr owned(sub);
    natsConnection_Flush(nc);
    const std::string line = "Permissions Violation for " + what + "\n";
    EXPECT_TRUE(wait_until([&] { return errors.text().find(line) != std::string::npos; }, 10s)) << errors.text();
  }
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

  NatsLogin verifier = nats_login(env.nats_url(), CalloutEnv::kAuthUser, CalloutEnv::kAuthPassword);
  ASSERT_EQ(verifier.status, NATS_OK) << verifier.error;
  VerifyEndpoint verify(verifier.conn, {{AmqpEnv::kUser, AmqpEnv::kPassword}});
  ScanClient early(env);
  verify.hold();
  std::atomic<bool> late_open{false};
  std::thread late_login([&] { late_open = AmqpClient(env.port(), env.login()).is_open(); });
  ASSERT_TRUE(wait_until([&] { return verify.requests().size() == 2; }, kWait));
  const std::string payload = "meanwhile";
  EXPECT_TRUE(served(early, payload));
  EXPECT_FALSE(late_open.load());
  verify.release();
  late_login.join();
  EXPECT_TRUE(late_open.load());
}

// What the door refuses, on a broker with a 1 MiB cap and a relay that waits a second.
// Clients without PLAIN never reach the password check; bad credentials are refused by it
// with the SASL outcome "auth". Accepted deliveries give their credit back once answered;
// rejected ones spend it.
TEST(AmqpLimits, BadLoginsBodiesWithoutJsonOversizeAndTooSlowRequests) {
  const int admin_port = free_port();
  AmqpEnvOptions options;
  options.broker_args = admin_args(admin_port);
  options.broker_args.insert(options.broker_args.end(), {"--max-msg-size-mb", "1", "--relay-timeout-ms", "1000"});
  AmqpEnv env(options);
  std::string before = scrape(admin_port);
  AmqpLogin anonymous = env.login("", "");
  anonymous.mechanisms = "ANONYMOUS";
  AmqpLogin no_sasl = env.login();
  no_sasl.sasl = false;
  const struct {
    const char* what;
    AmqpLogin login;
    bool checked;
  } logins[] = {
      {"ANONYMOUS only", anonymous, false},
      {"no SASL", no_sasl, false},
      {"wrong password", env.login(AmqpEnv::kUser, "wrong-secret"), true},
      {"unknown user", env.login("nobody", "whatever"), true},
  };
  for (const auto& k : logins) {
    SCOPED_TRACE(k.what);
    AmqpClient client(env.port(), k.login);
    EXPECT_FALSE(client.is_open());
    EXPECT_FALSE(client.error().empty());
    if (!k.checked) continue;
    EXPECT_EQ(client.sasl_outcome(), 1);
    EXPECT_NE(client.error().find("amqp:unauthorized-access"), std::string::npos) << client.error();
  }
  // Only the two password checks are verdicts of the door; every connection is gone again.
  std::string after = scrape(admin_port);
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_auth_requests_total{source="amqp",verdict="deny"})"), 2);
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_auth_requests_total{source="amqp",verdict="grant"})"), 0);
  EXPECT_TRUE(wait_until([&] { return metric_value(scrape(admin_port), "qm_av_broker_amqp_connections") == 0; }, 10s));

  before = scrape(admin_port);
  ScanClient c(env);
  const std::string payload = "x";
  EXPECT_TRUE(served(c, payload));
  EXPECT_EQ(c.client.credit(c.sender), 10);  // given back with the reply

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

  // Neither `to` nor a link target: nowhere to send it.
  const int anonymous_link = c.client.open_sender("");
  EXPECT_EQ(
      c.client.outcome(c.client.send(anonymous_link, scan_request("", "{}", &payload, c.reply_address, "lost")), kWait),
      Outcome::rejected);
  after = scrape(admin_port);
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_amqp_messages_total{outcome="accepted"})"), 1);
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_amqp_messages_total{outcome="rejected"})"), garbage.size() + 1);
  EXPECT_EQ(metric_value(after, "qm_av_broker_amqp_connections"), 1);

  // Complete when it crosses the cap: rejected, and its credit stays spent.
  const std::string just_over = test_payload(1048576);
  int ticket = c.client.send(c.sender, scan_request("", "{}", &just_over, c.reply_address, "just-over"));
  EXPECT_EQ(c.client.outcome(ticket, kWait), Outcome::rejected);
  EXPECT_EQ(c.client.credit(c.sender), 9);
  // Crossing the cap while still arriving: read away, rejected, credit given back.
  const std::string far_over = test_payload(2 * 1048576);
  ticket = c.client.send(c.sender, scan_request("", "{}", &far_over, c.reply_address, "far-over"));
  EXPECT_EQ(c.client.outcome(ticket, kWait), Outcome::rejected);
  EXPECT_TRUE(wait_until([&] { return c.client.credit(c.sender) == 9; }, kWait));

  // A worker slower than the relay's wait: a synthetic error reply, or only a log line
  // when there is no reply address.
  const std::string slow = "slow";
  const std::string reply = scan(c, scan_request("", "{\"delay_ms\":2000}", &slow, c.reply_address, "slow-1"));
  const char* host = qmhlp_GetMyFQDN();
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(reply,
            "{\"ReturnCode\":-1000,\"Error\":\"gateway " + std::string(host) + ": relay to scan failed (rc=-1)\"}");
  ticket = c.client.send(c.sender, scan_request("", "{\"delay_ms\":2000}", &slow, "", "slow-2"));
  EXPECT_EQ(c.client.outcome(ticket, kWait), Outcome::accepted);
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: relay job failed user=scanner subject=scan (rc=-1, no reply_to)"));
  EXPECT_EQ(json_member(scan(c, scan_request("", "{}", &payload, c.reply_address, "small")), "size"), "1");
}

// 20 connections with 50 requests each, all in flight at once: every reply comes back on
// the connection that asked, for the request it names, with that request's digest. Each
// request's id is its payload, which names its connection.
TEST(AmqpConnections, AThousandConcurrentRequestsOverTwentyConnections) {
  AmqpEnvOptions options;
  options.tracelevel = 4;
  AmqpEnv env(options);
  constexpr int kConnections = 20;
  constexpr int kPerConnection = 50;
  std::vector<std::unique_ptr<ScanClient>> clients;
  for (int i = 0; i < kConnections; ++i) clients.push_back(std::make_unique<ScanClient>(env));
  for (int i = 0; i < kConnections; ++i) {
    for (int j = 0; j < kPerConnection; ++j) {
      const std::string id = "c" + std::to_string(i) + "-r" + std::to_string(j);
      ScanClient& c = *clients[i];
      ASSERT_GT(c.client.send(c.sender, scan_request("", "{}", &id, c.reply_address, id)), 0);
    }
  }
  for (int i = 0; i < kConnections; ++i) {
    std::set<std::string> seen;
    for (int j = 0; j < kPerConnection; ++j) {
      auto reply = clients[i]->client.receive(kWait);
      ASSERT_TRUE(reply) << "connection " << i << " got " << j << " replies";
      const std::string id = proton::get<std::string>(reply->correlation_id());
      EXPECT_EQ(id.rfind("c" + std::to_string(i) + "-r", 0), 0u) << id << " arrived on connection " << i;
      EXPECT_EQ(json_member(reply_json(*reply), "sha256"), sha256_hex(id)) << id;
      EXPECT_TRUE(seen.insert(id).second) << id << " twice";
    }
    EXPECT_FALSE(clients[i]->client.receive(0ms));
  }
}

// The door's limits on one broker: three connections, a handshake deadline, four requests
// in flight per connection, no size cap. Sockets that never log in (idle, or stopped after
// the SASL header) are closed at the deadline while a logged-in client is served. Neither
// they nor a client gone mid-scan keep a place under the limit, which refuses one
// connection more and serves the rest. A 3 MiB request goes through, its echo coming back
// as the reply's second string. A connection flooding a slow worker never holds more than
// its cap of requests and credit while another is answered, and SIGTERM ends the broker
// without waiting for the scans (each would take two minutes).
TEST(AmqpConnections, LimitsHoldAndAStopDoesNotWaitForAFlood) {
  AmqpEnvOptions options;
  options.broker_args = {"--amqp-max-connections", "3", "--amqp-handshake-timeout-ms", "1500", "--max-msg-size-mb", "0",
                         "--amqp-max-inflight", "4", "--amqp-relay-workers", "6", "--relay-timeout-ms", "120000"};
  options.tracelevel = 4;
  AmqpEnv env(options);
  const std::string payload = "served meanwhile";
  {
    RawClient idle(env.port());
    RawClient stalled(env.port());
    ASSERT_TRUE(stalled.send(std::string("AMQP\x03\x01\x00\x00", 8)));
    ScanClient gone(env);
    EXPECT_TRUE(served(gone, payload));
    for (RawClient* raw : {&idle, &stalled}) {
      raw->read(kWait);
      EXPECT_TRUE(raw->closed());
    }
    EXPECT_TRUE(env.wait_for_log("amqp_acceptor: closing connection not logged in within 1500 ms"));
    const int ticket =
        gone.client.send(gone.sender, scan_request("", "{\"delay_ms\":1000}", &payload, gone.reply_address, "gone"));
    ASSERT_EQ(gone.client.outcome(ticket, kWait), Outcome::accepted);
  }
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: connection closed (user=scanner)"));

  ScanClient flood(env);
  const std::string large = test_payload(3 * 1048576);
  int ticket =
      flood.client.send(flood.sender, scan_request("", "{\"echo\":true}", &large, flood.reply_address, "echo"));
  ASSERT_EQ(flood.client.outcome(ticket, kWait), Outcome::accepted);
  auto reply = flood.client.receive(kWait);
  ASSERT_TRUE(reply);
  const std::vector<std::string> parts = reply_parts(*reply);
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_TRUE(parts[1] == large);

  std::vector<int> tickets;
  for (int i = 0; i < 40; ++i) {
    const std::string id = "f-" + std::to_string(i);
    const proton::message request = scan_request("", "{\"delay_ms\":120000}", &payload, flood.reply_address, id);
    tickets.push_back(flood.client.send(flood.sender, request));
  }
  for (int i = 0; i < 4; ++i) EXPECT_EQ(flood.client.outcome(tickets[i], kWait), Outcome::accepted);
  EXPECT_EQ(flood.client.credit(flood.sender), 0);

  ScanClient other(env);
  ScanClient third(env);
  AmqpClient refused(env.port(), env.login());
  EXPECT_FALSE(refused.is_open());
  EXPECT_TRUE(env.wait_for_log("amqp_acceptor: refusing new connection \u2014 3 connections open"));
  EXPECT_TRUE(served(other, payload));
  EXPECT_TRUE(served(third, payload));
  EXPECT_EQ(flood.client.outcome(tickets[4], 0ms), Outcome::pending);
  EXPECT_EQ(flood.client.credit(flood.sender), 0);

  const std::string runtime_dir = "/tmp/qm-av-broker-" + std::to_string(env.broker().pid());
  EXPECT_TRUE(std::filesystem::exists(runtime_dir));
  EXPECT_EQ(env.stop_broker(), 0);  // what the sanitizers find at exit fails the test as well
  EXPECT_TRUE(flood.client.wait_closed(kWait));
  EXPECT_FALSE(std::filesystem::exists(runtime_dir));
  EXPECT_TRUE(env.wait_for_log("gw_relay_pool: 4 job(s) still relaying 5000 ms into the stop"));
}

// With the doors' budget spent, a new link gets no credit and an answered request's
// credit stays withheld, until bytes are freed. A reply to an address no link of the
// client serves waits for a receiver attached later, counted against the budget (and its
// request's credit withheld) for as long as it is held, also when the client goes.
TEST(AmqpBudget, CreditWaitsForBytesToBeFreed) {
  constexpr uint64_t kLimit = 1048576;
  const qm::c_ptr<gw_inflight_budget, gw_inflight_budget_destroy> budget(gw_inflight_budget_create(kLimit));
  AmqpDoor door([&](gw_config_t& cfg) { cfg.inflight_budget = budget.get(); });
  ScanClient c(door.port(), door.login());
  ASSERT_EQ(c.client.credit(c.sender), 10);

  ASSERT_EQ(gw_inflight_budget_try_acquire(budget.get(), kLimit), 0);  // spent by others
  const int fresh = c.client.open_sender(AmqpEnv::kService);
  const std::string payload = test_payload(2000);
  EXPECT_TRUE(served(c, payload));
  EXPECT_EQ(c.client.credit(c.sender), 9);
  EXPECT_EQ(c.client.credit(fresh), 0);
  EXPECT_EQ(gw_inflight_budget_in_use(budget.get()), kLimit);  // the request's bytes are back

  gw_inflight_budget_release(budget.get(), kLimit);
  EXPECT_TRUE(wait_until([&] { return c.client.credit(c.sender) == 10 && c.client.credit(fresh) == 10; }, kWait));

  const auto reply_held = [&] {
    const uint64_t held = gw_inflight_budget_in_use(budget.get());
    return held > 0 && held < payload.size();  // the request's bytes are gone, the reply's held
  };
  int ticket = c.client.send(c.sender, scan_request("", "{}", &payload, "late-replies", "late-1"));
  EXPECT_EQ(c.client.outcome(ticket, kWait), Outcome::accepted);
  EXPECT_TRUE(wait_until(reply_held, kWait));
  EXPECT_EQ(c.client.credit(c.sender), 9);
  EXPECT_EQ(c.client.open_receiver("late-replies"), "late-replies");
  auto queued = c.client.receive(kWait);
  ASSERT_TRUE(queued);
  EXPECT_EQ(queued->correlation_id(), proton::message_id(std::string("late-1")));
  EXPECT_EQ(json_member(reply_json(*queued), "sha256"), sha256_hex(payload));
  EXPECT_TRUE(wait_until([&] { return gw_inflight_budget_in_use(budget.get()) == 0; }, kWait));
  EXPECT_TRUE(wait_until([&] { return c.client.credit(c.sender) == 10; }, kWait));

  ticket = c.client.send(c.sender, scan_request("", "{}", &payload, "nobody-listens", "late-2"));
  EXPECT_EQ(c.client.outcome(ticket, kWait), Outcome::accepted);
  EXPECT_TRUE(wait_until(reply_held, kWait));
  c.client.close();
  EXPECT_TRUE(wait_until([&] { return gw_inflight_budget_in_use(budget.get()) == 0; }, kWait));
}

// amqps with a CA made for the test: a client without the CA is refused, and the client
// tool of the README scans a file over it.
TEST(AmqpTls, AmqpsWithTheTestCa) {
  AmqpEnvOptions options;
  options.tls = true;
  AmqpEnv env(options);
  AmqpLogin plaintext = env.login();
  plaintext.ca_file.clear();
  AmqpClient refused(env.port(), plaintext);
  EXPECT_FALSE(refused.is_open());

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
