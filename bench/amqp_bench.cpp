// The AMQP front door under load: request/reply rate and latency through the broker to
// the demo scan worker, side by side with nats.c requests straight to the same worker at
// the same concurrency (small requests without payload, and 1 MiB payloads, which the
// direct side stages in "qm-av-scan-data" through the relay as the gateway does); AMQP
// logins per second with a warm auth cache; and what one slow password check does to the
// scans of other connections. Each client link is a connection of its own with a thread
// that sends a request and waits for its reply, again and again. A table with the
// figures side by side follows the benchmark output.
//
// QM_AMQP_BENCH_SMALL and QM_AMQP_BENCH_LARGE override the number of requests per run.
#include <benchmark/benchmark.h>
#include <nats/nats.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "amqp_fixture.hpp"

namespace {

using steady = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kDefaultSmallRequests = 4000;
constexpr int kDefaultLargeRequests = 96;
constexpr size_t kLargePayload = 1048576;
constexpr int kLogins = 400;
constexpr int kLoginThreads = 4;
// Errors only: at info level and above the broker logs lines per request.
constexpr int kBrokerTraceLevel = 2;
constexpr auto kSlowVerify = 2000ms;

int s_env_int(const char* name, int fallback) {
  const char* text = getenv(name);
  const int value = text != nullptr ? atoi(text) : 0;
  return value > 0 ? value : fallback;
}

double s_ms(steady::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double s_percentile(const std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  const size_t rank = static_cast<size_t>(p / 100.0 * static_cast<double>(sorted.size()) + 0.5);
  return sorted[std::min(sorted.size() - 1, rank > 0 ? rank - 1 : 0)];
}

struct run_result {
  double seconds = 0;
  std::vector<double> latencies_ms;
  int failures = 0;
  double rate() const { return seconds > 0 ? static_cast<double>(latencies_ms.size()) / seconds : 0; }
};

// `total` round trips over `threads` threads; each thread gets a caller of its own from
// make_caller (a connection, say) before the clock starts. A caller returns false on failure.
using round_trip = std::function<bool()>;
run_result s_run(int threads, int total, const std::function<round_trip(int)>& make_caller) {
  run_result result;
  std::vector<round_trip> callers;
  for (int t = 0; t < threads; ++t) callers.push_back(make_caller(t));
  std::atomic<int> next{0};
  std::mutex merge;
  std::latch start(threads + 1);
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      std::vector<double> latencies;
      int failures = 0;
      start.arrive_and_wait();
      while (next++ < total) {
        const auto began = steady::now();
        if (callers[static_cast<size_t>(t)]()) latencies.push_back(s_ms(steady::now() - began));
        else ++failures;
      }
      std::lock_guard lock(merge);
      result.latencies_ms.insert(result.latencies_ms.end(), latencies.begin(), latencies.end());
      result.failures += failures;
    });
  }
  const auto began = steady::now();
  start.arrive_and_wait();
  for (auto& w : workers) w.join();
  result.seconds = std::chrono::duration<double>(steady::now() - began).count();
  std::sort(result.latencies_ms.begin(), result.latencies_ms.end());
  return result;
}

// One AMQP client link: a connection with a reply receiver and a sender to "scan".
round_trip s_amqp_caller(qmtest::AmqpEnv& env, const std::string* payload) {
  auto client = std::make_shared<qmtest::ScanClient>(env);
  auto counter = std::make_shared<int>(0);
  return [client, counter, payload] {
    const std::string id = "b" + std::to_string(++*counter);
    const int ticket =
        client->client.send(client->sender, qmtest::scan_request("", "{}", payload, client->reply_address, id));
    if (ticket < 0) return false;
    auto reply = client->client.receive(30s);
    return reply && qmtest::json_member(qmtest::reply_json(*reply), "ReturnCode") == "0";
  };
}

// `total` AMQP round trips over `links` client links, each sending its next request from
// its own event loop as the previous reply arrives, as an event-driven client does.
run_result s_run_amqp(qmtest::AmqpEnv& env, int links, int total, const std::string* payload) {
  std::vector<std::unique_ptr<qmtest::ScanClient>> clients;
  for (int i = 0; i < links; ++i) clients.push_back(std::make_unique<qmtest::ScanClient>(env));
  run_result result;
  std::mutex merge;
  std::latch start(links + 1);
  std::vector<std::thread> loops;
  for (int i = 0; i < links; ++i) {
    loops.emplace_back([&, i] {
      qmtest::ScanClient& c = *clients[static_cast<size_t>(i)];
      const int count = total / links + (i < total % links ? 1 : 0);
      const auto request = [&](int n) {
        return qmtest::scan_request("", "{}", payload, c.reply_address, "b" + std::to_string(n));
      };
      start.arrive_and_wait();
      const std::vector<double> latencies = c.client.round_trips(c.sender, count, request, 120s);
      std::lock_guard lock(merge);
      result.latencies_ms.insert(result.latencies_ms.end(), latencies.begin(), latencies.end());
      result.failures += count - static_cast<int>(latencies.size());
    });
  }
  const auto began = steady::now();
  start.arrive_and_wait();
  for (auto& l : loops) l.join();
  result.seconds = std::chrono::duration<double>(steady::now() - began).count();
  std::sort(result.latencies_ms.begin(), result.latencies_ms.end());
  return result;
}

