#include "broker_metrics.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <ctime>

#ifndef QM_BROKER_VERSION
#define QM_BROKER_VERSION "unknown"
#endif

namespace {

constexpr const char* kPrefix = "qm_av_broker_";

// Upper bounds in nanoseconds: a cached verdict takes well under a millisecond, a scan
// relayed through the work queue up to the relay's time-out (seconds to tens of them).
constexpr std::array<int64_t, 15> kBucketBoundsNs = {
    500'000,       1'000'000,     2'500'000,     5'000'000,      10'000'000,
    25'000'000,    50'000'000,    100'000'000,   250'000'000,    500'000'000,
    1'000'000'000, 2'500'000'000, 5'000'000'000, 10'000'000'000, 30'000'000'000,
};
constexpr std::array<const char*, kBucketBoundsNs.size()> kBucketLabels = {
    "0.0005", "0.001", "0.0025", "0.005", "0.01", "0.025", "0.05", "0.1",
    "0.25",   "0.5",   "1",      "2.5",   "5",    "10",    "30",
};

// Each counter on a cache line of its own: the doors' threads bump different ones at once.
struct alignas(64) counter {
  std::atomic<uint64_t> value{0};
  void add(uint64_t n = 1) { value.fetch_add(n, std::memory_order_relaxed); }
  uint64_t get() const { return value.load(std::memory_order_relaxed); }
};

struct alignas(64) gauge {
  std::atomic<int64_t> value{0};
  void add(int64_t n) { value.fetch_add(n, std::memory_order_relaxed); }
  int64_t get() const { return value.load(std::memory_order_relaxed); }
};

// Buckets are kept per bound (not cumulative), so one observation is two additions; the
// exposition adds them up.
struct alignas(64) histogram {
  std::array<std::atomic<uint64_t>, kBucketBoundsNs.size() + 1> buckets{};  // the last one: above 30 s
  std::atomic<uint64_t> sum_ns{0};

  void observe(int64_t ns) {
    if (ns < 0) ns = 0;
    size_t i = 0;
    while (i < kBucketBoundsNs.size() && ns > kBucketBoundsNs[i]) ++i;
    buckets[i].fetch_add(1, std::memory_order_relaxed);
    sum_ns.fetch_add(static_cast<uint64_t>(ns), std::memory_order_relaxed);
  }
};

constexpr std::array<const char*, 4> kAuthSources = {"callout", "verify", "http", "amqp"};
constexpr std::array<const char*, 3> kVerdicts = {"grant", "deny", "error"};
constexpr std::array<const char*, 4> kCacheResults = {"hit", "stale", "miss", "negative"};
constexpr std::array<const char*, 2> kRoutes = {"core", "jetstream"};
constexpr std::array<const char*, 3> kRelayResults = {"ok", "error", "timeout"};
// The statuses the REST door answers with; anything else is counted as "other".
constexpr std::array<unsigned, 10> kHttpCodes = {200, 400, 401, 404, 405, 413, 415, 500, 502, 503};
constexpr std::array<const char*, 3> kLdapEndpoints = {"primary", "fallback", "none"};
constexpr std::array<const char*, 4> kUpdateOutcomes = {"nothing_new", "staged", "failed", "activation_failed"};

struct registry {
  std::array<std::array<counter, kVerdicts.size()>, kAuthSources.size()> auth_requests;
  std::array<histogram, kAuthSources.size()> auth_duration;
  std::array<counter, kCacheResults.size()> cache_lookups;
  std::array<counter, kHttpCodes.size() + 1> http_requests;
  std::array<std::array<counter, kRelayResults.size()>, kRoutes.size()> relay_requests;
  std::array<histogram, kRoutes.size()> relay_duration;
  counter staged_bytes;
  counter fetched_bytes;
  counter leader_reads;
  gauge relay_queue_depth;
  counter natsd_restarts;
  std::array<counter, 2> credentials_reloads;  // ok, error
  gauge amqp_connections;
  std::array<counter, 2> amqp_messages;  // accepted, rejected
  gauge inflight_bytes;
  std::array<counter, 2> budget_refusals;  // by door
  counter auth_locks;
  std::array<counter, kLdapEndpoints.size()> ldap_connects;
  std::atomic<bool> ldap_up{true};
  std::array<counter, kUpdateOutcomes.size()> update_outcomes;
  int64_t start_time_s = static_cast<int64_t>(time(nullptr));
};

registry& s_registry() {
  static registry r;
  return r;
}

// Created with the first metric, at the latest with the first scrape; main touches it
// early so that the start time is the process's.
[[maybe_unused]] const bool s_created = (s_registry(), true);

size_t s_http_code_index(unsigned code) {
  for (size_t i = 0; i < kHttpCodes.size(); ++i)
    if (kHttpCodes[i] == code) return i;
  return kHttpCodes.size();
}

// ---- exposition ----

class writer {
 public:
  explicit writer(std::string& out) : out_(out) {}

