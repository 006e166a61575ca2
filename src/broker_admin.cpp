#include "broker_admin.hpp"

#include <microhttpd.h>
#include <netdb.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "broker_metrics.hpp"
#include "log.hpp"
#include "qm_handles.hpp"

namespace {

struct readiness_check {
  const char* name = nullptr;
  broker_admin_probe_fn probe = nullptr;
  const void* subject = nullptr;
  bool had_probe = false;
};

// A slow or stuck client must not hold the listener's only thread for long.
constexpr unsigned kConnectionTimeoutS = 10;
constexpr unsigned kConnectionLimit = 64;

}  // namespace

struct broker_admin {
  std::string host;
  int port = 0;
  qm::mhd_daemon_ptr daemon;
  std::atomic<bool> stopping{false};
  // Held while the probes run, so that a check cleared by main is never probed after.
  std::mutex checks_mu;
  std::vector<readiness_check> checks;
};

namespace {

constexpr const char* kMetricsContentType = "text/plain; version=0.0.4; charset=utf-8";

MHD_Result s_respond(MHD_Connection* conn, unsigned status, const std::string& body, const char* content_type) {
  qm::mhd_response_ptr response(
      MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY));
  if (!response) return MHD_NO;
  if (MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, content_type) != MHD_YES) return MHD_NO;
  return MHD_queue_response(conn, status, response.get());
}

MHD_Result s_healthz(broker_admin& admin, MHD_Connection* conn) {
  if (admin.stopping.load()) return s_respond(conn, MHD_HTTP_SERVICE_UNAVAILABLE, "stopping\n", "text/plain");
  return s_respond(conn, MHD_HTTP_OK, "ok\n", "text/plain");
}

// Runs every check; true when all are ready and no shutdown began. `entries` gets the
// checks as JSON members: "<name>":{"ready":bool,"state":"<word>"}. Names and states are
// fixed texts of the broker's own: nothing needs escaping.
bool s_evaluate(broker_admin& admin, std::string& entries) {
  bool all_ready = !admin.stopping.load();
  std::lock_guard lock(admin.checks_mu);
  for (const readiness_check& check : admin.checks) {
    const char* state = nullptr;
    const bool ready = check.probe != nullptr && check.probe(check.subject, &state);
    if (state == nullptr)
      state = check.probe != nullptr ? (ready ? "up" : "down") : (check.had_probe ? "stopped" : "starting");
    all_ready = all_ready && ready;
    if (!entries.empty()) entries += ",";
    entries += std::string("\"") + check.name + "\":{\"ready\":" + (ready ? "true" : "false") + ",\"state\":\"" +
               state + "\"}";
  }
  return all_ready;
}

// {"status":"ready"|"not ready"|"stopping","checks":{...}}
MHD_Result s_readyz(broker_admin& admin, MHD_Connection* conn) {
  std::string entries;
  const bool all_ready = s_evaluate(admin, entries);
  const char* status = admin.stopping.load() ? "stopping" : (all_ready ? "ready" : "not ready");
  const std::string body = std::string("{\"status\":\"") + status + "\",\"checks\":{" + entries + "}}\n";
  return s_respond(conn, all_ready ? MHD_HTTP_OK : MHD_HTTP_SERVICE_UNAVAILABLE, body, "application/json");
}

// The metrics, and what /readyz would answer as a gauge: one scrape tells both.
std::string s_metrics(broker_admin& admin) {
  std::string ignored;
  const bool ready = s_evaluate(admin, ignored);
  std::string text = broker_metrics_render();
  text += "# HELP qm_av_broker_ready 1 when /readyz answers 200, else 0.\n# TYPE qm_av_broker_ready gauge\n";
  text += ready ? "qm_av_broker_ready 1\n" : "qm_av_broker_ready 0\n";
  return text;
}

