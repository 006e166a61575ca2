// Requests through gw_nats_relay_request against direct nats.c requests, both from 8
// threads to the same demo scan worker (small JSON, no payload): the relay's own cost per
// request. The core route and the direct requests take turns for a few rounds; the
// JetStream work-queue route is measured alongside. A table follows the benchmark output.
//
// QM_RELAY_BENCH_REQUESTS (per round) and QM_RELAY_BENCH_THREADS override the defaults.
#include <benchmark/benchmark.h>
#include <nats/nats.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <latch>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench_stats.hpp"
#include "scan_fixture.hpp"

namespace {

constexpr int kDefaultRequests = 4000;
constexpr int kDefaultThreads = 8;
constexpr int kRounds = 3;
constexpr int kWorkerTraceLevel = 2;  // errors only: the worker's log would be measured too
constexpr const char* kRequest = R"({"SCANTIMEOUT":10000,"client":"bench"})";

struct route {
  route(std::string route_name, std::function<bool()> request) : name(std::move(route_name)), one(std::move(request)) {}
  std::string name;
  std::function<bool()> one;
  std::vector<double> rates;
  std::vector<double> latencies_ms;
  double cpu_s = 0;  // this process's CPU time (requester and, on the relay routes, the relay)
  int requests = 0;
  double rate() const { return qmbench::median(rates); }
  double cpu_us_per_request() const { return requests > 0 ? cpu_s * 1e6 / requests : 0; }
};

struct bench_report {
  std::string error;
  int threads = 0;
  int requests = 0;
  std::vector<route> routes;
  const route* find(const std::string& name) const {
    for (const route& r : routes)
      if (r.name == name) return &r;
    return nullptr;
  }
};

bench_report s_measure() {
  bench_report report;
  report.threads = qmbench::env_int("QM_RELAY_BENCH_THREADS", kDefaultThreads);
  report.requests = qmbench::env_int("QM_RELAY_BENCH_REQUESTS", kDefaultRequests);
  try {
    qmtest::ScanEnv env({.work_services = "scanjs"});
    env.start_worker("scan", false, kWorkerTraceLevel);
    env.start_worker("scanjs", true, kWorkerTraceLevel);
    qmtest::relay_ptr relay = env.make_relay();
    gw_nats_relay_t* r = relay.get();
    natsConnection* direct = env.nc();
    const std::string body = kRequest;
    report.routes.emplace_back("direct nats.c", [&] {
                               natsMsg* reply = nullptr;
                               const natsStatus s = natsConnection_Request(&reply, direct, "scan", body.data(),
                                                                           static_cast<int>(body.size()), 10000);
                               natsMsg_Destroy(reply);
                               return s == NATS_OK;
                             });
    report.routes.emplace_back("relay core", [&] { return qmtest::relay_request(r, "scan", body).rc == 0; });
    report.routes.emplace_back("relay JetStream", [&] { return qmtest::relay_request(r, "scanjs", body).rc == 0; });
    for (route& rt : report.routes) qmbench::run(200, report.threads, rt.one);  // warm-up
    for (int round = 0; round < kRounds && report.error.empty(); ++round) {
      for (route& rt : report.routes) {
        const double cpu_before = qmbench::process_cpu_seconds(getpid());
        qmbench::run_result run = qmbench::run(report.requests, report.threads, rt.one);
        rt.cpu_s += qmbench::process_cpu_seconds(getpid()) - cpu_before;
        rt.requests += report.requests;
        if (run.failures > 0) {
          report.error = rt.name + ": " + std::to_string(run.failures) + " requests failed";
          break;
        }
        rt.rates.push_back(report.requests / run.seconds);
        rt.latencies_ms.insert(rt.latencies_ms.end(), run.latencies_ms.begin(), run.latencies_ms.end());
      }
    }
  } catch (const std::exception& e) {
    report.error = e.what();
  }
  return report;
}

void s_print_table(const bench_report& report) {
  const route* base = report.find("direct nats.c");
  printf("\nRelay requests: %d threads, small JSON without payload, %d rounds of %d requests per route, taking "
         "turns; one demo worker per service\n",
         report.threads, kRounds, report.requests);
  printf("%-16s %10s %10s %8s %8s %12s %14s\n", "route", "requests/s", "vs direct", "p50 ms", "p99 ms", "cpu us/req",
         "relay us/req");
  for (const route& rt : report.routes) {
    // The relay's own CPU: the route's, less what the direct requester spends on the same request.
    printf("%-16s %10.0f %10.2f %8.3f %8.3f %12.0f %14.0f\n", rt.name.c_str(), rt.rate(), rt.rate() / base->rate(),
           qmbench::percentile(rt.latencies_ms, 50), qmbench::percentile(rt.latencies_ms, 99), rt.cpu_us_per_request(),
           rt.cpu_us_per_request() - base->cpu_us_per_request());
  }
  fflush(stdout);
}

const bench_report& s_report() { return qmbench::measure_once(s_measure, s_print_table); }

void s_report_route(benchmark::State& state, const char* name) {
  const bench_report& report = s_report();
  const route* rt = report.find(name);
  if (!report.error.empty() || rt == nullptr) {
    state.SkipWithError(report.error.empty() ? "no such route" : report.error.c_str());
    return;
  }
  for (auto _ : state) state.SetIterationTime(report.requests / rt->rate());
  state.counters["requests/s"] = rt->rate();
  state.counters["p50_ms"] = qmbench::percentile(rt->latencies_ms, 50);
  state.counters["p99_ms"] = qmbench::percentile(rt->latencies_ms, 99);
  state.counters["vs_direct"] = rt->rate() / report.find("direct nats.c")->rate();
}

void BM_DirectRequests(benchmark::State& state) { s_report_route(state, "direct nats.c"); }
void BM_RelayCore(benchmark::State& state) { s_report_route(state, "relay core"); }
void BM_RelayJetStream(benchmark::State& state) { s_report_route(state, "relay JetStream"); }

#define QM_RELAY_BENCH(fn) BENCHMARK(fn)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond)
QM_RELAY_BENCH(BM_DirectRequests);
QM_RELAY_BENCH(BM_RelayCore);
QM_RELAY_BENCH(BM_RelayJetStream);

}  // namespace
