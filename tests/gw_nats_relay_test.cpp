#include "gw_nats_relay.hpp"

#include "test_prelude.hpp"
#include <array>

#include "admin_client.hpp"
#include "broker_metrics.hpp"
#include "gw_nats_relay_internal.hpp"
#include "gw_subject_rewrite.hpp"
#include "scan_fixture.hpp"

namespace {

using steady = std::chrono::steady_clock;
using ::testing::IsEmpty;

constexpr size_t kChunk = GW_KV_CHUNK_SIZE;

// ---- Arithmetic and small helpers (no server) ------------------------------------------

struct WaitCase {
  const char* what;
  const char* request;
  size_t data_len;
  unsigned long caller_ms;
  unsigned long expect_wait_ms;
  uint64_t expect_budget_ms;
};

TEST(RelayWait, DerivedFromScanBudgetWithinFloorAndCeiling) {
  const gw_wait_bounds bounds{30000, 300000};
  const WaitCase cases[] = {
      {"no budget: the caller's wait, even below the floor", "{}", 0, 5000, 5000, 0},
      {"no budget: the caller's wait, even above the ceiling", R"({"x":1})", 0, 900000, 900000, 0},
      {"not JSON counts as no budget", "SCANTIMEOUT=60000", 0, 7000, 7000, 0},
      {"a zero budget counts as absent", R"({"SCANTIMEOUT":0})", 0, 4000, 4000, 0},
      {"a negative budget counts as absent", R"({"SCANTIMEOUT":-5})", 0, 4000, 4000, 0},
      {"a small budget is raised to the floor", R"({"SCANTIMEOUT":1000})", 0, 100, 30000, 1000},
      {"budget plus margin", R"({"SCANTIMEOUT":60000})", 0, 100, 60250, 60000},
      {"a numeric string counts", R"({"SCANTIMEOUT":"60000"})", 0, 100, 60250, 60000},
      {"allowance rounds down to 0", R"({"SCANTIMEOUT":40000,"SCANBANDWIDTH":80000})", 4000000, 1, 40250, 40000},
      {"allowance doubles whole divisor steps", R"({"SCANTIMEOUT":40000,"SCANBANDWIDTH":8000})", 4000000, 1,
       40258, 40000},
      {"bandwidth below 8 divides by bandwidth*1000/8", R"({"SCANTIMEOUT":40000,"SCANBANDWIDTH":4})", 1000, 1,
       40254, 40000},
      {"no payload, no allowance", R"({"SCANTIMEOUT":40000,"SCANBANDWIDTH":1})", 0, 1, 40250, 40000},
      {"zero bandwidth, no allowance", R"({"SCANTIMEOUT":40000,"SCANBANDWIDTH":0})", 1 << 30, 1, 40250, 40000},
      {"huge bandwidth, no allowance", R"({"SCANTIMEOUT":40000,"SCANBANDWIDTH":9223372036854775807})", 1 << 30, 1,
       40250, 40000},
      {"above the ceiling is clamped", R"({"SCANTIMEOUT":400000})", 0, 1, 300000, 400000},
      {"the largest budget is clamped, not wrapped", R"({"SCANTIMEOUT":9223372036854775807})", SIZE_MAX, 1, 300000,
       9223372036854775807ULL},
  };
  for (const WaitCase& c : cases) {
    SCOPED_TRACE(c.what);
    uint64_t budget = 12345;
    EXPECT_EQ(gw_relay_wait_ms(bounds, "scan", c.request, c.data_len, c.caller_ms, &budget), c.expect_wait_ms);
    EXPECT_EQ(budget, c.expect_budget_ms);
  }
}

TEST(RelayWait, CeilingWarningIsLoggedOncePerProcess) {
  gw_nats_relay_reset_once_flags();
  LogCapture log(QMLOG_WARN);
  for (int i = 0; i < 3; ++i) gw_relay_wait_ms({1000, 5000}, "scan", R"({"SCANTIMEOUT":9000})", 0, 1, nullptr);
  EXPECT_EQ(log.count("nats_relay: request to scan asks for 9250ms (SCANTIMEOUT=9000ms + transfer) but the relay "
                      "ceiling is 5000ms"),
            1u);
}

TEST(RelayWait, StagedEntriesLiveTenPercentLongerThanTheWaitAndAtLeastOneSecond) {
  const std::pair<uint64_t, int64_t> cases[] = {
      {0, 1000}, {900, 1000}, {1000, 1100}, {30000, 33000}, {UINT64_MAX, INT64_MAX}};
  for (const auto& [wait, ttl] : cases) EXPECT_EQ(gw_kv_ttl_ms_for(wait), ttl) << wait;
}

TEST(RelayNames, WorkQueueServiceListMatchesWholeTrimmedEntries) {
  struct Case {
    const char* csv;
    const char* service;
    int expect;
  };
  const Case cases[] = {
      {" a , b", "a", 1},  {" a , b", "b", 1},  {" a , b", " a", 0}, {" a , b", "A", 0},   {" a , b", "ab", 0},
      {",,a,,", "a", 1},   {"a\t,\tb\t", "b", 1}, {"scan.x", "scan", 0}, {"", "a", 0},      {nullptr, "a", 0},
      {"a", nullptr, 0},   {" , ", "", 0},       {"scanjs,scan", "scan", 1},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(qm_nats_wq_service_in_csv(c.csv, c.service), c.expect)
        << "csv '" << (c.csv ? c.csv : "(null)") << "' service '" << (c.service ? c.service : "(null)") << "'";
  }
}

TEST(RelayNames, QuarantineAddressesBecomeSubjects) {
  const std::pair<const char*, const char*> cases[] = {
      {"qm-av-quarantine_x", "qm-av-quarantine.x"},
      {"qm-av-quarantine_x_y", "qm-av-quarantine.x_y"},
      {"qm-av-quarantine_", "qm-av-quarantine_"},
      {"qm-av-quarantine", "qm-av-quarantine"},
      {"scan_x", "scan_x"},
      {"", ""},
  };
  for (const auto& [in, out] : cases) {
    qm::malloc_ptr<char> subject(gw_subject_rewrite_ingress_to_nats(in));
    ASSERT_NE(subject, nullptr);
    EXPECT_STREQ(subject.get(), out);
  }
  EXPECT_EQ(gw_subject_rewrite_ingress_to_nats(nullptr), nullptr);
}

TEST(RelayNames, KeysAreUniqueAcrossThreads) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 2500;
  std::vector<std::vector<std::string>> made(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) made[t].emplace_back(qm::malloc_ptr<char>(generate_unique_key()).get());
    });
  }
  for (auto& t : threads) t.join();
  // Their shape is that of a staged key without a user (below).
  std::set<std::string> all;
  for (const auto& keys : made) all.insert(keys.begin(), keys.end());
  EXPECT_EQ(all.size(), static_cast<size_t>(kThreads * kPerThread));
}