  void family(const char* name, const char* type, const char* help) {
    line("# HELP %s%s %s\n", kPrefix, name, help);
    line("# TYPE %s%s %s\n", kPrefix, name, type);
  }

  // labels: "" or `a="x",b="y"` (already escaped)
  void sample(const char* name, const std::string& labels, uint64_t value) {
    line("%s%s%s%s%s %" PRIu64 "\n", kPrefix, name, labels.empty() ? "" : "{", labels.c_str(),
         labels.empty() ? "" : "}", value);
  }
  void sample_signed(const char* name, const std::string& labels, int64_t value) {
    line("%s%s%s%s%s %" PRId64 "\n", kPrefix, name, labels.empty() ? "" : "{", labels.c_str(),
         labels.empty() ? "" : "}", value);
  }

  // Cumulative buckets, then _sum and _count; `labels` precede "le".
  void histogram_samples(const char* name, const std::string& labels, const histogram& h) {
    uint64_t cumulative = 0;
    const std::string sep = labels.empty() ? "" : ",";
    for (size_t i = 0; i < kBucketBoundsNs.size(); ++i) {
      cumulative += h.buckets[i].load(std::memory_order_relaxed);
      line("%s%s_bucket{%s%sle=\"%s\"} %" PRIu64 "\n", kPrefix, name, labels.c_str(), sep.c_str(), kBucketLabels[i],
           cumulative);
    }
    cumulative += h.buckets.back().load(std::memory_order_relaxed);
    line("%s%s_bucket{%s%sle=\"+Inf\"} %" PRIu64 "\n", kPrefix, name, labels.c_str(), sep.c_str(), cumulative);
    const double sum_s = static_cast<double>(h.sum_ns.load(std::memory_order_relaxed)) / 1e9;
    const std::string braced = labels.empty() ? "" : "{" + labels + "}";
    line("%s%s_sum%s %.9f\n", kPrefix, name, braced.c_str(), sum_s);
    line("%s%s_count%s %" PRIu64 "\n", kPrefix, name, braced.c_str(), cumulative);
  }

 private:
  template <class... Args>
  void line(const char* fmt, Args... args) {
    char buf[512];
    const int n = snprintf(buf, sizeof buf, fmt, args...);
    if (n > 0) out_.append(buf, static_cast<size_t>(n) < sizeof buf ? static_cast<size_t>(n) : sizeof buf - 1);
  }
  std::string& out_;
};

std::string s_label(const char* name, const char* value) { return std::string(name) + "=\"" + value + "\""; }

std::string s_escape_label_value(const char* text) {
  std::string out;
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p == '\\' || *p == '"') out += '\\';
    if (*p == '\n') {
      out += "\\n";
      continue;
    }
    out += *p;
  }
  return out;
}

void s_render_process(writer& w, const registry& r) {
  w.family("build_info", "gauge", "Always 1; the version label names the running build.");
  w.sample("build_info", s_label("version", s_escape_label_value(QM_BROKER_VERSION).c_str()), 1);
  w.family("start_time_seconds", "gauge", "Start time of the broker process in seconds since the Unix epoch.");
  w.sample_signed("start_time_seconds", "", r.start_time_s);
}

