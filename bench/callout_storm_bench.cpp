// Connection storms: client threads log in and out as fast as they can, against a
// nats-server whose logins the broker decides through the auth callout (its result cache
// warm, or switched off so that every login is checked against the credentials file) and
// against the same users configured statically, with the permissions the callout grants
// them and without any. The servers take turns for a few rounds; each benchmark reports
// one server (the time shown is its median round's), and a table with the ratios to both
// static servers follows the benchmark output.
//
// QM_STORM_LOGINS and QM_STORM_THREADS in the environment override the storm's size,
// QM_STORM_TRACELEVEL the broker's log level (to look into a slow or failing storm).
#include <benchmark/benchmark.h>
#include <nats/nats.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <latch>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "auth_profile.hpp"
#include "bench_stats.hpp"
#include "callout_fixture.hpp"
#include "nats_server_fixture.hpp"
#include "qm_handles.hpp"

namespace {

using qmtest::user_list;
using steady = std::chrono::steady_clock;

constexpr int kDefaultLogins = 2000;  // per server and round
constexpr int kRounds = 3;
constexpr int kDefaultThreads = 8;
// The storm's logins cycle through these users. The credentials file holds at most 128
// entries, two of them the broker's own.
constexpr int kStormUsers = 100;
// Far above nats-server's own 2 s wait for the callout: a slow answer shows up as
// latency, a missing one as that server's refusal.
constexpr int kConnectTimeoutMs = 10000;
// Errors only: at info level the broker logs a line per login, at trace several, and
// the storm would measure the log more than the callout.
constexpr int kBrokerTraceLevel = 2;

int s_logins() { return qmbench::env_int("QM_STORM_LOGINS", kDefaultLogins); }
int s_threads() { return qmbench::env_int("QM_STORM_THREADS", kDefaultThreads); }
int s_trace_level() { return qmbench::env_int("QM_STORM_TRACELEVEL", kBrokerTraceLevel, 0); }

user_list s_storm_users(int count) {
  user_list users;
  users.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) {
    const std::string n = std::to_string(i);
    users.emplace_back("storm-user-" + n, "storm-password-" + n + "-x9Lq");
  }
  return users;
}

// Logs in before the storm (starts the client library, proves the set-up) without being
// one of the storm's users.
const std::pair<std::string, std::string> kWarmupUser{"storm-warmup", "storm-warmup-password"};

// nats-server configuration quoting: a subject list as ["a", "b"].
std::string s_config_list(const std::vector<std::string>& subjects) {
  std::string text = "[";
  for (const std::string& subject : subjects) {
    text += text.size() > 1 ? ", \"" : "\"";
    for (const char c : subject) {
      if (c == '"' || c == '\\') text += '\\';
      text += c;
    }
    text += '"';
  }
  return text + "]";
}

std::string s_config_side(const char* side, const std::vector<std::string>& allow,
                          const std::vector<std::string>& deny) {
  std::string text = std::string(side) + " { allow: " + s_config_list(allow);
  if (!deny.empty()) text += ", deny: " + s_config_list(deny);
  return text + " }";
}

// The permissions the broker's callout grants `user` (the same code path that fills the
// user JWT it signs), written as a static user's permissions block.
std::string s_static_permissions(const auth_profile_store_t* store, const std::string& user) {
  auth_grant grant;
  if (!auth_profile_grant(auth_profile_resolve(store, user.c_str(), nullptr, 0), user.c_str(), grant))
    throw std::runtime_error("the shipped roles refuse a grant for " + user);
  std::string text = ", permissions: { " + s_config_side("publish", grant.pub_allow, grant.pub_deny) + ", " +
                     s_config_side("subscribe", grant.sub_allow, grant.sub_deny);
  if (grant.allow_responses) text += ", allow_responses: true";
  return text + " }";
}

// The users as static entries; with a store, each carries the permissions the callout
// would grant it from that store's roles, else none at all.
std::string s_static_users_block(const user_list& users, const auth_profile_store_t* store) {
  std::string text = "authorization {\n  users: [\n";
  for (const auto& [user, password] : users)
    text += "    {user: \"" + user + "\", password: \"" + password + "\"" +
            (store != nullptr ? s_static_permissions(store, user) : "") + "}\n";
  return text + "  ]\n}\n";
}

double s_own_cpu_seconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Where the CPU goes: every process of a storm shares the same few cores, so CPU per
// login bounds the rate.
struct cpu_sample {
  double server = 0, broker = 0, client = 0;
  static cpu_sample take(pid_t server_pid, pid_t broker_pid) {
    return {qmbench::process_cpu_seconds(server_pid), qmbench::process_cpu_seconds(broker_pid), s_own_cpu_seconds()};
  }
};

