// KV buckets and work queues provisioned against a real nats-server: what a fresh server
// gets, what an existing one keeps, and how an unready server is retried.
#include "broker_kv_bootstrap.hpp"

#include "test_prelude.hpp"

#include "callout_fixture.hpp"
#include "scan_fixture.hpp"

namespace {

constexpr int64_t kSec = 1000000000;
const char* const kBuckets[] = {"qm-av-scan-data", "qm-av-worker-registry", "qm-av-config",
                                "qm-av-event-subscriptions", "qm-av-wq-dedup"};

std::string ns(int64_t seconds) { return std::to_string(seconds * kSec); }

// A plain client of the test server, for setting up and reading back JetStream objects.
// Configurations are JSON text as the server reports them ("<absent>" when there is none).
class JsClient {
 public:
  explicit JsClient(const std::string& url) : login_(nats_login(url, "", "")) {
    jsCtx* js = nullptr;
    if (login_.conn == nullptr || natsConnection_JetStream(&js, login_.conn, nullptr) != NATS_OK)
      throw std::runtime_error("JetStream client for " + url + ": " + login_.error);
    js_.reset(js);
  }
  jsCtx* js() { return js_.get(); }

  // The reply of a JetStream API request; "" on a time-out.
  std::string api(const std::string& subject, const std::string& body = "") {
    return request(login_.conn, subject, body);
  }
  std::string stream(const std::string& name) { return json_member(api("$JS.API.STREAM.INFO." + name), "config"); }
  std::string consumer(const std::string& stream, const std::string& durable) {
    return json_member(api("$JS.API.CONSUMER.INFO." + stream + "." + durable), "config");
  }
  // Per-message TTL support, told by whether the server keeps allow_msg_ttl in the
  // configuration it echoes (older servers drop it silently).
  bool supports_msg_ttl() {
    const std::string reply =
        api("$JS.API.STREAM.CREATE.TTLPROBE",
            R"({"name":"TTLPROBE","subjects":["ttlprobe.>"],"storage":"memory","allow_msg_ttl":true})");
    api("$JS.API.STREAM.DELETE.TTLPROBE");
    return json_member(json_member(reply, "config"), "allow_msg_ttl") == "true";
  }

