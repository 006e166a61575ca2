// The front doors act for their caller, not for the gateway: the real broker with both
// doors open, the shipped permissions (the test user a client, who may publish to
// services but not to other subjects), and one row per way a logged-in client could get
// past them.
#include "test_prelude.hpp"

#include "amqp_fixture.hpp"
#include "http_fixture.hpp"

namespace qmtest {
namespace {

constexpr auto kWait = 60s;
const std::string kAlicePassword = "alice-right";
constexpr int kLockFailures = 5;
// Two users whose names are alike in their first 1,050 bytes, and a name that is nobody's
// but shares the first 1,022 bytes with the first.
const std::string kLongA(1100, 'l');
const std::string kLongB = kLongA.substr(0, 1050) + std::string(50, 'm');
const std::string kLongNobody = kLongA.substr(0, 1022) + std::string(78, 'z');

class Doors {
 public:
  Doors() : env_(options()), http_url_("http://127.0.0.1:" + std::to_string(broker_http_port(env_)) + "/vsi") {}

  AmqpEnv& env() { return env_; }

  HttpResponse http(const std::string& user, const std::string& password, const std::string& target) {
    HttpRequest request;
    request.url = http_url_;
    request.basic = {user, password};
    request.target = target;
    request.fields = {{"request", "{}"}};
    return http_send(request);
  }
  bool amqp_admits(const std::string& user, const std::string& password) {
    return AmqpClient(env_.port(), env_.login(user, password)).is_open();
  }
  bool nats_admits(const std::string& user, const std::string& password) {
    return nats_login(env_.nats_url(), user, password).status == NATS_OK;
  }
  // What every door says to these credentials: HTTP status, AMQP and NATS logins. SASL
  // carries no user name of 1,024 bytes or more: the AMQP door refuses those whole.
  void expect_admitted_everywhere(const std::string& user, const std::string& password, bool admitted) {
    EXPECT_EQ(http(user, password, "scan").status, admitted ? 200 : 401);
    EXPECT_EQ(amqp_admits(user, password), admitted && user.size() < 1024);
    EXPECT_EQ(nats_admits(user, password), admitted);
  }
  // One request through the AMQP door; its outcome, and the reply JSON when accepted.
  std::pair<Outcome, std::string> amqp_scan(const std::string& address) {
    ScanClient c(env_);
    const int ticket = c.client.send(c.sender, scan_request(address, "{}", nullptr, c.reply_address, "r"));
    const Outcome outcome = c.client.outcome(ticket, kWait);
    const auto reply = outcome == Outcome::accepted ? c.client.receive(kWait) : std::nullopt;
    return {outcome, reply ? reply_json(*reply) : ""};
  }
  // A NATS connection as the gateway user, which may do anything.
  NatsLogin admin() { return nats_login(env_.nats_url(), CalloutEnv::kGatewayUser, CalloutEnv::kGatewayPassword); }