struct storm_result {
  double seconds = 0;
  std::vector<double> latencies_ms;  // of each successful connect call
  int failures = 0;
  std::string first_error;
};

// `logins` logins cycling through users: every client thread takes the next one,
// connects, and destroys the connection at once. All threads start together.
storm_result s_storm(const std::string& url, const user_list& users, size_t logins, int threads) {
  storm_result result;
  std::atomic<size_t> next{0};
  std::mutex merge;
  std::latch start(threads + 1);
  std::vector<std::thread> clients;
  clients.reserve(static_cast<size_t>(threads));
  for (int t = 0; t < threads; ++t) {
    clients.emplace_back([&] {
      std::vector<double> latencies;
      int failures = 0;
      std::string error;
      start.arrive_and_wait();
      for (size_t n = next++; n < logins; n = next++) {
        const auto& [user, password] = users[n % users.size()];
        natsOptions* opts = nullptr;
        if (natsOptions_Create(&opts) != NATS_OK) {
          ++failures;
          continue;
        }
        natsOptions_SetURL(opts, url.c_str());
        natsOptions_SetUserInfo(opts, user.c_str(), password.c_str());
        natsOptions_SetTimeout(opts, kConnectTimeoutMs);
        natsOptions_SetAllowReconnect(opts, false);
        natsConnection* nc = nullptr;
        const auto began = steady::now();
        const natsStatus s = natsConnection_Connect(&nc, opts);
        const auto ended = steady::now();
        if (s == NATS_OK) {
          latencies.push_back(std::chrono::duration<double, std::milli>(ended - began).count());
        } else {
          ++failures;
          if (error.empty()) error = user + ": " + natsStatus_GetText(s);
        }
        natsConnection_Destroy(nc);
        natsOptions_Destroy(opts);
      }
      std::lock_guard lock(merge);
      result.latencies_ms.insert(result.latencies_ms.end(), latencies.begin(), latencies.end());
      result.failures += failures;
      if (result.first_error.empty()) result.first_error = error;
    });
  }
  const auto began = steady::now();
  start.arrive_and_wait();
  for (auto& client : clients) client.join();
  result.seconds = std::chrono::duration<double>(steady::now() - began).count();
  std::sort(result.latencies_ms.begin(), result.latencies_ms.end());
  return result;
}

// One server under test and what its storms measured.
struct scenario {
  std::string name;
  std::string url;
  pid_t server_pid = -1;
  pid_t broker_pid = -1;
  std::vector<double> rates;  // logins/s of each round
  std::vector<double> latencies_ms;
  cpu_sample cpu;  // summed over the rounds
  int logins = 0;  // summed over the rounds

  double rate() const { return qmbench::median(rates); }
  double cpu_us_per_login(double cpu_sample::*process) const { return logins > 0 ? cpu.*process * 1e6 / logins : 0; }
};

scenario s_scenario(const std::string& name, const std::string& url, pid_t server_pid, pid_t broker_pid) {
  scenario s;
  s.name = name;
  s.url = url;
  s.server_pid = server_pid;
  s.broker_pid = broker_pid;
  return s;
}

struct storm_report {
  std::string error;  // set when nothing could be measured
  std::vector<scenario> scenarios;
  int threads = 0;
  int logins_per_round = 0;

  const scenario* find(const std::string& name) const {
    for (const scenario& s : scenarios)
      if (s.name == name) return &s;
    return nullptr;
  }
};

// "" when every user logged in, else the first refusal.
std::string s_log_everyone_in(const std::string& url, const user_list& users, int threads) {
  const storm_result result = s_storm(url, users, users.size(), threads);
  return result.failures == 0 ? "" : result.first_error;
}

// True when the server refuses `user` a subscription no client may hold: a baseline
// that lost its permissions would flatter the callout's ratio without anyone noticing.
bool s_refuses_system_subjects(const std::string& url, const std::pair<std::string, std::string>& user) {
  qm::nats_options_ptr opts;
  natsOptions* raw_opts = nullptr;
  if (natsOptions_Create(&raw_opts) != NATS_OK) return false;
  opts.reset(raw_opts);
  natsOptions_SetURL(opts.get(), url.c_str());
  natsOptions_SetUserInfo(opts.get(), user.first.c_str(), user.second.c_str());
  natsOptions_SetAllowReconnect(opts.get(), false);
  natsConnection* raw_conn = nullptr;
  if (natsConnection_Connect(&raw_conn, opts.get()) != NATS_OK) return false;
  const qm::nats_connection_ptr conn(raw_conn);
  natsSubscription* raw_sub = nullptr;
  if (natsConnection_SubscribeSync(&raw_sub, conn.get(), "$SYS.>") != NATS_OK) return true;
  const qm::nats_subscription_ptr sub(raw_sub);
  // The server's refusal arrives before the flush's PONG.
  natsConnection_Flush(conn.get());
  const char* last_error = nullptr;
  return natsConnection_GetLastError(conn.get(), &last_error) == NATS_NOT_PERMITTED;
}