MHD_Result on_request(void* cls, MHD_Connection* conn, const char* url, const char* method, const char*,
                      const char*, size_t*, void**) noexcept {
  try {
    auto& admin = *static_cast<broker_admin*>(cls);
    const bool known = strcmp(url, "/healthz") == 0 || strcmp(url, "/readyz") == 0 || strcmp(url, "/metrics") == 0;
    if (!known) return s_respond(conn, MHD_HTTP_NOT_FOUND, "not found\n", "text/plain");
    if (strcmp(method, MHD_HTTP_METHOD_GET) != 0) {
      qm::mhd_response_ptr response(
          MHD_create_response_from_buffer(strlen("method not allowed\n"), const_cast<char*>("method not allowed\n"),
                                          MHD_RESPMEM_PERSISTENT));
      if (!response || MHD_add_response_header(response.get(), MHD_HTTP_HEADER_ALLOW, "GET") != MHD_YES) return MHD_NO;
      return MHD_queue_response(conn, MHD_HTTP_METHOD_NOT_ALLOWED, response.get());
    }
    if (strcmp(url, "/healthz") == 0) return s_healthz(admin, conn);
    if (strcmp(url, "/readyz") == 0) return s_readyz(admin, conn);
    return s_respond(conn, MHD_HTTP_OK, s_metrics(admin), kMetricsContentType);
  } catch (...) {
    return MHD_NO;  // out of memory: the daemon drops the connection
  }
}

void mhd_logger(void*, const char* fmt, va_list ap) noexcept {
  char line[512];
  vsnprintf(line, sizeof line, fmt, ap);
  const size_t len = strlen(line);
  if (len > 0 && line[len - 1] == '\n') line[len - 1] = '\0';
  log_warn("admin: %s", line);
}

template <class Fn>
intptr_t s_fn_value(Fn fn) {
  return reinterpret_cast<intptr_t>(fn);
}

using addrinfo_ptr = qm::c_ptr<addrinfo, freeaddrinfo>;

addrinfo_ptr s_resolve(const std::string& host, int port) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  const std::string service = std::to_string(port);
  const int rc = getaddrinfo(host.c_str(), service.c_str(), &hints, &found);
  if (rc != 0) {
    log_error("admin: cannot resolve --admin-listen-host %s: %s", host.c_str(), gai_strerror(rc));
    return nullptr;
  }
  return addrinfo_ptr(found);
}

}  // namespace

broker_admin_t* broker_admin_create(const char* host, int port) {
  if (host == nullptr || *host == '\0' || port < 1 || port > 65535) return nullptr;
  try {
    auto admin = std::make_unique<broker_admin>();
    admin->host = host;
    admin->port = port;
    return admin.release();
  } catch (...) {
    return nullptr;
  }
}

int broker_admin_start(broker_admin_t* admin) {
  if (admin == nullptr || admin->daemon) return -1;
  const addrinfo_ptr address = s_resolve(admin->host, admin->port);
  if (!address) return -1;
  unsigned flags = MHD_USE_ERROR_LOG | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO;
  if (address->ai_family == AF_INET6) flags |= MHD_USE_IPv6;
  admin->daemon.reset(MHD_start_daemon(
      flags, static_cast<uint16_t>(admin->port), nullptr, nullptr, &on_request, admin, MHD_OPTION_SOCK_ADDR,
      address->ai_addr, MHD_OPTION_CONNECTION_TIMEOUT, kConnectionTimeoutS, MHD_OPTION_CONNECTION_LIMIT,
      kConnectionLimit, MHD_OPTION_EXTERNAL_LOGGER, s_fn_value(&mhd_logger), nullptr, MHD_OPTION_END));
  if (!admin->daemon) {
    log_error("admin: cannot listen on %s:%d (address in use?)", admin->host.c_str(), admin->port);
    return -1;
  }
  log_info("admin: listening on %s:%d (/healthz, /readyz, /metrics)", admin->host.c_str(), admin->port);
  return 0;
}

void broker_admin_set_check(broker_admin_t* admin, const char* name, broker_admin_probe_fn probe,
                            const void* subject) {
  if (admin == nullptr || name == nullptr) return;
  std::lock_guard lock(admin->checks_mu);
  for (readiness_check& check : admin->checks) {
    if (strcmp(check.name, name) != 0) continue;
    check.probe = probe;
    check.subject = subject;
    check.had_probe = check.had_probe || probe != nullptr;
    return;
  }
  try {
    admin->checks.push_back({name, probe, subject, probe != nullptr});
  } catch (const std::bad_alloc&) {
    log_error("admin: out of memory adding the readiness check %s", name);
  }
}

void broker_admin_set_stopping(broker_admin_t* admin) {
  if (admin != nullptr) admin->stopping.store(true);
}

void broker_admin_destroy(broker_admin_t* admin) {
  if (admin == nullptr) return;
  std::unique_ptr<broker_admin> owned(admin);
  if (owned->daemon) {
    owned->daemon.reset();
    log_info("admin: stopped");
  }
}
