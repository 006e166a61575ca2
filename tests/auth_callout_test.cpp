// Logins to a real nats-server decided by the broker's auth callout, and the verify
// endpoint, end to end: real nats-server, real broker binary, real NATS clients.
#include "test_prelude.hpp"

#include "auth_jwt.hpp"
#include "admin_client.hpp"
#include "callout_fixture.hpp"
#include "slapd_fixture.hpp"

namespace {

// True when a message published by `from` on subject reaches a subscriber on `to`.
bool delivered(natsConnection* from, natsConnection* to, const std::string& subject, int wait_ms = 2000) {
  natsSubscription* sub = nullptr;
  if (natsConnection_SubscribeSync(&sub, to, subject.c_str()) != NATS_OK) return false;
  natsConnection_Flush(to);
  natsConnection_PublishString(from, subject.c_str(), "probe");
  natsConnection_Flush(from);
  natsMsg* msg = nullptr;
  const bool got = natsSubscription_NextMsg(&msg, sub, wait_ms) == NATS_OK;
  natsMsg_Destroy(msg);
  natsSubscription_Destroy(sub);
  return got;
}

CalloutOptions file_users() {
  CalloutOptions options;
  options.users = {{"alice", "wonder"}, {"bob", "builder"}};
  return options;
}

// alice is mapped to a profile the server enforces; bob, unmapped, gets the built-in
// profile that allows everything.
TEST(CalloutVerdicts, FileUsersRefusalsTheCacheAndProfiles) {
  CalloutOptions options = file_users();
  options.users.emplace_back("carl.os", "dotted");
  options.sealed = true;
  options.permissions_json = R"j({
    "profiles": {
      "scanner": {"publish": {"allow": ["scan.>"], "deny": ["scan.secret"]},
                  "subscribe": {"allow": ["_INBOX.>", "scan.>"]}},
      "own": {"subscribe": {"allow": ["_INBOX.{user}.>"]}}
    },
    "file_user_map": [{"user": "alice", "profile": "scanner"}, {"user": "carl.os", "profile": "own"}]
  })j";
  const int admin_port = free_port();
  options.broker_args = admin_args(admin_port);
  CalloutEnv env(options);
  const std::string before = scrape(admin_port);
  {
    SCOPED_TRACE("a name that would widen a templated grant is refused");
    EXPECT_NE(nats_login(env.url(), "carl.os", "dotted").status, NATS_OK);
    EXPECT_TRUE(env.broker().wait_for_err(
        "auth_callout: DENY user=carl.os profile=own reason=user-name-unfit-for-templated-grant", 5s));
  }
  {
    SCOPED_TRACE("an empty password");
    // The client library leaves an empty password out of its CONNECT, so the request
    // arrives without one: refused as malformed (an error in the metrics), never looked up.
    for (int i = 0; i < 2; ++i) EXPECT_NE(nats_login(env.url(), "alice", "").status, NATS_OK);
  }
  {
    SCOPED_TRACE("refusals are live checks every time and hold nothing against the right password");
    for (const char* user : {"alice", "alice", "mallory"}) {
      auto refused = nats_login(env.url(), user, user == std::string("mallory") ? "wonder" : "nope");
      EXPECT_NE(refused.status, NATS_OK);
      EXPECT_NE(refused.error.find("Authorization Violation"), std::string::npos) << refused.error;
    }
    for (int i = 0; i < 2; ++i) EXPECT_EQ(nats_login(env.url(), "alice", "wonder").status, NATS_OK);
    const std::string log = env.broker().err();
    // Ready only once nats-server routes logins to the service.
    EXPECT_LT(log.find("(generic verify endpoint)"), log.find("qm-av-broker ready"));
    EXPECT_LOGGED(log, "auth_callout: DENY user=mallory backend=none reason=invalid-credentials");
    EXPECT_LOGGED(log, "auth_callout: GRANT user=alice backend=file profile=scanner groups=0");
    // The server seals every request to the broker's xkey, and opens the sealed answers.
    EXPECT_LOGGED(log, "sealed=yes");
    EXPECT_NOT_LOGGED(log, "sealed=no");
    EXPECT_TRUE(env.broker().wait_for_err("auth_callout: GRANT user=alice via=cache profile=scanner", 5s));
  }
  {
    SCOPED_TRACE("each verdict counted once, the malformed ones as errors; only the second grant came from the cache");
    const std::string after = scrape(admin_port);
    const auto moved = [&](const std::string& sample) { return metric_delta(before, after, sample); };
    EXPECT_EQ(moved(R"(qm_av_broker_auth_requests_total{source="callout",verdict="error"})"), 2);
    // carl.os's refused templated grant is a deny too
    EXPECT_EQ(moved(R"(qm_av_broker_auth_requests_total{source="callout",verdict="deny"})"), 4);
    EXPECT_EQ(moved(R"(qm_av_broker_auth_requests_total{source="callout",verdict="grant"})"), 2);
    EXPECT_EQ(moved(R"(qm_av_broker_auth_request_duration_seconds_count{source="callout"})"), 8);
    EXPECT_EQ(moved(R"(qm_av_broker_auth_cache_lookups_total{result="hit"})"), 1);
    EXPECT_EQ(moved(R"(qm_av_broker_auth_cache_lookups_total{result="miss"})"), 5);
    EXPECT_EQ(moved(R"(qm_av_broker_auth_cache_lookups_total{result="negative"})"), 0);
  }
  {
    SCOPED_TRACE("the server enforces the profile");
    AsyncErrors errors;
    auto alice = nats_login(env.url(), "alice", "wonder", 5000, &errors);
    auto bob = nats_login(env.url(), "bob", "builder", 5000, &errors);
    ASSERT_TRUE(alice.conn && bob.conn);
    EXPECT_TRUE(delivered(alice.conn, bob.conn, "scan.request"));
    EXPECT_FALSE(delivered(alice.conn, bob.conn, "forbidden.subject", 300));
    EXPECT_FALSE(delivered(alice.conn, bob.conn, "scan.secret", 300));
    ASSERT_TRUE(
        wait_until([&] { return LogCapture::count_in(errors.text(), "Permissions Violation") >= 2; }, 5s));
    EXPECT_NE(errors.text().find("Permissions Violation for Publish to \"forbidden.subject\""), std::string::npos)
        << errors.text();
    // bob publishes and subscribes anywhere.
    EXPECT_TRUE(delivered(bob.conn, bob.conn, "any.subject.at.all"));
    EXPECT_TRUE(delivered(bob.conn, alice.conn, "scan.reply"));
    EXPECT_EQ(LogCapture::count_in(errors.text(), "Permissions Violation"), 2u) << errors.text();
  }
  {
    SCOPED_TRACE("a verify reply names the profile a door checks the caller's subjects against");
    auto gateway = nats_login(env.url(), CalloutEnv::kGatewayUser, CalloutEnv::kGatewayPassword);
    ASSERT_EQ(gateway.status, NATS_OK) << gateway.error;
    EXPECT_EQ(verify_request(gateway.conn, R"j({"user":"alice","password":"wonder","revalidate":true})j"),
              R"j({"ok":true,"reason":"valid credentials","backend":"file","profile":"scanner"})j");
    EXPECT_EQ(verify_request(gateway.conn, R"j({"user":"bob","password":"builder","revalidate":true})j"),
              R"j({"ok":true,"reason":"valid credentials","backend":"file"})j");
  }
}

