#include "broker_kv_bootstrap.hpp"

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <nats/nats.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "log_capture.hpp"
#include "nats_server_fixture.hpp"
#include "qm_handles.hpp"
#include "test_support.hpp"

namespace {

using namespace std::chrono_literals;
using qm::json_ptr;

constexpr int64_t kSec = 1000000000;
const char* const kBuckets[] = {"qm-av-scan-data", "qm-av-worker-registry", "qm-av-config",
                                "qm-av-event-subscriptions", "qm-av-wq-dedup"};

// A plain client of the test server, for setting up and reading back JetStream objects.
class JsClient {
 public:
  explicit JsClient(const std::string& url) {
    natsOptions* opts = nullptr;
    natsOptions_Create(&opts);
    natsOptions_SetURL(opts, url.c_str());
    if (natsConnection_Connect(&nc_, opts) != NATS_OK) throw std::runtime_error("connect " + url);
    natsOptions_Destroy(opts);
    if (natsConnection_JetStream(&js_, nc_, nullptr) != NATS_OK) throw std::runtime_error("jetstream");
  }
  ~JsClient() {
    jsCtx_Destroy(js_);
    natsConnection_Destroy(nc_);
  }
  jsCtx* js() { return js_; }

  // The reply of a JetStream API request as JSON.
  json_ptr api(const std::string& subject, const std::string& body = "") {
    natsMsg* reply = nullptr;
    if (natsConnection_Request(&reply, nc_, subject.c_str(), body.data(), static_cast<int>(body.size()), 5000) !=
        NATS_OK) {
      return nullptr;
    }
    json_ptr doc(json_tokener_parse(std::string(natsMsg_GetData(reply), natsMsg_GetDataLength(reply)).c_str()));
    natsMsg_Destroy(reply);
    return doc;
  }

  // The stream's configuration as the server reports it; null when there is none.
  json_ptr stream_config(const std::string& stream) {
    json_ptr info = api("$JS.API.STREAM.INFO." + stream);
    json_object* config = nullptr;
    if (!info || !json_object_object_get_ex(info.get(), "config", &config)) return nullptr;
    return json_ptr(json_object_get(config));
  }

  json_ptr consumer_config(const std::string& stream, const std::string& durable) {
    json_ptr info = api("$JS.API.CONSUMER.INFO." + stream + "." + durable);
    json_object* config = nullptr;
    if (!info || !json_object_object_get_ex(info.get(), "config", &config)) return nullptr;
    return json_ptr(json_object_get(config));
  }

