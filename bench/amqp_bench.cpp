// The AMQP front door under load: request/reply rate and latency through the broker to
// the demo scan worker, side by side with nats.c requests straight to the same worker at
// the same concurrency (small requests without payload, and 1 MiB payloads, which the
// direct side stages in "qm-av-scan-data" through the relay as the gateway does); AMQP
// logins per second with a warm auth cache; and what a slow password check does to the
// scans of another connection. Each AMQP client link is a connection of its own that
// sends its next request from its event loop as the previous reply arrives; each direct
// link a thread with a NATS connection of its own. A table with the figures side by side
// follows the benchmark output.
//
// QM_AMQP_BENCH_SMALL and QM_AMQP_BENCH_LARGE override the number of requests per run.
#include <benchmark/benchmark.h>
#include <nats/nats.h>
#include <proton/connection.hpp>
#include <proton/connection_options.hpp>
#include <proton/container.hpp>
#include <proton/delivery.hpp>
#include <proton/error_condition.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver.hpp>
#include <proton/receiver_options.hpp>
#include <proton/sender.hpp>
#include <proton/source.hpp>
#include <proton/source_options.hpp>
#include <proton/transport.hpp>
#include <proton/work_queue.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <algorithm>
#include <functional>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "amqp_fixture.hpp"
#include "bench_stats.hpp"

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
constexpr int kLinks[] = {8, 32};
constexpr int kRounds = 3;

