#include "gw_http_frontend.hpp"

#include <microhttpd.h>
#include <openssl/evp.h>
#include <sodium.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "auth_lock.hpp"
#include "auth_profile.hpp"
#include "broker_metrics.hpp"
#include "gw_inflight_budget.hpp"
#include "gw_multipart.hpp"
#include "gw_subject_policy.hpp"
#include "gw_verify_reply.hpp"
#include "log.hpp"
#include "qm_handles.hpp"

namespace {

constexpr const char* kRealm = "quillmere-av-scangateway";
constexpr const char* kVerifySubject = "qm.auth.verify";
// Live checks wait this long whatever the relay's own default is.
constexpr unsigned long kVerifyTimeoutMs = 5000;
constexpr size_t kPostProcessorBufferBytes = 16384;
constexpr size_t kRequestJsonCapBytes = 1048576;
// Chunks of one upload awaiting the bucket's acknowledgement; with the chunk filling in
// memory, what an upload holds of its payload at most.
constexpr size_t kUploadWindowChunks = 4;
constexpr size_t kChunkBytes = 524288;
// A worker's verdict is small (a NATS message at most); this much is reserved for it.
constexpr size_t kReplyReserveBytes = 65536;
// Room for the multipart framing around the fields in a Content-Length check.
constexpr size_t kMultipartSlackBytes = 65536;
// A request that does not fit the in-flight budget waits this long for room, then 503.
constexpr int kBudgetWaitMs = 1000;
constexpr const char* kRetryAfterSeconds = "1";
// The post processor needs two boundary lines in its buffer and a boundary of 2 or more.
constexpr size_t kMinBoundaryLength = 2;
// A connection silent this long is closed when the configuration names no time-out;
// without one an idle client would hold its thread for ever.
constexpr int kInactivityTimeoutS = 60;
constexpr size_t kLoggerLineBytes = 512;
// Request headers not complete this long after the connection (or its previous request)
// began close it, when the configuration names no deadline.
constexpr int kHeaderTimeoutMs = 10000;
constexpr unsigned kDefaultMaxConnections = 1024;
constexpr unsigned kDefaultMaxConnectionsPerIp = 64;

// A connection whose request headers are not complete yet.
struct header_wait {
  std::chrono::steady_clock::time_point deadline;
  int fd = -1;
};

// One background refresh: its thread, joined by whoever finds it done or by a stop.
struct refresh_run {
  std::thread thread;
  bool done = false;  // under refresh_mu; the thread touches nothing of the frontend after
};

}  // namespace

struct gw_http_frontend {
  const gw_config_t* cfg = nullptr;
  gw_credential_store_t* creds = nullptr;
  gw_nats_relay_t* relay = nullptr;
  qm::mhd_daemon_ptr daemon;
  std::optional<qm::secret_string> tls_cert_pem;
  std::optional<qm::secret_string> tls_key_pem;
  gw_auth_cache_t* auth_cache = nullptr;
  const auth_profile_store_t* profiles = nullptr;  // NULL: everyone has the built-in permissions
  // Start, quiesce and stop of the daemon: a self-update's activation quiesces it on the
  // update thread while a shutdown signal may stop it on the main thread.
  std::mutex lifecycle_mu;
  // The listening socket that quiescing hands back: shut down at once so that new
  // connections are refused, closed only after the daemon's threads are gone so that
  // its number cannot be reused under them.
  int quiesced_listen_fd = -1;
  // Started and not quiesced: new connections are taken.
  std::atomic<bool> listening{false};
  // Refresh threads not yet joined; they use the relay and the cache, so a stop joins
  // every one of them before it returns. Stopping: no refresh starts, none that has not
  // asked yet asks.
  std::mutex refresh_mu;
  std::list<refresh_run> refreshes;
  bool refreshes_stopping = false;
  // Scan requests begun and not yet completed; read by an update's drain.
  std::atomic<size_t> inflight{0};
  // Connections still sending their request headers, and the thread that closes those
  // past their deadline: the daemon's own time-out only counts silence, so a client
  // trickling a byte now and then would otherwise hold its connection for ever. An entry
  // goes, under headers_mu, before the daemon closes its socket.
  std::mutex headers_mu;
  std::condition_variable headers_cv;
  std::map<MHD_Connection*, header_wait> awaiting_headers;
  bool headers_watch_stopping = false;
  std::thread headers_watch;
};