// A staged key names the login it belongs to, so that a grant can allow that login's own
// keys by "{user}" and no other's.
TEST(RelayNames, StagedKeysAreBoundToTheirUser) {
  const std::string unique = "gw-" + std::to_string(getpid()) + "-[0-9a-f]+-[0-9a-f]+";
  const struct {
    char owner;
    const char* user;
    std::string shape;
  } rows[] = {
      {'c', "alice", "c\\.alice\\." + unique},
      {'w', "scan-worker_2=x", "w\\.scan-worker_2=x\\." + unique},
      {'c', nullptr, unique},
      {'c', "", unique},
      // A name no key can carry (or that would add tokens) belongs to no grant's keys.
      {'c', "a.b", "x\\." + unique},
      {'c', "a@b", "x\\." + unique},
      {'c', "*", "x\\." + unique},
      {'c', "a b", "x\\." + unique},
  };
  for (const auto& row : rows) {
    const std::string key = gw_staged_key(row.owner, row.user);
    EXPECT_TRUE(std::regex_match(key, std::regex(row.shape))) << (row.user ? row.user : "(null)") << " -> " << key;
  }
}

// ---- Against a server and demo workers -------------------------------------------------------

// Every relay test leaves the scan-data bucket as it found it: empty.
class RelayTest : public ::testing::Test {
 protected:
  void SetUp() override { gw_nats_relay_reset_once_flags(); }
  void TearDown() override {
    if (env_) {
      EXPECT_THAT(env_->bucket_keys(), IsEmpty()) << "entries left in qm-av-scan-data";
    }
  }
  ScanEnv& env(ScanEnvOptions options = {}) {
    env_ = std::make_unique<ScanEnv>(std::move(options));
    return *env_;
  }
  std::unique_ptr<ScanEnv> env_;
};