// ---- LDAP users ----

std::vector<std::string> ldap_args(const std::string& url) {
  return {"--auth-backend", "file+ldap", "--ldap-url", url, "--ldap-base-dn", "dc=qm,dc=test", "--ldap-bind-dn",
          kReaderDn, "--ldap-bind-password", "reader-secret", "--ldap-group-attribute", "memberOf"};
}

// Asks `body` twice at once while the directory is held: the second asker waits for the
// first one's verdict instead of checking again. The two answers, sorted.
std::vector<std::string> concurrent_verifies(CalloutEnv& env, Slapd& directory, const std::string& body) {
  auto gateway = nats_login(env.url(), CalloutEnv::kGatewayUser, CalloutEnv::kGatewayPassword);
  if (gateway.status != NATS_OK) return {};
  const size_t seen = LogCapture::count_in(env.broker().err(), "auth_verify: request user=leo");
  directory.pause();
  std::vector<std::string> answers(2);
  std::vector<std::thread> askers;
  bool both_asked = true;
  for (size_t i = 0; i < 2; ++i) {
    askers.emplace_back([&, i] { answers[i] = verify_request(gateway.conn, body, 60'000); });
    both_asked = both_asked && wait_until(
        [&] { return LogCapture::count_in(env.broker().err(), "auth_verify: request user=leo") >= seen + i + 1; },
        30s);
  }
  directory.resume();
  for (auto& t : askers) t.join();
  if (!both_asked) return {"the broker did not see both requests while the directory was held"};
  std::sort(answers.begin(), answers.end());
  return answers;
}

// One directory and one broker, in the order the checks need: lara's first logins
// coalesce (nothing cached yet) and both get her group's profile; leo is never cached
// for the verify coalescing; the directory stops last.
TEST(CalloutLdap, DirectoryUsersGroupsCoalescingAndAStoppedDirectory) {
  auto directory = start_directory();
  CalloutOptions options = file_users();
  options.users.emplace_back("carol", "chisel");  // a file user first seen while the workers wait
  options.broker_args = ldap_args(directory->url());
  const int admin_port = free_port();
  for (const std::string& arg : admin_args(admin_port)) options.broker_args.push_back(arg);
  options.permissions_json =
      R"j({"profiles": {"scanner": {"publish": {"allow": ["scan.>"]},
                                    "subscribe": {"allow": ["_INBOX.>", "scan.>"]}}},
           "ldap_group_map": [{"group_dn": "cn=scanners,ou=groups,dc=qm,dc=test", "profile": "scanner"}]})j";
  CalloutEnv env(options);
  // Settles the service's connections, then holds the directory so both checks overlap.
  ASSERT_EQ(nats_login(env.url(), "bob", "builder").status, NATS_OK);
  EXPECT_TRUE(wait_until([&] { return admin_get(admin_port, "/readyz").status == 200; }, 10s));
  {
    SCOPED_TRACE("two concurrent logins of one user make one live check");
    directory->pause();
    std::atomic<int> admitted{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 2; ++i)
      clients.emplace_back([&] { admitted += nats_login(env.url(), "lara", "lara-pw").status == NATS_OK; });
    const bool both_waiting = wait_until(
        [&] { return LogCapture::count_in(env.broker().err(), "auth_callout: request user=lara") >= 2; }, 1500ms);
    directory->resume();
    for (auto& t : clients) t.join();
    ASSERT_TRUE(both_waiting) << env.broker().err();
    EXPECT_EQ(admitted, 2);
    const std::string log = env.broker().err();
    EXPECT_EQ(LogCapture::count_in(log, "auth_callout: GRANT user=lara backend=ldap profile=scanner groups=1"), 1u)
        << log;
    EXPECT_EQ(LogCapture::count_in(log, "auth_callout: GRANT user=lara via=coalesced profile=scanner"), 1u) << log;
  }
  {
    SCOPED_TRACE("concurrent identical verify requests share one verdict");
    EXPECT_EQ(concurrent_verifies(env, *directory, R"j({"user":"leo","password":"leo-pw","method":"plain"})j"),
              (std::vector<std::string>{
                  R"j({"ok":true,"reason":"valid credentials (coalesced)","backend":"coalesced"})j",
                  R"j({"ok":true,"reason":"valid credentials","backend":"ldap"})j"}));
    EXPECT_EQ(concurrent_verifies(env, *directory, R"j({"user":"leo","password":"bad","method":"plain"})j"),
              (std::vector<std::string>{
                  R"j({"ok":false,"reason":"invalid credentials (coalesced)","backend":"coalesced-neg"})j",
                  R"j({"ok":false,"reason":"invalid credentials","backend":"none"})j"}));
  }
  {
    // Every request worker waits on a stopped directory (nats-server gives the callout
    // 2 s); users of the credentials file are still decided at once, logins and verifies.
    SCOPED_TRACE("file users get in while every request worker waits for a stopped directory");
    auto gateway = nats_login(env.url(), CalloutEnv::kGatewayUser, CalloutEnv::kGatewayPassword);
    ASSERT_EQ(gateway.status, NATS_OK) << gateway.error;
    directory->pause();
    // More directory checks than there are workers (8), none alike, so none coalesces.
    for (int i = 0; i < 12; ++i) {
      const std::string body = R"j({"user":"lara","password":"guess-)j" + std::to_string(i) + R"j("})j";
      natsConnection_PublishRequest(gateway.conn, "qm.auth.verify", "_INBOX.unanswered", body.data(),
                                    static_cast<int>(body.size()));
    }
    natsConnection_Flush(gateway.conn);
    // Only the workers talk to the directory: eight waiting connections mean eight busy workers.
    const bool all_busy =
        wait_until([&] { return directory->connections_with_unread_requests() >= 8; }, 10s);
    auto alice = nats_login(env.url(), "alice", "wonder");
    const std::string carol = verify_request(gateway.conn, R"j({"user":"carol","password":"chisel"})j", 1500);
    directory->resume();
    ASSERT_TRUE(all_busy) << env.broker().err();
    EXPECT_EQ(alice.status, NATS_OK) << alice.error;
    EXPECT_EQ(carol, R"j({"ok":true,"reason":"valid credentials","backend":"file"})j");
  }
  {
    SCOPED_TRACE("with the directory down file users still get in");
    directory->stop();
    EXPECT_EQ(nats_login(env.url(), "alice", "wonder").status, NATS_OK);
    // leo's right password is cached (by the verify answers above); another one is checked live.
    EXPECT_NE(nats_login(env.url(), "leo", "leo-guess").status, NATS_OK);
    // The login may be refused (nats-server's callout wait) before the live check ends.
    HttpResponse ready;
    EXPECT_TRUE(wait_until([&] { return (ready = admin_get(admin_port, "/readyz")).status == 503; }, 10s));
    EXPECT_NE(ready.body.find(R"("ldap":{"ready":false,"state":"unreachable"})"), std::string::npos) << ready.body;
  }
}