namespace {

// ---- one request ----

using upload_ptr = qm::c_ptr<gw_relay_upload, gw_relay_upload_destroy>;
using multipart_ptr = qm::c_ptr<gw_multipart, gw_multipart_destroy>;

// One admitted request: the caller and target were checked from the headers, the body
// streams in. The payload goes to the bucket as it arrives; only the request field is
// kept (in parts).
struct req_ctx_t {
  gw_http_frontend* fe = nullptr;
  qm::mhd_post_processor_ptr pp;
  multipart_ptr parts;
  upload_ptr upload;  // made at the payload's first byte
  std::string user;
  std::string target;       // X-Target-Service as sent
  std::string subject;      // what the policy made of it
  qm::inflight_bytes held;  // this request's share of the in-flight budget
};

// Nothing more is staged once the request is bound to be refused: what is in the bucket
// goes at once.
void s_drop_upload(req_ctx_t& ctx) { ctx.upload.reset(); }

void s_stage_payload(req_ctx_t& ctx, const char* data, size_t size) {
  if (!ctx.upload) {
    ctx.upload.reset(gw_nats_relay_upload_begin(ctx.fe->relay, ctx.user.c_str(), kUploadWindowChunks));
    if (!ctx.upload) return gw_multipart_fail(ctx.parts.get(), GW_MULTIPART_STAGING_FAILED);
  }
  if (gw_relay_upload_write(ctx.upload.get(), data, size) != 0)
    gw_multipart_fail(ctx.parts.get(), GW_MULTIPART_STAGING_FAILED);
}

MHD_Result on_post_field(void* cls, MHD_ValueKind, const char* key, const char*, const char*, const char*,
                         const char* data, uint64_t off, size_t size) noexcept {
  auto* ctx = static_cast<req_ctx_t*>(cls);
  try {
    if (gw_multipart_feed(ctx->parts.get(), key, off, data, size)) s_stage_payload(*ctx, data, size);
  } catch (...) {
    gw_multipart_fail(ctx->parts.get(), GW_MULTIPART_STAGING_FAILED);  // out of memory: answered as a failed relay
  }
  if (gw_multipart_refused(ctx->parts.get())) s_drop_upload(*ctx);
  // Always on to the end of the body: the verdict is given at the final call.
  return MHD_YES;
}

MHD_Result queue_simple(MHD_Connection* conn, unsigned status, const char* text) {
  broker_metrics_count_http_status(status);
  qm::mhd_response_ptr response(
      MHD_create_response_from_buffer(strlen(text), const_cast<char*>(text), MHD_RESPMEM_MUST_COPY));
  if (!response) return MHD_NO;
  return MHD_queue_response(conn, status, response.get());
}

MHD_Result queue_auth_required(MHD_Connection* conn) {
  broker_metrics_count_http_status(MHD_HTTP_UNAUTHORIZED);
  qm::mhd_response_ptr response(MHD_create_response_from_buffer(0, nullptr, MHD_RESPMEM_PERSISTENT));
  if (!response) return MHD_NO;
  return MHD_queue_basic_auth_fail_response(conn, kRealm, response.get());
}

// ---- authentication ----

// Who a request acts for once the credentials are checked: the caller's permission
// profile (NULL: the built-in permissions). nullopt: not admitted.
using admitted_profile = std::optional<const auth_profile_t*>;

void s_wipe_json_string(json_object* value) {
  sodium_memzero(const_cast<char*>(json_object_get_string(value)), static_cast<size_t>(json_object_get_string_len(value)));
}

// The verify request {"user","password","method":"basic"[,"revalidate":true]} as text.
// json-c keeps its own copies of the password (the string and the serialisation
// buffer): they are wiped before the document is released.
std::optional<qm::secret_string> s_verify_request_text(const char* user, const char* password, bool revalidate) {
  qm::json_ptr doc(json_object_new_object());
  qm::json_ptr user_value(json_object_new_string(user));
  qm::json_ptr password_value(json_object_new_string(password));
  qm::json_ptr method_value(json_object_new_string("basic"));
  qm::json_ptr revalidate_value(revalidate ? json_object_new_boolean(1) : nullptr);
  if (!doc || !user_value || !password_value || !method_value || (revalidate && !revalidate_value)) {
    if (password_value) s_wipe_json_string(password_value.get());
    return std::nullopt;
  }
  json_object* password_ref = password_value.get();
  json_object_object_add(doc.get(), "user", user_value.release());
  json_object_object_add(doc.get(), "password", password_value.release());
  json_object_object_add(doc.get(), "method", method_value.release());
  if (revalidate) json_object_object_add(doc.get(), "revalidate", revalidate_value.release());
  size_t len = 0;
  const char* text = json_object_to_json_string_length(doc.get(), JSON_C_TO_STRING_PLAIN, &len);
  std::optional<qm::secret_string> request;
  if (text != nullptr) {
    request.emplace(std::string(text, len));
    sodium_memzero(const_cast<char*>(text), len);
  }
  s_wipe_json_string(password_ref);
  return request;
}

// One request on "qm.auth.verify"; *rc is the relay's result, the reply NULL when none came.
qm::malloc_ptr<char> s_ask_verify(gw_http_frontend& fe, const qm::secret_string& request, int* rc) {
  char* reply = nullptr;
  *rc = gw_nats_relay_request(fe.relay, kVerifySubject, request.c_str(), nullptr, 0, kVerifyTimeoutMs, &reply,
                              nullptr, nullptr);
  qm::malloc_ptr<char> owned(reply);
  if (*rc != 0) owned.reset();
  return owned;
}

const char* s_or(const qm::opt_string& text, const char* fallback) { return text ? text->c_str() : fallback; }

// The profile a verify grant names, from the store the auth service resolves against;
// nullopt when the store does not know it.
admitted_profile s_profile_of(const gw_http_frontend& fe, const gw_verify_reply& verdict) {
  if (!verdict.profile) return admitted_profile(nullptr);
  const auth_profile_t* profile = auth_profile_find(fe.profiles, verdict.profile->c_str());
  if (profile == nullptr) return std::nullopt;
  return profile;
}

// The cache keeps a grant's profile as its untyped user data.
void* s_user_data(const auth_profile_t* profile) { return const_cast<auth_profile_t*>(profile); }

// Tier 3: the auth service decides. Only a deliberate answer is cached, a refusal for
// this password alone; an outage or an unreadable reply denies this request alone.
admitted_profile s_verify_live(gw_http_frontend& fe, const char* user, const char* password) {
  const std::optional<qm::secret_string> request = s_verify_request_text(user, password, false);
  if (!request) {
    log_error("http_frontend: OOM building auth request");
    return std::nullopt;
  }
  int rc = 0;
  const qm::malloc_ptr<char> reply = s_ask_verify(fe, *request, &rc);
  if (!reply) {
    log_warn("http_frontend: auth DENY user=%s via=nats (relay rc=%d, no reply — is authenticator running?)",
             log_safe(user).c_str(), rc);
    return std::nullopt;
  }
  const std::optional<gw_verify_reply> verdict = gw_verify_reply_parse(reply.get());
  if (!verdict) {
    log_warn("http_frontend: auth DENY user=%s via=nats (unparseable reply — treating as deny but NOT poisoning cache)",
             log_safe(user).c_str());
    return std::nullopt;
  }
  if (verdict->ok) {
    const admitted_profile profile = s_profile_of(fe, *verdict);
    if (!profile) {
      log_error("http_frontend: auth DENY user=%s via=nats (grant names profile '%s', which this broker does not know)",
                log_safe(user).c_str(), log_safe(*verdict->profile).c_str());
      return std::nullopt;
    }
    log_info("http_frontend: auth GRANT user=%s via=nats backend=%s", log_safe(user).c_str(),
             s_or(verdict->backend, "(unknown)"));
    gw_auth_cache_insert_grant_ex(fe.auth_cache, user, password, s_user_data(*profile));
    return profile;
  }
  log_warn("http_frontend: auth DENY user=%s via=nats backend=%s reason=%s", log_safe(user).c_str(),
           s_or(verdict->backend, "(unknown)"), s_or(verdict->reason, "(none)"));
  gw_auth_cache_insert_deny(fe.auth_cache, user, password);
  return std::nullopt;
}

// ---- background refresh ----

struct refresh_ctx_t {
  gw_http_frontend* fe = nullptr;
  std::string user;
  qm::secret_string password;  // wiped when the context goes
  unsigned char hash[GW_AUTH_CACHE_HASH_BYTES] = {};
  uint32_t gen = 0;
};

void refresh_ctx_free(refresh_ctx_t* ctx) {
  if (ctx == nullptr) return;
  sodium_memzero(ctx->hash, sizeof ctx->hash);
  std::unique_ptr<refresh_ctx_t> owned(ctx);
}

struct refresh_ctx_deleter {
  void operator()(refresh_ctx_t* ctx) const noexcept { refresh_ctx_free(ctx); }
};
using refresh_ctx_ptr = std::unique_ptr<refresh_ctx_t, refresh_ctx_deleter>;

bool s_refreshes_stopping(gw_http_frontend& fe) {
  std::lock_guard<std::mutex> guard(fe.refresh_mu);
  return fe.refreshes_stopping;
}

gw_refresh_outcome_t s_revalidate(gw_http_frontend& fe, const refresh_ctx_t& ctx, const auth_profile_t** profile) {
  const std::optional<qm::secret_string> request = s_verify_request_text(ctx.user.c_str(), ctx.password.c_str(), true);
  if (!request) {
    log_error("http_frontend: refresh OOM building request user=%s", log_safe(ctx.user).c_str());
    return GW_REFRESH_ABORTED;
  }
  int rc = 0;
  const qm::malloc_ptr<char> reply = s_ask_verify(fe, *request, &rc);
  if (!reply) {
    log_warn("http_frontend: refresh ABORTED user=%s (relay rc=%d)", log_safe(ctx.user).c_str(), rc);
    return GW_REFRESH_ABORTED;
  }
  // Harsher than the foreground path: an unreadable answer revokes the grant.
  const std::optional<gw_verify_reply> verdict = gw_verify_reply_parse(reply.get());
  const admitted_profile granted = verdict && verdict->ok ? s_profile_of(fe, *verdict) : std::nullopt;
  if (granted) {
    log_debug("http_frontend: refresh GRANTED user=%s", log_safe(ctx.user).c_str());
    *profile = *granted;
    return GW_REFRESH_GRANTED;
  }
  log_info("http_frontend: refresh DENIED user=%s — invalidating cache (password changed or account disabled?)",
           log_safe(ctx.user).c_str());
  return GW_REFRESH_DENIED;
}

void refresh_worker(refresh_ctx_t* arg, refresh_run* run) noexcept {
  refresh_ctx_ptr ctx(arg);
  gw_http_frontend& fe = *ctx->fe;
  gw_refresh_outcome_t outcome = GW_REFRESH_ABORTED;
  const auth_profile_t* profile = nullptr;
  if (s_refreshes_stopping(fe)) {
    log_debug("http_frontend: refresh ABORTED user=%s (stopping)", log_safe(ctx->user).c_str());
  } else {
    try {
      outcome = s_revalidate(fe, *ctx, &profile);
    } catch (...) {
      outcome = GW_REFRESH_ABORTED;
    }
  }
  // Exactly one completion per claim, whatever happened above.
  if (outcome == GW_REFRESH_GRANTED)
    gw_auth_cache_complete_refresh_ex(fe.auth_cache, ctx->hash, ctx->gen, outcome, s_user_data(profile));
  else
    gw_auth_cache_complete_refresh(fe.auth_cache, ctx->hash, ctx->gen, outcome);
  ctx.reset();
  std::lock_guard<std::mutex> guard(fe.refresh_mu);
  run->done = true;
}

// Joins the refreshes that have ended; under refresh_mu.
void s_reap_refreshes_locked(gw_http_frontend& fe) {
  fe.refreshes.remove_if([](refresh_run& run) {
    if (!run.done) return false;
    run.thread.join();  // it has only its return left
    return true;
  });
}

void s_set_refreshes_stopping(gw_http_frontend& fe, bool stopping) {
  std::lock_guard<std::mutex> guard(fe.refresh_mu);
  fe.refreshes_stopping = stopping;
}

// Joins every refresh, however long its verify takes: they use the relay and the cache.
void s_join_refreshes(gw_http_frontend& fe) {
  std::list<refresh_run> running;
  {
    std::lock_guard<std::mutex> guard(fe.refresh_mu);
    running.swap(fe.refreshes);  // the nodes move whole: each thread's run stays where it is
  }
  if (!running.empty()) log_info("http_frontend: stop waits for %zu background refresh(es)", running.size());
  for (refresh_run& run : running) run.thread.join();
}

// The context for a claimed refresh; on failure the claim is completed as aborted.
refresh_ctx_ptr s_new_refresh_ctx(gw_http_frontend& fe, const char* user, const char* password,
                                  const unsigned char* hash, uint32_t gen) {
  refresh_ctx_ptr ctx;
  try {
    ctx.reset(std::make_unique<refresh_ctx_t>().release());
  } catch (const std::bad_alloc&) {
    log_warn("http_frontend: refresh OOM allocating ctx user=%s", log_safe(user).c_str());
    gw_auth_cache_complete_refresh(fe.auth_cache, hash, gen, GW_REFRESH_ABORTED);
    return nullptr;
  }
  try {
    ctx->user = user;
    ctx->password = qm::secret_string(password);
  } catch (const std::bad_alloc&) {
    log_warn("http_frontend: refresh OOM duplicating credentials user=%s", log_safe(user).c_str());
    gw_auth_cache_complete_refresh(fe.auth_cache, hash, gen, GW_REFRESH_ABORTED);
    return nullptr;
  }
  ctx->fe = &fe;
  memcpy(ctx->hash, hash, sizeof ctx->hash);
  ctx->gen = gen;
  return ctx;
}

// Starts a background re-verification of a stale grant unless one already runs for it.
void dispatch_refresh(gw_http_frontend& fe, const char* user, const char* password) {
  if (fe.auth_cache == nullptr) return;
  unsigned char hash[GW_AUTH_CACHE_HASH_BYTES];
  uint32_t gen = 0;
  if (!gw_auth_cache_try_claim_refresh(fe.auth_cache, user, password, hash, &gen)) return;
  refresh_ctx_ptr ctx = s_new_refresh_ctx(fe, user, password, hash, gen);
  sodium_memzero(hash, sizeof hash);
  if (!ctx) return;
  const auto abort_claim = [&] {
    gw_auth_cache_complete_refresh(fe.auth_cache, ctx->hash, ctx->gen, GW_REFRESH_ABORTED);
  };
  std::lock_guard<std::mutex> guard(fe.refresh_mu);
  s_reap_refreshes_locked(fe);
  if (fe.refreshes_stopping) return abort_claim();
  try {
    fe.refreshes.emplace_back();
  } catch (const std::bad_alloc&) {
    log_warn("http_frontend: refresh OOM user=%s", log_safe(user).c_str());
    return abort_claim();
  }
  refresh_run& run = fe.refreshes.back();
  try {
    // The thread marks its run done under refresh_mu, held here until the thread is stored.
    run.thread = std::thread(refresh_worker, ctx.get(), &run);
  } catch (const std::system_error& e) {
    fe.refreshes.pop_back();
    log_warn("http_frontend: refresh thread not started (%s) user=%s", e.what(), log_safe(user).c_str());
    return abort_claim();
  }
  (void)ctx.release();  // the thread owns it now
  log_trace("http_frontend: refresh dispatched user=%s", log_safe(user).c_str());
}

// Cache, then the credentials file, then the auth service. A stale cached grant is
// honoured at once and re-verified in the background. A cached grant that does not say
// which profile it carries is checked again.
admitted_profile authenticate(gw_http_frontend& fe, const char* user, const char* password) {
  if (user == nullptr || *user == '\0' || password == nullptr) {
    log_debug("http_frontend: authenticate() called with empty credentials");
    return std::nullopt;
  }
  // A locked user is refused unchecked, as a wrong password is. The door tells the lock
  // what it decides itself; what it asks the verify endpoint, the endpoint tells.
  auth_lock_t* lock = fe.cfg->password_lock;
  if (auth_lock_refuses(lock, user)) return std::nullopt;
  const gw_auth_cache_lookup_t cached = gw_auth_cache_lookup_ex(fe.auth_cache, user, password);
  if (fe.auth_cache != nullptr) broker_metrics_count_cache_lookup(cached.result);
  const auto* cached_profile = static_cast<const auth_profile_t*>(cached.user_data);
  switch (cached.result) {
    case GW_AUTH_CACHE_GRANT:
      if (!cached.has_user_data) break;
      log_debug("http_frontend: auth GRANT user=%s via=cache", log_safe(user).c_str());
      auth_lock_note(lock, user, true);
      return cached_profile;
    case GW_AUTH_CACHE_GRANT_STALE:
      if (!cached.has_user_data) break;
      log_debug("http_frontend: auth GRANT user=%s via=cache (stale, scheduling refresh)", log_safe(user).c_str());
      dispatch_refresh(fe, user, password);
      auth_lock_note(lock, user, true);
      return cached_profile;
    case GW_AUTH_CACHE_DENY:
      log_debug("http_frontend: auth DENY user=%s via=neg-cache", log_safe(user).c_str());
      auth_lock_note(lock, user, false);
      return std::nullopt;
    case GW_AUTH_CACHE_MISS:
      break;
  }
  // The file check is cheap: its grants are not cached.
  if (gw_credential_store_validate(fe.creds, user, password)) {
    log_debug("http_frontend: auth GRANT user=%s via=local", log_safe(user).c_str());
    auth_lock_note(lock, user, true);
    return auth_profile_resolve(fe.profiles, user, nullptr, 0);
  }
  return s_verify_live(fe, user, password);
}

// ---- the header deadline ----

std::chrono::milliseconds s_header_timeout(const gw_config_t& cfg) {
  return std::chrono::milliseconds(cfg.http_header_timeout_ms > 0 ? cfg.http_header_timeout_ms : kHeaderTimeoutMs);
}

// From now on the connection's next request headers must be complete within the deadline.
void s_await_headers(gw_http_frontend& fe, MHD_Connection* conn) {
  const MHD_ConnectionInfo* info = MHD_get_connection_info(conn, MHD_CONNECTION_INFO_CONNECTION_FD);
  if (info == nullptr) return;
  bool watcher_idle = false;
  {
    std::lock_guard<std::mutex> guard(fe.headers_mu);
    // Every deadline is now plus the same time-out, so a new one is never the earliest:
    // only a watcher with nothing to wait for needs waking.
    watcher_idle = fe.awaiting_headers.empty();
    fe.awaiting_headers[conn] = {std::chrono::steady_clock::now() + s_header_timeout(*fe.cfg), info->connect_fd};
  }
  if (watcher_idle) fe.headers_cv.notify_one();
}

void s_headers_done(gw_http_frontend& fe, MHD_Connection* conn) {
  std::lock_guard<std::mutex> guard(fe.headers_mu);
  fe.awaiting_headers.erase(conn);
}

void on_connection(void* cls, MHD_Connection* conn, void**, MHD_ConnectionNotificationCode code) noexcept {
  auto& fe = *static_cast<gw_http_frontend*>(cls);
  try {
    if (code == MHD_CONNECTION_NOTIFY_STARTED)
      s_await_headers(fe, conn);
    else
      s_headers_done(fe, conn);
  } catch (...) {
    // out of memory: this connection goes without a header deadline
  }
}

// Shuts the socket of every connection past its header deadline (the daemon then closes
// it, and notifies its end); sleeps until the next deadline.
void s_watch_headers(gw_http_frontend& fe) {
  std::unique_lock<std::mutex> lock(fe.headers_mu);
  while (!fe.headers_watch_stopping) {
    const auto now = std::chrono::steady_clock::now();
    auto next = now + std::chrono::hours(1);
    for (auto it = fe.awaiting_headers.begin(); it != fe.awaiting_headers.end();) {
      if (it->second.deadline <= now) {
        log_info("http_frontend: closing a connection whose request headers were not complete within %lld ms",
                 static_cast<long long>(s_header_timeout(*fe.cfg).count()));
        shutdown(it->second.fd, SHUT_RDWR);
        it = fe.awaiting_headers.erase(it);
      } else {
        next = std::min(next, it->second.deadline);
        ++it;
      }
    }
    fe.headers_cv.wait_until(lock, next);
  }
}

void s_start_header_watch(gw_http_frontend& fe) {
  std::lock_guard<std::mutex> guard(fe.headers_mu);
  fe.headers_watch_stopping = false;
  fe.headers_watch = std::thread(s_watch_headers, std::ref(fe));
}

void s_stop_header_watch(gw_http_frontend& fe) {
  {
    std::lock_guard<std::mutex> guard(fe.headers_mu);
    fe.headers_watch_stopping = true;
    fe.awaiting_headers.clear();
  }
  fe.headers_cv.notify_one();
  if (fe.headers_watch.joinable()) fe.headers_watch.join();
}

// ---- request handling ----

const char* s_servlet_path(const gw_http_frontend& fe) { return s_or(fe.cfg->http_servlet_path, ""); }

unsigned s_refusal_status(gw_target_verdict_t verdict) {
  switch (verdict) {
    case GW_TARGET_NOT_OFFERED: return MHD_HTTP_NOT_FOUND;
    case GW_TARGET_FORBIDDEN: return MHD_HTTP_FORBIDDEN;
    default: return MHD_HTTP_BAD_REQUEST;
  }
}

const char* s_header(MHD_Connection* conn, const char* name) {
  return MHD_lookup_connection_value(conn, MHD_HEADER_KIND, name);
}

MHD_Result s_queue_busy(MHD_Connection* conn) {
  broker_metrics_count_http_status(MHD_HTTP_SERVICE_UNAVAILABLE);
  static const char kText[] = "busy, retry later\n";
  qm::mhd_response_ptr response(
      MHD_create_response_from_buffer(sizeof kText - 1, const_cast<char*>(kText), MHD_RESPMEM_PERSISTENT));
  if (!response || MHD_add_response_header(response.get(), MHD_HTTP_HEADER_RETRY_AFTER, kRetryAfterSeconds) != MHD_YES)
    return MHD_NO;
  return MHD_queue_response(conn, MHD_HTTP_SERVICE_UNAVAILABLE, response.get());
}

// The boundary parameter's length (quotes excluded); 0 when there is none.
size_t s_boundary_length(const char* content_type) {
  const char* at = strcasestr(content_type, "boundary=");
  if (at == nullptr) return 0;
  at += strlen("boundary=");
  if (*at == '"') {
    const char* end = strchr(at + 1, '"');
    return end != nullptr ? static_cast<size_t>(end - at - 1) : 0;
  }
  return strcspn(at, "; \t");
}

// The request's Content-Length, when it sent one that reads as a number.
std::optional<uint64_t> s_content_length(MHD_Connection* conn) {
  const char* text = s_header(conn, MHD_HTTP_HEADER_CONTENT_LENGTH);
  if (text == nullptr || *text < '0' || *text > '9') return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = strtoull(text, &end, 10);
  if (errno != 0 || *end != '\0') return UINT64_MAX;
  return value;
}

// The most a form within the caps can take; 0: no cap.
uint64_t s_largest_body(const gw_http_frontend& fe) {
  const size_t cap = fe.cfg->max_msg_size_bytes;
  if (cap == 0 || cap > SIZE_MAX - kRequestJsonCapBytes - kMultipartSlackBytes) return 0;
  return cap + kRequestJsonCapBytes + kMultipartSlackBytes;
}

// What one request holds in memory at most: its window of chunks and the open one, the
// request field, the post processor's buffer and the reply; less when the body is smaller.
uint64_t s_bytes_to_hold(const std::optional<uint64_t>& body_len) {
  const uint64_t body_hold = (kUploadWindowChunks + 1) * kChunkBytes + kRequestJsonCapBytes;
  const uint64_t body = body_len ? std::min<uint64_t>(*body_len, body_hold) : body_hold;
  return body + kPostProcessorBufferBytes + kReplyReserveBytes;
}

// Who may send a body, decided from the headers alone so that nobody can make the door
// read (let alone hold) a body it would refuse: the caller's credentials, then the target.
// On a refusal the response is queued and the connection closes without the body.
MHD_Result s_admit_caller(gw_http_frontend& fe, MHD_Connection* conn, req_ctx_t& ctx, bool* admitted) {
  *admitted = false;
  const int64_t auth_started = broker_metrics_now();
  if (gw_http_basic_credentials_hold_nul(MHD_lookup_connection_value(conn, MHD_HEADER_KIND, MHD_HTTP_HEADER_AUTHORIZATION))) {
    log_warn("http_frontend: refusing Basic credentials that hold a NUL byte");
    broker_metrics_count_auth(BROKER_METRICS_AUTH_HTTP, BROKER_METRICS_DENY, auth_started);
    return queue_auth_required(conn);
  }
  char* raw_password = nullptr;
  const qm::mhd_string_ptr user(MHD_basic_auth_get_username_password(conn, &raw_password));
  const qm::mhd_secret_ptr password(raw_password);
  if (!user || !password) {
    log_debug("http_frontend: no Basic credentials presented");
    broker_metrics_count_auth(BROKER_METRICS_AUTH_HTTP, BROKER_METRICS_DENY, auth_started);
    return queue_auth_required(conn);
  }
  const admitted_profile profile = authenticate(fe, user.get(), password.get());
  broker_metrics_count_auth(BROKER_METRICS_AUTH_HTTP, broker_metrics_verdict_of(profile.has_value()), auth_started);
  if (!profile) return queue_auth_required(conn);
  const char* target = s_header(conn, "X-Target-Service");
  if (target == nullptr || *target == '\0') {
    log_warn("http_frontend: user=%s authenticated but missing X-Target-Service", log_safe(user.get()).c_str());
    return queue_simple(conn, MHD_HTTP_BAD_REQUEST, "missing X-Target-Service\n");
  }
  const gw_target verdict = gw_subject_policy_admit(target, qm::cstr(fe.cfg->services), *profile, user.get());
  if (verdict.verdict != GW_TARGET_OK) {
    const char* why = gw_target_verdict_text(verdict.verdict);
    log_warn("http_frontend: refusing target '%s' of user=%s: %s", log_safe(target).c_str(),
             log_safe(user.get()).c_str(), why);
    return queue_simple(conn, s_refusal_status(verdict.verdict), (std::string(why) + "\n").c_str());
  }
  ctx.user = user.get();
  ctx.target = target;
  ctx.subject = verdict.subject;
  if (ctx.subject != ctx.target)
    log_trace("http_frontend: subject rewrite '%s' -> '%s'", log_safe(target).c_str(), log_safe(ctx.subject).c_str());
  *admitted = true;
  return MHD_YES;
}

// The body's size and the budget, once the caller is known: a Content-Length beyond the
// caps is refused before a byte is read, and a request that finds no room in time gets 503.
MHD_Result s_admit_body(gw_http_frontend& fe, MHD_Connection* conn, req_ctx_t& ctx, bool* admitted) {
  *admitted = false;
  const std::optional<uint64_t> body_len = s_content_length(conn);
  const uint64_t largest = s_largest_body(fe);
  if (body_len && largest != 0 && *body_len > largest) {
    log_warn("http_frontend: rejecting oversized multipart (Content-Length %llu) of user=%s",
             static_cast<unsigned long long>(*body_len), log_safe(ctx.user).c_str());
    return queue_simple(conn, MHD_HTTP_CONTENT_TOO_LARGE, "payload too large\n");
  }
  gw_inflight_budget* budget = fe.cfg->inflight_budget;
  const uint64_t hold = s_bytes_to_hold(body_len);
  if (budget != nullptr) {
    if (gw_inflight_budget_acquire(budget, hold, kBudgetWaitMs) != 0) {
      gw_inflight_budget_note_refusal(budget, BROKER_METRICS_DOOR_HTTP, hold);
      return s_queue_busy(conn);
    }
    ctx.held = qm::inflight_bytes(budget, hold);
  }
  *admitted = true;
  return MHD_YES;
}

// First call, headers complete: method, path and content type, then the caller and
// target, then the body's size and the budget. Only an admitted request gets a context
// and a post processor; everything else is answered without reading the body.
MHD_Result s_begin_request(gw_http_frontend& fe, MHD_Connection* conn, const char* url, const char* method,
                           void** con_cls) {
  if (strcmp(method, MHD_HTTP_METHOD_POST) != 0) {
    log_debug("http_frontend: method %s not allowed on %s", log_safe(method).c_str(), log_safe(url).c_str());
    return queue_simple(conn, MHD_HTTP_METHOD_NOT_ALLOWED, "method not allowed\n");
  }
  if (strcmp(url, s_servlet_path(fe)) != 0) {
    log_debug("http_frontend: path %s not found (expected %s)", log_safe(url).c_str(), s_servlet_path(fe));
    return queue_simple(conn, MHD_HTTP_NOT_FOUND, "not found\n");
  }
  const char* content_type = s_header(conn, MHD_HTTP_HEADER_CONTENT_TYPE);
  if (content_type == nullptr || strncasecmp(content_type, MHD_HTTP_POST_ENCODING_MULTIPART_FORMDATA,
                                             strlen(MHD_HTTP_POST_ENCODING_MULTIPART_FORMDATA)) != 0) {
    log_debug("http_frontend: rejecting non-multipart request (content-type=%s)",
              content_type != nullptr ? log_safe(content_type).c_str() : "(absent)");
    return queue_simple(conn, MHD_HTTP_UNSUPPORTED_MEDIA_TYPE, "expected multipart/form-data\n");
  }
  // A body framed in a way the daemon does not take apart would be read until the client
  // gives up; say so instead.
  const char* transfer_encoding = s_header(conn, MHD_HTTP_HEADER_TRANSFER_ENCODING);
  if (transfer_encoding != nullptr && strcasecmp(transfer_encoding, "chunked") != 0) {
    log_debug("http_frontend: rejecting Transfer-Encoding '%s'", log_safe(transfer_encoding).c_str());
    return queue_simple(conn, MHD_HTTP_NOT_IMPLEMENTED, "Transfer-Encoding not supported\n");
  }
  auto ctx = std::make_unique<req_ctx_t>();
  ctx->fe = &fe;
  ctx->parts.reset(gw_multipart_create(kRequestJsonCapBytes, fe.cfg->max_msg_size_bytes));
  if (!ctx->parts) return MHD_NO;  // out of memory: the daemon drops the connection
  bool admitted = false;
  MHD_Result result = s_admit_caller(fe, conn, *ctx, &admitted);
  if (!admitted) return result;
  if (s_boundary_length(content_type) < kMinBoundaryLength) {
    log_debug("http_frontend: rejecting multipart without a usable boundary (content-type=%s)",
              log_safe(content_type).c_str());
    return queue_simple(conn, MHD_HTTP_BAD_REQUEST, "multipart boundary missing or shorter than 2 characters\n");
  }
  result = s_admit_body(fe, conn, *ctx, &admitted);
  if (!admitted) return result;
  ctx->pp.reset(MHD_create_post_processor(conn, kPostProcessorBufferBytes, on_post_field, ctx.get()));
  if (!ctx->pp) {
    log_debug("http_frontend: no multipart parser for content-type=%s", log_safe(content_type).c_str());
    return queue_simple(conn, MHD_HTTP_BAD_REQUEST, "malformed multipart body\n");
  }
  log_trace("http_frontend: %s %s (new multipart request of user=%s)", log_safe(method).c_str(),
            log_safe(url).c_str(), log_safe(ctx->user).c_str());
  *con_cls = ctx.release();  // on_request_completed frees it
  ++fe.inflight;
  return MHD_YES;
}

// The worker's reply as the 200 response; the response takes the text over.
MHD_Result s_queue_reply(MHD_Connection* conn, const char* target, qm::malloc_ptr<char> reply_json) {
  const size_t len = strlen(reply_json.get());
  qm::mhd_response_ptr response(MHD_create_response_from_buffer(len, reply_json.get(), MHD_RESPMEM_MUST_FREE));
  if (!response) return MHD_NO;
  (void)reply_json.release();
  if (MHD_add_response_header(response.get(), MHD_HTTP_HEADER_CONTENT_TYPE, "application/json") != MHD_YES)
    return MHD_NO;
  log_trace("http_frontend: 200 OK target=%s reply_len=%zu", log_safe(target).c_str(), len);
  broker_metrics_count_http_status(MHD_HTTP_OK);
  return MHD_queue_response(conn, MHD_HTTP_OK, response.get());
}

// Complete body of an admitted caller: relay it to the subject admitted at the start.
MHD_Result s_relay(gw_http_frontend& fe, MHD_Connection* conn, req_ctx_t& ctx) {
  const char* target = ctx.target.c_str();
  size_t json_len = 0;
  const char* request_json = gw_multipart_request(ctx.parts.get(), &json_len);
  log_trace("http_frontend: relay user=%s target=%s json_len=%zu payload_len=%zu", log_safe(ctx.user).c_str(),
            log_safe(target).c_str(), json_len, gw_multipart_payload_len(ctx.parts.get()));
  char* reply_json = nullptr;
  char* reply_data = nullptr;
  size_t reply_data_len = 0;
  const int rc = gw_nats_relay_request_upload(fe.relay, ctx.subject.c_str(), request_json,
                                              ctx.upload.get(), gw_nats_relay_default_timeout_ms(fe.relay),
                                              &reply_json, &reply_data, &reply_data_len);
  ctx.upload.reset();
  qm::malloc_ptr<char> owned_json(reply_json);
  const qm::malloc_ptr<char> discarded(reply_data);  // a binary reply has no place in the response
  if (rc == 0 && owned_json) return s_queue_reply(conn, target, std::move(owned_json));
  log_warn("http_frontend: relay failed target=%s rc=%d reply_json=%s", log_safe(target).c_str(), rc,
           owned_json ? "set" : "null");
  return queue_simple(conn, MHD_HTTP_BAD_GATEWAY, "upstream relay failed\n");
}

// Final call: the verdict on the whole body, then the relay. Whatever was staged for a
// refused body is deleted.
MHD_Result s_finish_request(gw_http_frontend& fe, MHD_Connection* conn, req_ctx_t& ctx) {
  // Only ending the post processor tells a body cut off inside a part from a complete one.
  if (ctx.pp && MHD_destroy_post_processor(ctx.pp.release()) != MHD_YES)
    gw_multipart_fail(ctx.parts.get(), GW_MULTIPART_MALFORMED);
  const gw_multipart_verdict_t verdict = gw_multipart_verdict(ctx.parts.get());
  if (verdict != GW_MULTIPART_OK) s_drop_upload(ctx);
  switch (verdict) {
    case GW_MULTIPART_OK:
      return s_relay(fe, conn, ctx);
    case GW_MULTIPART_TOO_LARGE: {
      size_t json_len = 0;
      (void)gw_multipart_request(ctx.parts.get(), &json_len);
      log_warn("http_frontend: rejecting oversized multipart (request_json_len=%zu payload_len=%zu)", json_len,
               gw_multipart_payload_len(ctx.parts.get()));
      return queue_simple(conn, MHD_HTTP_CONTENT_TOO_LARGE, "payload too large\n");
    }
    case GW_MULTIPART_MALFORMED:
      log_warn("http_frontend: rejecting request with bad/unknown multipart field");
      return queue_simple(conn, MHD_HTTP_BAD_REQUEST, "malformed multipart body\n");
    case GW_MULTIPART_DUPLICATE_REQUEST:
      log_warn("http_frontend: rejecting request with more than one 'request' field");
      return queue_simple(conn, MHD_HTTP_BAD_REQUEST, "duplicate 'request' multipart field\n");
    case GW_MULTIPART_DUPLICATE_PAYLOAD:
      log_warn("http_frontend: rejecting request with more than one 'payload' field");
      return queue_simple(conn, MHD_HTTP_BAD_REQUEST, "duplicate 'payload' multipart field\n");
    case GW_MULTIPART_MISSING_REQUEST:
      log_warn("http_frontend: rejecting request with empty 'request' field");
      return queue_simple(conn, MHD_HTTP_BAD_REQUEST, "missing 'request' multipart field\n");
    case GW_MULTIPART_STAGING_FAILED:
      log_warn("http_frontend: relay failed target=%s: the payload could not be staged", log_safe(ctx.target).c_str());
      return queue_simple(conn, MHD_HTTP_BAD_GATEWAY, "upstream relay failed\n");
    case GW_MULTIPART_REQUEST_NOT_OBJECT:
      log_warn("http_frontend: rejecting request whose 'request' field is not a JSON object");
      return queue_simple(conn, MHD_HTTP_BAD_REQUEST, "'request' field is not a JSON object\n");
  }
  return MHD_NO;
}

MHD_Result on_request(void* cls, MHD_Connection* conn, const char* url, const char* method, const char*,
                      const char* upload_data, size_t* upload_data_size, void** con_cls) noexcept {
  try {
    auto& fe = *static_cast<gw_http_frontend*>(cls);
    if (*con_cls == nullptr) {
      s_headers_done(fe, conn);
      return s_begin_request(fe, conn, url, method, con_cls);
    }
    auto& ctx = *static_cast<req_ctx_t*>(*con_cls);
    if (*upload_data_size != 0) {
      if (ctx.pp && MHD_post_process(ctx.pp.get(), upload_data, *upload_data_size) != MHD_YES)
        gw_multipart_fail(ctx.parts.get(), GW_MULTIPART_MALFORMED);
      *upload_data_size = 0;
      return MHD_YES;
    }
    return s_finish_request(fe, conn, ctx);
  } catch (...) {
    return MHD_NO;  // out of memory: the daemon drops the connection
  }
}

void on_request_completed(void* cls, MHD_Connection* conn, void** con_cls, MHD_RequestTerminationCode) noexcept {
  auto& fe = *static_cast<gw_http_frontend*>(cls);
  s_await_headers(fe, conn);  // a kept-alive connection's next request has its own deadline
  if (*con_cls == nullptr) return;
  // A body cut off mid-way ends here too: the upload's destructor deletes what it staged.
  std::unique_ptr<req_ctx_t> ctx(static_cast<req_ctx_t*>(*con_cls));
  *con_cls = nullptr;
  ctx.reset();
  --fe.inflight;
}

void mhd_logger(void*, const char* fmt, va_list ap) noexcept {
  char line[kLoggerLineBytes];
  vsnprintf(line, sizeof line, fmt, ap);
  const size_t len = strlen(line);
  if (len > 0 && line[len - 1] == '\n') line[len - 1] = '\0';
  log_warn("http_frontend [MHD]: %s", log_safe(line).c_str());
}

// ---- start-up ----

// The whole file as text; nullopt (logged) when it cannot be read.
std::optional<qm::secret_string> slurp_file(const char* path) {
  const qm::file_ptr file(fopen(path, "rbe"));
  if (!file) {
    log_warn("http_frontend: cannot open %s: %m", path);
    return std::nullopt;
  }
  long size = -1;
  if (fseek(file.get(), 0, SEEK_END) == 0) size = ftell(file.get());
  if (size < 0) {
    log_warn("http_frontend: ftell(%s) failed", path);
    return std::nullopt;
  }
  rewind(file.get());
  std::string text;
  try {
    text.resize(static_cast<size_t>(size));
  } catch (const std::exception&) {
    // A directory reports the largest offset there is.
    log_warn("http_frontend: malloc(%ld) failed for %s", size < LONG_MAX ? size + 1 : size, path);
    return std::nullopt;
  }
  const size_t got = fread(text.data(), 1, text.size(), file.get());
  qm::secret_string owned(std::move(text));  // the key file: wiped whatever happens next
  if (got != owned.size()) {
    log_warn("http_frontend: short read of %s", path);
    return std::nullopt;
  }
  return owned;
}

int s_inactivity_timeout_s(const gw_config_t& cfg) {
  return cfg.http_inactivity_timeout_seconds > 0 ? cfg.http_inactivity_timeout_seconds : kInactivityTimeoutS;
}

unsigned s_limit(int configured, unsigned fallback) {
  return configured > 0 ? static_cast<unsigned>(configured) : fallback;
}

template <class Fn>
intptr_t s_fn_value(Fn fn) {
  return reinterpret_cast<intptr_t>(fn);
}

MHD_Daemon* s_start_daemon(gw_http_frontend& fe, uint16_t port, bool tls) {
  // MHD_USE_ITC: without it libmicrohttpd cannot quiesce a threaded daemon. poll(), not
  // select(): a descriptor above FD_SETSIZE must not shut the door.
  unsigned flags = MHD_USE_ERROR_LOG | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL_INTERNAL_THREAD | MHD_USE_ITC;
  // The logger first: libmicrohttpd warns about any option before it.
  std::vector<MHD_OptionItem> options = {
      {MHD_OPTION_EXTERNAL_LOGGER, s_fn_value(&mhd_logger), &fe},
      {MHD_OPTION_NOTIFY_COMPLETED, s_fn_value(&on_request_completed), &fe},
      {MHD_OPTION_LISTEN_BACKLOG_SIZE, static_cast<intptr_t>(static_cast<unsigned>(fe.cfg->listen_backlog)), nullptr},
      {MHD_OPTION_CONNECTION_TIMEOUT, static_cast<intptr_t>(s_inactivity_timeout_s(*fe.cfg)), nullptr},
      {MHD_OPTION_NOTIFY_CONNECTION, s_fn_value(&on_connection), &fe},
      {MHD_OPTION_CONNECTION_LIMIT, static_cast<intptr_t>(s_limit(fe.cfg->http_max_connections, kDefaultMaxConnections)),
       nullptr},
      {MHD_OPTION_PER_IP_CONNECTION_LIMIT,
       static_cast<intptr_t>(s_limit(fe.cfg->http_max_connections_per_ip, kDefaultMaxConnectionsPerIp)), nullptr},
  };
  if (tls) {
    flags |= MHD_USE_TLS;
    options.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(fe.tls_cert_pem->c_str())});
    options.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(fe.tls_key_pem->c_str())});
    options.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>("NORMAL")});
  }
  options.push_back({MHD_OPTION_END, 0, nullptr});
  return MHD_start_daemon(flags, port, nullptr, nullptr, &on_request, &fe, MHD_OPTION_ARRAY, options.data(),
                          MHD_OPTION_END);
}