// Through the JetStream work queue; the broker's AMQP and HTTP tests take the core route
// with payloads around a chunk and echoed replies of several chunks. A request that cannot
// be sent reaches no worker on either route.
TEST_F(RelayTest, PayloadsComeBackByteExactThroughTheWorkQueueAndUnsendableRequestsReachNoWorker) {
  ScanEnv& e = env({.work_services = "scanjs"});
  ScanWorker& queue_worker = e.start_worker("scanjs", true);
  relay_ptr relay = e.make_relay();
  // The last fills the staging pipeline (32 chunks in flight) and then some.
  const size_t sizes[] = {0, 1, kChunk, kChunk + 1, 33 * kChunk + 1};
  const std::string before = broker_metrics_render();
  for (size_t size : sizes) {
    SCOPED_TRACE("payload of " + std::to_string(size) + " bytes");
    const std::string payload = test_payload(size);
    const RelayReply r = relay_request(relay.get(), "scanjs", R"({"echo":true})", payload, 120000);
    ASSERT_EQ(r.rc, 0);
    // What the worker saw (its verdicts are its own test's).
    EXPECT_EQ(json_member(r.json, "size"), std::to_string(size));
    EXPECT_EQ(json_member(r.json, "sha256"), sha256_hex(payload));
    EXPECT_EQ(r.has_data, size > 0);
    EXPECT_TRUE(r.data == payload) << "reply payload of " << r.data.size() << " bytes differs";
  }
  // Every request took the work queue, none fell back to a core request.
  const std::string after = broker_metrics_render();
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_relay_requests_total{route="jetstream",result="ok"})"),
            std::size(sizes));
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_relay_requests_total{route="core",result="ok"})"), 0);
  EXPECT_EQ(metric_delta(before, after, R"(qm_av_broker_relay_request_duration_seconds_count{route="jetstream"})"),
            std::size(sizes));
  const double bytes = static_cast<double>(std::accumulate(std::begin(sizes), std::end(sizes), size_t{0}));
  EXPECT_EQ(metric_delta(before, after, "qm_av_broker_relay_staged_bytes_total"), bytes);
  EXPECT_EQ(metric_delta(before, after, "qm_av_broker_relay_fetched_bytes_total"), bytes);

  ScanWorker& worker = e.start_worker("scan");
  struct Case {
    const char* subject;
    const char* request;
    std::string payload;
  };
  const Case cases[] = {
      {"scan", "not json", "payload"},
      {"scan", "[1,2]", "payload"},
      {"scan", R"({"a":1} trailing)", test_payload(kChunk + 1)},
      {"scanjs", "not json", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.subject) + ": " + c.request);
    const RelayReply r = relay_request(relay.get(), c.subject, c.request, c.payload, 5000);
    EXPECT_EQ(r.rc, -1);
    EXPECT_FALSE(r.has_json);
    EXPECT_FALSE(r.has_data);
  }
  EXPECT_NOT_LOGGED(worker.log(), "received");
  EXPECT_EQ(LogCapture::count_in(queue_worker.log(), "job received"), std::size(sizes)) << queue_worker.log();
}

