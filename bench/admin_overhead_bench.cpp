// What the admin listener costs under load. The loads of the other benchmarks, made
// small: a login storm through the auth callout (warm cache), relay requests from this
// process, REST scans and AMQP scans through the doors, each from 8 client threads to the
// demo worker. Every load runs against two brokers that stay up together: one without
// the admin listener, one with it on and scraped once a second as Prometheus would (for
// the relay, which runs in this process, the listener and its scraper run here too). The
// two take turns for a few rounds; a table of the median rates follows the output.
//
// A micro-benchmark of the counting itself, which both brokers pay, follows.
//
// QM_ADMIN_BENCH_REQUESTS overrides the requests per load, broker and round.
#include <benchmark/benchmark.h>
#include <nats/nats.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "admin_client.hpp"
#include "amqp_fixture.hpp"
#include "bench_stats.hpp"
#include "broker_admin.hpp"
#include "broker_metrics.hpp"
#include "http_fixture.hpp"

namespace {

constexpr int kDefaultRequests = 3000;
constexpr int kThreads = 8;
constexpr int kRounds = 7;
constexpr int kCostScrapes = 2000;  // back to back, for the CPU one scrape costs the broker
constexpr int kQuiet = 2;  // errors only: the broker's log would be measured too
constexpr auto kScrapeInterval = std::chrono::seconds(1);
constexpr const char* kRequest = R"({"scan":1})";

// GETs /metrics of the listener on `port` once a second while active.
class scraper {
 public:
  explicit scraper(int port, bool active) : port_(port), active_(active), thread_([this] { loop(); }) {}
  ~scraper() {
    {
      std::lock_guard lock(mu_);
      stop_ = true;
    }
    wake_.notify_all();
    thread_.join();
  }
  void set_active(bool active) { active_ = active; }
  int scrapes() const { return scrapes_; }