bool s_load_pems(gw_http_frontend& fe) {
  fe.tls_cert_pem = slurp_file(fe.cfg->http_tls_cert->c_str());
  fe.tls_key_pem = slurp_file(fe.cfg->http_tls_key->c_str());
  if (fe.tls_cert_pem && fe.tls_key_pem) return true;
  log_fatal("http_frontend: could not load TLS cert or key");
  fe.tls_cert_pem.reset();
  fe.tls_key_pem.reset();
  return false;
}

}  // namespace

gw_http_frontend_t* gw_http_frontend_create(const gw_config_t* cfg, gw_credential_store_t* creds,
                                            gw_nats_relay_t* relay, gw_auth_cache_t* auth_cache,
                                            const auth_profile_store_t* profiles) {
  if (cfg == nullptr || creds == nullptr || relay == nullptr) {
    log_error("http_frontend: create called with NULL dependency");
    return nullptr;
  }
  try {
    auto fe = std::make_unique<gw_http_frontend>();
    fe->cfg = cfg;
    fe->creds = creds;
    fe->relay = relay;
    fe->auth_cache = auth_cache;
    fe->profiles = profiles;
    return fe.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

namespace {

int s_bound_port(const gw_http_frontend& fe) {
  const MHD_DaemonInfo* info = MHD_get_daemon_info(fe.daemon.get(), MHD_DAEMON_INFO_BIND_PORT);
  return info != nullptr ? info->port : 0;
}

}  // namespace

// libmicrohttpd hands Basic credentials out as C strings, which end at a NUL byte the
// decoded header may carry: "pw\0junk" would be checked as "pw". No credential holds one.
bool gw_http_basic_credentials_hold_nul(const char* header) {
  if (header == nullptr || strncasecmp(header, "Basic ", 6) != 0) return false;
  const char* encoded = header + 6;
  while (*encoded == ' ') ++encoded;
  size_t len = strlen(encoded);
  while (len > 0 && encoded[len - 1] == ' ') --len;
  if (len == 0 || len % 4 != 0 || len > INT_MAX) return false;  // not Base64: libmicrohttpd refuses it too
  qm::secret_bytes decoded(len / 4 * 3);
  const int n = EVP_DecodeBlock(decoded.data(), reinterpret_cast<const unsigned char*>(encoded), static_cast<int>(len));
  if (n < 0) return false;
  // The padding decodes to zero bytes that belong to no credential.
  const size_t padding = encoded[len - 1] != '=' ? 0 : encoded[len - 2] != '=' ? 1 : 2;
  return memchr(decoded.data(), '\0', static_cast<size_t>(n) - padding) != nullptr;
}

int gw_http_frontend_start(gw_http_frontend_t* fe) {
  if (fe == nullptr) return -1;
  std::lock_guard<std::mutex> lifecycle(fe->lifecycle_mu);
  if (fe->daemon) return 0;
  const gw_config_t& cfg = *fe->cfg;
  const bool has_cert = qm::has_text(cfg.http_tls_cert);
  if (has_cert != qm::has_text(cfg.http_tls_key)) {
    log_fatal("http_frontend: HTTP_TLS_CERT and HTTP_TLS_KEY must be set together; refusing to start");
    return -1;
  }
  const bool tls = has_cert;
  if (tls && !s_load_pems(*fe)) return -1;
  const unsigned port = static_cast<unsigned>(cfg.http_listen_port);
  try {
    s_start_header_watch(*fe);
  } catch (const std::system_error& e) {
    log_fatal("http_frontend: header deadline thread not started: %s", e.what());
    return -1;
  }
  if (cfg.http_listen_port >= 0 && cfg.http_listen_port <= UINT16_MAX)
    fe->daemon.reset(s_start_daemon(*fe, static_cast<uint16_t>(port), tls));
  if (!fe->daemon) {
    s_stop_header_watch(*fe);
    log_fatal("http_frontend: MHD_start_daemon failed on port %u (tls=%s) — port in use? cert/key malformed?", port,
              tls ? "yes" : "no");
    fe->tls_cert_pem.reset();
    fe->tls_key_pem.reset();
    return -1;
  }
  s_set_refreshes_stopping(*fe, false);
  log_info("http_frontend: listening on %s:%d%s path=%s backlog=%u requested, capped by net.core.somaxconn",
           s_or(cfg.http_listen_host, ""), s_bound_port(*fe), tls ? " [TLS]" : "", s_servlet_path(*fe),
           static_cast<unsigned>(cfg.listen_backlog));
  fe->listening.store(true);
  return 0;
}

bool gw_http_frontend_listening(const gw_http_frontend_t* fe) { return fe != nullptr && fe->listening.load(); }

int gw_http_frontend_bound_port(gw_http_frontend_t* fe) {
  if (fe == nullptr) return 0;
  std::lock_guard<std::mutex> lifecycle(fe->lifecycle_mu);
  return fe->daemon ? s_bound_port(*fe) : 0;
}

void gw_http_frontend_stop_accepting(gw_http_frontend_t* fe) {
  if (fe == nullptr) return;
  std::lock_guard<std::mutex> lifecycle(fe->lifecycle_mu);
  if (!fe->daemon) return;
  const MHD_socket listen_fd = MHD_quiesce_daemon(fe->daemon.get());
  if (listen_fd != MHD_INVALID_SOCKET) {
    shutdown(listen_fd, SHUT_RDWR);
    fe->quiesced_listen_fd = listen_fd;
  }
  fe->listening.store(false);
  log_info("http_frontend: stopped accepting new connections — in-flight requests still draining");
}

void gw_http_frontend_stop(gw_http_frontend_t* fe) {
  if (fe == nullptr) return;
  std::lock_guard<std::mutex> lifecycle(fe->lifecycle_mu);
  if (!fe->daemon) return;
  fe->listening.store(false);
  s_set_refreshes_stopping(*fe, true);  // a refresh that has not asked yet will not
  fe->daemon.reset();  // its connection threads, the only ones that start refreshes, are gone
  s_stop_header_watch(*fe);
  s_join_refreshes(*fe);
  if (fe->quiesced_listen_fd >= 0) close(fe->quiesced_listen_fd);
  fe->quiesced_listen_fd = -1;
  fe->tls_cert_pem.reset();
  fe->tls_key_pem.reset();
  log_info("http_frontend: stopped");
}

void gw_http_frontend_destroy(gw_http_frontend_t* fe) {
  if (fe == nullptr) return;
  gw_http_frontend_stop(fe);
  std::unique_ptr<gw_http_frontend> owned(fe);
}

size_t gw_http_frontend_inflight(const gw_http_frontend_t* fe) { return fe != nullptr ? fe->inflight.load() : 0; }