// A service named a work queue that the server lacks goes by core; a core request
// reaches a peer that comes up while the relay is backing off from "no responders"; a
// reply is taken as it comes, unless it names a payload the relay cannot trust.
TEST_F(RelayTest, CoreRequestsStandInForAMissingWorkQueueWaitOutNoRespondersAndTakeRepliesAsTheyCome) {
  ScanEnv& e = env();
  e.start_worker("ghost");
  relay_ptr relay = e.make_relay([](gw_config_t& cfg) { cfg.js_services = "ghost"; });
  LogCapture log(QMLOG_DEBUG);
  const RelayReply ghost = relay_request(relay.get(), "ghost", "{}", "xyz");
  ASSERT_EQ(ghost.rc, 0) << log.text();
  EXPECT_EQ(json_member(ghost.json, "size"), "3");
  EXPECT_TRUE(log.contains("nats_relay: JS work queue unusable for ghost (No responders available for request) and "
                           "the job never entered it \u2014 falling back to core request/reply"))
      << log.text();

  auto pending = std::async(std::launch::async, [&] { return relay_request(relay.get(), "late", "{}", "", 5000); });
  ASSERT_TRUE(log.wait_for("nats: no responders for late - backoff", 5s)) << log.text();
  Responder late(e.nc(), "late", [] { return std::string(R"({"ReturnCode":0})"); });
  RelayReply r = pending.get();
  EXPECT_EQ(r.rc, 0) << log.text();
  EXPECT_EQ(r.json, R"({"ReturnCode":0})");

  // Replies the demo worker never gives are taken as they come.
  Responder mute(e.nc(), "mute", [] { return std::string(); });
  r = relay_request(relay.get(), "mute", "{}", "payload");
  EXPECT_EQ(r.rc, 0);
  EXPECT_FALSE(r.has_json);
  // A reply payload whose manifest claims 10 bytes in 2 chunks, the first of 11: the
  // request fails, and only the manifest is deleted (its chunk count is not trusted).
  Responder liar(e.nc(), "liar", [&] {
    uint64_t rev = 0;
    kvStore_PutString(&rev, e.kv(), "lie-0", "eleven byte");
    kvStore_PutString(&rev, e.kv(), "lie", R"({"chunks":2,"size":10})");
    return std::string(R"({"ReturnCode":0,"_kv_key":"lie"})");
  });
  r = relay_request(relay.get(), "liar", "{}");
  EXPECT_EQ(r.rc, -1);
  EXPECT_FALSE(r.has_json);
  EXPECT_LOGGED(log,
      "nats_relay: payload 'lie' refused: manifest of 10 bytes in 2 chunks is not the chunk count of its size");
  EXPECT_EQ(e.bucket_keys(), std::vector<std::string>{"lie-0"});
  kvstore_delete_chunks(e.nc(), e.kv(), "lie", 1);
}

// On the work queue the job was published: it is neither published again nor sent by core.
TEST_F(RelayTest, WorkerKilledMidScanFailsAtTheEndOfTheWaitAndLeavesNoChunks) {
  ScanEnv& e = env({.work_services = "scanjs"});
  relay_ptr relay = e.make_relay([](gw_config_t& cfg) { cfg.relay_timeout_ms = 800; });
  for (const char* service : {"scan", "scanjs"}) {
    SCOPED_TRACE(service);
    const bool work_queue = std::string(service) == "scanjs";
    ScanWorker& worker = e.start_worker(service, work_queue);
    LogCapture log(QMLOG_DEBUG);
    const std::string before = broker_metrics_render();
    const auto start = steady::now();
    auto pending = std::async(std::launch::async, [&] {
      return relay_request(relay.get(), service, R"({"SCANTIMEOUT":500,"delay_ms":60000})", test_payload(kChunk * 2));
    });
    ASSERT_TRUE(worker.wait_for_log(work_queue ? "job received" : "request received", 10s)) << worker.log();
    worker.child().signal(SIGKILL);
    const RelayReply r = pending.get();
    EXPECT_EQ(r.rc, -1);
    EXPECT_FALSE(r.has_json);
    EXPECT_GE(steady::now() - start, 800ms);
    EXPECT_LOGGED(log, "(waited 800ms, SCANTIMEOUT=500ms, kv_key=gw-");
    // One time-out on the service's own route, and no second try on either.
    const std::string route = work_queue ? "jetstream" : "core";
    const std::string after = broker_metrics_render();
    for (const std::string via : {"jetstream", "core"}) {
      for (const std::string result : {"ok", "error", "timeout"}) {
        const std::string sample =
            R"(qm_av_broker_relay_requests_total{route=")" + via + R"(",result=")" + result + "\"}";
        EXPECT_EQ(metric_delta(before, after, sample), via == route && result == "timeout" ? 1 : 0) << sample;
      }
    }
  }
}

