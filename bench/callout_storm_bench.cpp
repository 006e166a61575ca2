// Connection storms: client threads log in and out as fast as they can, against a
// nats-server whose logins the broker decides through the auth callout (its result cache
// warm, or switched off so that every login is checked against the credentials file) and
// against the same users configured statically. One storm per benchmark; the time shown
// is the storm's wall-clock time, and a table with the ratios to the static server
// follows the benchmark output.
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
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "callout_fixture.hpp"
#include "nats_server_fixture.hpp"

namespace {

using qmtest::user_list;
using steady = std::chrono::steady_clock;

constexpr int kDefaultLogins = 2000;
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

int s_env_int(const char* name, int fallback) {
  const char* text = getenv(name);
  const int value = text != nullptr ? atoi(text) : 0;
  return value > 0 ? value : fallback;
}

int s_logins() { return s_env_int("QM_STORM_LOGINS", kDefaultLogins); }
int s_threads() { return s_env_int("QM_STORM_THREADS", kDefaultThreads); }
int s_trace_level() { return s_env_int("QM_STORM_TRACELEVEL", kBrokerTraceLevel); }

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

std::string s_static_users_block(const user_list& users) {
  std::string text = "authorization {\n  users: [\n";
  for (const auto& [user, password] : users)
    text += "    {user: \"" + user + "\", password: \"" + password + "\"}\n";
  return text + "  ]\n}\n";
}

// CPU time (user and system) a process has used so far; 0 when it cannot be read.
double s_process_cpu_seconds(pid_t pid) {
  if (pid <= 0) return 0;
  std::ifstream stat_file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(stat_file, text);
  // The command name in parentheses may hold spaces: fields are counted after its ')'.
  const size_t name_end = text.rfind(')');
  if (name_end == std::string::npos) return 0;
  std::istringstream fields(text.substr(name_end + 1));
  std::string field;
  double ticks = 0;
  for (int number = 3; number <= 15 && fields >> field; ++number)
    if (number == 14 || number == 15) ticks += std::stod(field);  // utime, stime
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
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
    return {s_process_cpu_seconds(server_pid), s_process_cpu_seconds(broker_pid), s_own_cpu_seconds()};
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

// Nearest rank on sorted samples.
double s_percentile(const std::vector<double>& sorted, double p) {
  if (sorted.empty()) return 0;
  const size_t rank = static_cast<size_t>(p / 100.0 * static_cast<double>(sorted.size()) + 0.5);
  return sorted[std::min(sorted.size() - 1, rank > 0 ? rank - 1 : 0)];
}

struct summary_row {
  std::string name;
  int threads = 0;
  int logins = 0;
  double rate = 0;
  double p50_ms = 0;
  double p99_ms = 0;
  // CPU microseconds per login
  double server_us = 0, broker_us = 0, client_us = 0;
};

// Printed once every storm has run: the benchmark output has no room for the ratios'
// meaning, and a reader wants the three rows side by side.
class summary {
 public:
  void add(const summary_row& row) {
    rows_.push_back(row);
    if (row.name == "static") static_rate_[row.threads] = row.rate;
  }
  std::optional<double> static_rate(int threads) const {
    const auto found = static_rate_.find(threads);
    return found != static_rate_.end() ? std::optional(found->second) : std::nullopt;
  }
  ~summary() {
    if (rows_.empty()) return;
    printf("\nLogin storm: each client thread connects and destroys as fast as it can; broker --tracelevel %d\n",
           s_trace_level());
    printf("%-14s %7s %7s %9s %9s %7s %7s  %s\n", "server", "threads", "logins", "logins/s", "vs static", "p50 ms",
           "p99 ms", "CPU us per login: nats-server broker client");
    for (const summary_row& row : rows_) {
      const auto base = static_rate_.find(row.threads);
      char ratio[16] = "-";
      if (base != static_rate_.end() && base->second > 0) snprintf(ratio, sizeof ratio, "%.2f", row.rate / base->second);
      printf("%-14s %7d %7d %9.0f %9s %7.2f %7.2f  %31.0f %6.0f %6.0f\n", row.name.c_str(), row.threads, row.logins,
             row.rate, ratio, row.p50_ms, row.p99_ms, row.server_us, row.broker_us, row.client_us);
    }
    fflush(stdout);
  }

 private:
  std::vector<summary_row> rows_;
  std::map<int, double> static_rate_;
};

summary g_summary;

// Runs one storm as the benchmark's single iteration and reports it.
void s_run_storm(benchmark::State& state, const char* name, const std::string& url, const user_list& users,
                 pid_t server_pid, pid_t broker_pid) {
  const int threads = static_cast<int>(state.range(0));
  const int logins = s_logins();
  storm_result storm;
  cpu_sample before, after;
  for (auto _ : state) {
    before = cpu_sample::take(server_pid, broker_pid);
    storm = s_storm(url, users, static_cast<size_t>(logins), threads);
    after = cpu_sample::take(server_pid, broker_pid);
    state.SetIterationTime(storm.seconds);
  }
  if (storm.failures > 0) {
    state.SkipWithError((std::to_string(storm.failures) + " logins failed, first: " + storm.first_error).c_str());
    return;
  }
  summary_row row{name, threads, logins, logins / storm.seconds,
                  s_percentile(storm.latencies_ms, 50), s_percentile(storm.latencies_ms, 99),
                  (after.server - before.server) * 1e6 / logins, (after.broker - before.broker) * 1e6 / logins,
                  (after.client - before.client) * 1e6 / logins};
  state.counters["logins/s"] = row.rate;
  state.counters["p50_ms"] = row.p50_ms;
  state.counters["p99_ms"] = row.p99_ms;
  state.counters["logins"] = row.logins;
  state.counters["server_cpu_us"] = row.server_us;
  state.counters["client_cpu_us"] = row.client_us;
  if (broker_pid > 0) state.counters["broker_cpu_us"] = row.broker_us;
  if (const auto base = g_summary.static_rate(threads); base && *base > 0 && row.name != "static")
    state.counters["vs_static"] = row.rate / *base;
  g_summary.add(row);
}

// Logs every user in once. Fails the benchmark on a refusal: the set-up is wrong, and a
// storm of refusals would measure nothing.
bool s_warm_up(benchmark::State& state, const std::string& url, const user_list& users) {
  const storm_result warmup = s_storm(url, users, users.size(), static_cast<int>(state.range(0)));
  if (warmup.failures == 0) return true;
  state.SkipWithError(("warm-up login failed: " + warmup.first_error).c_str());
  return false;
}

void BM_StormStatic(benchmark::State& state) {
  const user_list users = s_storm_users(kStormUsers);
  user_list configured = users;
  configured.push_back(kWarmupUser);
  try {
    qmtest::NatsServerOptions options;
    options.extra_config = s_static_users_block(configured);
    qmtest::NatsServer server(options);
    if (!s_warm_up(state, server.url(), {kWarmupUser})) return;
    s_run_storm(state, "static", server.url(), users, server.pid(), -1);
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

enum class cache_state { warm, off };

void s_callout_storm(benchmark::State& state, cache_state cache) {
  const user_list users = s_storm_users(kStormUsers);
  qmtest::CalloutOptions options;
  options.users = users;
  options.users.push_back(kWarmupUser);
  options.tracelevel = s_trace_level();
  if (cache == cache_state::off)
    options.broker_args = {"--auth-cache-ttl-seconds", "0", "--auth-negative-cache-ttl-seconds", "0"};
  try {
    qmtest::CalloutEnv env(options);
    if (!s_warm_up(state, env.url(), {kWarmupUser}) ||
        (cache == cache_state::warm && !s_warm_up(state, env.url(), users))) {
      fprintf(stderr, "broker output:\n%s\nnats-server log:\n%s\n", env.broker().err().c_str(),
              env.server_log().c_str());
      return;
    }
    const char* name = cache == cache_state::warm ? "callout-warm" : "callout-cold";
    s_run_storm(state, name, env.url(), users, env.server_pid(), env.broker().pid());
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
}

// Every user logged in once before: each answer comes from the broker's cache.
void BM_StormCalloutWarm(benchmark::State& state) { s_callout_storm(state, cache_state::warm); }
// Cache switched off: each login is a live check against the credentials file. With
// users cycling through a file of at most 128, a cache that is merely empty would be
// warm after the first hundred logins.
void BM_StormCalloutCold(benchmark::State& state) { s_callout_storm(state, cache_state::off); }

// The static server first: the callout storms report their ratio to it.
#define QM_STORM(fn) BENCHMARK(fn)->Arg(s_threads())->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond)
QM_STORM(BM_StormStatic);
QM_STORM(BM_StormCalloutWarm);
QM_STORM(BM_StormCalloutCold);

}  // namespace
