// The REST front door's surroundings for tests and benchmarks: a front door running in
// this process on top of any server (AmqpEnv's, say), and HTTP clients (libcurl, and a
// raw socket for bodies no well-behaved client sends).
#pragma once

#include <curl/curl.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "callout_fixture.hpp"
#include "gw_auth_cache.hpp"
#include "gw_credential_store.hpp"
#include "gw_http_frontend.hpp"
#include "qm_handles.hpp"
#include "scan_fixture.hpp"

namespace qmtest {

class AmqpEnv;

// ---- clients ----

struct HttpRequest {
  std::string url;
  std::string method = "POST";
  std::optional<std::pair<std::string, std::string>> basic;  // user, password
  std::string target = "scan";                                // X-Target-Service; empty: not sent
  // Multipart fields in this order; a field named "payload" is sent as a file part.
  std::vector<std::pair<std::string, std::string>> fields;
  // Instead of multipart: this body with this Content-Type ("" sends none).
  std::optional<std::string> raw_body;
  std::string content_type;
  std::string ca_file;  // trust for https://
};

struct HttpResponse {
  CURLcode curl = CURLE_OK;
  long status = 0;
  std::string body;
  std::string content_type;
  std::string www_authenticate;
  std::string retry_after;
};

// One connection reused for every send (keep-alive).
class HttpClient {
 public:
  HttpClient();
  HttpResponse send(const HttpRequest& request);

 private:
  qm::curl_ptr easy_;
};

// A one-off send on a fresh connection.
HttpResponse http_send(const HttpRequest& request);

// A TCP connection to 127.0.0.1:port for hand-made requests.
class RawClient {
 public:
  explicit RawClient(int port);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;
  // False once the server has closed the connection (or has not read for a minute).
  bool send(const std::string& bytes);
  // What the server sends until it closes or `timeout` passes; closed() tells which.
  std::string read(std::chrono::milliseconds timeout);
  bool closed() const { return closed_; }

 private:
  int fd_ = -1;
  bool closed_ = false;
};

// What a server answered on a raw connection until it closed (or a minute passed).
struct RawPost {
  std::string text;  // status line, headers and body as they came
  bool closed = false;
  std::string body() const;
};

// The header block of a multipart POST to "scan" on /vsi that closes the connection after
// its answer: Basic credentials (Base64 of "user:password") unless `basic` is empty, the
// boundary, then the `extra` header lines (each ending in CRLF).
std::string multipart_headers(const std::string& basic, const std::string& boundary, const std::string& extra);

// A multipart scan ({"scan":1} and `payload`) to "scan" on 127.0.0.1:port/vsi, written
// straight to the socket so that no copy of the payload is made, with Basic credentials
// (Base64 of "user:password") unless `basic` is empty. A server that answers early and
// closes ends the sending; its answer is kept.
RawPost raw_multipart_post(int port, const std::string& basic, const std::string& payload);

// ---- servers ----

// A front door in this process with its own relay, credentials file (local_users) and
// auth cache (on `timing`'s clock, if given), started on a port the kernel chooses after `tweak`
// adjusted its configuration; throws when it does not start. Torn down in the broker's order.
class HttpDoor {
 public:
  HttpDoor(const gw_config_t& relay_config, const user_list& local_users,
           const std::function<void(gw_config_t&)>& tweak = {}, const gw_auth_cache_timing* timing = nullptr);
  HttpDoor(const HttpDoor&) = delete;
  HttpDoor& operator=(const HttpDoor&) = delete;

  int port() const { return gw_http_frontend_bound_port(fe_.get()); }
  std::string url(const std::string& path = "/vsi") const;
  gw_http_frontend_t* frontend() { return fe_.get(); }
  gw_auth_cache_t* cache() { return cache_.get(); }
  // A scan request with these credentials: {"scan":1} and no payload, to "scan".
  HttpRequest request(const std::string& user, const std::string& password) const;

 private:
  static void drain_and_destroy(gw_auth_cache_t* cache);

  // Declared in the reverse of the teardown order.
  TempDir dir_;
  gw_config_t cfg_;
  qm::c_ptr<gw_credential_store_t, gw_credential_store_free> creds_;
  relay_ptr relay_;
  qm::c_ptr<gw_auth_cache_t, drain_and_destroy> cache_;
  qm::c_ptr<gw_http_frontend_t, gw_http_frontend_destroy> fe_;
};

// The port of the HTTP door that the broker of `env` (started with "--http-listen-port 0")
// names in its start-up line; throws when the door does not open.
int broker_http_port(AmqpEnv& env);

// Threads of this process.
int thread_count();
// A field of a process's /proc status in KiB ("VmRSS", "VmHWM"); -1 when there is none.
long proc_status_kib(pid_t pid, const std::string& field);

}  // namespace qmtest