double s_ms(steady::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

struct run_result {
  double seconds = 0;
  std::vector<double> latencies_ms;
  int failures = 0;
  double broker_cpu_s = 0;  // the broker's CPU time (user and system) during the run
  double rate() const { return seconds > 0 ? static_cast<double>(latencies_ms.size()) / seconds : 0; }
  double broker_cpu_us_per_request() const {
    return latencies_ms.empty() ? 0 : broker_cpu_s * 1e6 / static_cast<double>(latencies_ms.size());
  }
};

// A link's share of a run: `count` round trips, the latency of each that succeeded.
using batch = std::function<std::vector<double>(int count)>;

// `total` round trips over `links` links that start together; make_link sets each link
// up (connects) before the clock starts. The broker's CPU time is read around the run.
run_result s_run(int links, int total, const std::function<batch(int)>& make_link, pid_t broker = 0) {
  std::vector<batch> batches;
  for (int i = 0; i < links; ++i) batches.push_back(make_link(i));
  run_result result;
  std::mutex merge;
  std::latch start(links + 1);
  std::vector<std::thread> threads;
  for (int i = 0; i < links; ++i) {
    threads.emplace_back([&, i] {
      const int count = total / links + (i < total % links ? 1 : 0);
      start.arrive_and_wait();
      const std::vector<double> latencies = batches[static_cast<size_t>(i)](count);
      std::lock_guard lock(merge);
      result.latencies_ms.insert(result.latencies_ms.end(), latencies.begin(), latencies.end());
      result.failures += count - static_cast<int>(latencies.size());
    });
  }
  const double cpu_before = qmbench::process_cpu_seconds(broker);
  const auto began = steady::now();
  start.arrive_and_wait();
  for (auto& t : threads) t.join();
  result.seconds = std::chrono::duration<double>(steady::now() - began).count();
  result.broker_cpu_s = qmbench::process_cpu_seconds(broker) - cpu_before;
  return result;
}

// Round trips one at a time on the calling thread; `one` returns false on failure.
std::vector<double> s_one_by_one(int count, const std::function<bool()>& one) {
  std::vector<double> latencies;
  for (int n = 0; n < count; ++n) {
    const auto began = steady::now();
    if (one()) latencies.push_back(s_ms(steady::now() - began));
  }
  return latencies;
}

// An AMQP client link: a connection of its own with a reply receiver and a sender to
// "scan", on a container thread of its own that sends each request as the previous reply
// arrives, so that no hand-over between threads is in the figures.
class AmqpLink : public proton::messaging_handler {
 public:
  AmqpLink(int port, qmtest::AmqpLogin login, const std::string* payload)
      : login_(std::move(login)), port_(port), payload_(payload), container_(*this) {
    thread_ = std::thread([this] { container_.run(); });
    if (!wait(30s, [this] { return ready_ || ended_; }) || !ready_) {
      stop();
      throw std::runtime_error("AMQP link did not open");
    }
  }
  ~AmqpLink() override { stop(); }
  AmqpLink(const AmqpLink&) = delete;
  AmqpLink& operator=(const AmqpLink&) = delete;

  // `count` round trips; the latency of each in ms, fewer when the connection ended or a
  // reply did not come within 120 s.
  std::vector<double> round_trips(int count) {
    update([&] {
      latencies_.clear();
      remaining_ = count;
    });
    if (count < 1 || !post([this] { send_next(); })) return {};
    wait(120s, [this] { return remaining_ == 0 || ended_; });
    std::lock_guard lock(mu_);
    return latencies_;
  }

  void on_container_start(proton::container& c) override {
    proton::connection_options opts;
    opts.sasl_allow_insecure_mechs(true).sasl_allowed_mechs("PLAIN").user(login_.user).password(login_.password);
    c.connect("amqp://127.0.0.1:" + std::to_string(port_), opts);
  }
  void on_connection_open(proton::connection& c) override {
    connection_ = c;
    sender_ = c.open_sender(qmtest::AmqpEnv::kService);
    c.open_receiver("", proton::receiver_options().source(proton::source_options().dynamic(true)));
  }
  void on_receiver_open(proton::receiver& r) override {
    reply_to_ = r.source().address();
    update([&] {
      work_ = &connection_.work_queue();
      ready_ = true;
    });
  }
  void on_sendable(proton::sender&) override {
    if (waiting_for_credit_) send_next();
  }
  void on_message(proton::delivery&, proton::message&) override {
    const double ms = s_ms(steady::now() - sent_);
    bool more = false;
    update([&] {
      latencies_.push_back(ms);
      more = --remaining_ > 0;
    });
    if (more) send_next();
  }
  void on_error(const proton::error_condition&) override { update([this] { ended_ = true; }); }
  void on_transport_close(proton::transport&) override { update([this] { ended_ = true; }); }

 private:
  template <class Fn>
  void update(Fn fn) {
    {
      std::lock_guard lock(mu_);
      fn();
    }
    cv_.notify_all();
  }
  // Runs fn on the container thread; held under mu_, which the close event takes before
  // the connection and its work queue can go away.
  bool post(std::function<void()> fn) {
    std::lock_guard lock(mu_);
    return !ended_ && work_ != nullptr && work_->add(std::move(fn));
  }
  template <class Pred>
  bool wait(std::chrono::milliseconds timeout, Pred pred) {
    std::unique_lock lock(mu_);
    return cv_.wait_for(lock, timeout, pred);
  }

  void send_next() {
    waiting_for_credit_ = sender_.credit() <= 0;
    if (waiting_for_credit_) return;
    sent_ = steady::now();
    sender_.send(qmtest::scan_request("", "{}", payload_, reply_to_, proton::message_id(++sent_count_)));
  }

  void stop() {
    if (!thread_.joinable()) return;
    if (post([this] { connection_.close(); })) wait(10s, [this] { return ended_; });
    container_.stop();
    thread_.join();
  }

  qmtest::AmqpLogin login_;
  int port_;
  const std::string* payload_;
  proton::container container_;
  std::thread thread_;
  // The container thread's own.
  proton::connection connection_;
  proton::sender sender_;
  std::string reply_to_;
  bool waiting_for_credit_ = false;
  uint64_t sent_count_ = 0;
  steady::time_point sent_;
  // Shared with the caller's thread, under mu_.
  std::mutex mu_;
  std::condition_variable cv_;
  proton::work_queue* work_ = nullptr;
  bool ready_ = false;
  bool ended_ = false;
  int remaining_ = 0;
  std::vector<double> latencies_;
};

batch s_amqp_link(qmtest::AmqpEnv& env, const std::string* payload) {
  auto link = std::make_shared<AmqpLink>(env.port(), env.login(), payload);
  return [link](int count) { return link->round_trips(count); };
}

// A NATS link: plain requests with the same JSON and no payload.
batch s_nats_link(const std::string& url) {
  qmtest::NatsLogin login = qmtest::nats_login(url, qmtest::CalloutEnv::kGatewayUser, qmtest::CalloutEnv::kGatewayPassword);
  auto shared = std::make_shared<qmtest::NatsLogin>(std::move(login));
  return [shared](int count) {
    return s_one_by_one(count, [&] {
      natsMsg* reply = nullptr;
      const bool ok = shared->conn != nullptr && natsConnection_RequestString(&reply, shared->conn,
                                                                              qmtest::AmqpEnv::kService, "{}",
                                                                              30000) == NATS_OK;
      natsMsg_Destroy(reply);
      return ok;
    });
  };
}

// The payload staged and the request sent the way the gateway's own relay does it.
batch s_relay_link(gw_nats_relay_t* relay, const std::string* payload) {
  return [relay, payload](int count) {
    return s_one_by_one(count, [&] {
      return qmtest::relay_request(relay, qmtest::AmqpEnv::kService, "{}", *payload, 30000).rc == 0;
    });
  };
}

struct figures {
  std::map<std::string, run_result> runs;
  double logins_per_second = 0;
  // Scans of one connection while others log in against a slow verify endpoint.
  std::vector<double> stalled_scan_ms;
  double one_slow_login_s = 0;
  double four_slow_logins_s = 0;
  std::string error;
};

std::unique_ptr<qmtest::AmqpEnv> s_env(bool callout) {
  qmtest::AmqpEnvOptions options;
  options.tracelevel = kBrokerTraceLevel;
  options.callout_service = callout;
  options.broker_args = {"--amqp-relay-workers", "32"};
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
  const int small_total = qmbench::env_int("QM_AMQP_BENCH_SMALL", kDefaultSmallRequests);
  const int large_total = qmbench::env_int("QM_AMQP_BENCH_LARGE", kDefaultLargeRequests);
  const pid_t broker = env->broker().pid();
  // Door and direct take turns for a few rounds, so that the machine's noise falls on both;
  // each run keeps its round with the median rate.
  std::map<std::string, std::vector<run_result>> rounds;
  for (int links : kLinks) s_run(links, links * 4, [&](int) { return s_amqp_link(*env, nullptr); });  // warm-up
  for (int round = 0; round < kRounds; ++round) {
    for (int links : kLinks) {
      const std::string n = std::to_string(links);
      rounds["amqp small x" + n].push_back(
          s_run(links, small_total, [&](int) { return s_amqp_link(*env, nullptr); }, broker));
      rounds["nats small x" + n].push_back(
          s_run(links, small_total, [&](int) { return s_nats_link(env->nats_url()); }, broker));
      rounds["amqp 1MiB x" + n].push_back(
          s_run(links, large_total, [&](int) { return s_amqp_link(*env, &large); }, broker));
      rounds["nats 1MiB x" + n].push_back(
          s_run(links, large_total, [&](int) { return s_relay_link(relay.get(), &large); }, broker));
    }
  }
  for (auto& [name, runs] : rounds) {
    std::sort(runs.begin(), runs.end(), [](const run_result& a, const run_result& b) { return a.rate() < b.rate(); });
    f.runs[name] = runs[runs.size() / 2];
  }
  // Logins with a warm cache: every login after the first is answered from it.
  { qmtest::AmqpClient warm(env->port(), env->login()); }
  const run_result logins = s_run(kLoginThreads, kLogins, [&](int) -> batch {
    return [&](int count) {
      return s_one_by_one(count, [&] { return qmtest::AmqpClient(env->port(), env->login()).is_open(); });
    };
  });
  f.logins_per_second = logins.rate();
  if (logins.failures > 0) f.error = std::to_string(logins.failures) + " logins failed";
}

// One connection scans in a loop while others log in against a verify endpoint that
// answers after 2 s: the scans' latency shows whether a login holds up the event loop.
void s_measure_slow_logins(figures& f) {
  auto env = s_env(false);
  qmtest::NatsLogin verifier = qmtest::nats_login(env->nats_url(), qmtest::CalloutEnv::kAuthUser,
                                                  qmtest::CalloutEnv::kAuthPassword);
  qmtest::VerifyEndpoint verify(verifier.conn, {{qmtest::AmqpEnv::kUser, qmtest::AmqpEnv::kPassword}});
  const batch scan = s_amqp_link(*env, nullptr);  // logged in while the endpoint is quick
  verify.set_delay(kSlowVerify);

  std::atomic<bool> logging_in{true};
  std::thread scans([&] {
    while (logging_in.load()) {
      const std::vector<double> one = scan(1);
      f.stalled_scan_ms.insert(f.stalled_scan_ms.end(), one.begin(), one.end());
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
}

figures s_measure() {
  figures f;
  try {
    s_measure_throughput(f);
    s_measure_slow_logins(f);
  } catch (const std::exception& e) {
    f.error = e.what();
  }
  return f;
}

void s_print_table(const figures& f) {
  printf("\nAMQP front door vs direct NATS to the demo worker (broker --amqp-relay-workers 32, --tracelevel %d; "
         "median of %d rounds taken in turns)\n",
         kBrokerTraceLevel, kRounds);
  printf("%-16s %10s %8s %8s %10s %10s %14s\n", "run", "req/s", "p50 ms", "p99 ms", "vs direct", "p50 added",
         "broker us/req");
  for (const char* size : {"small", "1MiB"}) {
    for (int links : kLinks) {
      const std::string suffix = std::string(size) + " x" + std::to_string(links);
      const auto amqp = f.runs.find("amqp " + suffix);
      const auto nats = f.runs.find("nats " + suffix);
      if (amqp == f.runs.end() || nats == f.runs.end()) continue;
      const double added = qmbench::percentile(amqp->second.latencies_ms, 50) -
                           qmbench::percentile(nats->second.latencies_ms, 50);
      for (const auto& [name, run] : {*amqp, *nats}) {
        printf("%-16s %10.0f %8.2f %8.2f", name.c_str(), run.rate(), qmbench::percentile(run.latencies_ms, 50),
               qmbench::percentile(run.latencies_ms, 99));
        if (name == amqp->first) {
          printf(" %10.2f %10.2f %14.0f", amqp->second.rate() / nats->second.rate(), added,
                 run.broker_cpu_us_per_request());
        }
        printf("\n");
      }
    }
  }
  printf("AMQP logins (connect, SASL PLAIN, close), warm auth cache, %d threads: %.0f/s\n", kLoginThreads,
         f.logins_per_second);
  const std::vector<double>& scans = f.stalled_scan_ms;
  printf("Verify endpoint answering after %lld ms: one login %.2f s, four concurrent logins %.2f s; scans of another "
         "connection meanwhile: %zu, p50 %.2f ms, p99 %.2f ms, max %.2f ms\n",
         static_cast<long long>(kSlowVerify.count()), f.one_slow_login_s, f.four_slow_logins_s, scans.size(),
         qmbench::percentile(scans, 50), qmbench::percentile(scans, 99), qmbench::percentile(scans, 100));
  fflush(stdout);
}

const figures& s_figures() { return qmbench::measure_once(s_measure, s_print_table); }

void BM_RequestReply(benchmark::State& state) {
  static const char* const kRuns[] = {"amqp small x8", "nats small x8", "amqp small x32", "nats small x32",
                                      "amqp 1MiB x8",  "nats 1MiB x8",  "amqp 1MiB x32",  "nats 1MiB x32"};
  const std::string name = kRuns[state.range(0)];
  state.SetLabel(name);
  const figures& f = s_figures();
  const auto it = f.runs.find(name);
  if (!f.error.empty() || it == f.runs.end() || it->second.failures > 0) {
    state.SkipWithError(f.error.empty() ? (name + ": requests failed").c_str() : f.error.c_str());
    return;
  }
  for (auto _ : state) state.SetIterationTime(it->second.seconds);
  state.counters["req/s"] = it->second.rate();
  state.counters["p50_ms"] = qmbench::percentile(it->second.latencies_ms, 50);
  state.counters["p99_ms"] = qmbench::percentile(it->second.latencies_ms, 99);
  state.counters["broker_us_per_req"] = it->second.broker_cpu_us_per_request();
}
BENCHMARK(BM_RequestReply)->DenseRange(0, 7)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_LoginsWithWarmCache(benchmark::State& state) {
  const figures& f = s_figures();
  if (!f.error.empty()) {
    state.SkipWithError(f.error.c_str());
    return;
  }
  for (auto _ : state) state.SetIterationTime(kLogins / std::max(f.logins_per_second, 1.0));
  state.counters["logins/s"] = f.logins_per_second;
}
BENCHMARK(BM_LoginsWithWarmCache)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_ScansWhileSlowLoginsRun(benchmark::State& state) {
  const figures& f = s_figures();
  if (!f.error.empty()) {
    state.SkipWithError(f.error.c_str());
    return;
  }
  for (auto _ : state) state.SetIterationTime(f.four_slow_logins_s);
  state.counters["scan_p99_ms"] = qmbench::percentile(f.stalled_scan_ms, 99);
  state.counters["scan_max_ms"] = qmbench::percentile(f.stalled_scan_ms, 100);
  state.counters["4_logins_s"] = f.four_slow_logins_s;
}
BENCHMARK(BM_ScansWhileSlowLoginsRun)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