// A plain NATS request to the worker: the same JSON, no payload.
round_trip s_nats_caller(const std::string& url) {
  natsConnection* raw = nullptr;
  natsOptions* opts = nullptr;
  natsOptions_Create(&opts);
  natsOptions_SetURL(opts, url.c_str());
  natsOptions_SetUserInfo(opts, qmtest::CalloutEnv::kGatewayUser, qmtest::CalloutEnv::kGatewayPassword);
  natsConnection_Connect(&raw, opts);
  natsOptions_Destroy(opts);
  std::shared_ptr<natsConnection> nc(raw, [](natsConnection* c) { natsConnection_Destroy(c); });
  return [nc] {
    natsMsg* reply = nullptr;
    const bool ok = nc && natsConnection_RequestString(&reply, nc.get(), qmtest::AmqpEnv::kService, "{}", 30000) == NATS_OK;
    natsMsg_Destroy(reply);
    return ok;
  };
}

// The payload staged and the request sent the way the gateway's own relay does it.
round_trip s_relay_caller(gw_nats_relay_t* relay, const std::string* payload) {
  return [relay, payload] {
    return qmtest::relay_request(relay, qmtest::AmqpEnv::kService, "{}", *payload, 30000).rc == 0;
  };
}

struct figures {
  std::map<std::string, run_result> runs;
  double logins_per_second = 0;
  // Scans of one connection while other connections log in against a slow verify endpoint.
  std::vector<double> stalled_scan_ms;
  double one_slow_login_s = 0;
  double four_slow_logins_s = 0;
  std::string error;
};

figures& s_figures() {
  static figures f;
  return f;
}

std::unique_ptr<qmtest::AmqpEnv> s_env(bool callout) {
  qmtest::AmqpEnvOptions options;
  options.tracelevel = kBrokerTraceLevel;
  options.callout_service = callout;
  options.broker_args = {"--amqp-relay-workers", "16"};
  return std::make_unique<qmtest::AmqpEnv>(options);
}

void s_measure_throughput(figures& f) {
  auto env = s_env(true);
  gw_config_t cfg;
  cfg.nats_url = env->nats_url();
  cfg.nats_user = qmtest::CalloutEnv::kGatewayUser;
  cfg.nats_password = qmtest::CalloutEnv::kGatewayPassword;
  qmtest::relay_ptr relay(gw_nats_relay_create(&cfg));
  const std::string large = qmtest::test_payload(kLargePayload);
  const int small_total = s_env_int("QM_AMQP_BENCH_SMALL", kDefaultSmallRequests);
  const int large_total = s_env_int("QM_AMQP_BENCH_LARGE", kDefaultLargeRequests);
  for (int links : {4, 16}) {
    const std::string n = std::to_string(links);
    // Warm both paths up before either is measured.
    s_run_amqp(*env, links, links * 4, nullptr);
    f.runs["amqp small x" + n] = s_run_amqp(*env, links, small_total, nullptr);
    f.runs["nats small x" + n] = s_run(links, small_total, [&](int) { return s_nats_caller(env->nats_url()); });
    f.runs["amqp 1MiB x" + n] = s_run_amqp(*env, links, large_total, &large);
    f.runs["nats 1MiB x" + n] = s_run(links, large_total, [&](int) { return s_relay_caller(relay.get(), &large); });
  }
  // Logins with a warm cache: every login after the first is answered from it.
  { qmtest::AmqpClient warm(env->port(), env->login()); }
  const run_result logins = s_run(kLoginThreads, kLogins, [&](int) -> round_trip {
    return [&] {
      qmtest::AmqpClient client(env->port(), env->login());
      return client.is_open();
    };
  });
  f.logins_per_second = logins.rate();
  if (logins.failures > 0) f.error = std::to_string(logins.failures) + " logins failed";
}

// A connection scans in a loop while other connections log in against a verify endpoint
// that answers after 2 s: the scans' latency shows whether a login holds up the event loop.
void s_measure_slow_logins(figures& f) {
  auto env = s_env(false);
  qmtest::NatsLogin verifier = qmtest::nats_login(env->nats_url(), qmtest::CalloutEnv::kAuthUser,
                                                  qmtest::CalloutEnv::kAuthPassword);
  qmtest::VerifyEndpoint verify(verifier.conn, {{qmtest::AmqpEnv::kUser, qmtest::AmqpEnv::kPassword}});
  round_trip scan = s_amqp_caller(*env, nullptr);  // logged in while the endpoint is quick
  verify.set_delay(kSlowVerify);

  std::atomic<bool> logging_in{true};
  std::thread scans([&] {
    while (logging_in.load()) {
      const auto began = steady::now();
      if (scan()) f.stalled_scan_ms.push_back(s_ms(steady::now() - began));
    }
  });
  const auto logins = [&](int count) {
    const auto began = steady::now();
    std::vector<std::thread> clients;
    for (int i = 0; i < count; ++i) clients.emplace_back([&] { qmtest::AmqpClient client(env->port(), env->login()); });
    for (auto& c : clients) c.join();
    return std::chrono::duration<double>(steady::now() - began).count();
  };
  f.one_slow_login_s = logins(1);
  f.four_slow_logins_s = logins(4);
  logging_in.store(false);
  scans.join();
  std::sort(f.stalled_scan_ms.begin(), f.stalled_scan_ms.end());
}