 private:
  NatsLogin login_;
  qm::js_ctx_ptr js_;
};

// Warnings other than the one a server without per-message TTL earns on every run.
size_t unexpected_warnings(const LogCapture& log) {
  return log.count("WARN ") - log.count("— scan payloads will use the bucket TTL");
}

// Work queues for `services` with AckWait 35 s, MaxDeliver 3 and the given consumer limits.
broker_workqueue_opts wq_opts(const char* services, int maxwaiting, int maxackpending) {
  broker_workqueue_opts wq;
  wq.work_services = services;
  wq.ackwait_ns = 35 * kSec;
  wq.maxdeliver = 3;
  wq.maxwaiting = maxwaiting;
  wq.maxackpending = maxackpending;
  return wq;
}

// A retry schedule short enough for a test.
broker_kv_bootstrap_timing timing(int budget_ms, int initial_delay_ms, int max_delay_ms = 0, int note_interval_ms = 0) {
  broker_kv_bootstrap_timing t;
  t.budget_ms = budget_ms;
  t.initial_delay_ms = initial_delay_ms;
  if (max_delay_ms > 0) t.max_delay_ms = max_delay_ms;
  if (note_interval_ms > 0) t.note_interval_ms = note_interval_ms;
  return t;
}

// A broken attempt fails the test in seconds instead of retrying for five minutes.
const broker_kv_bootstrap_timing kQuick = timing(3000, 200);

int bootstrap(const NatsServer& server, bool memory, const broker_workqueue_opts* wq,
              bool allow_direct = true, const broker_kv_bootstrap_timing& schedule = kQuick) {
  return broker_kv_bootstrap(server.url().c_str(), nullptr, nullptr, nullptr, 1, allow_direct, memory, wq, nullptr,
                             &schedule);
}

class KvBootstrap : public ::testing::Test {
 protected:
  NatsServer server_;
};

// A fresh server, then the same run again (which binds and changes nothing), then a
// work service with the server's own consumer limits.
TEST_F(KvBootstrap, ProvisionsAFreshServerOnceAndBindsAfterwards) {
  LogCapture log;
  broker_workqueue_opts wq = wq_opts(" svc.a ,\t,b\t, ,,c ", 64, 10);
  wq.stream_maxage_ns = 90 * kSec;
  ASSERT_EQ(bootstrap(server_, false, &wq), 0) << log.text();
  JsClient client(server_.url());
  const std::string ttl = client.supports_msg_ttl() ? "true" : "false";
  const struct {
    const char* name;
    int64_t max_age_sec;
    const char* storage;  // transient storage "file" reaches the scan data only
  } buckets[] = {{"qm-av-scan-data", 120, "file"},
                 {"qm-av-worker-registry", 60, "memory"},
                 {"qm-av-config", 0, "memory"},
                 {"qm-av-event-subscriptions", 120, "memory"},
                 {"qm-av-wq-dedup", 300, "memory"}};
  std::string before;
  for (const auto& b : buckets) {
    SCOPED_TRACE(b.name);
    const std::string cfg = client.stream(std::string("KV_") + b.name);
    before += cfg;
    EXPECT_EQ(json_member(cfg, "storage"), b.storage);
    EXPECT_EQ(json_member(cfg, "max_age"), ns(b.max_age_sec));
    EXPECT_EQ(json_member(cfg, "num_replicas"), "1");
    EXPECT_EQ(json_member(cfg, "max_msgs_per_subject"), "1");
    EXPECT_EQ(json_member(cfg, "allow_msg_ttl"), ttl);
    EXPECT_LOGGED(log, std::string("KV bootstrap: created bucket '") + b.name + "' (replicas=1)");
  }
  EXPECT_EQ(json_member(client.stream("KV_qm-av-scan-data"), "allow_direct"), "true");
  EXPECT_EQ(log.count(ttl == "true" ? "KV bootstrap: enabled AllowMsgTTL on stream 'KV_"
                                    : "— scan payloads will use the bucket TTL"),
            5u);

  // Only the trimmed, non-empty service names.
  EXPECT_EQ(json_member(client.api("$JS.API.STREAM.NAMES"), "total"), "8");
  for (const char* stream : {"JOBS_b", "JOBS_c"}) EXPECT_NE(client.stream(stream), "<absent>") << stream;
  const std::string stream = client.stream("JOBS_svc_a");
  EXPECT_EQ(json_member(stream, "retention"), "workqueue");
  EXPECT_EQ(json_member(stream, "storage"), "file");
  EXPECT_EQ(json_member(stream, "max_age"), ns(90));
  EXPECT_EQ(json_member(stream, "subjects"), "[ \"jobs.svc.a\" ]");
  const std::string consumer = client.consumer("JOBS_svc_a", "WORK_svc_a");
  for (const auto& [field, value] :
       {std::pair{"durable_name", "WORK_svc_a"}, {"filter_subject", "jobs.svc.a"}, {"ack_policy", "explicit"},
        {"deliver_subject", "<absent>"}, {"max_deliver", "3"}, {"max_waiting", "64"}, {"max_ack_pending", "10"}}) {
    EXPECT_EQ(json_member(consumer, field), value) << field;
  }
  EXPECT_EQ(json_member(consumer, "ack_wait"), ns(35));
  EXPECT_LOGGED(log, "WQ bootstrap: created stream 'JOBS_svc_a' (subject 'jobs.svc.a', WorkQueue, file, replicas=1)");
  EXPECT_TRUE(log.contains("WQ bootstrap: created durable pull consumer 'WORK_svc_a' on 'JOBS_svc_a' "
                           "(AckWait=35000ms, MaxDeliver=3, MaxWaiting=set)"));

  log.clear();
  ASSERT_EQ(bootstrap(server_, false, &wq), 0);
  for (const char* b : kBuckets)
    EXPECT_LOGGED(log, std::string("KV bootstrap: bucket '") + b + "' already existed — bound to it");
  EXPECT_LOGGED(log, "WQ bootstrap: stream 'JOBS_svc_a' already existed — bound to it");
  EXPECT_TRUE(log.contains("WQ bootstrap: durable consumer 'WORK_svc_a' on 'JOBS_svc_a' already existed "
                           "(AckWait=35000ms, MaxDeliver=3, MaxAckPending=10, MaxWaiting=64)"));
  EXPECT_EQ(unexpected_warnings(log), 0u) << log.text();
  std::string after;
  for (const char* b : kBuckets) after += client.stream(std::string("KV_") + b);
  EXPECT_EQ(after, before);

  log.clear();
  broker_workqueue_opts plain;
  plain.work_services = "plain";
  ASSERT_EQ(bootstrap(server_, true, &plain), 0);
  EXPECT_EQ(json_member(client.consumer("JOBS_plain", "WORK_plain"), "max_waiting"), "512");
  EXPECT_EQ(json_member(client.stream("JOBS_plain"), "max_age"), "0");
  EXPECT_EQ(json_member(client.stream("JOBS_plain"), "storage"), "memory");
  EXPECT_LOGGED(log, "(AckWait=30000ms, MaxDeliver=-1, MaxWaiting=server default (512))");
}

// Existing objects with other settings are bound, never changed, and the operator is
// told what to do about storage, AckWait and MaxWaiting only.
TEST_F(KvBootstrap, MismatchedExistingWorkQueueAndBucketAreBoundWithWarnings) {
  JsClient client(server_.url());
  const std::string bucket = client.api(
      "$JS.API.STREAM.CREATE.KV_qm-av-config",
      R"({"name":"KV_qm-av-config","subjects":["$KV.qm-av-config.>"],"storage":"file","max_msgs_per_subject":5,)"
      R"("allow_rollup_hdrs":true,"deny_delete":true,"allow_direct":true})");
  ASSERT_EQ(json_member(bucket, "error"), "<absent>") << bucket;
  const std::string stream = client.api(
      "$JS.API.STREAM.CREATE.JOBS_scan_proxy",
      R"({"name":"JOBS_scan_proxy","subjects":["jobs.scan.proxy"],"retention":"workqueue","storage":"file"})");
  ASSERT_EQ(json_member(stream, "error"), "<absent>") << stream;
  const std::string consumer_made = client.api(
      "$JS.API.CONSUMER.CREATE.JOBS_scan_proxy.WORK_scan_proxy",
      R"({"stream_name":"JOBS_scan_proxy","config":{"durable_name":"WORK_scan_proxy","name":"WORK_scan_proxy",)"
      R"("filter_subject":"jobs.scan.proxy","ack_policy":"explicit","ack_wait":10000000000,"max_deliver":7,)"
      R"("max_ack_pending":9,"max_waiting":100}})");
  ASSERT_EQ(json_member(consumer_made, "error"), "<absent>") << consumer_made;

  LogCapture log;
  broker_workqueue_opts wq = wq_opts("scan.proxy", 200, 5);
  ASSERT_EQ(bootstrap(server_, true, &wq), 0);
  for (const char* warning :
       {"WQ bootstrap: 'JOBS_scan_proxy' is file-backed but this broker is configured for memory. Storage cannot be "
        "changed in place — delete the stream ('nats stream rm JOBS_scan_proxy') and let the next broker start "
        "recreate it. Do it while the queue is drained: deleting it discards any job still enqueued.",
        "WQ bootstrap: 'WORK_scan_proxy' runs with AckWait=10000ms but this broker is configured for 35000ms — the "
        "existing consumer keeps its own value. Apply it with 'nats consumer edit JOBS_scan_proxy WORK_scan_proxy "
        "--ack-wait=35s', or delete the consumer and let the next broker start recreate it.",
        "WQ bootstrap: 'WORK_scan_proxy' runs with MaxWaiting=100 but this broker is configured for 200. This field "
        "cannot be updated in place — delete the consumer ('nats consumer rm JOBS_scan_proxy WORK_scan_proxy') and let "
        "the next broker start recreate it, or the fleet's puller threads will keep being rejected once they exceed "
        "100.",
        "KV bootstrap: bucket 'qm-av-config' runs with storage=file but this broker is configured for memory — the "
        "existing bucket keeps its own value. Delete it ('nats kv del qm-av-config') while nothing is staged and let "
        "the next broker start recreate it.",
        "KV bootstrap: bucket 'qm-av-config' runs with history=5 but this broker is configured for 1"}) {
    EXPECT_EQ(log.count(warning), 1u) << warning;
  }
  EXPECT_EQ(log.count("KV bootstrap: bucket 'qm-av-config' runs with"), 2u);
  EXPECT_EQ(log.count("KV bootstrap: bucket 'qm-av-scan-data' runs with"), 0u);
  // MaxDeliver and MaxAckPending differ too, but are not compared.
  EXPECT_EQ(log.count("WQ bootstrap: 'WORK_scan_proxy' runs with"), 2u);
  EXPECT_EQ(log.count("WQ bootstrap: 'JOBS_scan_proxy' is "), 1u);
  EXPECT_EQ(json_member(client.stream("JOBS_scan_proxy"), "storage"), "file");
  const std::string consumer = client.consumer("JOBS_scan_proxy", "WORK_scan_proxy");
  EXPECT_EQ(json_member(consumer, "ack_wait"), ns(10));
  EXPECT_EQ(json_member(consumer, "max_waiting"), "100");
  EXPECT_EQ(json_member(consumer, "max_deliver"), "7");

  // MaxWaiting 0 leaves it to the server and suppresses its comparison.
  log.clear();
  wq.maxwaiting = 0;
  ASSERT_EQ(bootstrap(server_, true, &wq), 0);
  EXPECT_EQ(log.count("runs with MaxWaiting"), 0u);
  EXPECT_EQ(log.count("runs with AckWait"), 1u);
}

// A bucket as an older deployment may have made it: memory, one value, `ttl`.
natsStatus create_bucket(JsClient& client, const char* bucket, int64_t ttl) {
  kvConfig kc;
  kvConfig_Init(&kc);
  kc.Bucket = bucket;
  kc.History = 1;
  kc.StorageType = js_MemoryStorage;
  kc.TTL = ttl;
  kvStore* kv = nullptr;
  const natsStatus s = js_CreateKeyValue(&kv, client.js(), &kc);
  kvStore_Destroy(kv);
  return s;
}

// AllowDirect and MaxAge of existing buckets are adjusted in place, also once the
// stream carries allow_msg_ttl (which the client library's own update would drop).
TEST_F(KvBootstrap, AdjustsAllowDirectAndMaxAgeOfExistingBuckets) {
  JsClient client(server_.url());
  // Lease buckets made with another TTL are brought to their MaxAge; the registry's longer
  // TTL also came with a 2-minute duplicates window, which must shrink with it.
  const struct {
    const char* bucket;
    int64_t ttl_sec, max_age_sec;
  } drifted[] = {{"qm-av-worker-registry", 10, 60},
                 {"qm-av-worker-registry", 600, 60},
                 {"qm-av-event-subscriptions", 5, 120}};
  for (const auto& d : drifted) {
    SCOPED_TRACE(testing::Message() << d.bucket << " " << d.ttl_sec);
    js_DeleteKeyValue(client.js(), d.bucket);
    ASSERT_EQ(create_bucket(client, d.bucket, d.ttl_sec * kSec), NATS_OK);
    const LogCapture log;
    ASSERT_EQ(bootstrap(server_, true, nullptr, true), 0);
    EXPECT_EQ(json_member(client.stream(std::string("KV_") + d.bucket), "max_age"), ns(d.max_age_sec));
    EXPECT_EQ(log.count("KV bootstrap: set MaxAge=" + std::to_string(d.max_age_sec * 1000) + "ms on stream 'KV_" +
                        d.bucket + "' (lease-bucket dead-entry backstop)"),
              1u);
    EXPECT_EQ(unexpected_warnings(log), 0u) << log.text();
  }

  LogCapture log;
  ASSERT_EQ(bootstrap(server_, true, nullptr, false), 0);
  EXPECT_EQ(log.count("KV bootstrap: set AllowDirect=false on stream 'KV_qm-av-scan-data' (leader-only reads for "
                      "cross-node read-after-write consistency)"),
            1u);
  const std::string scan = client.stream("KV_qm-av-scan-data");
  EXPECT_EQ(json_member(scan, "allow_direct"), "false");
  EXPECT_EQ(json_member(scan, "allow_msg_ttl"), client.supports_msg_ttl() ? "true" : "false");
  log.clear();
  ASSERT_EQ(bootstrap(server_, true, nullptr, true), 0);
  EXPECT_EQ(log.count("KV bootstrap: set AllowDirect=true on stream 'KV_qm-av-scan-data' (fast replica reads)"), 1u);
  EXPECT_EQ(json_member(client.stream("KV_qm-av-scan-data"), "allow_direct"), "true");
}

// The order of the retry lines and their counts are checked, never how many attempts
// fit into the budget: that depends on the machine's load.
TEST(KvBootstrapRetry, ServerWithoutJetStreamIsRetriedThenGivenUp) {
  NatsServer server(NatsServerOptions{false, "", 0});
  LogCapture log;
  const int64_t started = qm::monotonic_ms();
  EXPECT_EQ(bootstrap(server, true, nullptr, true, timing(1000, 100, 300, 400)), -1);
  const int64_t took_ms = qm::monotonic_ms() - started;
  const std::string text = log.text();
  const size_t attempts = log.count("KV bootstrap: js_CreateKeyValue('qm-av-scan-data') failed: ");
  const size_t notes = log.count("KV bootstrap: JetStream not ready yet");
  EXPECT_GE(attempts, 2u);
  EXPECT_LE(notes, 1 + took_ms / 400);  // throttled to one per note interval
  const size_t first_note = text.find("KV bootstrap: JetStream not ready yet (attempt 1) — waiting for the cluster "
                                      "meta-group to elect a leader; retrying for up to 1s");
  const size_t gave_up = text.find("KV bootstrap: 'qm-av-scan-data' still not ready after " +
                                   std::to_string(attempts) + " attempts over 1s — giving up");
  ASSERT_NE(first_note, std::string::npos) << text;
  ASSERT_NE(gave_up, std::string::npos) << text;
  EXPECT_LT(first_note, gave_up);
}

TEST(KvBootstrapRetry, ServerThatComesUpLateIsProvisioned) {
  const broker_kv_bootstrap_timing schedule = timing(300000, 100, 200);
  LogCapture log;
  const ReservedPort port;
  const std::string url = port.url();
  int result = -2;
  std::thread runner(
      [&] { result = broker_kv_bootstrap(url.c_str(), nullptr, nullptr, nullptr, 1, true, true, nullptr, nullptr, &schedule); });
  const bool failed_once = log.wait_for("KV bootstrap: connect failed: ", 30s);
  std::unique_ptr<NatsServer> server;
  if (failed_once) server = std::make_unique<NatsServer>(NatsServerOptions{true, "", port.port()});
  runner.join();
  ASSERT_TRUE(failed_once);
  EXPECT_EQ(result, 0);
  EXPECT_LOGGED(log, "KV bootstrap: succeeded on attempt ");
}

TEST(KvBootstrapInput, BadArgumentsFailAtOnceAndCredentialsAreUsed) {
  LogCapture log;
  EXPECT_EQ(broker_kv_bootstrap("tls://127.0.0.1:4", "u", nullptr, "/nonexistent/ca.pem", 1, true, true, nullptr), -1);
  EXPECT_LOGGED(log, "KV bootstrap: LoadCATrustedCertificates(/nonexistent/ca.pem) failed: ");
  EXPECT_NOT_LOGGED(log, "not ready yet");

  NatsServer server(
      NatsServerOptions{true, "authorization { users: [ { user: \"gw\", password: \"pw\" } ] }", 0});
  const broker_kv_bootstrap_timing schedule = timing(500, 100);
  EXPECT_EQ(broker_kv_bootstrap(server.url().c_str(), "gw", "wrong", nullptr, 1, true, true, nullptr, nullptr, &schedule),
            -1);
  EXPECT_LOGGED(log, "KV bootstrap: connect failed: ");
  EXPECT_EQ(broker_kv_bootstrap(server.url().c_str(), "gw", "pw", nullptr, 1, true, true, nullptr), 0);
}

}  // namespace
