// The REST front door against direct requests: the broker binary with its door on (its
// callout deciding the demo worker's login) and a demo worker. Client threads, each with
// its own keep-alive connection, post a small request or a 1 MiB payload as fast as the
// answers come; the direct rows make the same requests with the relay's request call in
// this process (nats.c, payloads staged in the bucket exactly as the door stages them).
// Door and direct take turns per row. Last, 32 clients post 16 MiB payloads and the
// broker's peak resident memory is read.
//
// QM_HTTP_BENCH_SECONDS sets the length of each measurement (default 4).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "http_fixture.hpp"

namespace {

using steady = std::chrono::steady_clock;
using request_fn = std::function<bool()>;

constexpr const char* kUser = "bench";
constexpr const char* kPassword = "bench-secret";
constexpr const char* kSmallRequest = R"({"scan":1})";
constexpr size_t kMiB = 1048576;
constexpr int kBigClients = 32;
constexpr int kBigRequestsPerClient = 2;

double s_seconds() {
  const char* text = getenv("QM_HTTP_BENCH_SECONDS");
  const double value = text != nullptr ? atof(text) : 0;
  return value > 0 ? value : 4;
}

struct load_result {
  size_t ok = 0;
  size_t failed = 0;
  double seconds = 0;
  std::vector<double> latencies_ms;  // sorted
  double rate() const { return seconds > 0 ? static_cast<double>(ok) / seconds : 0; }
  double percentile(double p) const {
    if (latencies_ms.empty()) return 0;
    const size_t rank = static_cast<size_t>(p / 100 * static_cast<double>(latencies_ms.size()));
    return latencies_ms[std::min(rank, latencies_ms.size() - 1)];
  }
};

// `clients` threads, each with a request function of its own from `make_client`, send
// until `seconds` pass (or, with `per_client`, that many requests each).
load_result s_load(int clients, double seconds, const std::function<request_fn()>& make_client, int per_client = 0) {
  load_result result;
  std::mutex merge;
  std::latch start(clients + 1);
  std::atomic<bool> over{false};
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; ++c) {
    threads.emplace_back([&] {
      request_fn send = make_client();
      std::vector<double> latencies;
      size_t failed = 0;
      start.arrive_and_wait();
      for (int n = 0; per_client > 0 ? n < per_client : !over.load(); ++n) {
        const auto began = steady::now();
        if (send()) {
          latencies.push_back(std::chrono::duration<double, std::milli>(steady::now() - began).count());
        } else {
          ++failed;
        }
      }
      std::lock_guard<std::mutex> guard(merge);
      result.latencies_ms.insert(result.latencies_ms.end(), latencies.begin(), latencies.end());
      result.failed += failed;
    });
  }
  const auto began = steady::now();
  start.arrive_and_wait();
  if (per_client == 0) {
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    over = true;
  }
  for (auto& thread : threads) thread.join();
  result.seconds = std::chrono::duration<double>(steady::now() - began).count();
  result.ok = result.latencies_ms.size();
  std::sort(result.latencies_ms.begin(), result.latencies_ms.end());
  return result;
}

// VmHWM or VmRSS of a process in MiB.
double s_memory_mib(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind(field + ":", 0) == 0) return atof(line.c_str() + field.size() + 1) / 1024;
  return 0;
}

struct row {
  std::string name;  // "door" or "direct", clients, payload
  load_result load;
};

struct bench_report {
  std::vector<row> rows;
  double rss_before_mib = 0, peak_rss_mib = 0;
  load_result big;
  std::string error;
};

bench_report s_run() {
  bench_report report;
  try {
    const int port = qmtest::free_port();
    qmtest::HttpScanEnv env({{kUser, kPassword}},
                            {"--http-enabled", "true", "--http-listen-port", std::to_string(port),
                             "--relay-timeout-ms", "120000"},
                            2);
    const gw_config_t relay_cfg = env.relay_config();
    qmtest::relay_ptr relay(gw_nats_relay_create(&relay_cfg));
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/vsi";
    auto door_client = [&](const std::string& payload) {
      return [&, payload]() -> request_fn {
        auto client = std::make_shared<qmtest::HttpClient>();
        qmtest::HttpRequest request;
        request.url = url;
        request.basic = {kUser, kPassword};
        request.fields = {{"request", kSmallRequest}};
        if (!payload.empty()) request.fields.emplace_back("payload", payload);
        return [client, request] { return client->send(request).status == 200; };
      };
    };
    auto direct_client = [&](const std::string& payload) {
      return [&, payload]() -> request_fn {
        return [&, payload] { return qmtest::relay_request(relay.get(), "scan", kSmallRequest, payload).rc == 0; };
      };
    };
    const std::string one_mib = qmtest::test_payload(kMiB);
    for (int clients : {8, 32}) {
      for (const auto& [size, data] : {std::pair<std::string, std::string>{"small", ""}, {"1 MiB", one_mib}}) {
        const std::string what = std::to_string(clients) + " clients, " + size;
        report.rows.push_back({"door   " + what, s_load(clients, s_seconds(), door_client(data))});
        report.rows.push_back({"direct " + what, s_load(clients, s_seconds(), direct_client(data))});
      }
    }
    const pid_t broker = env.callout().broker().pid();
    std::ofstream("/proc/" + std::to_string(broker) + "/clear_refs") << "5";  // resets the peak
    report.rss_before_mib = s_memory_mib(broker, "VmRSS");
    report.big = s_load(kBigClients, 0, door_client(qmtest::test_payload(16 * kMiB)), kBigRequestsPerClient);
    report.peak_rss_mib = s_memory_mib(broker, "VmHWM");
  } catch (const std::exception& e) {
    report.error = e.what();
  }
  return report;
}

const bench_report& s_report() {
  static const bench_report report = s_run();
  return report;
}

void s_report_load(benchmark::State& state, const load_result& load) {
  for (auto _ : state) state.SetIterationTime(load.seconds);
  state.counters["req/s"] = load.rate();
  state.counters["p50_ms"] = load.percentile(50);
  state.counters["p99_ms"] = load.percentile(99);
  state.counters["failed"] = static_cast<double>(load.failed);
}

void BM_Scan(benchmark::State& state) {
  const bench_report& report = s_report();
  const size_t index = static_cast<size_t>(state.range(0));
  if (!report.error.empty() || index >= report.rows.size()) {
    state.SkipWithError(report.error.empty() ? "no such row" : report.error.c_str());
    for (auto _ : state) {
    }
    return;
  }
  state.SetLabel(report.rows[index].name);
  s_report_load(state, report.rows[index].load);
}
BENCHMARK(BM_Scan)->DenseRange(0, 7)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_PeakRss32Clients16MiB(benchmark::State& state) {
  const bench_report& report = s_report();
  if (!report.error.empty()) {
    state.SkipWithError(report.error.c_str());
    for (auto _ : state) {
    }
    return;
  }
  s_report_load(state, report.big);
  state.counters["rss_before_MiB"] = report.rss_before_mib;
  state.counters["peak_rss_MiB"] = report.peak_rss_mib;
}
BENCHMARK(BM_PeakRss32Clients16MiB)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
