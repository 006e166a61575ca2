// The REST front door in this process, against a real nats-server whose logins go to the
// broker, a verify endpoint of the test's own and the demo scan worker; libcurl and raw
// sockets are the clients.
#include "test_prelude.hpp"

#include "admin_client.hpp"
#include "amqp_fixture.hpp"
#include "broker_metrics.hpp"
#include "gw_inflight_budget.hpp"
#include "http_fixture.hpp"
#include "test_certificates.hpp"

namespace {

using tweak_fn = std::function<void(gw_config_t&)>;

constexpr const char* kLocal = "local-user";  // in the door's own credentials file
constexpr const char* kLocalPassword = "local-secret";
constexpr const char* kRemote = "verify-user";  // known to the broker alone
constexpr const char* kRemotePassword = "verify-secret";
constexpr size_t kPayloadCap = 65536;

// The auth cache's clock, moved forward by the tests that age grants.
std::atomic<int64_t> s_now_ms{1000000};
int64_t s_fake_clock() { return s_now_ms.load(); }

std::string s_scan_reply(const std::string& payload) {
  return R"({"ReturnCode":0,"size":)" + std::to_string(payload.size()) + R"(,"sha256":")" + sha256_hex(payload) +
         R"(","infected":false})";
}

AmqpEnvOptions s_without_verify_service() {
  AmqpEnvOptions options;
  options.callout_service = false;
  return options;
}

class HttpDoorTest : public ::testing::Test {
 protected:
  // The cache ages only when a test moves s_now_ms.
  void open(tweak_fn tweak = {}) {
    const gw_auth_cache_timing timing{s_fake_clock};
    door_ = std::make_unique<HttpDoor>(env_.relay_config(), user_list{{kLocal, kLocalPassword}}, tweak, &timing);
  }
  HttpRequest as(const std::string& user, const std::string& password, const std::function<void(HttpRequest&)>& change = {}) {
    HttpRequest request = door_->request(user, password);
    if (change) change(request);
    return request;
  }
  long status_of(const std::string& user, const std::string& password) { return http_send(as(user, password)).status; }
  gw_auth_cache_result_t cached(const char* user, const char* password) {
    return gw_auth_cache_lookup(door_->cache(), user, password);
  }

  LogCapture log_{QMLOG_TRACE};
  // "qm.auth.verify" is the test's: kRemote is the one user it knows, unless scripted.
  AmqpEnv env_{s_without_verify_service()};
  NatsLogin verifier_ = nats_login(env_.nats_url(), CalloutEnv::kAuthUser, CalloutEnv::kAuthPassword);
  std::optional<VerifyEndpoint> verify_{std::in_place, verifier_.conn, user_list{{kRemote, kRemotePassword}}};
  std::unique_ptr<HttpDoor> door_;
};