// A broker for the file users, beside a server that runs no callout of its own.
std::vector<std::string> plain_broker_args(const NatsServer& server, const TempDir& dir) {
  write_file(dir.file("credentials.conf"), CalloutEnv::credentials_text(file_users().users));
  return {broker_binary(), "--nats-url", server.url(), "--nats-server-managed", "false",
          "--auth-file", dir.file("credentials.conf"), "--auth-signing-key", dir.file("issuer.seed"),
          "--amqp-enabled", "false", "--update-binary", "false"};
}

// Without its credentials or its adjudicator the broker is of no use: a start-up failure
// of either ends the broker with exit code 1, before it ever says it is ready.
TEST(CalloutStartup, MissingCredentialsOrAServiceThatCannotStartIsFatal) {
  struct failure {
    const char* name;
    std::vector<std::string> args;
    std::string logged;
    std::string stage;
  };
  TempDir dir;
  std::filesystem::create_directory(dir.file("key-dir"));
  write_file(dir.file("bad.json"), "{\"profiles\": [");
  const std::string missing = dir.file("missing.conf");
  const std::string service = "Failed to start auth-callout thread";
  const failure failures[] = {
      {"missing credentials file", {"--auth-file", missing},
       "credential_store: cannot open " + missing + ": No such file or directory",
       "Failed to load credentials from " + missing},
      {"LDAP-only without a directory", {"--auth-backend", "ldap"}, "auth_service: failed to initialize LDAP backend",
       service},
      {"LDAP-only, named in capitals", {"--auth-backend", "LDAP"}, "auth_service: failed to initialize LDAP backend",
       service},
      {"broken permissions file", {"--permissions-file", dir.file("bad.json")},
       "auth_profile: " + dir.file("bad.json") + " parse failed", "Failed to load permissions file " + dir.file("bad.json")},
      {"unreadable signing key", {"--auth-signing-key", dir.file("key-dir")},
       "auth_service: failed to initialize JWT signing", service},
  };
  NatsServer server;
  for (const failure& f : failures) {
    SCOPED_TRACE(f.name);
    std::vector<std::string> args = plain_broker_args(server, dir);
    args.insert(args.end(), f.args.begin(), f.args.end());
    Child broker(args);
    ASSERT_EQ(broker.wait(30s), 1) << broker.err();
    const std::string log = broker.err();
    EXPECT_LOGGED(log, f.logged);
    EXPECT_LOGGED(log, f.stage);
    EXPECT_NOT_LOGGED(log, "qm-av-broker ready");
  }
}

