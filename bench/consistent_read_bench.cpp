// What consistent reads of staged data cost: a 1 MiB payload (two chunks and a manifest)
// staged through one server and read back at once through another, as a worker on another
// node reads what a door staged. Direct reads that fall back to the stream leader on a miss
// (the default) against leader-only reads (--kv-scandata-allow-direct false), on one server
// and on a three-node cluster with the bucket replicated three times. The counter
// leader_reads counts the entries per read that a replica did not have yet.
#include <benchmark/benchmark.h>
#include <nats/nats.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "broker_kv_bootstrap.hpp"
#include "broker_metrics.hpp"
#include "gw_nats_relay_internal.hpp"
#include "nats_server_fixture.hpp"
#include "qm_handles.hpp"
#include "scan_fixture.hpp"

namespace {

constexpr size_t kPayload = 1u << 20;

// One server, or three joined by routes; kept for the whole run.
class fleet {
 public:
  explicit fleet(int nodes) : routes_(nodes) {
    for (int i = 0; i < nodes; ++i) {
      std::string extra;
      if (nodes > 1) {
        std::vector<int> peers;
        for (int j = 0; j < nodes; ++j)
          if (j != i) peers.push_back(routes_[j].port());
        extra = qmtest::cluster_config("b" + std::to_string(i + 1), routes_[i].port(), peers);
      }
      servers_.push_back(std::make_unique<qmtest::NatsServer>(qmtest::NatsServerOptions{true, extra, 0}));
    }
  }
  std::string url(size_t i) const { return servers_[i]->url(); }
  size_t size() const { return servers_.size(); }

 private:
  std::vector<qmtest::ReservedPort> routes_;
  std::vector<std::unique_ptr<qmtest::NatsServer>> servers_;
};

fleet& s_fleet(int nodes) {
  static std::unique_ptr<fleet> fleets[4];
  if (!fleets[nodes]) fleets[nodes] = std::make_unique<fleet>(nodes);
  return *fleets[nodes];
}

// A client of one server with its handle on the scan-data bucket.
struct client {
  qm::nats_connection_ptr nc;
  qm::js_ctx_ptr js;
  qm::kv_store_ptr kv;
  explicit client(const std::string& url) {
    natsConnection* raw_nc = nullptr;
    jsCtx* raw_js = nullptr;
    kvStore* raw_kv = nullptr;
    if (natsConnection_ConnectTo(&raw_nc, url.c_str()) != NATS_OK) throw std::runtime_error("connect " + url);
    nc.reset(raw_nc);
    if (natsConnection_JetStream(&raw_js, nc.get(), nullptr) != NATS_OK) throw std::runtime_error("jetstream");
    js.reset(raw_js);
    if (js_KeyValue(&raw_kv, js.get(), GW_SCAN_DATA_BUCKET) != NATS_OK) throw std::runtime_error("bucket");
    kv.reset(raw_kv);
  }
};

void BM_StagedReadThroughAnotherServer(benchmark::State& state) {
  const int nodes = static_cast<int>(state.range(0));
  const bool allow_direct = state.range(1) != 0;
  fleet& f = s_fleet(nodes);
  // The bucket's AllowDirect is set here; a handle bound afterwards reads accordingly.
  if (broker_kv_bootstrap(f.url(0).c_str(), nullptr, nullptr, nullptr, nodes, allow_direct, true, nullptr) != 0) {
    state.SkipWithError("KV bootstrap failed");
    return;
  }
  client writer(f.url(0));
  client reader(f.url(f.size() - 1));
  const std::string payload = qmtest::test_payload(kPayload);
  const uint64_t leader_reads_before = broker_metrics_leader_reads();
  int n = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const std::string key = "bench-" + std::to_string(n++);
    if (kvstore_put_chunked(writer.nc.get(), writer.kv.get(), key.c_str(), payload.data(), payload.size(), 0) != 0) {
      state.SkipWithError("staging failed");
      break;
    }
    state.ResumeTiming();
    char* data = nullptr;
    size_t len = 0;
    const int rc = kvstore_get_chunked(reader.nc.get(), reader.kv.get(), key.c_str(), 0, &data, &len);
    state.PauseTiming();
    free(data);
    kvstore_delete_chunked(writer.nc.get(), writer.kv.get(), key.c_str());
    if (rc != 0 || len != payload.size()) {
      state.SkipWithError("a staged payload was not readable");
      break;
    }
    state.ResumeTiming();
  }
  state.counters["leader_reads"] = benchmark::Counter(
      static_cast<double>(broker_metrics_leader_reads() - leader_reads_before), benchmark::Counter::kAvgIterations);
  state.SetLabel(std::to_string(nodes) + (nodes > 1 ? " nodes, R3, " : " node, ") +
                 (allow_direct ? "direct + leader fallback" : "leader only"));
}

BENCHMARK(BM_StagedReadThroughAnotherServer)
    ->Args({1, 1})
    ->Args({1, 0})
    ->Args({3, 1})
    ->Args({3, 0})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(200);

}  // namespace