// Two workers per service: the one holding the request is killed mid-scan. A core request
// goes out again once its worker falls silent; a job is redelivered once its AckWait (shorter
// than the wait) runs out. Either way the caller gets the survivor's answer well inside the wait.
TEST_F(RelayTest, WorkerKilledMidScanCostsABoundedRetryOnTheSurvivor) {
  ScanEnv& e = env({.work_services = "scanjs", .ackwait_ms = 1000});
  qmtest::relay_ptr relay = e.make_relay([](gw_config_t& cfg) { cfg.relay_timeout_ms = 30000; });
  for (const char* service : {"scan", "scanjs"}) {
    SCOPED_TRACE(service);
    const bool work_queue = std::string(service) == "scanjs";
    std::array<qmtest::ScanWorker*, 2> workers{&e.start_worker(service, work_queue),
                                               &e.start_worker(service, work_queue)};
    const auto start = steady::now();
    auto pending = std::async(std::launch::async, [&] {
      return relay_request(relay.get(), service, R"({"SCANTIMEOUT":500,"delay_ms":1000})", test_payload(kChunk + 1));
    });
    // A core request's worker is killed once the gateway knows it holds the request.
    const char* received = work_queue ? "job received" : "told the gateway it holds";
    qmtest::ScanWorker* holder = nullptr;
    ASSERT_TRUE(qmtest::wait_until(
        [&] {
          for (qmtest::ScanWorker* w : workers)
            if (w->log().find(received) != std::string::npos) holder = w;
          return holder != nullptr;
        },
        10s));
    holder->child().signal(SIGKILL);
    const RelayReply r = pending.get();
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(qmtest::json_member(r.json, "size"), std::to_string(kChunk + 1));
    EXPECT_LT(steady::now() - start, 15s);
  }
}

// A job that outlasts its AckWait stays with its live worker: the worker's in-progress
// acknowledgements hold it, so it is answered once and never redelivered mid-scan.
TEST_F(RelayTest, LiveJobOutlastingItsAckWaitIsAnsweredOnce) {
  ScanEnv& e = env({.work_services = "scanjs", .ackwait_ms = 1000});
  ScanWorker& worker = e.start_worker("scanjs", true);
  relay_ptr relay = e.make_relay([](gw_config_t& cfg) { cfg.js_ackwait_ms = 1000; });
  LogCapture log(QMLOG_WARN);
  const RelayReply first = relay_request(relay.get(), "scanjs", R"({"delay_ms":2000})", "abc", 20000);
  ASSERT_EQ(first.rc, 0) << log.text();
  EXPECT_EQ(json_member(first.json, "size"), "3");
  EXPECT_EQ(log.count("the JetStream work queue's AckWait is 1000ms"), 1u);
  EXPECT_EQ(worker.log().find("delivery 2"), std::string::npos) << worker.log();
  const RelayReply next = relay_request(relay.get(), "scanjs", "{}", "second", 20000);
  ASSERT_EQ(next.rc, 0);
  EXPECT_EQ(json_member(next.json, "size"), "6");
  EXPECT_EQ(log.count("AckWait is"), 1u);
  // The worker logs an answer after sending it: wait for the line of the second one.
  EXPECT_TRUE(wait_until([&] { return LogCapture::count_in(worker.log(), "job answered") >= 2; }, 10s));
  EXPECT_EQ(LogCapture::count_in(worker.log(), "job answered"), 2u) << worker.log();
}

TEST_F(RelayTest, ThreeFailedStagingTriesFailTheRequestAndLeaveNothing) {
  ScanEnv& e = env();
  // The first chunk is now too large for the stream; the second (100 bytes) still fits.
  ASSERT_TRUE(e.update_stream_field(std::string("KV_") + GW_SCAN_DATA_BUCKET, "max_msg_size", "1024"));
  relay_ptr relay = e.make_relay();
  LogCapture log(QMLOG_DEBUG);
  const auto start = steady::now();
  const RelayReply r = relay_request(relay.get(), "scan", "{}", test_payload(kChunk + 100));
  const auto took = steady::now() - start;
  EXPECT_EQ(r.rc, -1);
  EXPECT_EQ(log.count("nats_relay: KV staging retry "), 2u);
  EXPECT_LOGGED(log, "nats_relay: KV staging of 524388 bytes for scan failed after 3 attempts");
  EXPECT_GE(took, 50ms);
}