// One row per answer the door gives; which verdict the part rules reach for a body (their
// order, empty parts) is the multipart fuzz target's to show.
TEST_F(HttpDoorTest, EveryRowOfTheStatusTableAndTheFieldCaps) {
  open([](gw_config_t& cfg) {
    cfg.max_msg_size_bytes = kPayloadCap;
    cfg.relay_timeout_ms = 600;
    cfg.services = "scan, qm-av-quarantine.scan";
  });
  const std::string malformed = "malformed multipart body\n", missing = "missing 'request' multipart field\n";
  const std::string too_large = "payload too large\n", relay_failed = "upstream relay failed\n";
  const std::string json_1mib = "{\"pad\":\"" + std::string(1048576 - 10, 'x') + "\"}";
  const std::string at_cap = test_payload(kPayloadCap);
  const std::string urlencoded = "application/x-www-form-urlencoded";
  struct {
    const char* what;
    std::function<void(HttpRequest&)> change;
    long status;
    std::string body;
  } const rows[] = {
      {"GET", [](HttpRequest& r) { r.method = "GET"; r.fields.clear(); }, 405, "method not allowed\n"},
      {"PUT elsewhere: method first", [&](HttpRequest& r) { r.method = "PUT"; r.url = door_->url("/x"); }, 405,
       "method not allowed\n"},
      {"trailing slash", [&](HttpRequest& r) { r.url = door_->url("/vsi/"); }, 404, "not found\n"},
      {"JSON body", [](HttpRequest& r) { r.raw_body = "{}"; r.content_type = "application/json"; }, 415,
       "expected multipart/form-data\n"},
      {"no Content-Type", [](HttpRequest& r) { r.raw_body = "x"; }, 415, "expected multipart/form-data\n"},
      {"url-encoded", [&](HttpRequest& r) { r.raw_body = "request=%7B%7D"; r.content_type = urlencoded; }, 415,
       "expected multipart/form-data\n"},
      {"extra multipart field", [](HttpRequest& r) { r.fields.emplace_back("file", "x"); }, 400, malformed},
      {"request of 1 MiB", [&](HttpRequest& r) { r.fields = {{"request", json_1mib}}; }, 200, s_scan_reply("")},
      {"request of 1 MiB + 1", [&](HttpRequest& r) { r.fields = {{"request", json_1mib + " "}}; }, 413, too_large},
      {"payload at the cap", [&](HttpRequest& r) { r.fields.emplace_back("payload", at_cap); }, 200, s_scan_reply(at_cap)},
      {"payload at the cap + 1", [&](HttpRequest& r) { r.fields.emplace_back("payload", at_cap + "x"); }, 413, too_large},
      {"empty payload", [](HttpRequest& r) { r.fields.emplace_back("payload", ""); }, 200, s_scan_reply("")},
      {"no request field", [](HttpRequest& r) { r.fields = {{"payload", "abc"}}; }, 400, missing},
      {"no credentials", [](HttpRequest& r) { r.basic.reset(); }, 401, ""},
      {"request not JSON, with a payload", [](HttpRequest& r) { r.fields = {{"request", "scan it"}, {"payload", "x"}}; },
       400, "'request' field is not a JSON object\n"},
      {"two request fields", [](HttpRequest& r) { r.fields.emplace_back("request", "{}"); }, 400,
       "duplicate 'request' multipart field\n"},
      {"two payload fields", [](HttpRequest& r) { r.fields = {{"request", "{}"}, {"payload", "a"}, {"payload", "b"}}; },
       400, "duplicate 'payload' multipart field\n"},
      {"wrong password", [](HttpRequest& r) { r.basic = {{kRemote, "wrong"}}; }, 401, ""},
      {"no X-Target-Service", [](HttpRequest& r) { r.target.clear(); }, 400, "missing X-Target-Service\n"},
      {"worker too slow", [](HttpRequest& r) { r.fields = {{"request", R"({"delay_ms":2000})"}}; }, 502, relay_failed},
      {"quarantine without worker", [](HttpRequest& r) { r.target = "qm-av-quarantine_scan"; }, 502, relay_failed},
      {"system subject", [](HttpRequest& r) { r.target = "$JS.API.STREAM.NAMES"; }, 400, "reserved target\n"},
      {"blank in the target", [](HttpRequest& r) { r.target = "a b"; }, 400, "malformed target\n"},
      {"service not offered", [](HttpRequest& r) { r.target = "scanjs"; }, 404, "service not offered\n"},
  };
  const std::string before = broker_metrics_render();
  std::map<long, int> answered;
  for (const auto& row : rows) {
    ++answered[row.status];
    const HttpResponse response = http_send(as(kLocal, kLocalPassword, row.change));
    EXPECT_EQ(response.status, row.status) << row.what;
    EXPECT_EQ(response.body, row.body) << row.what;
    EXPECT_EQ(response.www_authenticate, row.status == 401 ? "Basic realm=\"quillmere-av-scangateway\"" : "") << row.what;
    EXPECT_EQ(response.content_type, row.status == 200 ? "application/json" : "") << row.what;
    // Answered, whatever the answer: nothing is left for an update's drain to wait for.
    EXPECT_TRUE(wait_until([&] { return gw_http_frontend_inflight(door_->frontend()) == 0; }, 10s)) << row.what;
  }
  EXPECT_LOGGED(log_, "subject rewrite 'qm-av-quarantine_scan' -> 'qm-av-quarantine.scan'");
  // One status count per response, one verdict per request that got as far as its
  // credentials (all but the method, path and content type rows): every 401 is a
  // refusal, the rest were granted.
  constexpr int kDecidedBeforeCredentials = 6;
  const int checked = static_cast<int>(std::size(rows)) - kDecidedBeforeCredentials;
  const std::string after = broker_metrics_render();
  for (const auto& [status, times] : answered) {
    const std::string sample = R"(qm_av_broker_http_requests_total{code=")" + std::to_string(status) + "\"}";
    EXPECT_EQ(metric_delta(before, after, sample), times) << sample;
  }
  const auto verdicts = [&](const char* verdict) {
    return metric_delta(before, after, std::string(R"(qm_av_broker_auth_requests_total{source="http",verdict=")") +
                                           verdict + "\"}");
  };
  EXPECT_EQ(verdicts("deny"), answered[401]);
  EXPECT_EQ(verdicts("grant"), checked - answered[401]);
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_auth_request_duration_seconds_count{source="http"})"), checked);
}