 private:
  void loop() {
    std::unique_lock lock(mu_);
    while (!wake_.wait_for(lock, kScrapeInterval, [this] { return stop_; })) {
      if (active_ && !qmtest::scrape(port_).empty()) ++scrapes_;
    }
  }
  int port_;
  std::atomic<bool> active_;
  std::atomic<int> scrapes_{0};
  std::mutex mu_;
  std::condition_variable wake_;
  bool stop_ = false;
  std::thread thread_;
};

// One broker (AMQP and REST doors, callout, demo worker), with or without the listener.
struct broker_under_test {
  explicit broker_under_test(bool admin) : http_port(qmtest::free_port()), admin_port(admin ? qmtest::free_port() : 0) {
    qmtest::AmqpEnvOptions options;
    options.tracelevel = kQuiet;
    options.broker_args = {"--http-enabled", "true", "--http-listen-port", std::to_string(http_port),
                           "--amqp-relay-workers", "8"};
    if (admin) {
      for (const std::string& arg : qmtest::admin_args(admin_port)) options.broker_args.push_back(arg);
    }
    env = std::make_unique<qmtest::AmqpEnv>(options);
    const gw_config_t cfg = env->relay_config();
    relay.reset(gw_nats_relay_create(&cfg));
    if (!relay) throw std::runtime_error("relay did not connect");
    if (admin) scraping = std::make_unique<scraper>(admin_port, true);
  }
  int http_port;
  int admin_port;
  std::unique_ptr<qmtest::AmqpEnv> env;
  qmtest::relay_ptr relay;
  std::unique_ptr<scraper> scraping;
};

bool s_login(const broker_under_test& b) {
  natsOptions* opts = nullptr;
  if (natsOptions_Create(&opts) != NATS_OK) return false;
  natsOptions_SetURL(opts, b.env->nats_url().c_str());
  natsOptions_SetUserInfo(opts, qmtest::AmqpEnv::kUser, qmtest::AmqpEnv::kPassword);
  natsOptions_SetAllowReconnect(opts, false);
  natsConnection* nc = nullptr;
  const bool ok = natsConnection_Connect(&nc, opts) == NATS_OK;
  natsConnection_Destroy(nc);
  natsOptions_Destroy(opts);
  return ok;
}

bool s_rest_scan(const broker_under_test& b) {
  thread_local std::map<int, std::unique_ptr<qmtest::HttpClient>> clients;  // keep-alive, per broker
  auto& client = clients[b.http_port];
  if (!client) client = std::make_unique<qmtest::HttpClient>();
  qmtest::HttpRequest request;
  request.url = "http://127.0.0.1:" + std::to_string(b.http_port) + "/vsi";
  request.basic = {qmtest::AmqpEnv::kUser, qmtest::AmqpEnv::kPassword};
  request.fields = {{"request", kRequest}};
  return client->send(request).status == 200;
}

struct amqp_link {
  std::unique_ptr<qmtest::AmqpClient> client;
  std::string reply_address;
  int sender = -1;
  int sent = 0;
};

bool s_amqp_scan(broker_under_test& b) {
  thread_local std::map<int, amqp_link> links;  // one connection per thread and broker
  amqp_link& link = links[b.env->port()];
  if (!link.client) {
    link.client = std::make_unique<qmtest::AmqpClient>(b.env->port(), b.env->login());
    link.reply_address = link.client->open_receiver();
    link.sender = link.client->open_sender(qmtest::AmqpEnv::kService);
  }
  const std::string id = "b-" + std::to_string(++link.sent);
  const int ticket = link.client->send(link.sender, qmtest::scan_request("", "{}", nullptr, link.reply_address, id));
  if (link.client->outcome(ticket, std::chrono::seconds(30)) != qmtest::Outcome::accepted) return false;
  return link.client->receive(std::chrono::seconds(30)).has_value();
}

struct load {
  std::string name;
  std::function<bool(broker_under_test&)> one;
  std::vector<double> off, on;  // requests/s of each round
};

struct bench_report {
  std::string error;
  int requests = 0;
  int scrapes = 0;
  double scrape_cpu_us = 0;  // the broker's CPU per scrape
  size_t scrape_bytes = 0;
  std::vector<load> loads;
};

bench_report s_measure() {
  bench_report report;
  report.requests = qmbench::env_int("QM_ADMIN_BENCH_REQUESTS", kDefaultRequests, 10);
  try {
    broker_under_test off(false), on(true);
    // The relay runs here: so do its listener and scraper, active only for the "on" runs.
    const int local_port = qmtest::free_port();
    qm::c_ptr<broker_admin_t, broker_admin_destroy> local(broker_admin_create("127.0.0.1", local_port));
    if (!local || broker_admin_start(local.get()) != 0) throw std::runtime_error("no admin listener in the bench");
    scraper local_scraper(local_port, false);
    report.loads = {
        {"login storm (callout, warm)", [](broker_under_test& b) { return s_login(b); }, {}, {}},
        {"relay core (this process)",
         [](broker_under_test& b) { return qmtest::relay_request(b.relay.get(), "scan", kRequest).rc == 0; }, {}, {}},
        {"REST door", [](broker_under_test& b) { return s_rest_scan(b); }, {}, {}},
        {"AMQP door", [](broker_under_test& b) { return s_amqp_scan(b); }, {}, {}},
    };
    for (load& l : report.loads) {  // warm-up: caches, connections, the worker
      qmbench::run(200, kThreads, [&] { return l.one(off); });
      qmbench::run(200, kThreads, [&] { return l.one(on); });
    }
    for (int round = 0; round < kRounds && report.error.empty(); ++round) {
      for (load& l : report.loads) {
        // Alternate which goes first, so that neither always follows the same load.
        for (const bool admin : {round % 2 == 0, round % 2 != 0}) {
          local_scraper.set_active(admin);
          broker_under_test& b = admin ? on : off;
          const qmbench::run_result run = qmbench::run(report.requests, kThreads, [&] { return l.one(b); });
          if (run.failures > 0) {
            report.error = l.name + ": " + std::to_string(run.failures) + " requests failed";
            break;
          }
          (admin ? l.on : l.off).push_back(report.requests / run.seconds);
        }
      }
    }
    local_scraper.set_active(false);
    report.scrapes = on.scraping->scrapes() + local_scraper.scrapes();
    // What a scrape costs, measured on its own: a bound of the listener's share at one a second.
    const pid_t broker = on.env->broker().pid();
    const double cpu_before = qmbench::process_cpu_seconds(broker);
    for (int i = 0; i < kCostScrapes; ++i) report.scrape_bytes = qmtest::scrape(on.admin_port).size();
    report.scrape_cpu_us = (qmbench::process_cpu_seconds(broker) - cpu_before) * 1e6 / kCostScrapes;
  } catch (const std::exception& e) {
    report.error = e.what();
  }
  return report;
}

void s_print_table(const bench_report& report) {
  printf("\nAdmin listener scraped every second vs off: %d client threads, %d rounds of %d requests per load and "
         "broker, taking turns; %d scrapes meanwhile\n",
         kThreads, kRounds, report.requests, report.scrapes);
  printf("%-30s %12s %12s %9s %22s\n", "load", "off req/s", "on req/s", "on/off", "per round: median (range)");
  for (const load& l : report.loads) {
    const double off = qmbench::median(l.off), on = qmbench::median(l.on);
    // A round's two runs follow each other: their ratio is the least disturbed by a
    // machine that gets busier or quieter meanwhile.
    std::vector<double> ratios;
    for (size_t i = 0; i < l.off.size() && i < l.on.size(); ++i) ratios.push_back(l.on[i] / l.off[i]);
    printf("%-30s %12.0f %12.0f %9.3f %8.3f (%.3f-%.3f)\n", l.name.c_str(), off, on, on / off, qmbench::median(ratios),
           qmbench::percentile(ratios, 0), qmbench::percentile(ratios, 100));
  }
  printf("One scrape (%zu bytes) costs the broker %.0f us of CPU (%d back to back): at one a second, %.4f%% of one "
         "core\n",
         report.scrape_bytes, report.scrape_cpu_us, kCostScrapes, report.scrape_cpu_us / 1e4);
  fflush(stdout);
}

const bench_report& s_report() { return qmbench::measure_once(s_measure, s_print_table); }

// Argument: the load; 0 without the listener, 1 with it scraped.
void BM_AdminOverhead(benchmark::State& state) {
  const bench_report& report = s_report();
  const size_t index = static_cast<size_t>(state.range(0));
  if (!report.error.empty() || index >= report.loads.size()) {
    state.SkipWithError(report.error.empty() ? "no such load" : report.error.c_str());
    return;
  }
  const load& l = report.loads[index];
  const double rate = qmbench::median(state.range(1) == 0 ? l.off : l.on);
  state.SetLabel(l.name + (state.range(1) == 0 ? ", listener off" : ", listener scraped"));
  for (auto _ : state) state.SetIterationTime(report.requests / rate);
  state.counters["requests/s"] = rate;
}
BENCHMARK(BM_AdminOverhead)
    ->ArgsProduct({{0, 1, 2, 3}, {0, 1}})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// What counting costs the event itself, which both brokers above pay: one relayed request's
// counter and histogram (with the clock read that times it), from 1 and 8 threads at once.
void BM_CountOneRelayedRequest(benchmark::State& state) {
  for (auto _ : state)
    broker_metrics_count_relay(BROKER_METRICS_ROUTE_CORE, BROKER_METRICS_RELAY_OK, broker_metrics_now());
}
BENCHMARK(BM_CountOneRelayedRequest)->Threads(1)->Threads(8)->UseRealTime();

}  // namespace