void s_print_table(const figures& f) {
  printf("\nAMQP front door vs direct NATS to the demo worker (broker --amqp-relay-workers 16, --tracelevel %d)\n",
         kBrokerTraceLevel);
  printf("%-16s %10s %8s %8s %10s\n", "run", "req/s", "p50 ms", "p99 ms", "vs direct");
  for (const char* size : {"small", "1MiB"}) {
    for (int links : {4, 16}) {
      const std::string n = std::to_string(links);
      const auto amqp = f.runs.find(std::string("amqp ") + size + " x" + n);
      const auto nats = f.runs.find(std::string("nats ") + size + " x" + n);
      if (amqp == f.runs.end() || nats == f.runs.end()) continue;
      for (const auto* run : {&*amqp, &*nats}) {
        printf("%-16s %10.0f %8.2f %8.2f %10s\n", run->first.c_str(), run->second.rate(),
               s_percentile(run->second.latencies_ms, 50), s_percentile(run->second.latencies_ms, 99),
               run == &*amqp ? std::to_string(amqp->second.rate() / nats->second.rate()).substr(0, 4).c_str() : "");
      }
    }
  }
  printf("AMQP logins (connect, SASL PLAIN, close), warm auth cache, %d threads: %.0f/s\n", kLoginThreads,
         f.logins_per_second);
  printf("Verify endpoint answering after %lld ms: one login %.2f s, four concurrent logins %.2f s; scans of another "
         "connection meanwhile: %zu, p50 %.2f ms, p99 %.2f ms, max %.2f ms\n",
         static_cast<long long>(kSlowVerify.count()), f.one_slow_login_s, f.four_slow_logins_s,
         f.stalled_scan_ms.size(), s_percentile(f.stalled_scan_ms, 50), s_percentile(f.stalled_scan_ms, 99),
         f.stalled_scan_ms.empty() ? 0.0 : f.stalled_scan_ms.back());
  fflush(stdout);
}

struct table_at_exit {
  ~table_at_exit() {
    if (s_figures().error.empty()) s_print_table(s_figures());
  }
};

// Everything is measured once, when the first benchmark asks.
const figures& s_measured() {
  static const bool measured = [] {
    try {
      s_measure_throughput(s_figures());
      s_measure_slow_logins(s_figures());
    } catch (const std::exception& e) {
      s_figures().error = e.what();
    }
    return true;
  }();
  static const table_at_exit table;
  (void)measured;
  return s_figures();
}

void s_report(benchmark::State& state, const std::string& name) {
  const figures& f = s_measured();
  const auto it = f.runs.find(name);
  if (!f.error.empty() || it == f.runs.end() || it->second.failures > 0) {
    state.SkipWithError(f.error.empty() ? (name + ": requests failed").c_str() : f.error.c_str());
    return;
  }
  for (auto _ : state) state.SetIterationTime(it->second.seconds);
  state.counters["req/s"] = it->second.rate();
  state.counters["p50_ms"] = s_percentile(it->second.latencies_ms, 50);
  state.counters["p99_ms"] = s_percentile(it->second.latencies_ms, 99);
}

void BM_RequestReply(benchmark::State& state) {
  static const char* const kRuns[] = {"amqp small x4", "nats small x4", "amqp small x16", "nats small x16",
                                      "amqp 1MiB x4",  "nats 1MiB x4",  "amqp 1MiB x16",  "nats 1MiB x16"};
  const std::string name = kRuns[state.range(0)];
  state.SetLabel(name);
  s_report(state, name);
}
BENCHMARK(BM_RequestReply)->DenseRange(0, 7)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_LoginsWithWarmCache(benchmark::State& state) {
  const figures& f = s_measured();
  if (!f.error.empty()) {
    state.SkipWithError(f.error.c_str());
    return;
  }
  for (auto _ : state) state.SetIterationTime(kLogins / std::max(f.logins_per_second, 1.0));
  state.counters["logins/s"] = f.logins_per_second;
}
BENCHMARK(BM_LoginsWithWarmCache)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_ScansWhileASlowLoginRuns(benchmark::State& state) {
  const figures& f = s_measured();
  if (!f.error.empty()) {
    state.SkipWithError(f.error.c_str());
    return;
  }
  for (auto _ : state) state.SetIterationTime(f.four_slow_logins_s);
  state.counters["scan_p99_ms"] = s_percentile(f.stalled_scan_ms, 99);
  state.counters["scan_max_ms"] = f.stalled_scan_ms.empty() ? 0.0 : f.stalled_scan_ms.back();
  state.counters["4_logins_s"] = f.four_slow_logins_s;
}
BENCHMARK(BM_ScansWhileASlowLoginRuns)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