// --print-issuer-nkey makes the seed once and prints the same account key every time.
TEST(CalloutStartup, PrintIssuerNkeyCreatesTheSeedOnceAndPrintsAStableAccountKey) {
  TempDir dir;
  std::string first;
  for (int run = 0; run < 2; ++run) {
    Child broker({broker_binary(), "--print-issuer-nkey", "--auth-signing-key", dir.file("seed")});
    ASSERT_EQ(broker.wait(30s), 0) << broker.err();
    const std::string out = broker.out();
    ASSERT_EQ(out.size(), 57u) << out;
    EXPECT_EQ(out[0], 'A');
    if (run == 0) first = out;
    EXPECT_EQ(out, first);
  }
}

// ---- the verify endpoint, and hostile strings from clients ----

TEST(VerifyEndpoint, VerdictsMalformedRequestsAndHostileStrings) {
  CalloutEnv env(file_users());
  auto gateway = nats_login(env.url(), CalloutEnv::kGatewayUser, CalloutEnv::kGatewayPassword);
  ASSERT_EQ(gateway.status, NATS_OK) << gateway.error;
  auto ask = [&](const std::string& body) { return verify_request(gateway.conn, body); };
  const std::string refused = R"j({"ok":false,"reason":"invalid credentials","backend":"none"})j";
  {
    SCOPED_TRACE("live, cached and revalidated verdicts");
    EXPECT_EQ(ask(R"j({"user":"alice","password":"wonder","method":"plain"})j"),
              R"j({"ok":true,"reason":"valid credentials","backend":"file"})j");
    EXPECT_EQ(ask(R"j({"user":"alice","password":"wonder","method":"plain"})j"),
              R"j({"ok":true,"reason":"valid credentials (cached)","backend":"cache"})j");
    EXPECT_EQ(ask(R"j({"user":"alice","password":"wonder","revalidate":true})j"),
              R"j({"ok":true,"reason":"valid credentials","backend":"file"})j");
    EXPECT_EQ(ask(R"j({"user":"alice","password":"bad","method":"basic"})j"), refused);
  }
  {
    SCOPED_TRACE("malformed requests are answered, and one without a reply subject is dropped");
    const std::string missing = R"j({"ok":false,"reason":"missing user or password","backend":"none"})j";
    for (const char* body : {"", "{}", "not json", R"j({"user":"alice"})j", R"j({"password":"wonder"})j",
                             R"j({"user":7,"password":"wonder"})j", "[1,2,3]",
                             R"j({"user":"alice","password":null})j"})
      EXPECT_EQ(ask(body), missing) << body;
    EXPECT_LOGGED(env.broker().err(), "auth_verify: malformed request (user=alice password=(absent) method=(absent))");
    natsConnection_PublishString(gateway.conn, "qm.auth.verify", R"j({"user":"bob","password":"builder"})j");
    EXPECT_TRUE(env.broker().wait_for_err("auth_verify: message on qm.auth.verify has no reply-to", 5s));
    EXPECT_EQ(ask(R"j({"user":"bob","password":"builder"})j"),
              R"j({"ok":true,"reason":"valid credentials","backend":"file"})j");
  }
  {
    // A NUL byte ends a C string: "wonder\0junk" must never be checked as "wonder", neither
    // live nor against the grant the cache holds for the right password.
    SCOPED_TRACE("a NUL byte in user or password is refused, not cut short");
    EXPECT_EQ(raw_login(env.url(), R"j({"user":"alice","pass":"wonder","verbose":false})j"), "PONG");
    for (const char* connect : {R"j({"user":"alice","pass":"wonder\u0000junk","verbose":false})j",
                                R"j({"user":"alice\u0000junk","pass":"wonder","verbose":false})j"}) {
      EXPECT_EQ(raw_login(env.url(), connect), "-ERR 'Authorization Violation'") << connect;
    }
    EXPECT_EQ(ask(R"j({"user":"bob","password":"builder\u0000junk"})j"), refused);
    EXPECT_EQ(ask(R"j({"user":"alice","password":"wonder\u0000"})j"), refused);  // alice/wonder is cached
    EXPECT_EQ(ask(R"j({"user":"alice\u0000","password":"wonder"})j"), refused);
    EXPECT_LOGGED(env.broker().err(), "auth_verify: DENY user='alice\\x00' backend=none");
  }
  {
    // A client's user name reaches the log escaped and capped: a line feed in it cannot
    // make a line of its own, and a huge name cannot make a huge line.
    SCOPED_TRACE("client strings cannot forge or flood log lines");
    const std::string forged = "[2030-01-01 00:00:00.000] INFO  forged line";
    EXPECT_EQ(raw_login(env.url(), R"j({"user":"mallory\n)j" + forged + R"j(","pass":"x"})j"),
              "-ERR 'Authorization Violation'");
    EXPECT_EQ(ask(R"j({"user":"eve\r\n)j" + forged + R"j(","password":"x","method":"plain\u001b[31m"})j"), refused);
    EXPECT_EQ(ask(R"j({"user":")j" + std::string(1000000, 'u') + R"j(","password":"x"})j"), refused);
    const std::string log = env.broker().err();
    EXPECT_LOGGED(log, "auth_callout: DENY user=mallory\\n" + forged + " backend=none");
    EXPECT_LOGGED(log, "auth_verify: DENY user='eve\\r\\n" + forged + "' backend=none method=plain\\x1b[31m");
    EXPECT_LOGGED(log, "uuu...(1000000 bytes)' backend=none");
    EXPECT_NOT_LOGGED(log, "\n" + forged);
    size_t longest = 0;
    for (size_t from = 0, end; (end = log.find('\n', from)) != std::string::npos; from = end + 1)
      longest = std::max(longest, end - from);
    EXPECT_LT(longest, 1000u);
  }
}

// ---- malformed callout requests, sent straight to the callout subject ----

std::string refusal_reason(const std::string& token) {
  json_object* claims = decode_jwt_payload(token.c_str());
  json_object* nats = nullptr;
  json_object* error = nullptr;
  std::string reason = "(no refusal)";
  if (claims && json_object_object_get_ex(claims, "nats", &nats) && json_object_object_get_ex(nats, "error", &error))
    reason = json_object_get_string(error);
  json_object_put(claims);
  return reason;
}

std::string unsigned_request(const std::string& claims_json) {
  auto b64 = [](const std::string& text) {
    return base64url_encode(reinterpret_cast<const unsigned char*>(text.data()), text.size());
  };
  return b64(R"j({"typ":"JWT","alg":"ed25519-nkey"})j") + "." + b64(claims_json) + ".sig";
}

// nats-server keeps clients off the callout subject once it runs a callout itself, so
// raw requests go to a broker that serves a plain server (no authorization at all). It
// runs file+ldap without a directory URL: the LDAP tier cannot be set up at all, and the
// file users are decided alone. (Cache settings ride along: without grants the refresh
// threshold goes in as 0; a non-positive size means 1,024.)
TEST(CalloutRequests, MalformedRequestsAreRefusedOrIgnoredNeverCrashAndADegradedStartDecidesFileUsers) {
  NatsServer server;
  TempDir dir;
  std::vector<std::string> args = plain_broker_args(server, dir);
  args.insert(args.end(), {"--auth-backend", "file+ldap", "--ldap-base-dn", "dc=qm,dc=test",
                           "--auth-cache-ttl-seconds", "0", "--auth-cache-max-entries", "-4"});
  Child broker(args);
  ASSERT_TRUE(broker.wait_for_err("(generic verify endpoint)", 30s)) << broker.err();
  EXPECT_LOGGED(broker.err(), "auth_service: LDAP backend init failed \u2014 running in degraded file-only mode.");
  EXPECT_LOGGED(broker.err(), "auth_cache: enabled (capacity=1024, grant_ttl=0s, deny_ttl=10s, refresh_threshold=0%");
  auto client = nats_login(server.url(), "", "");
  ASSERT_EQ(client.status, NATS_OK) << client.error;
  auto callout_reply = [&](const std::string& request) {
    return qmtest::request(client.conn, "$SYS.REQ.USER.AUTH", request, 1000);
  };
  EXPECT_EQ(callout_reply(""), "");  // no data: no answer at all
  const char* const malformed = "malformed auth request";
  const std::pair<std::string, const char*> rows[] = {
      // Tokens that do not decode, decode to no object or hold no "nats" are the fuzz target's seeds.
      {unsigned_request(R"j({"nats":{"server_id":{"id":"S1"},"user_nkey":"UABC","connect_opts":{"user":"alice"}}})j"),
       malformed},
      {unsigned_request(R"j({"nats":{"connect_opts":{"user":"alice","pass":123}}})j"), malformed},
      {unsigned_request(R"j({"nats":{"connect_opts":{"user":"alice","pass":"nope"}}})j"), "invalid credentials"},
      {unsigned_request("{\"nats\":{\"connect_opts\":{\"user\":\"" + std::string(300000, 'u') + "\",\"pass\":\"x\"}}}"),
       "invalid credentials"},
  };
  for (const auto& [request, reason] : rows)
    EXPECT_EQ(refusal_reason(callout_reply(request)), reason) << request.substr(0, 100);
  // A proper grant still comes back after all that.
  const std::string grant = callout_reply(unsigned_request(
      R"j({"nats":{"server_id":{"id":"S1"},"user_nkey":"UABC","connect_opts":{"user":"alice","pass":"wonder"}}})j"));
  EXPECT_EQ(refusal_reason(grant), "(no refusal)");
  EXPECT_NE(grant, "");
  EXPECT_TRUE(broker.running());
  EXPECT_EQ(LogCapture::count_in(broker.err(), "auth_callout: malformed auth request"), 2u);
  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0);
}

