// Settings, statistics and the run-once report shared by the benchmarks.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <latch>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>
#include <unistd.h>

namespace qmbench {

// An integer from the environment; `fallback` when unset, empty or below `minimum`.
inline int env_int(const char* name, int fallback, int minimum = 1) {
  const char* text = getenv(name);
  if (text == nullptr || *text == '\0') return fallback;
  const int value = atoi(text);
  return value >= minimum ? value : fallback;
}

// Nearest-rank percentile p (0..100) of the samples; 0 without samples.
inline double percentile(std::vector<double> samples, double p) {
  if (samples.empty()) return 0;
  std::sort(samples.begin(), samples.end());
  const size_t rank = static_cast<size_t>(p / 100.0 * static_cast<double>(samples.size()) + 0.5);
  return samples[std::min(samples.size() - 1, rank > 0 ? rank - 1 : 0)];
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

struct run_result {
  double seconds = 0;
  std::vector<double> latencies_ms;  // of each call that succeeded
  int failures = 0;
};

// `requests` calls of `one` spread over `threads` threads that start together. State a
// thread needs of its own (a keep-alive connection) can live in a thread_local of `one`.
inline run_result run(int requests, int threads, const std::function<bool()>& one) {
  using steady = std::chrono::steady_clock;
  run_result result;
  std::atomic<int> next{0};
  std::mutex merge;
  std::latch start(threads + 1);
  std::vector<std::thread> clients;
  for (int t = 0; t < threads; ++t) {
    clients.emplace_back([&] {
      std::vector<double> latencies;
      int failures = 0;
      start.arrive_and_wait();
      while (next++ < requests) {
        const auto began = steady::now();
        if (one()) {
          latencies.push_back(std::chrono::duration<double, std::milli>(steady::now() - began).count());
        } else {
          ++failures;
        }
      }
      std::lock_guard<std::mutex> lock(merge);
      result.latencies_ms.insert(result.latencies_ms.end(), latencies.begin(), latencies.end());
      result.failures += failures;
    });
  }
  const auto began = steady::now();
  start.arrive_and_wait();
  for (auto& client : clients) client.join();
  result.seconds = std::chrono::duration<double>(steady::now() - began).count();
  return result;
}

// The report of a measurement made once, when the first benchmark asks for it; `print`
// shows it after the benchmark output when it has no error.
template <class Report>
const Report& measure_once(Report (*measure)(), void (*print)(const Report&)) {
  struct print_at_exit {
    const Report& report;
    void (*print)(const Report&);
    ~print_at_exit() {
      if (report.error.empty()) print(report);
    }
  };
  static const Report report = measure();
  static const print_at_exit printer{report, print};
  return report;
}


// CPU time (user and system) a process has used so far; 0 when it cannot be read.
inline double process_cpu_seconds(pid_t pid) {
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

}  // namespace qmbench
