// The REST front door against direct requests: the broker binary with its door on (its
// callout deciding the demo worker's login) and a demo worker. 8 or 32 client threads,
// each with its own keep-alive connection, post a small request or a 1 MiB payload; the
// direct route makes the same requests with the relay's request call in this process
// (nats.c, payloads staged in the bucket exactly as the door stages them). Door and
// direct take turns for a few rounds. Last, 32 clients post 16 MiB and then 64 MiB
// payloads (written straight to the socket, so the bench holds one copy) and the broker's
// peak resident memory is read for each: the door streams payloads into the bucket, so
// the peak should not follow the payload's size. A table follows the benchmark output.
//
// QM_HTTP_BENCH_REQUESTS overrides the small requests per round (1 MiB rows send a tenth).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "bench_stats.hpp"
#include "amqp_fixture.hpp"
#include "http_fixture.hpp"

namespace {

constexpr const char* kUser = qmtest::AmqpEnv::kUser;
constexpr const char* kPassword = qmtest::AmqpEnv::kPassword;
constexpr const char* kRequest = R"({"scan":1})";
constexpr size_t kMiB = 1048576;
constexpr int kRounds = 3;
constexpr int kDefaultSmallRequests = 4000;
constexpr int kBigClients = 32;
constexpr int kBigRequests = 32;  // one per client
constexpr const char* kBasic = "c2Nhbm5lcjpzY2FubmVyLXNlY3JldA==";  // kUser:kPassword
constexpr int kQuiet = 2;         // errors only: the broker's log would be measured too

struct route {
  std::vector<double> rates;
  std::vector<double> latencies_ms;
  int failures = 0;
  double broker_cpu_s = 0;  // the broker's CPU time over every round
  int requests = 0;
  double rate() const { return qmbench::median(rates); }
  double broker_cpu_us_per_request() const { return requests > 0 ? broker_cpu_s * 1e6 / requests : 0; }
  void add(const qmbench::run_result& run, int count, double cpu_s = 0) {
    rates.push_back(count / run.seconds);
    latencies_ms.insert(latencies_ms.end(), run.latencies_ms.begin(), run.latencies_ms.end());
    failures += run.failures;
    broker_cpu_s += cpu_s;
    requests += count;
  }
};

struct row {
  int clients;
  bool big;  // 1 MiB payloads, else none
  route door, direct;
  std::string name() const { return std::to_string(clients) + " clients, " + (big ? "1 MiB" : "small"); }
};

// 32 clients posting payloads of one size, and the broker's memory meanwhile.
struct big_row {
  size_t mib;
  route door;
  double rss_before_mib = 0, peak_rss_mib = 0;
};

struct bench_report {
  std::string error;
  int small_requests = 0;
  std::vector<row> rows;
  std::vector<big_row> big{{16, {}}, {64, {}}};
};

// A field of the process's /proc status in MiB ("VmRSS", "VmHWM").
double s_status_mib(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind(field + ":", 0) == 0) return atof(line.c_str() + field.size() + 1) / 1024;
  return 0;
}

bench_report s_measure() {
  bench_report report;
  report.small_requests = qmbench::env_int("QM_HTTP_BENCH_REQUESTS", kDefaultSmallRequests, 10);
  try {
    const int port = qmtest::free_port();
    qmtest::AmqpEnvOptions options;
    options.broker_args = {"--http-enabled", "true", "--http-listen-port", std::to_string(port), "--relay-timeout-ms",
                           "120000"};
    options.tracelevel = kQuiet;
    qmtest::AmqpEnv env(options);
    const gw_config_t relay_cfg = env.relay_config();
    qmtest::relay_ptr relay(gw_nats_relay_create(&relay_cfg));
    qmtest::HttpRequest request;
    request.url = "http://127.0.0.1:" + std::to_string(port) + "/vsi";
    request.basic = {kUser, kPassword};
    std::string payload;
    auto door = [&] {
      thread_local qmtest::HttpClient client;  // one keep-alive connection per client thread
      qmtest::HttpRequest mine = request;
      mine.fields = {{"request", kRequest}};
      if (!payload.empty()) mine.fields.emplace_back("payload", payload);
      return client.send(mine).status == 200;
    };
    auto direct = [&] { return qmtest::relay_request(relay.get(), "scan", kRequest, payload).rc == 0; };
    for (int clients : {8, 32})
      for (bool big : {false, true}) report.rows.push_back({clients, big, {}, {}});
    const std::string one_mib = qmtest::test_payload(kMiB);
    const pid_t broker = env.callout().broker().pid();
    for (int round = 0; round < kRounds; ++round) {
      for (row& r : report.rows) {
        payload = r.big ? one_mib : "";
        const int requests = r.big ? report.small_requests / 10 : report.small_requests;
        const double cpu_before = qmbench::process_cpu_seconds(broker);
        const qmbench::run_result through_door = qmbench::run(requests, r.clients, door);
        r.door.add(through_door, requests, qmbench::process_cpu_seconds(broker) - cpu_before);
        r.direct.add(qmbench::run(requests, r.clients, direct), requests);
      }
    }
    for (big_row& big : report.big) {
      const std::string big_payload = qmtest::test_payload(big.mib * kMiB);
      const std::string digest = qmtest::sha256_hex(big_payload);
      auto upload = [&] {
        const qmtest::RawPost answer = qmtest::raw_multipart_post(port, kBasic, big_payload);
        return answer.text.rfind("HTTP/1.1 200", 0) == 0 && qmtest::json_member(answer.body(), "sha256") == digest;
      };
      std::ofstream("/proc/" + std::to_string(broker) + "/clear_refs") << "5";  // VmHWM back to VmRSS
      big.rss_before_mib = s_status_mib(broker, "VmRSS");
      big.door.add(qmbench::run(kBigRequests, kBigClients, upload), kBigRequests);
      big.peak_rss_mib = s_status_mib(broker, "VmHWM");
    }
  } catch (const std::exception& e) {
    report.error = e.what();
  }
  return report;
}