TEST_F(HttpDoorTest, StaleGrantIsServedAtOnceWhileOneRefreshRuns) {
  open();
  ASSERT_EQ(status_of(kRemote, kRemotePassword), 200);
  s_now_ms += 61000;  // past half of the 120 s grant
  verify_->hold();  // the refresh waits; the callers must not
  std::vector<std::future<long>> callers;
  for (int i = 0; i < 6; ++i) callers.push_back(std::async(std::launch::async, [&] { return status_of(kRemote, kRemotePassword); }));
  for (auto& caller : callers) EXPECT_EQ(caller.get(), 200);
  ASSERT_TRUE(wait_until([&] { return verify_->requests().size() == 2; }, 10s));
  EXPECT_EQ(json_member(verify_->requests().at(1), "revalidate"), "true");
  verify_->release();
  EXPECT_TRUE(log_.wait_for("refresh GRANTED user=verify-user", 10s)) << log_.text();
  EXPECT_EQ(cached(kRemote, kRemotePassword), GW_AUTH_CACHE_GRANT);
  EXPECT_EQ(verify_->requests().size(), 2u);

  // A stop while a refresh waits for its verify returns only once the refresh has ended:
  // nothing it uses may go before it.
  s_now_ms += 61000;
  verify_->hold();
  EXPECT_EQ(status_of(kRemote, kRemotePassword), 200);
  ASSERT_TRUE(wait_until([&] { return verify_->requests().size() == 3; }, 10s));
  auto answer_late = std::async(std::launch::async, [&] {
    const bool stop_waited = log_.wait_for("http_frontend: stop waits for 1 background refresh(es)", 10s);
    verify_->release();
    return stop_waited;
  });
  gw_http_frontend_stop(door_->frontend());
  EXPECT_TRUE(answer_late.get());
  EXPECT_EQ(log_.count("refresh GRANTED user=verify-user"), 2u);
  EXPECT_EQ(gw_auth_cache_wait_inflight_drain(door_->cache(), 0), 0);
}