std::string s_diagnostics(qmtest::CalloutEnv& env) {
  return "broker output:\n" + env.broker().err() + "\nnats-server log:\n" + env.server_log() + "\n";
}

// The four servers stay up together and take turns, round after round, so that a
// machine getting busier or quieter meanwhile (the cores are shared) moves every
// scenario alike and the ratios hold.
storm_report s_run_storms() {
  storm_report report;
  report.threads = s_threads();
  report.logins_per_round = s_logins();
  const user_list users = s_storm_users(kStormUsers);
  user_list configured = users;
  configured.push_back(kWarmupUser);
  try {
    // The fair baseline: each static user carries the permissions the callout grants it
    // (the shipped client role with its user templated, and the denies every grant
    // carries); nats-server's cost of enforcing them is then on both sides.
    const qm::c_ptr<auth_profile_store_t, auth_profile_destroy> roles(
        auth_profile_load(QM_SOURCE_DIR "/packaging/qm-av-permissions.json"));
    if (!roles) throw std::runtime_error("cannot load packaging/qm-av-permissions.json");
    qmtest::NatsServerOptions static_options;
    static_options.extra_config = s_static_users_block(configured, roles.get());
    qmtest::NatsServer static_server(static_options);
    // The same users with no permissions at all: what the callout was measured against
    // when its grant had none either.
    qmtest::NatsServerOptions open_options;
    open_options.extra_config = s_static_users_block(configured, nullptr);
    qmtest::NatsServer open_server(open_options);

    qmtest::CalloutOptions warm_options;
    warm_options.users = configured;
    warm_options.tracelevel = s_trace_level();
    // The roles the quick-start and the packaging ship: every storm user is a client.
    warm_options.permissions_json = qmtest::CalloutEnv::shipped_permissions();
    qmtest::CalloutOptions cold_options = warm_options;
    cold_options.broker_args = {"--auth-cache-ttl-seconds", "0", "--auth-negative-cache-ttl-seconds", "0"};
    qmtest::CalloutEnv warm(warm_options);
    qmtest::CalloutEnv cold(cold_options);

    report.scenarios.push_back(s_scenario("static", static_server.url(), static_server.pid(), -1));
    report.scenarios.push_back(s_scenario("static-open", open_server.url(), open_server.pid(), -1));
    report.scenarios.push_back(s_scenario("callout-warm", warm.url(), warm.server_pid(), warm.broker().pid()));
    report.scenarios.push_back(s_scenario("callout-cold", cold.url(), cold.server_pid(), cold.broker().pid()));
    std::string error;
    for (const scenario& s : report.scenarios) {
      error = s_log_everyone_in(s.url, {kWarmupUser}, report.threads);
      if (!error.empty()) error = s.name + ": warm-up login refused: " + error;
      if (error.empty() && s.name == "callout-warm") error = s_log_everyone_in(s.url, users, report.threads);
      if (error.empty() && s_refuses_system_subjects(s.url, kWarmupUser) != (s.name != "static-open"))
        error = s.name + ": $SYS.> is " + (s.name == "static-open" ? "refused" : "granted") + " to a client";
      if (!error.empty()) break;
    }
    for (int round = 0; round < kRounds && error.empty(); ++round) {
      for (scenario& s : report.scenarios) {
        const cpu_sample before = cpu_sample::take(s.server_pid, s.broker_pid);
        storm_result storm = s_storm(s.url, users, static_cast<size_t>(report.logins_per_round), report.threads);
        const cpu_sample after = cpu_sample::take(s.server_pid, s.broker_pid);
        if (storm.failures > 0) {
          error = s.name + ": " + std::to_string(storm.failures) + " logins failed, first: " + storm.first_error;
          break;
        }
        s.rates.push_back(report.logins_per_round / storm.seconds);
        s.latencies_ms.insert(s.latencies_ms.end(), storm.latencies_ms.begin(), storm.latencies_ms.end());
        s.cpu.server += after.server - before.server;
        s.cpu.broker += after.broker - before.broker;
        s.cpu.client += after.client - before.client;
        s.logins += report.logins_per_round;
      }
    }
    if (!error.empty()) {
      fprintf(stderr, "%s%s", s_diagnostics(warm).c_str(), s_diagnostics(cold).c_str());
      report.error = error;
    }
  } catch (const std::exception& e) {
    report.error = e.what();
  }
  for (scenario& s : report.scenarios) std::sort(s.latencies_ms.begin(), s.latencies_ms.end());
  return report;
}