  std::vector<std::string> stream_names() {
    std::vector<std::string> names;
    json_ptr reply = api("$JS.API.STREAM.NAMES");
    json_object* list = nullptr;
    if (reply && json_object_object_get_ex(reply.get(), "streams", &list) && json_object_is_type(list, json_type_array)) {
      for (size_t i = 0; i < json_object_array_length(list); ++i) {
        names.emplace_back(json_object_get_string(json_object_array_get_idx(list, i)));
      }
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  // Per-message TTL support, told by whether the server keeps allow_msg_ttl in the
  // configuration it echoes (older servers drop it silently).
  bool supports_msg_ttl() {
    const std::string body = R"({"name":"TTLPROBE","subjects":["ttlprobe.>"],"storage":"memory","allow_msg_ttl":true})";
    json_ptr reply = api("$JS.API.STREAM.CREATE.TTLPROBE", body);
    json_object* config = nullptr;
    json_object* flag = nullptr;
    const bool kept = reply && json_object_object_get_ex(reply.get(), "config", &config) &&
                      json_object_object_get_ex(config, "allow_msg_ttl", &flag) && json_object_get_boolean(flag);
    api("$JS.API.STREAM.DELETE.TTLPROBE");
    return kept;
  }

 private:
  natsConnection* nc_ = nullptr;
  jsCtx* js_ = nullptr;
};

std::string str_field(const json_ptr& obj, const char* name) {
  json_object* v = nullptr;
  return obj && json_object_object_get_ex(obj.get(), name, &v) ? json_object_get_string(v) : "<absent>";
}
int64_t int_field(const json_ptr& obj, const char* name) {
  json_object* v = nullptr;
  return obj && json_object_object_get_ex(obj.get(), name, &v) ? json_object_get_int64(v) : -1;
}
bool bool_field(const json_ptr& obj, const char* name) {
  json_object* v = nullptr;
  return obj && json_object_object_get_ex(obj.get(), name, &v) && json_object_get_boolean(v);
}
// Warnings other than the one a server without per-message TTL earns on every run.
size_t unexpected_warnings(const qmtest::LogCapture& log) {
  return log.count("WARN ") - log.count("— scan payloads will use the bucket TTL");
}

bool has_field(const json_ptr& obj, const char* name) {
  json_object* v = nullptr;
  return obj && json_object_object_get_ex(obj.get(), name, &v);
}

broker_workqueue_opts wq_opts(const char* services) {
  broker_workqueue_opts o;
  o.work_services = services;
  o.ackwait_ns = 35000LL * 1000000;
  o.maxdeliver = 3;
  return o;
}

int bootstrap(const qmtest::NatsServer& server, bool memory, const broker_workqueue_opts* wq,
              bool allow_direct = true) {
  return broker_kv_bootstrap(server.url().c_str(), nullptr, nullptr, nullptr, 1, allow_direct, memory, wq);
}

class KvBootstrap : public ::testing::Test {
 protected:
  // A broken attempt fails the test in seconds instead of retrying for five minutes.
  void SetUp() override {
    broker_kv_bootstrap_timing timing;
    timing.budget_ms = 3000;
    timing.initial_delay_ms = 200;
    broker_kv_bootstrap_set_timing(&timing);
  }
  void TearDown() override { broker_kv_bootstrap_set_timing(nullptr); }
  qmtest::NatsServer server_;
};

TEST_F(KvBootstrap, CreatesTheFiveBucketsWithTheirSettings) {
  qmtest::LogCapture log;
  ASSERT_EQ(bootstrap(server_, true, nullptr), 0) << log.text();
  JsClient client(server_.url());
  const bool ttl = client.supports_msg_ttl();

  struct expected_bucket {
    const char* name;
    int64_t max_age_ns;
  } expected[] = {{"qm-av-scan-data", 120 * kSec},
                  {"qm-av-worker-registry", 60 * kSec},
                  {"qm-av-config", 0},
                  {"qm-av-event-subscriptions", 120 * kSec},
                  {"qm-av-wq-dedup", 300 * kSec}};
  for (const auto& b : expected) {
    SCOPED_TRACE(b.name);
    const json_ptr cfg = client.stream_config(std::string("KV_") + b.name);
    ASSERT_TRUE(cfg);
    EXPECT_EQ(str_field(cfg, "storage"), "memory");
    EXPECT_EQ(int_field(cfg, "max_age"), b.max_age_ns);
    EXPECT_EQ(int_field(cfg, "num_replicas"), 1);
    EXPECT_EQ(int_field(cfg, "max_msgs_per_subject"), 1);
    EXPECT_EQ(bool_field(cfg, "allow_msg_ttl"), ttl);
    EXPECT_TRUE(log.contains(std::string("KV bootstrap: created bucket '") + b.name + "' (replicas=1)"));
  }
  EXPECT_TRUE(bool_field(client.stream_config("KV_qm-av-scan-data"), "allow_direct"));
  if (ttl) {
    EXPECT_EQ(log.count("KV bootstrap: enabled AllowMsgTTL on stream 'KV_"), 5u);
  } else {
    EXPECT_EQ(log.count("— scan payloads will use the bucket TTL"), 5u);
  }
  // Nothing but the buckets: no work services were named.
  EXPECT_EQ(client.stream_names().size(), 5u);
}

TEST_F(KvBootstrap, FileStorageAppliesToTheScanDataBucketOnly) {
  ASSERT_EQ(bootstrap(server_, false, nullptr), 0);
  JsClient client(server_.url());
  EXPECT_EQ(str_field(client.stream_config("KV_qm-av-scan-data"), "storage"), "file");
  EXPECT_EQ(str_field(client.stream_config("KV_qm-av-config"), "storage"), "memory");
  EXPECT_EQ(str_field(client.stream_config("KV_qm-av-wq-dedup"), "storage"), "memory");
}

TEST_F(KvBootstrap, ProvisionsOnlyTrimmedNonEmptyWorkServices) {
  qmtest::LogCapture log;
  broker_workqueue_opts wq = wq_opts(" svc.a ,\t,b\t, ,,c ");
  wq.maxwaiting = 64;
  wq.maxackpending = 10;
  wq.stream_maxage_ns = 90 * kSec;
  ASSERT_EQ(bootstrap(server_, true, &wq), 0);
  JsClient client(server_.url());
  std::vector<std::string> expected{"JOBS_b", "JOBS_c", "JOBS_svc_a"};
  for (const char* b : kBuckets) expected.push_back(std::string("KV_") + b);
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(client.stream_names(), expected);

  const json_ptr stream = client.stream_config("JOBS_svc_a");
  EXPECT_EQ(str_field(stream, "retention"), "workqueue");
  EXPECT_EQ(str_field(stream, "storage"), "memory");
  EXPECT_EQ(int_field(stream, "max_age"), 90 * kSec);
  EXPECT_STREQ(json_object_to_json_string(json_object_object_get(stream.get(), "subjects")), "[ \"jobs.svc.a\" ]");

  const json_ptr consumer = client.consumer_config("JOBS_svc_a", "WORK_svc_a");
  ASSERT_TRUE(consumer);
  EXPECT_EQ(str_field(consumer, "durable_name"), "WORK_svc_a");
  EXPECT_EQ(str_field(consumer, "filter_subject"), "jobs.svc.a");
  EXPECT_EQ(str_field(consumer, "ack_policy"), "explicit");
  EXPECT_FALSE(has_field(consumer, "deliver_subject"));
  EXPECT_EQ(int_field(consumer, "ack_wait"), 35 * kSec);
  EXPECT_EQ(int_field(consumer, "max_deliver"), 3);
  EXPECT_EQ(int_field(consumer, "max_waiting"), 64);
  EXPECT_EQ(int_field(consumer, "max_ack_pending"), 10);

  EXPECT_TRUE(log.contains("WQ bootstrap: created stream 'JOBS_svc_a' (subject 'jobs.svc.a', WorkQueue, memory, "
                           "replicas=1)"));
  EXPECT_TRUE(log.contains("WQ bootstrap: created durable pull consumer 'WORK_svc_a' on 'JOBS_svc_a' "
                           "(AckWait=35000ms, MaxDeliver=3, MaxWaiting=set)"));
}

TEST_F(KvBootstrap, UnsetConsumerLimitsAreLeftToTheServer) {
  qmtest::LogCapture log;
  broker_workqueue_opts wq;
  wq.work_services = "plain";
  ASSERT_EQ(bootstrap(server_, false, &wq), 0);
  JsClient client(server_.url());
  const json_ptr consumer = client.consumer_config("JOBS_plain", "WORK_plain");
  EXPECT_EQ(int_field(consumer, "max_waiting"), 512);
  EXPECT_EQ(int_field(client.stream_config("JOBS_plain"), "max_age"), 0);
  EXPECT_EQ(str_field(client.stream_config("JOBS_plain"), "storage"), "file");
  EXPECT_TRUE(log.contains("(AckWait=30000ms, MaxDeliver=-1, MaxWaiting=server default (512))"));
}

TEST_F(KvBootstrap, SecondRunBindsEverythingAndChangesNothing) {
  broker_workqueue_opts wq = wq_opts("svc");
  ASSERT_EQ(bootstrap(server_, true, &wq), 0);
  JsClient client(server_.url());
  std::vector<std::string> before;
  for (const char* b : kBuckets) {
    before.emplace_back(json_object_to_json_string(client.stream_config(std::string("KV_") + b).get()));
  }
  qmtest::LogCapture log;
  ASSERT_EQ(bootstrap(server_, true, &wq), 0);
  for (const char* b : kBuckets) {
    EXPECT_TRUE(log.contains(std::string("KV bootstrap: bucket '") + b + "' already existed — bound to it"));
  }
  EXPECT_TRUE(log.contains("WQ bootstrap: stream 'JOBS_svc' already existed — bound to it"));
  EXPECT_TRUE(log.contains("WQ bootstrap: durable consumer 'WORK_svc' on 'JOBS_svc' already existed (AckWait=35000ms, "
                           "MaxDeliver=3, MaxAckPending=1000, MaxWaiting=512)"));
  EXPECT_FALSE(log.contains("created"));
  EXPECT_FALSE(log.contains("set AllowDirect"));
  EXPECT_FALSE(log.contains("set MaxAge"));
  EXPECT_FALSE(log.contains("enabled AllowMsgTTL"));
  EXPECT_EQ(unexpected_warnings(log), 0u) << log.text();
  for (size_t i = 0; i < std::size(kBuckets); ++i) {
    EXPECT_EQ(json_object_to_json_string(client.stream_config(std::string("KV_") + kBuckets[i]).get()), before[i]);
  }
}

// Existing objects with other settings are bound, never changed, and the operator is
// told what to do about storage, AckWait and MaxWaiting only.
TEST_F(KvBootstrap, MismatchedExistingWorkQueueIsBoundWithWarnings) {
  JsClient client(server_.url());
  {
    jsStreamConfig sc;
    jsStreamConfig_Init(&sc);
    sc.Name = "JOBS_scan_proxy";
    const char* subjects[] = {"jobs.scan.proxy"};
    sc.Subjects = subjects;
    sc.SubjectsLen = 1;
    sc.Retention = js_WorkQueuePolicy;
    sc.Storage = js_FileStorage;
    jsStreamInfo* si = nullptr;
    ASSERT_EQ(js_AddStream(&si, client.js(), &sc, nullptr, nullptr), NATS_OK);
    jsStreamInfo_Destroy(si);
    jsConsumerConfig cc;
    jsConsumerConfig_Init(&cc);
    cc.Durable = "WORK_scan_proxy";
    cc.FilterSubject = "jobs.scan.proxy";
    cc.AckPolicy = js_AckExplicit;
    cc.AckWait = 10 * kSec;
    cc.MaxDeliver = 7;
    cc.MaxAckPending = 9;
    cc.MaxWaiting = 100;
    jsConsumerInfo* ci = nullptr;
    ASSERT_EQ(js_AddConsumer(&ci, client.js(), "JOBS_scan_proxy", &cc, nullptr, nullptr), NATS_OK);
    jsConsumerInfo_Destroy(ci);
  }
  qmtest::LogCapture log;
  broker_workqueue_opts wq = wq_opts("scan.proxy");
  wq.maxwaiting = 200;
  wq.maxackpending = 5;
  ASSERT_EQ(bootstrap(server_, true, &wq), 0);

  EXPECT_EQ(log.count("WQ bootstrap: 'JOBS_scan_proxy' is file-backed but this broker is configured for memory. "
                      "Storage cannot be changed in place — delete the stream ('nats stream rm JOBS_scan_proxy') and "
                      "let the next broker start recreate it. Do it while the queue is drained: deleting it discards "
                      "any job still enqueued."),
            1u);
  EXPECT_EQ(log.count("WQ bootstrap: 'WORK_scan_proxy' runs with AckWait=10000ms but this broker is configured for "
                      "35000ms — the existing consumer keeps its own value. Apply it with 'nats consumer edit "
                      "JOBS_scan_proxy WORK_scan_proxy --ack-wait=35s', or delete the consumer and let the next "
                      "broker start recreate it."),
            1u);
  EXPECT_EQ(log.count("WQ bootstrap: 'WORK_scan_proxy' runs with MaxWaiting=100 but this broker is configured for "
                      "200. This field cannot be updated in place — delete the consumer ('nats consumer rm "
                      "JOBS_scan_proxy WORK_scan_proxy') and let the next broker start recreate it, or the fleet's "
                      "puller threads will keep being rejected once they exceed 100."),
            1u);
  // MaxDeliver and MaxAckPending differ too, but are not compared.
  EXPECT_EQ(log.count("WQ bootstrap: 'WORK_scan_proxy' runs with"), 2u);
  EXPECT_EQ(log.count("WQ bootstrap: 'JOBS_scan_proxy' is "), 1u);

  EXPECT_EQ(str_field(client.stream_config("JOBS_scan_proxy"), "storage"), "file");
  const json_ptr consumer = client.consumer_config("JOBS_scan_proxy", "WORK_scan_proxy");
  EXPECT_EQ(int_field(consumer, "ack_wait"), 10 * kSec);
  EXPECT_EQ(int_field(consumer, "max_waiting"), 100);
  EXPECT_EQ(int_field(consumer, "max_deliver"), 7);

  // MaxWaiting 0 leaves it to the server and suppresses its comparison.
  log.clear();
  wq.maxwaiting = 0;
  ASSERT_EQ(bootstrap(server_, true, &wq), 0);
  EXPECT_EQ(log.count("runs with MaxWaiting"), 0u);
  EXPECT_EQ(log.count("runs with AckWait"), 1u);
}

// A worker registry as an older deployment may have made it: memory, one value, `ttl`.
natsStatus create_registry(JsClient& client, int64_t ttl) {
  kvConfig kc;
  kvConfig_Init(&kc);
  kc.Bucket = "qm-av-worker-registry";
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
  ASSERT_EQ(create_registry(client, 10 * kSec), NATS_OK);
  ASSERT_EQ(bootstrap(server_, true, nullptr, true), 0);
  EXPECT_EQ(int_field(client.stream_config("KV_qm-av-worker-registry"), "max_age"), 60 * kSec);
  // A registry made with a longer TTL (and so a 2-minute duplicates window) is brought
  // down to 60 s as well.
  ASSERT_EQ(js_DeleteKeyValue(client.js(), "qm-av-worker-registry"), NATS_OK);
  ASSERT_EQ(create_registry(client, 600 * kSec), NATS_OK);
  ASSERT_EQ(bootstrap(server_, true, nullptr, true), 0);
  EXPECT_EQ(int_field(client.stream_config("KV_qm-av-worker-registry"), "max_age"), 60 * kSec);

  qmtest::LogCapture log;
  ASSERT_EQ(bootstrap(server_, true, nullptr, false), 0);
  EXPECT_EQ(log.count("KV bootstrap: set AllowDirect=false on stream 'KV_qm-av-scan-data' (leader-only reads for "
                      "cross-node read-after-write consistency)"),
            1u);
  const json_ptr scan = client.stream_config("KV_qm-av-scan-data");
  EXPECT_FALSE(bool_field(scan, "allow_direct"));
  EXPECT_EQ(bool_field(scan, "allow_msg_ttl"), client.supports_msg_ttl());

  log.clear();
  ASSERT_EQ(bootstrap(server_, true, nullptr, true), 0);
  EXPECT_EQ(log.count("KV bootstrap: set AllowDirect=true on stream 'KV_qm-av-scan-data' (fast replica reads)"), 1u);
  EXPECT_TRUE(bool_field(client.stream_config("KV_qm-av-scan-data"), "allow_direct"));

  // A lease bucket whose MaxAge drifted is put back.
  json_ptr cfg = client.stream_config("KV_qm-av-event-subscriptions");
  json_object_object_add(cfg.get(), "max_age", json_object_new_int64(5 * kSec));
  json_object_object_add(cfg.get(), "duplicate_window", json_object_new_int64(5 * kSec));
  const json_ptr updated =
      client.api("$JS.API.STREAM.UPDATE.KV_qm-av-event-subscriptions", json_object_to_json_string(cfg.get()));
  ASSERT_EQ(int_field(client.stream_config("KV_qm-av-event-subscriptions"), "max_age"), 5 * kSec)
      << json_object_to_json_string(updated.get());
  log.clear();
  ASSERT_EQ(bootstrap(server_, true, nullptr, true), 0);
  EXPECT_EQ(log.count("KV bootstrap: set MaxAge=120000ms on stream 'KV_qm-av-event-subscriptions' (lease-bucket "
                      "dead-entry backstop)"),
            1u);
  EXPECT_EQ(int_field(client.stream_config("KV_qm-av-event-subscriptions"), "max_age"), 120 * kSec);
  EXPECT_EQ(unexpected_warnings(log), 0u) << log.text();
}

TEST(KvBootstrapRetry, ServerWithoutJetStreamIsRetriedThenGivenUp) {
  qmtest::NatsServer server(qmtest::NatsServerOptions{false, "", 0});
  broker_kv_bootstrap_timing timing;
  timing.budget_ms = 2000;
  timing.initial_delay_ms = 100;
  timing.max_delay_ms = 300;
  timing.note_interval_ms = 700;
  broker_kv_bootstrap_set_timing(&timing);
  qmtest::LogCapture log;
  EXPECT_EQ(bootstrap(server, true, nullptr), -1);
  broker_kv_bootstrap_set_timing(nullptr);

  const size_t attempts = log.count("KV bootstrap: js_CreateKeyValue('qm-av-scan-data') failed: ");
  EXPECT_GE(attempts, 5u);  // 100 + 200 + 300 + 300 ... ms pauses inside 2 s
  EXPECT_TRUE(log.contains("KV bootstrap: JetStream not ready yet (attempt 1) — waiting for the cluster meta-group to "
                           "elect a leader; retrying for up to 2s"));
  const size_t notes = log.count("KV bootstrap: JetStream not ready yet");
  EXPECT_GE(notes, 2u);
  EXPECT_LT(notes, attempts);  // throttled
  EXPECT_TRUE(log.contains("KV bootstrap: 'qm-av-scan-data' still not ready after " + std::to_string(attempts) +
                           " attempts over 2s — giving up"));
}

TEST(KvBootstrapRetry, ServerThatComesUpLateIsProvisioned) {
  broker_kv_bootstrap_timing timing;
  timing.initial_delay_ms = 100;
  timing.max_delay_ms = 200;
  broker_kv_bootstrap_set_timing(&timing);
  qmtest::LogCapture log;
  const int port = qmtest::free_port();
  const std::string url = "nats://127.0.0.1:" + std::to_string(port);
  int result = -2;
  std::thread runner([&] { result = broker_kv_bootstrap(url.c_str(), nullptr, nullptr, nullptr, 1, true, true, nullptr); });
  const bool failed_once = log.wait_for("KV bootstrap: connect failed: ", 10s);
  std::unique_ptr<qmtest::NatsServer> server;
  if (failed_once) server = std::make_unique<qmtest::NatsServer>(qmtest::NatsServerOptions{true, "", port});
  runner.join();
  broker_kv_bootstrap_set_timing(nullptr);
  ASSERT_TRUE(failed_once);
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(log.contains("KV bootstrap: succeeded on attempt "));
}

TEST(KvBootstrapInput, NullUrlAndBadCaFailWithoutRetrying) {
  qmtest::LogCapture log;
  EXPECT_EQ(broker_kv_bootstrap(nullptr, nullptr, nullptr, nullptr, 1, true, true, nullptr), -1);
  EXPECT_TRUE(log.contains("KV bootstrap: nats_url is NULL"));
  EXPECT_EQ(broker_kv_bootstrap("tls://127.0.0.1:4", "u", nullptr, "/nonexistent/ca.pem", 1, true, true, nullptr), -1);
  EXPECT_TRUE(log.contains("KV bootstrap: LoadCATrustedCertificates(/nonexistent/ca.pem) failed: "));
  EXPECT_FALSE(log.contains("not ready yet"));
}

TEST(KvBootstrapInput, GatewayCredentialsAreUsed) {
  qmtest::NatsServer server(qmtest::NatsServerOptions{
      true, "authorization { users: [ { user: \"gw\", password: \"pw\" } ] }", 0});
  broker_kv_bootstrap_timing timing;
  timing.budget_ms = 500;
  timing.initial_delay_ms = 100;
  broker_kv_bootstrap_set_timing(&timing);
  qmtest::LogCapture log;
  EXPECT_EQ(broker_kv_bootstrap(server.url().c_str(), "gw", "wrong", nullptr, 1, true, true, nullptr), -1);
  EXPECT_TRUE(log.contains("KV bootstrap: connect failed: "));
  EXPECT_EQ(broker_kv_bootstrap(server.url().c_str(), "gw", "pw", nullptr, 1, true, true, nullptr), 0);
  broker_kv_bootstrap_set_timing(nullptr);
}

}  // namespace