TEST_F(RelayTest, CreateSettlesItsBoundsAndRefusesWhatItCannotUse) {
  ScanEnv& e = env();
  LogCapture log(QMLOG_INFO);
  relay_ptr defaults = e.make_relay([](gw_config_t& cfg) { cfg.relay_timeout_ms = cfg.relay_max_timeout_ms = 0; });
  EXPECT_EQ(gw_nats_relay_default_timeout_ms(defaults.get()), 30000u);
  EXPECT_LOGGED(log, "bounded to [30000ms, 300000ms]");
  EXPECT_LOGGED(log, "nats_relay: connected to " + e.url() + " (JetStream+KV ready)");
  relay_ptr raised = e.make_relay([](gw_config_t& cfg) {
    cfg.relay_timeout_ms = 4000;
    cfg.relay_max_timeout_ms = 2000;
  });
  EXPECT_TRUE(log.contains("nats_relay: --relay-max-timeout-ms (2000ms) is below --relay-timeout-ms (4000ms); "
                           "raising the ceiling to the floor"));
  EXPECT_EQ(gw_effective_relay_timeout_ms(raised.get(), "scan", R"({"SCANTIMEOUT":9000})", 0, 1, nullptr), 4000u);

  gw_config_t cfg = e.relay_config();
  cfg.nats_url = "nats://127.0.0.1:1";  // nothing listens there
  EXPECT_EQ(gw_nats_relay_create(&cfg), nullptr);
  EXPECT_LOGGED(log, "nats_relay: connect to " + *cfg.nats_url + " failed");
  NatsServer bare;  // JetStream, but nothing provisioned
  cfg.nats_url = bare.url();
  EXPECT_EQ(gw_nats_relay_create(&cfg), nullptr);
  EXPECT_LOGGED(log, "nats_relay: KV bucket 'qm-av-scan-data' bind failed");

  char poison = 'x';
  char* json = &poison;
  char* data = &poison;
  size_t len = 7;
  EXPECT_EQ(gw_nats_relay_request(nullptr, "scan", "{}", nullptr, 0, 100, &json, &data, &len), -1);
  EXPECT_EQ(json, nullptr);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(len, 0u);
  EXPECT_EQ(gw_nats_relay_request(raised.get(), nullptr, "{}", nullptr, 0, 100, &json, &data, &len), -1);
  EXPECT_EQ(gw_nats_relay_request(raised.get(), "scan", nullptr, nullptr, 0, 100, &json, &data, &len), -1);
  EXPECT_EQ(gw_nats_relay_request(raised.get(), "scan", "{}", "abc", 3, 100, nullptr, &data, &len), -1);
}

// ---- The chunked store ---------------------------------------------------------------------------

// The payload under key as read back, "<unreadable>" when kvstore_get_chunked refuses it.
std::string read_back(natsConnection* nc, kvStore* kv, const char* key, size_t max_len = 0) {
  char* data = nullptr;
  size_t len = 0;
  if (kvstore_get_chunked(nc, kv, key, max_len, &data, &len) != 0) return "<unreadable>";
  qm::malloc_ptr<char> owned(data);
  return std::string(data, len);
}