void s_render_auth(writer& w, const registry& r) {
  w.family("auth_requests_total", "counter", "Credential checks by asking door and verdict.");
  for (size_t s = 0; s < kAuthSources.size(); ++s)
    for (size_t v = 0; v < kVerdicts.size(); ++v)
      w.sample("auth_requests_total", s_label("source", kAuthSources[s]) + "," + s_label("verdict", kVerdicts[v]),
               r.auth_requests[s][v].get());
  w.family("auth_request_duration_seconds", "histogram", "Time from a credential question to its verdict.");
  for (size_t s = 0; s < kAuthSources.size(); ++s)
    w.histogram_samples("auth_request_duration_seconds", s_label("source", kAuthSources[s]), r.auth_duration[s]);
  w.family("auth_cache_lookups_total", "counter", "Auth result cache lookups by what they found.");
  for (size_t i = 0; i < kCacheResults.size(); ++i)
    w.sample("auth_cache_lookups_total", s_label("result", kCacheResults[i]), r.cache_lookups[i].get());
  w.family("credentials_reloads_total", "counter", "Reloads of the credentials file by result.");
  w.sample("credentials_reloads_total", s_label("result", "ok"), r.credentials_reloads[0].get());
  w.sample("credentials_reloads_total", s_label("result", "error"), r.credentials_reloads[1].get());
  w.family("auth_locks_total", "counter", "Users locked out after repeated failed password checks.");
  w.sample("auth_locks_total", "", r.auth_locks.get());
  w.family("ldap_connects_total", "counter",
           "Service connections opened to the directory by endpoint; none: every endpoint failed.");
  for (size_t i = 0; i < kLdapEndpoints.size(); ++i)
    w.sample("ldap_connects_total", s_label("endpoint", kLdapEndpoints[i]), r.ldap_connects[i].get());
  w.family("ldap_up", "gauge", "0 once every directory endpoint failed, 1 again after a connection succeeded.");
  w.sample("ldap_up", "", r.ldap_up.load() ? 1 : 0);
}

void s_render_doors(writer& w, const registry& r) {
  w.family("http_requests_total", "counter", "REST door responses by status code.");
  for (size_t i = 0; i < kHttpCodes.size(); ++i)
    w.sample("http_requests_total", s_label("code", std::to_string(kHttpCodes[i]).c_str()), r.http_requests[i].get());
  w.sample("http_requests_total", s_label("code", "other"), r.http_requests.back().get());
  w.family("amqp_connections", "gauge", "AMQP connections open now.");
  w.sample_signed("amqp_connections", "", r.amqp_connections.get());
  w.family("amqp_messages_total", "counter", "AMQP messages settled by the door, by outcome.");
  w.sample("amqp_messages_total", s_label("outcome", "accepted"), r.amqp_messages[0].get());
  w.sample("amqp_messages_total", s_label("outcome", "rejected"), r.amqp_messages[1].get());
  w.family("inflight_payload_bytes", "gauge", "Payload bytes the front doors hold in memory now.");
  w.sample_signed("inflight_payload_bytes", "", r.inflight_bytes.get());
  w.family("inflight_budget_refusals_total", "counter",
           "Requests (HTTP) and credit (AMQP) refused because the in-flight payload budget was spent, by door.");
  w.sample("inflight_budget_refusals_total", s_label("door", "http"), r.budget_refusals[0].get());
  w.sample("inflight_budget_refusals_total", s_label("door", "amqp"), r.budget_refusals[1].get());
}

void s_render_relay(writer& w, const registry& r) {
  w.family("relay_requests_total", "counter", "Requests relayed to NATS workers by route and result.");
  for (size_t route = 0; route < kRoutes.size(); ++route)
    for (size_t res = 0; res < kRelayResults.size(); ++res)
      w.sample("relay_requests_total", s_label("route", kRoutes[route]) + "," + s_label("result", kRelayResults[res]),
               r.relay_requests[route][res].get());
  w.family("relay_request_duration_seconds", "histogram", "Time from relaying a request to its reply or failure.");
  for (size_t route = 0; route < kRoutes.size(); ++route)
    w.histogram_samples("relay_request_duration_seconds", s_label("route", kRoutes[route]), r.relay_duration[route]);
  w.family("relay_staged_bytes_total", "counter", "Payload bytes staged in the scan-data bucket.");
  w.sample("relay_staged_bytes_total", "", r.staged_bytes.get());
  w.family("relay_fetched_bytes_total", "counter", "Reply payload bytes fetched from the scan-data bucket.");
  w.sample("relay_fetched_bytes_total", "", r.fetched_bytes.get());
  w.family("relay_leader_reads_total", "counter",
           "Staged entries a replica did not have yet, read again from the stream leader.");
  w.sample("relay_leader_reads_total", "", r.leader_reads.get());
  w.family("relay_queue_depth", "gauge", "AMQP jobs waiting for a relay worker.");
  w.sample_signed("relay_queue_depth", "", r.relay_queue_depth.get());
}