// After the benchmark output: the rows side by side, with the ratios to both static
// servers.
void s_print_table(const storm_report& report) {
  const scenario* base = report.find("static");
  const scenario* open = report.find("static-open");
  printf("\nLogin storm: %d client threads connect and destroy as fast as they can; %d rounds of %d logins per "
         "server, taking turns; broker --tracelevel %d\n",
         report.threads, kRounds, report.logins_per_round, s_trace_level());
  printf("%-14s %9s %13s %9s %9s %7s %7s  %s\n", "server", "logins/s", "rounds", "vs static", "vs open", "p50 ms",
         "p99 ms", "CPU us per login: nats-server broker client");
  for (const scenario& s : report.scenarios) {
    char spread[32];
    snprintf(spread, sizeof spread, "%.0f-%.0f", *std::min_element(s.rates.begin(), s.rates.end()),
             *std::max_element(s.rates.begin(), s.rates.end()));
    printf("%-14s %9.0f %13s %9.2f %9.2f %7.2f %7.2f  %31.0f %6.0f %6.0f\n", s.name.c_str(), s.rate(), spread,
           s.rate() / base->rate(), s.rate() / open->rate(), qmbench::percentile(s.latencies_ms, 50), qmbench::percentile(s.latencies_ms, 99),
           s.cpu_us_per_login(&cpu_sample::server), s.cpu_us_per_login(&cpu_sample::broker),
           s.cpu_us_per_login(&cpu_sample::client));
  }
  fflush(stdout);
}

// The storms run once, when the first benchmark asks; every benchmark then reports its
// server's share.
const storm_report& s_report() { return qmbench::measure_once(s_run_storms, s_print_table); }

// Reports one server: the time shown is its median round's, the rate that round's.
void s_report_scenario(benchmark::State& state, const char* name) {
  const storm_report& report = s_report();
  const scenario* s = report.find(name);
  if (!report.error.empty() || s == nullptr) {
    state.SkipWithError(report.error.empty() ? "no such server" : report.error.c_str());
    return;
  }
  for (auto _ : state) state.SetIterationTime(report.logins_per_round / s->rate());
  state.counters["logins/s"] = s->rate();
  state.counters["p50_ms"] = qmbench::percentile(s->latencies_ms, 50);
  state.counters["p99_ms"] = qmbench::percentile(s->latencies_ms, 99);
  state.counters["logins"] = s->logins;
  state.counters["server_cpu_us"] = s->cpu_us_per_login(&cpu_sample::server);
  state.counters["client_cpu_us"] = s->cpu_us_per_login(&cpu_sample::client);
  if (s->broker_pid > 0) {
    state.counters["broker_cpu_us"] = s->cpu_us_per_login(&cpu_sample::broker);
    state.counters["vs_static"] = s->rate() / report.find("static")->rate();
    state.counters["vs_static_open"] = s->rate() / report.find("static-open")->rate();
  }
}

// The same users as static entries in nats-server's own configuration, each with the
// permissions the callout grants it.
void BM_StormStatic(benchmark::State& state) { s_report_scenario(state, "static"); }
// The same without permissions.
void BM_StormStaticOpen(benchmark::State& state) { s_report_scenario(state, "static-open"); }
// Every user logged in once before: each answer comes from the broker's cache.
void BM_StormCalloutWarm(benchmark::State& state) { s_report_scenario(state, "callout-warm"); }
// Cache switched off: each login is a live check against the credentials file. With
// users cycling through a file of at most 128, a cache that is merely empty would be
// warm after the first hundred logins.
void BM_StormCalloutCold(benchmark::State& state) { s_report_scenario(state, "callout-cold"); }

#define QM_STORM(fn) BENCHMARK(fn)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond)
QM_STORM(BM_StormStatic);
QM_STORM(BM_StormStaticOpen);
QM_STORM(BM_StormCalloutWarm);
QM_STORM(BM_StormCalloutCold);

}  // namespace