// ---- the broker around the service ----

// A file replaced by a rename is noticed and reloaded, and the SIGHUP that reloads it
// reaches the managed nats-server: a user taken out of the file, or given a new password,
// is refused from the reload on, though the cache still held a grant for the old password.
TEST(CalloutBroker, AReplacedOrReloadedFileOverridesGrantsTheCacheHeld) {
  CalloutOptions options = file_users();
  options.managed = true;
  CalloutEnv env(options);
  for (int i = 0; i < 2; ++i) ASSERT_EQ(nats_login(env.url(), "alice", "wonder").status, NATS_OK);
  ASSERT_EQ(nats_login(env.url(), "bob", "builder").status, NATS_OK);
  ASSERT_TRUE(env.broker().wait_for_err("auth_callout: GRANT user=alice via=cache", 5s));
  EXPECT_NE(nats_login(env.url(), "carol", "fresh").status, NATS_OK);
  const std::string next = env.credentials_path() + ".new";
  write_file(next, CalloutEnv::credentials_text({{"bob", "rebuilt"}, {"dave", "new"}, {"carol", "fresh"}}));
  ASSERT_EQ(rename(next.c_str(), env.credentials_path().c_str()), 0);
  ASSERT_TRUE(env.broker().wait_for_err("SIGHUP: dropped 2 cached auth verdict(s)", 15s)) << env.broker().err();
  EXPECT_LOGGED(env.broker().err(), "SIGHUP: reloading credential store + forwarding to nats-server");
  EXPECT_TRUE(wait_until(
      [&] { return env.server_log().find("Reloaded server configuration") != std::string::npos; }, 10s));
  // The server reloads its own configuration meanwhile, which may refuse a login or two
  // on its way: the new passwords must be admitted before the deadline.
  for (const auto& [user, password] : user_list{{"bob", "rebuilt"}, {"carol", "fresh"}})
    EXPECT_TRUE(wait_until([&] { return nats_login(env.url(), user, password).status == NATS_OK; }, 15s)) << user;
  // Refused by the broker's check, not by a server on its way through a reload.
  EXPECT_NE(nats_login(env.url(), "alice", "wonder").status, NATS_OK);
  EXPECT_NE(nats_login(env.url(), "bob", "builder").status, NATS_OK);
  EXPECT_TRUE(env.broker().wait_for_err("auth_callout: DENY user=alice backend=none reason=invalid-credentials", 5s));

  // Without the file the broker keeps the table it has: dave's first login is checked live
  // (while the server reloads again).
  std::filesystem::remove(env.credentials_path());
  env.broker().signal(SIGHUP);
  ASSERT_TRUE(env.broker().wait_for_err(
      "SIGHUP: gw_credential_store_reload failed; continuing with previously-loaded entries", 10s))
      << env.broker().err();
  EXPECT_TRUE(wait_until([&] { return nats_login(env.url(), "dave", "new").status == NATS_OK; }, 15s));
}

