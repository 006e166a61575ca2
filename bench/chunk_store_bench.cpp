// 256 MiB through the chunked scan-data store (staged, read back, deleted) against raw
// asynchronous JetStream publishing of the same bytes in 512 KiB messages to a memory
// stream; they take turns for a few rounds. Before that, the peak RSS growth of this
// process during one relay of a 256 MiB payload to a demo worker, without and with the
// payload echoed back. A table follows the benchmark output.
#include <benchmark/benchmark.h>
#include <nats/nats.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "bench_stats.hpp"
#include "gw_nats_relay_internal.hpp"
#include "scan_fixture.hpp"

namespace {

using steady = std::chrono::steady_clock;

constexpr size_t kPayload = 256u << 20;
constexpr int kRounds = 3;
constexpr int64_t kTtlMs = 60000;
constexpr double kMiB = 1024.0 * 1024.0;

double s_seconds_since(steady::time_point began) { return std::chrono::duration<double>(steady::now() - began).count(); }

// A field of /proc/self/status in kB ("VmRSS", "VmHWM").
long s_status_kb(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const std::string prefix = std::string(field) + ":";
  while (std::getline(status, line)) {
    if (line.rfind(prefix, 0) == 0) return atol(line.c_str() + prefix.size());
  }
  return -1;
}

// Starts a new peak: the kernel sets VmHWM back to the current VmRSS.
bool s_reset_peak_rss() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  return static_cast<bool>(clear);
}

struct store_report {
  std::string error;
  double rss_growth_mib = -1;       // one relay, small reply
  double rss_growth_echo_mib = -1;  // one relay, the payload echoed back
  std::vector<double> raw_s, put_s, get_s, delete_s;
};

// Peak RSS growth over one relay of `payload`, the reply payload still held (as a
// caller would hold it to pass it on); -1 when the request failed.
double s_relay_rss_growth_mib(gw_nats_relay_t* relay, const std::string& payload, bool echo) {
  if (!s_reset_peak_rss()) return -1;
  const long before_kb = s_status_kb("VmRSS");
  char* json = nullptr;
  char* data = nullptr;
  size_t data_len = 0;
  const int rc = gw_nats_relay_request(relay, "scan", echo ? R"({"echo":true})" : "{}", payload.data(),
                                       payload.size(), 120000, &json, &data, &data_len);
  const long peak_kb = s_status_kb("VmHWM");
  qm::malloc_ptr<char> owned_json(json);
  qm::malloc_ptr<char> owned_data(data);
  if (rc != 0 || (echo && data_len != payload.size())) return -1;
  return static_cast<double>(peak_kb - before_kb) / 1024.0;
}

void s_measure_rss(store_report& report, qmtest::ScanEnv& env, const std::string& payload) {
  env.start_worker("scan", false, 2);
  qmtest::relay_ptr relay = env.make_relay();
  // The first relay brings up threads and buffers that stay: not part of one relay's cost.
  if (qmtest::relay_request(relay.get(), "scan", "{}", "warm-up").rc != 0) {
    report.error = "warm-up relay failed";
    return;
  }
  report.rss_growth_mib = s_relay_rss_growth_mib(relay.get(), payload, false);
  report.rss_growth_echo_mib = s_relay_rss_growth_mib(relay.get(), payload, true);
  if (report.rss_growth_mib < 0 || report.rss_growth_echo_mib < 0) report.error = "256 MiB relay failed";
}

// Raw async publishing of the payload in 512 KiB messages to a memory stream, then purged.
double s_raw_publish_seconds(jsCtx* js, const std::string& payload) {
  const auto began = steady::now();
  for (size_t offset = 0, i = 0; offset < payload.size(); offset += GW_KV_CHUNK_SIZE, ++i) {
    const std::string subject = "rawbench." + std::to_string(i);
    const size_t len = std::min(GW_KV_CHUNK_SIZE, payload.size() - offset);
    if (js_PublishAsync(js, subject.c_str(), payload.data() + offset, static_cast<int>(len), nullptr) != NATS_OK)
      return -1;
  }
  jsPubOptions opts;
  jsPubOptions_Init(&opts);
  opts.MaxWait = 60000;
  if (js_PublishAsyncComplete(js, &opts) != NATS_OK) return -1;
  const double seconds = s_seconds_since(began);
  js_PurgeStream(js, "RAWBENCH", nullptr, nullptr);
  return seconds;
}