 private:
  // The shipped roles (every test user a client), with the test's worker allowed
  // everything where no shipped role names it.
  static AmqpEnvOptions options() {
    std::string permissions = read_file(std::string(QM_SOURCE_DIR) + "/packaging/qm-av-permissions.json");
    const size_t profiles = permissions.find('{', permissions.find("\"profiles\"")) + 1;
    permissions.insert(profiles, R"("any": {"publish": {"allow": [">"]}, "subscribe": {"allow": [">"]}},)");
    const size_t map_end = permissions.find(']', permissions.find("\"file_user_map\""));
    permissions.insert(map_end, std::string(R"(, {"user": ")") + AmqpEnv::kWorkerUser + R"(", "profile": "any"})");
    AmqpEnvOptions options;
    // A lock long enough that no row sees it end.
    options.broker_args = {"--http-enabled", "true", "--http-listen-port", "0", "--auth-lock-failures",
                           std::to_string(kLockFailures), "--auth-lock-min-seconds", "300"};
    options.users = {{"alice", kAlicePassword}, {"bob", "bob-right"}, {kLongA, "long-a-secret"},
                     {kLongB, "long-b-secret"}};
    options.permissions_json = permissions;
    return options;
  }

  AmqpEnv env_;
  std::string http_url_;
};

// The doors relay with the gateway's own identity: a system subject or one the caller's
// profile does not grant is refused before NATS sees it (the HTTP door's answer to a
// system subject is a row of its own test).
void confused_deputy(Doors& doors) {
  EXPECT_EQ(doors.amqp_scan("$JS.API.STREAM.NAMES").first, Outcome::rejected);
  EXPECT_EQ(doors.http(AmqpEnv::kUser, AmqpEnv::kPassword, "not.a.service").status, 403);
  EXPECT_EQ(doors.amqp_scan("not.a.service").first, Outcome::rejected);
  EXPECT_TRUE(doors.env().wait_for_log("amqp_acceptor: rejecting delivery to 'not.a.service' of user=scanner: target "
                                       "not permitted"));
}

// Targets that would be protocol on the gateway's connection are refused at once, and
// the connection stays up for the next request.
void protocol_injection(Doors& doors) {
  NatsLogin observer = doors.admin();
  ASSERT_EQ(observer.status, NATS_OK) << observer.error;
  natsSubscription* raw = nullptr;
  ASSERT_EQ(natsConnection_SubscribeSync(&raw, observer.conn, "injected.>"), NATS_OK);
  const qm::nats_subscription_ptr injected(raw);
  ASSERT_EQ(natsConnection_Flush(observer.conn), NATS_OK);

  EXPECT_EQ(doors.amqp_scan("scan\r\nPUB injected.by.scanner 2\r\nhi").first, Outcome::rejected);
  EXPECT_EQ(doors.http(AmqpEnv::kUser, AmqpEnv::kPassword, "scan").status, 200);
  EXPECT_EQ(json_member(doors.amqp_scan("scan").second, "size"), "0");
  ASSERT_EQ(natsConnection_Flush(observer.conn), NATS_OK);
  int pending = -1;
  ASSERT_EQ(natsSubscription_GetPending(injected.get(), &pending, nullptr), NATS_OK);
  EXPECT_EQ(pending, 0);
  EXPECT_NOT_LOGGED(doors.env().callout().server_log(), "Parse Error");
}

// A refusal is remembered for that password only.
void wrong_password_lockout(Doors& doors) {
  EXPECT_EQ(doors.http("alice", "alice-wrong", "scan").status, 401);
  doors.expect_admitted_everywhere("alice", kAlicePassword, true);
}

// Guessing bob's password over NATS locks bob on every door, right password too, and
// nobody else.
void guessing_locks_the_user_everywhere(Doors& doors) {
  for (int i = 0; i < kLockFailures; ++i) EXPECT_FALSE(doors.nats_admits("bob", "guess-" + std::to_string(i)));
  doors.expect_admitted_everywhere("bob", "bob-right", false);
  doors.expect_admitted_everywhere("alice", kAlicePassword, true);
}

// Cache keys and the credentials file see whole names and whole passwords.
void long_name_prefixes(Doors& doors) {
  ASSERT_TRUE(doors.nats_admits(kLongA, "long-a-secret"));  // seeds the cache
  EXPECT_EQ(doors.http(kLongA, "l", "scan").status, 401);
  EXPECT_EQ(doors.http(kLongA, "long-a-secreT", "scan").status, 401);
  doors.expect_admitted_everywhere(kLongNobody, "long-a-secret", false);
  doors.expect_admitted_everywhere(kLongB, "long-b-secret", true);
}

// A worker's reply is trusted no further than the caller: one naming a manifest of 2 GiB
// over 4 KiB of chunks is refused before anything is allocated for it, and one naming a
// key that is no single key (a wildcard would read whatever entry came last) is refused
// before anything is read.
void untrusted_replies(Doors& doors) {
  NatsLogin worker = doors.admin();
  ASSERT_EQ(worker.status, NATS_OK) << worker.error;
  jsCtx* raw_js = nullptr;
  ASSERT_EQ(natsConnection_JetStream(&raw_js, worker.conn, nullptr), NATS_OK);
  const qm::js_ctx_ptr js(raw_js);
  kvStore* raw_kv = nullptr;
  ASSERT_EQ(js_KeyValue(&raw_kv, js.get(), "qm-av-scan-data"), NATS_OK);
  const qm::kv_store_ptr kv(raw_kv);
  uint64_t revision = 0;
  for (int i = 0; i < 4096; ++i)
    ASSERT_EQ(kvStore_PutString(&revision, kv.get(), ("balloon-" + std::to_string(i)).c_str(), "x"), NATS_OK);
  ASSERT_EQ(kvStore_PutString(&revision, kv.get(), "balloon", R"({"chunks":4096,"size":2147483648})"), NATS_OK);
  const Responder balloon(worker.conn, "balloon", [] { return R"({"ReturnCode":0,"_kv_key":"balloon"})"; });
  const Responder wildcard(worker.conn, "wildcard", [] { return R"({"ReturnCode":0,"_kv_key":">"})"; });

  const pid_t broker = doors.env().broker().pid();
  EXPECT_EQ(json_member(doors.amqp_scan("scan").second, "size"), "0");
  const long before_kib = proc_status_kib(broker, "VmHWM");
  const std::string reply = doors.amqp_scan("balloon").second;
  EXPECT_EQ(json_member(reply, "ReturnCode"), "-1000") << reply;
  EXPECT_TRUE(doors.env().wait_for_log("nats_relay: payload 'balloon' refused: manifest of 2147483648 bytes in 4096 "
                                       "chunks is larger than --max-msg-size-mb"));
  EXPECT_LT(proc_status_kib(broker, "VmHWM") - before_kib, 8 * 1024);
  EXPECT_EQ(json_member(doors.amqp_scan("wildcard").second, "ReturnCode"), "-1000");
}

TEST(DoorIsolation, LoggedInClientsCannotUseTheDoorsAgainstTheFleet) {
  Doors doors;
  const struct {
    const char* fault;
    std::function<void(Doors&)> check;
  } rows[] = {
      {"confused deputy", confused_deputy},
      {"protocol injection", protocol_injection},
      {"one wrong password locks the user out", wrong_password_lockout},
      {"guessing a password goes on at another door", guessing_locks_the_user_everywhere},
      {"keys cut at 1,022 bytes", long_name_prefixes},
      {"a worker's reply names a payload beyond the caller", untrusted_replies},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.fault);
    row.check(doors);
  }
}

}  // namespace
}  // namespace qmtest