// Logins keep arriving while the broker stops, and the child and the broker get SIGTERM at
// once (with the managed server, the server goes first): answers under way finish before
// what they sign and reply with is gone, and the shutdown does not wait for a server that
// is gone. With the managed server the broker runs without a cache (both TTLs 0): every
// login is a live check against the file.
class CalloutShutdown : public ::testing::TestWithParam<bool> {};

TEST_P(CalloutShutdown, SigtermDuringALoginStormDrainsAndExitsWithinAFewSeconds) {
  CalloutOptions options = file_users();
  options.managed = GetParam();
  if (options.managed)
    options.broker_args = {"--auth-cache-ttl-seconds", "0", "--auth-negative-cache-ttl-seconds", "0"};
  CalloutEnv env(options);
  EXPECT_EQ(env.broker().err().find("auth_cache: disabled by config (both TTLs == 0)") != std::string::npos,
            options.managed);
  ASSERT_EQ(nats_login(env.url(), "alice", "wonder").status, NATS_OK);
  std::atomic<bool> stop{false};
  std::atomic<int> admitted{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; ++i) {
    clients.emplace_back([&] {
      while (!stop) {
        if (nats_login(env.url(), "alice", "wonder").status == NATS_OK) ++admitted;
      }
    });
  }
  EXPECT_TRUE(wait_until([&] { return admitted >= 20; }, 10s));  // stop and join the clients regardless
  const auto asked = std::chrono::steady_clock::now();
  env.broker().signal(SIGTERM);
  const std::optional<int> rc = env.broker().wait(30s);
  const auto took = std::chrono::steady_clock::now() - asked;
  stop = true;
  for (auto& client : clients) client.join();
  EXPECT_EQ(rc, 0) << env.broker().err();
  EXPECT_LT(took, 5s) << env.broker().err();
  const std::string log = env.broker().err();
  EXPECT_LOGGED(log, "Stopping auth-callout thread");
  EXPECT_LOGGED(log, "qm-av-broker stopped (rc=0)");
  EXPECT_NOT_LOGGED(log, "not reported complete");
}

INSTANTIATE_TEST_SUITE_P(ExternalAndManagedServer, CalloutShutdown, ::testing::Values(false, true));

}  // namespace