TEST_F(RelayTest, ChunksSplitAtExactly512KiBAndAreReadByAManifestThatFitsThem) {
  ScanEnv& e = env();
  for (size_t size : {kChunk, kChunk + 1}) {
    SCOPED_TRACE(size);
    const std::string payload = test_payload(size);
    ASSERT_EQ(kvstore_put_chunked(e.nc(), e.kv(), "split", payload.data(), size, 0), 0);
    std::vector<std::string> keys = {"split", "split-0"};
    if (size > kChunk) keys.emplace_back("split-1");
    EXPECT_EQ(e.bucket_keys(), keys);
    EXPECT_TRUE(read_back(e.nc(), e.kv(), "split") == payload);
    kvEntry* raw = nullptr;
    kvStore_Get(&raw, e.kv(), keys.back().c_str());
    qm::kv_entry_ptr last(raw);
    EXPECT_EQ(last ? kvEntry_ValueLen(last.get()) : -1, size > kChunk ? 1 : static_cast<int>(kChunk));
    kvstore_delete_chunked(e.nc(), e.kv(), "split");
  }
  // Without a manifest only the key itself goes.
  uint64_t rev = 0;
  kvStore_PutString(&rev, e.kv(), "orphan-0", "chunk");
  kvStore_PutString(&rev, e.kv(), "orphan", "no manifest");
  kvstore_delete_chunked(e.nc(), e.kv(), "orphan");
  EXPECT_EQ(e.bucket_keys(), std::vector<std::string>{"orphan-0"});
  kvstore_delete_chunks(e.nc(), e.kv(), "orphan", 1);

  // A manifest is a claim: it is read back only when it fits the chunks that exist and
  // the cap (the fuzz seeds of relay_reply hold the claims that fit nothing).
  const struct {
    const char* manifest;
    const char* chunk0;
    size_t max_len;
    const char* read;
  } cases[] = {
      {R"({"chunks":2,"size":3})", nullptr, 0, "<unreadable>"},         // a chunk missing
      {R"({"chunks":1,"size":3})", "x", 0, "<unreadable>"},             // the chunks fall short of the size
      {R"({"chunks":4096,"size":2147483648})", "x", 0, "<unreadable>"},  // 2 GiB claimed, the last chunk absent
      {R"({"chunks":1,"size":5})", "12345", 5, "12345"},
  };
  for (const auto& c : cases) {
    uint64_t rev = 0;
    if (c.chunk0 != nullptr) kvStore_PutString(&rev, e.kv(), "bad-0", c.chunk0);
    kvStore_PutString(&rev, e.kv(), "bad", c.manifest);
    EXPECT_EQ(read_back(e.nc(), e.kv(), "bad", c.max_len), c.read) << c.manifest;
    kvstore_delete_chunks(e.nc(), e.kv(), "bad", 2);
  }
  char poison = 'p';
  char* data = &poison;
  size_t len = 9;
  EXPECT_EQ(kvstore_get_chunked(e.nc(), e.kv(), "never-written", 0, &data, &len), -1);
  EXPECT_EQ(data, nullptr);
  EXPECT_EQ(len, 0u);
  // The leader's copy of a deleted payload is its delete marker: still not readable.
  ASSERT_EQ(kvstore_put_chunked(e.nc(), e.kv(), "gone", "x", 1, 0), 0);
  kvstore_delete_chunked(e.nc(), e.kv(), "gone");
  EXPECT_EQ(read_back(e.nc(), e.kv(), "gone"), "<unreadable>");
}

// The relay learns whether the server keeps per-message TTLs as it connects; where it
// does not (nats-server 2.10), it has turned them off and there is nothing to expire.
constexpr const char* kNoMsgTtl =
    "this nats-server keeps no per-message TTL (2.11 or newer does); the relay relies on the bucket's TTL";

TEST_F(RelayTest, PerMessageTtlRemovesWhatIsLeftBehind) {
  ScanEnv& e = env();
  if (e.make_relay() && gw_nats_relay_msg_ttl_unsupported()) GTEST_SKIP() << kNoMsgTtl;
  const std::string payload = test_payload(kChunk + 10);
  ASSERT_EQ(kvstore_put_chunked(e.nc(), e.kv(), "ephemeral", payload.data(), payload.size(), 1000), 0);
  EXPECT_EQ(e.bucket_keys().size(), 3u);
  EXPECT_FALSE(gw_nats_relay_msg_ttl_unsupported());
  EXPECT_TRUE(wait_until([&] { return e.bucket_keys().empty(); }, 20s));
}

TEST_F(RelayTest, ServerRefusingPerMessageTtlTurnsItOffForTheProcess) {
  ScanEnv& e = env();
  if (e.make_relay() && gw_nats_relay_msg_ttl_unsupported()) GTEST_SKIP() << kNoMsgTtl;
  kvConfig cfg;
  kvConfig_Init(&cfg);
  cfg.Bucket = "qm-test-no-ttl";
  cfg.StorageType = js_MemoryStorage;
  kvStore* raw = nullptr;
  ASSERT_EQ(js_CreateKeyValue(&raw, e.js(), &cfg), NATS_OK);
  qm::kv_store_ptr plain(raw);
  LogCapture log(QMLOG_WARN);
  const std::string payload = test_payload(kChunk + 10);
  for (const char* key : {"first", "second"}) {
    ASSERT_EQ(kvstore_put_chunked(e.nc(), plain.get(), key, payload.data(), payload.size(), 5000), 0);
    EXPECT_TRUE(read_back(e.nc(), plain.get(), key) == payload);
  }
  EXPECT_TRUE(gw_nats_relay_msg_ttl_unsupported());
  EXPECT_EQ(log.count("nats_relay: per-message TTL write for key=first failed; falling back to bucket TTL. Ensure "
                      "the KV stream has AllowMsgTTL."),
            1u);
  EXPECT_EQ(log.count("per-message TTL write"), 1u);
}

}  // namespace