bool s_store_round(store_report& report, qmtest::ScanEnv& env, jsCtx* raw_js, const std::string& payload, int round) {
  const double raw = s_raw_publish_seconds(raw_js, payload);
  const std::string key = "bench-" + std::to_string(round);
  auto began = steady::now();
  if (raw < 0 || kvstore_put_chunked(env.nc(), env.kv(), key.c_str(), payload.data(), payload.size(), kTtlMs) != 0) {
    return false;
  }
  const double put = s_seconds_since(began);
  began = steady::now();
  char* data = nullptr;
  size_t len = 0;
  const bool read = kvstore_get_chunked(env.nc(), env.kv(), key.c_str(), 0, &data, &len) == 0;
  qm::malloc_ptr<char> owned(data);
  const double get = s_seconds_since(began);
  if (!read || len != payload.size() || memcmp(data, payload.data(), len) != 0) return false;
  owned.reset();
  began = steady::now();
  kvstore_delete_chunked(env.nc(), env.kv(), key.c_str());
  report.delete_s.push_back(s_seconds_since(began));
  report.raw_s.push_back(raw);
  report.put_s.push_back(put);
  report.get_s.push_back(get);
  return true;
}

store_report s_measure() {
  store_report report;
  try {
    qmtest::ScanEnv env;
    const std::string payload = qmtest::test_payload(kPayload);
    s_measure_rss(report, env, payload);
    jsStreamConfig cfg;
    jsStreamConfig_Init(&cfg);
    cfg.Name = "RAWBENCH";
    const char* subjects[] = {"rawbench.>"};
    cfg.Subjects = subjects;
    cfg.SubjectsLen = 1;
    cfg.Storage = js_MemoryStorage;
    jsStreamInfo* info = nullptr;
    if (report.error.empty() && js_AddStream(&info, env.js(), &cfg, nullptr, nullptr) != NATS_OK) {
      report.error = "cannot create the raw stream";
    }
    jsStreamInfo_Destroy(info);
    for (int round = 0; round < kRounds && report.error.empty(); ++round) {
      if (!s_store_round(report, env, env.js(), payload, round)) report.error = "store round failed";
    }
  } catch (const std::exception& e) {
    report.error = e.what();
  }
  return report;
}

double s_mib_per_s(double seconds) { return seconds > 0 ? kPayload / kMiB / seconds : 0; }

void s_print_table(const store_report& r) {
  const double raw = qmbench::median(r.raw_s);
  const double put = qmbench::median(r.put_s);
  const double get = qmbench::median(r.get_s);
  const double del = qmbench::median(r.delete_s);
  printf("\nChunked store: 256 MiB, %d rounds taking turns with raw async publishing (medians)\n", kRounds);
  printf("%-30s %9s %9s %8s\n", "step", "ms", "MiB/s", "vs raw");
  printf("%-30s %9.0f %9.0f %8.2f\n", "raw async publish, 512 KiB", raw * 1000, s_mib_per_s(raw), 1.0);
  printf("%-30s %9.0f %9.0f %8.2f\n", "stage (chunks + manifest)", put * 1000, s_mib_per_s(put), raw / put);
  printf("%-30s %9.0f %9.0f %8.2f\n", "read back", get * 1000, s_mib_per_s(get), raw / get);
  printf("%-30s %9.0f %9.0f %8.2f\n", "stage + read back", (put + get) * 1000, s_mib_per_s(put + get),
         raw / (put + get));
  printf("%-30s %9.0f\n", "delete (513 entries, pipelined)", del * 1000);
  printf("Peak RSS growth during one 256 MiB relay: %.0f MiB (%.2fx the payload); with the payload echoed back: "
         "%.0f MiB (%.2fx)\n",
         r.rss_growth_mib, r.rss_growth_mib / 256.0, r.rss_growth_echo_mib, r.rss_growth_echo_mib / 256.0);
  fflush(stdout);
}

const store_report& s_report() { return qmbench::measure_once(s_measure, s_print_table); }

void s_report_step(benchmark::State& state, const std::vector<double> store_report::*step) {
  const store_report& r = s_report();
  if (!r.error.empty()) {
    state.SkipWithError(r.error.c_str());
    return;
  }
  const double seconds = qmbench::median(r.*step);
  for (auto _ : state) state.SetIterationTime(seconds);
  state.counters["MiB/s"] = s_mib_per_s(seconds);
  state.counters["vs_raw"] = qmbench::median(r.raw_s) / seconds;
}

void BM_RawAsyncPublish(benchmark::State& state) { s_report_step(state, &store_report::raw_s); }
void BM_StagePayload(benchmark::State& state) { s_report_step(state, &store_report::put_s); }
void BM_ReadPayloadBack(benchmark::State& state) { s_report_step(state, &store_report::get_s); }

void BM_RelayPeakRssGrowth(benchmark::State& state) {
  const store_report& r = s_report();
  if (!r.error.empty()) {
    state.SkipWithError(r.error.c_str());
    return;
  }
  for (auto _ : state) state.SetIterationTime(1);
  state.counters["growth_MiB"] = r.rss_growth_mib;
  state.counters["growth_echo_MiB"] = r.rss_growth_echo_mib;
}

#define QM_STORE_BENCH(fn) BENCHMARK(fn)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond)
QM_STORE_BENCH(BM_RawAsyncPublish);
QM_STORE_BENCH(BM_StagePayload);
QM_STORE_BENCH(BM_ReadPayloadBack);
QM_STORE_BENCH(BM_RelayPeakRssGrowth);

}  // namespace