void s_print_table(const bench_report& report) {
  printf("\nREST front door against direct relay requests to one demo worker: %d rounds, taking turns; %d small "
         "requests or %d of 1 MiB per route and round\n",
         kRounds, report.small_requests, report.small_requests / 10);
  printf("%-20s %12s %12s %9s %17s %17s %10s %14s %8s\n", "load", "door req/s", "direct req/s", "door/dir",
         "door p50/p99 ms", "direct p50/p99 ms", "p50 added", "broker us/req", "failures");
  for (const row& r : report.rows) {
    const double door_p50 = qmbench::percentile(r.door.latencies_ms, 50);
    const double direct_p50 = qmbench::percentile(r.direct.latencies_ms, 50);
    printf("%-20s %12.0f %12.0f %9.2f %8.2f/%-8.2f %8.2f/%-8.2f %10.2f %14.0f %8d\n", r.name().c_str(), r.door.rate(),
           r.direct.rate(), r.door.rate() / r.direct.rate(), door_p50, qmbench::percentile(r.door.latencies_ms, 99),
           direct_p50, qmbench::percentile(r.direct.latencies_ms, 99), door_p50 - direct_p50,
           r.door.broker_cpu_us_per_request(), r.door.failures + r.direct.failures);
  }
  for (const big_row& big : report.big)
    printf("32 clients posting %zu MiB payloads through the door (%d requests, %d failed, %.1f req/s): broker RSS "
           "%.0f MiB before, peak %.0f MiB, growth %.0f MiB\n",
           big.mib, kBigRequests, big.door.failures, big.door.rate(), big.rss_before_mib, big.peak_rss_mib,
           big.peak_rss_mib - big.rss_before_mib);
  fflush(stdout);
}

const bench_report& s_report() { return qmbench::measure_once(s_measure, s_print_table); }

void s_report_route(benchmark::State& state, const route& r, int requests) {
  for (auto _ : state) state.SetIterationTime(requests / r.rate());
  state.counters["requests/s"] = r.rate();
  state.counters["p50_ms"] = qmbench::percentile(r.latencies_ms, 50);
  state.counters["p99_ms"] = qmbench::percentile(r.latencies_ms, 99);
  state.counters["failures"] = r.failures;
}

// Argument: the row; 0 the door, 1 direct.
void BM_Scan(benchmark::State& state) {
  const bench_report& report = s_report();
  const size_t index = static_cast<size_t>(state.range(0));
  if (!report.error.empty() || index >= report.rows.size()) {
    state.SkipWithError(report.error.empty() ? "no such row" : report.error.c_str());
    return;
  }
  const row& r = report.rows[index];
  state.SetLabel((state.range(1) == 0 ? "door " : "direct ") + r.name());
  s_report_route(state, state.range(1) == 0 ? r.door : r.direct,
                 r.big ? report.small_requests / 10 : report.small_requests);
}
BENCHMARK(BM_Scan)->ArgsProduct({{0, 1, 2, 3}, {0, 1}})->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// Argument: the payload's size in MiB (16 or 64).
void BM_Door32ClientsBig(benchmark::State& state) {
  const bench_report& report = s_report();
  if (!report.error.empty()) {
    state.SkipWithError(report.error.c_str());
    return;
  }
  for (const big_row& big : report.big) {
    if (big.mib != static_cast<size_t>(state.range(0))) continue;
    s_report_route(state, big.door, kBigRequests);
    state.counters["rss_before_MiB"] = big.rss_before_mib;
    state.counters["peak_rss_MiB"] = big.peak_rss_mib;
  }
}
BENCHMARK(BM_Door32ClientsBig)->Arg(16)->Arg(64)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