void s_render_lifecycle(writer& w, const registry& r) {
  w.family("natsd_restarts_total", "counter", "Restarts of the supervised nats-server after it ended.");
  w.sample("natsd_restarts_total", "", r.natsd_restarts.get());
  w.family("update_outcomes_total", "counter", "Self-update checks and activations by outcome.");
  for (size_t i = 0; i < kUpdateOutcomes.size(); ++i)
    w.sample("update_outcomes_total", s_label("outcome", kUpdateOutcomes[i]), r.update_outcomes[i].get());
}

}  // namespace

int64_t broker_metrics_now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void broker_metrics_count_auth(broker_metrics_auth_source_t source, broker_metrics_verdict_t verdict,
                               int64_t started) {
  const auto s = static_cast<size_t>(source);
  const auto v = static_cast<size_t>(verdict);
  if (s >= kAuthSources.size() || v >= kVerdicts.size()) return;
  registry& r = s_registry();
  r.auth_requests[s][v].add();
  r.auth_duration[s].observe(broker_metrics_now() - started);
}

void broker_metrics_count_cache_lookup(gw_auth_cache_result_t result) {
  size_t i = 2;  // miss
  if (result == GW_AUTH_CACHE_GRANT) i = 0;
  if (result == GW_AUTH_CACHE_GRANT_STALE) i = 1;
  if (result == GW_AUTH_CACHE_DENY) i = 3;
  s_registry().cache_lookups[i].add();
}

void broker_metrics_count_http_status(unsigned code) { s_registry().http_requests[s_http_code_index(code)].add(); }

void broker_metrics_count_relay(broker_metrics_relay_route_t route, broker_metrics_relay_result_t result,
                                int64_t started) {
  const auto rt = static_cast<size_t>(route);
  const auto rs = static_cast<size_t>(result);
  if (rt >= kRoutes.size() || rs >= kRelayResults.size()) return;
  registry& r = s_registry();
  r.relay_requests[rt][rs].add();
  r.relay_duration[rt].observe(broker_metrics_now() - started);
}

void broker_metrics_count_staged_bytes(uint64_t bytes) { s_registry().staged_bytes.add(bytes); }
void broker_metrics_count_fetched_bytes(uint64_t bytes) { s_registry().fetched_bytes.add(bytes); }
void broker_metrics_count_leader_read() { s_registry().leader_reads.add(1); }
uint64_t broker_metrics_leader_reads() { return s_registry().leader_reads.get(); }
void broker_metrics_relay_queue(int delta) { s_registry().relay_queue_depth.add(delta); }
void broker_metrics_count_natsd_restart() { s_registry().natsd_restarts.add(); }
void broker_metrics_count_credentials_reload(bool ok) { s_registry().credentials_reloads[ok ? 0 : 1].add(); }
void broker_metrics_amqp_connection(int delta) { s_registry().amqp_connections.add(delta); }
void broker_metrics_count_amqp_message(bool accepted) { s_registry().amqp_messages[accepted ? 0 : 1].add(); }

void broker_metrics_inflight_bytes(int64_t delta) { s_registry().inflight_bytes.add(delta); }
void broker_metrics_count_budget_refusal(broker_metrics_door_t door) {
  s_registry().budget_refusals[door == BROKER_METRICS_DOOR_AMQP ? 1 : 0].add();
}
void broker_metrics_count_auth_lock() { s_registry().auth_locks.add(); }

void broker_metrics_count_ldap_connect(int endpoint) {
  registry& r = s_registry();
  const size_t i = endpoint == 0 ? 0 : (endpoint > 0 ? 1 : 2);
  r.ldap_connects[i].add();
  r.ldap_up.store(endpoint >= 0);
}

void broker_metrics_count_update(broker_metrics_update_outcome_t outcome) {
  const auto i = static_cast<size_t>(outcome);
  if (i < kUpdateOutcomes.size()) s_registry().update_outcomes[i].add();
}

bool broker_metrics_ldap_up() { return s_registry().ldap_up.load(); }

std::string broker_metrics_render() {
  const registry& r = s_registry();
  std::string out;
  out.reserve(16384);
  writer w(out);
  s_render_process(w, r);
  s_render_auth(w, r);
  s_render_doors(w, r);
  s_render_relay(w, r);
  s_render_lifecycle(w, r);
  return out;
}