// Local users need no NATS; the others are verified there once and then cached.
TEST_F(HttpDoorTest, OutageDeniesUncachedAndOnlyDeliberateRepliesAreCached) {
  open();
  EXPECT_EQ(status_of(kLocal, kLocalPassword), 200);
  EXPECT_EQ(status_of(kRemote, kRemotePassword), 200);
  EXPECT_EQ(status_of("", kLocalPassword), 401);
  ASSERT_EQ(verify_->requests().size(), 1u);
  EXPECT_EQ(verify_->requests()[0], R"({"user":"verify-user","password":"verify-secret","method":"basic"})");
  EXPECT_EQ(cached(kLocal, kLocalPassword), GW_AUTH_CACHE_MISS);
  EXPECT_EQ(cached(kRemote, kRemotePassword), GW_AUTH_CACHE_GRANT);
  gw_auth_cache_invalidate(door_->cache());  // the outage below finds nothing cached

  verify_->script({{"granted", R"({"ok":true,"backend":"ldap"})"}, {"empty-object", "{}"},
                  {"string-ok", R"({"ok":"true"})"}, {"garbage", "not json"},
                  {"refused", R"({"ok":false,"reason":"locked"})"}, {"blank", R"({"ok":true})"},
                  {"flaky", R"({"ok":true})"}, {"unknown-profile", R"({"ok":true,"profile":"nope"})"}});
  struct {
    const char *user, *password;
    long status;
    gw_auth_cache_result_t cached;
    const char* log;
  } const rows[] = {
      {"granted", "pw", 200, GW_AUTH_CACHE_GRANT, "auth GRANT user=granted via=nats backend=ldap"},
      {"empty-object", "pw", 401, GW_AUTH_CACHE_DENY, "DENY user=empty-object via=nats backend=(unknown) reason=(none)"},
      {"string-ok", "pw", 401, GW_AUTH_CACHE_DENY, "auth DENY user=string-ok via=nats"},
      {"garbage", "pw", 401, GW_AUTH_CACHE_MISS, "(unparseable reply — treating as deny but NOT poisoning cache)"},
      {"refused", "pw", 401, GW_AUTH_CACHE_DENY, "auth DENY user=refused via=nats backend=(unknown) reason=locked"},
      {"blank", "", 200, GW_AUTH_CACHE_GRANT, "auth GRANT user=blank via=nats backend=(unknown)"},
      {"flaky", "pw", 200, GW_AUTH_CACHE_GRANT, "auth GRANT user=flaky"},
      {"unknown-profile", "pw", 401, GW_AUTH_CACHE_MISS, "(grant names profile 'nope', which this broker does not know)"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(status_of(row.user, row.password), row.status) << row.user;
    EXPECT_EQ(cached(row.user, row.password), row.cached) << row.user;
    EXPECT_LOGGED(log_, row.log) << row.user;
  }
  verify_.reset();  // the authenticator is down: nobody answers at all
  EXPECT_EQ(status_of(kRemote, kRemotePassword), 401);
  EXPECT_EQ(cached(kRemote, kRemotePassword), GW_AUTH_CACHE_MISS);
  EXPECT_LOGGED(log_, "DENY user=verify-user via=nats (relay rc=-1, no reply — is authenticator running?)");
  verify_.emplace(verifier_.conn, user_list{{kRemote, kRemotePassword}});
  EXPECT_EQ(status_of(kRemote, kRemotePassword), 200);  // the outage left no refusal behind
  // In a refresh a refusal, and an unreadable reply too, revoke the grant; it is still
  // served once while the refresh learns the news.
  verify_->script({{"granted", R"({"ok":false})"}, {"flaky", "<html>"}});
  s_now_ms += 61000;
  for (const char* user : {"granted", "flaky"}) {
    EXPECT_EQ(status_of(user, "pw"), 200) << user;
    EXPECT_TRUE(wait_until([&] { return cached(user, "pw") == GW_AUTH_CACHE_MISS; }, 10s)) << user;
    EXPECT_LOGGED(log_,
        std::string("refresh DENIED user=") + user + " — invalidating cache (password changed or account disabled?)");
  }
  EXPECT_EQ(status_of("granted", "pw"), 401);
  EXPECT_EQ(cached("granted", "pw"), GW_AUTH_CACHE_DENY);
}

// TLS that works is the broker's own test (curl over https); here what refuses to start.
TEST_F(HttpDoorTest, StartRefusals) {
  TempDir dir;
  const TestCertificates certs = make_test_certificates(dir, "qmtest http CA");
  open();  // its port is taken

  write_file(dir.file("garbage.pem"), "-----BEGIN CERTIFICATE-----\nnot base64\n-----END CERTIFICATE-----\n");
  const std::string together = "HTTP_TLS_CERT and HTTP_TLS_KEY must be set together; refusing to start";
  struct {
    qm::opt_string cert, key;
    int port;
    std::string log;
  } const rows[] = {
      {certs.cert_file, std::nullopt, 0, together},
      {std::nullopt, certs.key_file, 0, together},
      {dir.file("absent.pem"), certs.key_file, 0, "cannot open " + dir.file("absent.pem")},
      {certs.cert_file, dir.path().string(), 0, "http_frontend: could not load TLS cert or key"},
      {dir.file("garbage.pem"), certs.key_file, 0, "(tls=yes) — port in use? cert/key malformed?"},
      {std::nullopt, std::nullopt, door_->port(), "(tls=no) — port in use? cert/key malformed?"},
      {std::nullopt, std::nullopt, 70000, "MHD_start_daemon failed on port 70000 (tls=no)"},
  };
  const gw_config_t relay_cfg = env_.relay_config();
  relay_ptr relay(gw_nats_relay_create(&relay_cfg));
  qm::c_ptr<gw_credential_store_t, gw_credential_store_free> creds(
      gw_credential_store_load(env_.callout().credentials_path().c_str()));
  for (const auto& row : rows) {
    gw_config_t cfg;
    cfg.http_tls_cert = row.cert;
    cfg.http_tls_key = row.key;
    cfg.http_listen_port = row.port;
    qm::c_ptr<gw_http_frontend_t, gw_http_frontend_destroy> fe(
        gw_http_frontend_create(&cfg, creds.get(), relay.get(), nullptr, nullptr));
    EXPECT_EQ(gw_http_frontend_start(fe.get()), -1) << row.log;
    EXPECT_LOGGED(log_, row.log);
  }
  EXPECT_EQ(gw_http_frontend_create(&relay_cfg, nullptr, relay.get(), nullptr, nullptr), nullptr);
}

TEST_F(HttpDoorTest, QuiesceRefusesNewConnectionsAndAnswersTheOneInFlight) {
  open();
  auto slow = as(kLocal, kLocalPassword, [](HttpRequest& r) { r.fields = {{"request", R"({"delay_ms":1000})"}}; });
  auto in_flight = std::async(std::launch::async, [&] { return http_send(slow); });
  ASSERT_TRUE(log_.wait_for("http_frontend: relay user=local-user", 10s));
  EXPECT_TRUE(gw_http_frontend_listening(door_->frontend()));
  gw_http_frontend_stop_accepting(door_->frontend());
  EXPECT_FALSE(gw_http_frontend_listening(door_->frontend()));
  EXPECT_EQ(http_send(as(kLocal, kLocalPassword)).curl, CURLE_COULDNT_CONNECT);
  EXPECT_EQ(gw_http_frontend_inflight(door_->frontend()), 1u);  // what an update's drain waits for
  EXPECT_EQ(in_flight.get().status, 200);
  EXPECT_TRUE(wait_until([&] { return gw_http_frontend_inflight(door_->frontend()) == 0; }, 10s));
  EXPECT_LOGGED(log_, "stopped accepting new connections — in-flight requests still draining");
  EXPECT_NOT_LOGGED(log_, "[MHD]");

  gw_http_frontend_stop(door_->frontend());
  ASSERT_EQ(gw_http_frontend_start(door_->frontend()), 0);
  ASSERT_EQ(gw_http_frontend_start(door_->frontend()), 0);  // already running
  EXPECT_TRUE(gw_http_frontend_listening(door_->frontend()));
  EXPECT_EQ(status_of(kLocal, kLocalPassword), 200);
  EXPECT_LOGGED(log_, "http_frontend: stopped");
}

// A client that says nothing is closed when silent for the inactivity time-out; one that
// trickles its headers is never silent, and is closed at the header deadline instead.
TEST_F(HttpDoorTest, SilenceAndSlowHeadersCloseAConnectionLongScansAreNotCut) {
  open([](gw_config_t& cfg) {
    cfg.http_inactivity_timeout_seconds = 1;
    cfg.http_header_timeout_ms = 1200;
  });
  ASSERT_EQ(status_of(kLocal, kLocalPassword), 200);
  const int threads = thread_count();
  RawClient silent(door_->port());
  const auto started = std::chrono::steady_clock::now();  // before the door can have taken `slow`
  RawClient slow(door_->port());
  // 32 bytes take 8 s at its pace: more than the deadline set here, less than the default.
  const std::string head = "POST /vsi HTTP/1.1\r\nX-Pad: " + std::string(5, 'p');
  for (size_t i = 0; i < head.size() && !slow.closed() && slow.send(head.substr(i, 1)); ++i) {
    EXPECT_EQ(status_of(kLocal, kLocalPassword), 200);  // everyone else is served meanwhile
    slow.read(250ms);  // the client's pace: a byte every quarter second, unless the door closes first
  }
  EXPECT_TRUE(slow.closed());
  EXPECT_GE(std::chrono::steady_clock::now() - started, 1200ms);
  EXPECT_TRUE(log_.contains("closing a connection whose request headers were not complete within 1200 ms"));
  silent.read(15s);
  EXPECT_TRUE(silent.closed());
  // A scan outlasting both limits is not cut.
  const auto long_scan = [](HttpRequest& r) { r.fields = {{"request", R"({"delay_ms":2000})"}}; };
  EXPECT_EQ(http_send(as(kLocal, kLocalPassword, long_scan)).status, 200);
  EXPECT_TRUE(wait_until([&] { return thread_count() <= threads; }, 10s)) << thread_count() << " > " << threads;
}

// Connections beyond a limit are closed as they come, and the door serves again once
// the held ones are gone.
TEST_F(HttpDoorTest, ConnectionLimitsRefuseTheExtraConnectionAndServeTheRest) {
  struct {
    const char* what;
    int in_all, per_address;
  } const rows[] = {{"per address", 64, 2}, {"in all", 2, 64}};
  for (const auto& row : rows) {
    door_.reset();
    open([&](gw_config_t& cfg) {
      cfg.http_max_connections = row.in_all;
      cfg.http_max_connections_per_ip = row.per_address;
    });
    {
      RawClient first(door_->port()), second(door_->port());
      RawClient extra(door_->port());
      EXPECT_EQ(extra.read(10s), "") << row.what;
      EXPECT_TRUE(extra.closed()) << row.what;
      EXPECT_NE(status_of(kLocal, kLocalPassword), 200) << row.what;
    }
    EXPECT_TRUE(wait_until([&] { return status_of(kLocal, kLocalPassword) == 200; }, 10s)) << row.what;
  }
}

// The budget admits what fits, refuses the rest with 503 and Retry-After after a short
// wait, and the uploads it admitted complete and give their share back.
TEST_F(HttpDoorTest, BudgetRefusesWith503WhileTheUploadsInFlightComplete) {
  // Room for two 1 MiB uploads (about 1.08 MB each: body, parser buffer, reply) and not
  // for a small request besides (about 82 KB).
  qm::c_ptr<gw_inflight_budget, gw_inflight_budget_destroy> budget(gw_inflight_budget_create(2300000));
  open([&](gw_config_t& cfg) { cfg.inflight_budget = budget.get(); });
  const std::string payload = test_payload(1048576);
  const HttpRequest slow = as(kLocal, kLocalPassword, [&](HttpRequest& r) {
    r.fields = {{"request", R"({"delay_ms":2500})"}, {"payload", payload}};
  });
  auto first = std::async(std::launch::async, [&] { return http_send(slow); });
  auto second = std::async(std::launch::async, [&] { return http_send(slow); });
  ASSERT_TRUE(log_.wait_for("http_frontend: relay user=local-user", 20s, 2));
  const HttpResponse refused = http_send(as(kLocal, kLocalPassword));
  EXPECT_EQ(refused.status, 503);
  EXPECT_EQ(refused.body, "busy, retry later\n");
  EXPECT_EQ(refused.retry_after, "1");
  for (auto* upload : {&first, &second}) {
    const HttpResponse done = upload->get();
    EXPECT_EQ(done.status, 200);
    EXPECT_EQ(json_member(done.body, "sha256"), sha256_hex(payload));
  }
  EXPECT_TRUE(wait_until([&] { return gw_inflight_budget_in_use(budget.get()) == 0; }, 10s));
  EXPECT_EQ(status_of(kLocal, kLocalPassword), 200);
  door_.reset();  // the budget outlives the door
}

TEST_F(HttpDoorTest, BadInputIsAnsweredOrClosedAndLeavesNothingBehind) {
  constexpr size_t kCap = 1048576;
  open([](gw_config_t& cfg) { cfg.max_msg_size_bytes = kCap; });
  ASSERT_EQ(status_of(kLocal, kLocalPassword), 200);
  const int threads = thread_count();
  const std::string basic = "bG9jYWwtdXNlcjpsb2NhbC1zZWNyZXQ=";  // local-user:local-secret
  auto raw = [&](const std::string& body, const std::string& boundary, const std::string& credentials = "") {
    const std::string length = "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return multipart_headers(credentials.empty() ? basic : credentials, boundary, length) + body;
  };
  auto part = [](const std::string& boundary, const char* name, const std::string& value) {
    return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
  };
  const std::string b70(70, 'b');
  // "local-user:local-secret\0junk": cut at the NUL, the password would be right.
  const std::string nul_in_password = "bG9jYWwtdXNlcjpsb2NhbC1zZWNyZXQAanVuaw==";
  struct {
    const char* what;
    std::string bytes;
    const char* answer;  // the start of the status line; "" when a close is enough
  } const rows[] = {
      {"body ends inside a part", raw(part("QmB", "request", "{}").substr(0, 60), "QmB"), "HTTP/1.1 400"},
      {"70-character boundary", raw(part(b70, "request", "{}") + "--" + b70 + "--\r\n", b70), "HTTP/1.1 200"},
      {"binary garbage as multipart", raw(test_payload(100000), "QmB"), "HTTP/1.1 400"},
      {"64 KiB header block", "POST /vsi HTTP/1.1\r\nX-Big: " + std::string(65536, 'h') + "\r\n\r\n", "HTTP/1.1 4"},
      {"binary garbage instead of HTTP", test_payload(4096), ""},
      {"a NUL byte after the right password", raw(part("QmB", "request", "{}") + "--QmB--\r\n", "QmB", nul_in_password),
       "HTTP/1.1 401"},
      // libmicrohttpd's parser finds no part behind a one-character boundary: said so.
      {"payload over the cap, two chunks staged by then",
       raw(part("QmB", "request", "{}") + part("QmB", "payload", test_payload(kCap + kCap / 2)) + "--QmB--\r\n", "QmB"),
       "HTTP/1.1 413"},
      {"one-character boundary", raw(part("Q", "request", "{}") + "--Q--\r\n", "Q"), "HTTP/1.1 400"},
      // Headers alone
      {"Content-Length 2^63", multipart_headers(basic, "QmB", "Content-Length: 9223372036854775808\r\n"),
       "HTTP/1.1 413"},
      {"Content-Length 2^63, no credentials: credentials first",
       multipart_headers("", "QmB", "Content-Length: 9223372036854775808\r\n"), "HTTP/1.1 401"},
      {"Transfer-Encoding gzip, chunked", multipart_headers(basic, "QmB", "Transfer-Encoding: gzip, chunked\r\n"),
       "HTTP/1.1 501"},
  };
  RawClient(door_->port()).send(raw(part("QmB", "request", "{}"), "QmB").substr(0, 200));  // then gone
  {  // gone in the middle of the payload's second chunk, the first one staged
    RawClient cut(door_->port());
    const std::string upload = raw(part("QmB", "request", "{}") + part("QmB", "payload", test_payload(kCap)), "QmB");
    cut.send(upload.substr(0, upload.size() - kCap / 4));
  }
  for (const auto& row : rows) {
    RawClient client(door_->port());
    client.send(row.bytes);
    const std::string answer = client.read(30s);
    EXPECT_TRUE(client.closed()) << row.what;
    EXPECT_EQ(answer.substr(0, strlen(row.answer)), row.answer) << row.what << ": " << answer.substr(0, 100);
  }
  EXPECT_EQ(status_of(kLocal, kLocalPassword), 200);
  EXPECT_TRUE(wait_until([&] { return thread_count() <= threads; }, 10s)) << thread_count() << " > " << threads;
  const gw_config_t gateway = env_.relay_config();
  const NatsLogin reader = nats_login(env_.nats_url(), *gateway.nats_user, *gateway.nats_password);
  std::vector<std::string> staged;
  EXPECT_TRUE(wait_until([&] { return (staged = scan_data_keys(reader.conn)).empty(); }, 10s)) << staged.front();
}

}  // namespace
