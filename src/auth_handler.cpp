#include "auth_handler.hpp"

#include <nats/nats.h>
#include <strings.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>

#include "auth_callout.hpp"
#include "auth_jwt.hpp"
#include "auth_ldap.hpp"
#include "auth_profile.hpp"
#include "auth_verify.hpp"
#include "auth_workers.hpp"
#include "gw_auth_cache.hpp"
#include "gw_credential_store.hpp"
#include "log.hpp"
#include "qm_nats_conn.hpp"

auth_config_t* auth_config_new() {
  try {
    return std::make_unique<auth_config_t>().release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void auth_config_free(auth_config_t* cfg) { std::unique_ptr<auth_config_t> owned(cfg); }

auth_backend_type_t auth_config_parse_backend(const char* text) {
  if (text == nullptr) return AUTH_BACKEND_FILE;
  if (strcasecmp(text, "file+ldap") == 0 || strcasecmp(text, "file,ldap") == 0 ||
      strcasecmp(text, "filethenldap") == 0)
    return AUTH_BACKEND_FILE_THEN_LDAP;
  if (strcasecmp(text, "ldap") == 0) return AUTH_BACKEND_LDAP;
  return AUTH_BACKEND_FILE;
}

namespace {

constexpr const char* kCalloutSubject = "$SYS.REQ.USER.AUTH";
constexpr const char* kCalloutQueue = "qm-auth-callout";
constexpr const char* kVerifySubject = "qm.auth.verify";
constexpr const char* kVerifyQueue = "qm-auth-verify";
constexpr int kRefreshDrainMs = 6000;
constexpr int kSubscribeConfirmMs = 5000;
constexpr auto kHandlerCompletionWait = std::chrono::seconds(5);
// Checks that wait for the directory; file users and cached answers never queue here.
constexpr size_t kRequestWorkers = 8;

const char* s_or(const char* text, const char* fallback) { return text ? text : fallback; }

}  // namespace

// Everything the two handlers need; lives in auth_service_run's frame while serving.
struct auth_callback_data_t {
  auth_service_t* svc = nullptr;
  auth_signer signer;                 // the issuer key and the account of admitted logins
  auth_decider_t* decider = nullptr;  // the cache, the credentials file, LDAP and the profiles
  auth_workers_t* workers = nullptr;  // where checks that wait for the directory run
};

struct auth_service {
  auth_config_t* config = nullptr;
  gw_credential_store_t* creds = nullptr;
  gw_auth_cache_t* auth_cache = nullptr;
  const auth_profile_store_t* profiles = nullptr;
  auth_lock* lock = nullptr;
  natsConnection* conn = nullptr;
  natsSubscription* callout_sub = nullptr;
  natsSubscription* verify_sub = nullptr;
  std::atomic<bool> running{false};
  // Set by stop before run has raised `running`, so an early stop is not lost.
  std::atomic<bool> stop_requested{false};

  // Where auth_service_run has got to, for auth_service_wait_serving.
  enum class phase { starting, serving, ended };
  std::mutex phase_mutex;
  std::condition_variable phase_changed;
  phase run_phase = phase::starting;
  bool served = false;

  // Subscriptions whose message handler the client library may still be running.
  std::mutex handlers_mutex;
  std::condition_variable handlers_done;
  int open_handlers = 0;

  void enter(phase next) {
    {
      std::lock_guard lock(phase_mutex);
      run_phase = next;
      served = served || next == phase::serving;
    }
    phase_changed.notify_all();
  }

  // Counts sub as open until the library reports that its handler has returned for good.
  void track_handler(natsSubscription* sub) {
    std::lock_guard lock(handlers_mutex);
    if (natsSubscription_SetOnCompleteCB(sub, on_handler_complete, this) == NATS_OK) ++open_handlers;
  }
  static void on_handler_complete(void* closure) {
    auto* svc = static_cast<auth_service*>(closure);
    std::lock_guard lock(svc->handlers_mutex);
    if (--svc->open_handlers == 0) svc->handlers_done.notify_all();
  }

  // While the server is there, draining delivers what it already sent us before the
  // subscription goes. Without a server there is nothing to wait for: draining would only
  // run into its time-out and hold up the shutdown. Either way a handler may still be
  // running after the unsubscribe, answering with what dies when serving ends: the wait
  // for its completion keeps those alive until it has returned.
  void release_subscriptions() {
    const bool connected = conn != nullptr && natsConnection_Status(conn) == NATS_CONN_STATUS_CONNECTED;
    for (natsSubscription* sub : {verify_sub, callout_sub}) {
      if (sub == nullptr) continue;
      if (connected && natsSubscription_Drain(sub) == NATS_OK) natsSubscription_WaitForDrainCompletion(sub, 2000);
      natsSubscription_Unsubscribe(sub);
    }
    {
      // A handler answers within milliseconds; the bound only guards against a
      // completion the library never reports.
      std::unique_lock lock(handlers_mutex);
      if (!handlers_done.wait_for(lock, kHandlerCompletionWait, [this] { return open_handlers == 0; }))
        log_error("auth_service: %d subscription handler(s) not reported complete; stopping anyway", open_handlers);
    }
    for (natsSubscription** sub : {&verify_sub, &callout_sub}) {
      natsSubscription_Destroy(*sub);
      *sub = nullptr;
    }
  }

  void release_connection() {
    if (conn) {
      natsConnection_Close(conn);
      natsConnection_Destroy(conn);
      conn = nullptr;
    }
  }

  void release_nats() {
    release_subscriptions();
    release_connection();
  }
};

static_assert(std::atomic<bool>::is_always_lock_free, "auth_service_stop runs in a signal handler");

namespace {

// ---- the two subscriptions' handlers ----

void s_reply(natsConnection* nc, const std::string& reply_to, const std::string& answer) {
  if (reply_to.empty() || answer.empty()) return;
  natsConnection_Publish(nc, reply_to.c_str(), answer.data(), static_cast<int>(answer.size()));
}

std::string s_reply_subject(natsMsg* msg) {
  const char* reply_to = natsMsg_GetReply(msg);
  return reply_to ? reply_to : "";
}

std::string s_answer_callout(const auth_callback_data_t& data, const auth_request_t& req) {
  return auth_callout_answer(data.decider, data.signer, req);
}

std::string s_answer_verify(const auth_callback_data_t& data, const verify_request& req) {
  return auth_verify_answer(data.decider, data.svc->config->backend_type, req);
}

// A request that only the directory can decide, answered on a request worker. Out of
// memory there, it goes unanswered: nats-server refuses the client when its wait runs
// out, a verify requester times out.
template <class Request, std::string (*Answer)(const auth_callback_data_t&, const Request&)>
class answer_job final : public auth_job {
 public:
  answer_job(const auth_callback_data_t& data, natsConnection* nc, std::string reply_to, Request req)
      : data_(data), nc_(nc), reply_to_(std::move(reply_to)), req_(std::move(req)) {}
  void run() noexcept override {
    try {
      s_reply(nc_, reply_to_, Answer(data_, req_));
    } catch (const std::exception&) {
    }
  }

 private:
  const auth_callback_data_t& data_;
  natsConnection* nc_;
  std::string reply_to_;
  Request req_;
};
using callout_job = answer_job<auth_request_t, s_answer_callout>;
using verify_job = answer_job<verify_request, s_answer_verify>;

// What can be decided at once (the cache, the credentials file) is answered here on the
// delivering thread: a login waits on it, and a hand-over would cost more than the
// answer. Only directory checks go to the workers, so a slow directory holds up
// directory users alone. A request that arrives once the workers have stopped goes
// unanswered.
void auth_callout_cb(natsConnection* nc, natsSubscription*, natsMsg* msg, void* closure) noexcept {
  qm::nats_msg_ptr owned(msg);
  const auto& data = *static_cast<const auth_callback_data_t*>(closure);
  try {
    auth_request_t req;
    switch (auth_callout_read(msg, data.signer, req)) {
      case AUTH_CALLOUT_EMPTY:
        return;
      case AUTH_CALLOUT_MALFORMED:
        s_reply(nc, s_reply_subject(msg), auth_callout_refuse_malformed(data.signer, req));
        return;
      case AUTH_CALLOUT_REQUEST:
        break;
    }
    if (std::optional<std::string> answer = auth_callout_answer_now(data.decider, data.signer, req)) {
      s_reply(nc, s_reply_subject(msg), *answer);
      return;
    }
    auth_workers_submit(data.workers, std::make_unique<callout_job>(data, nc, s_reply_subject(msg), std::move(req)));
  } catch (const std::exception&) {
    // Out of memory: the client is refused by nats-server's own time-out.
  }
}

void auth_verify_cb(natsConnection* nc, natsSubscription*, natsMsg* msg, void* closure) noexcept {
  qm::nats_msg_ptr owned(msg);
  const auto& data = *static_cast<const auth_callback_data_t*>(closure);
  try {
    std::string reply_to = s_reply_subject(msg);
    if (reply_to.empty()) {
      qm_nats_msg_wipe(msg);
      log_trace("auth_verify: message on %s has no reply-to \u2014 dropping", kVerifySubject);
      return;
    }
    verify_request req = auth_verify_read(msg);
    if (std::optional<std::string> answer =
            auth_verify_answer_now(data.decider, data.svc->config->backend_type, req)) {
      s_reply(nc, reply_to, *answer);
      return;
    }
    auth_workers_submit(data.workers, std::make_unique<verify_job>(data, nc, std::move(reply_to), std::move(req)));
  } catch (const std::exception&) {
    // Out of memory: the requester times out.
  }
}

// ---- start-up ----

qm::nats_options_ptr s_connection_options(const auth_config_t& cfg) {
  // Every reply is a login waiting: written at once, not by the library's flusher.
  qm::nats_options_ptr opts = qm_nats_request_options();
  if (!opts) return nullptr;
  const std::string url = cfg.nats_url.value_or("");
  natsOptions_SetURL(opts.get(), url.c_str());
  natsOptions_SetUserInfo(opts.get(), qm::cstr(cfg.nats_user), qm::cstr(cfg.nats_password));
  natsOptions_SetMaxReconnect(opts.get(), -1);
  natsOptions_SetReconnectWait(opts.get(), 2000);
  static const qm_nats_tls_texts tls_texts{
      .no_ca_warning = "auth_service: tls:// URL but no nats_cert_path \u2014 server cert will be checked against the "
                       "system trust store and almost certainly fail",
      .failure_level = QMLOG_FATAL,
      .secure_failed = "auth_service: cannot require TLS: %s",
      .ca_failed = "auth_service: failed to load CA bundle %s: %s"};
  if (!qm_nats_configure_tls(opts.get(), url, qm::cstr(cfg.nats_cert_path), tls_texts)) return nullptr;
  return opts;
}

bool s_connect(auth_service_t& svc) {
  const auth_config_t& cfg = *svc.config;
  qm::nats_options_ptr opts = s_connection_options(cfg);
  if (!opts) return false;
  const char* url = qm::cstr(cfg.nats_url) ? qm::cstr(cfg.nats_url) : "";
  log_info("auth_service: connecting to NATS at %s as user '%s'", url, s_or(qm::cstr(cfg.nats_user), "(none)"));
  const natsStatus s = natsConnection_Connect(&svc.conn, opts.get());
  if (s != NATS_OK) {
    svc.conn = nullptr;
    log_fatal("auth_service: failed to connect to NATS at %s: %s", url, natsStatus_GetText(s));
    return false;
  }
  log_info("auth_service: NATS connection established");
  return true;
}

const char* s_backend_word(auth_backend_type_t type) { return type == AUTH_BACKEND_FILE ? "file" : "file+ldap"; }

// What the handlers decide and sign with, released in reverse order when serving ends:
// the request workers and the decider (whose refreshes use the rest) go first.
struct dispatcher_deps {
  qm::c_ptr<auth_ldap_ctx_t, auth_ldap_destroy> ldap;
  qm::c_ptr<auth_jwt_ctx_t, auth_jwt_destroy> jwt;
  qm::c_ptr<auth_decider_t, auth_decider_destroy> decider;
  qm::c_ptr<auth_workers_t, auth_workers_destroy> workers;
};

bool s_setup_ldap(const auth_config_t& cfg, dispatcher_deps& deps) {
  if (cfg.backend_type != AUTH_BACKEND_LDAP && cfg.backend_type != AUTH_BACKEND_FILE_THEN_LDAP) return true;
  log_info("auth_service: initializing LDAP backend (url=%s base=%s)", s_or(qm::cstr(cfg.ldap_url), "(unset)"),
           s_or(qm::cstr(cfg.ldap_base_dn), "(unset)"));
  if (qm::has_text(cfg.ldap_fallback_url))
    log_info("auth_service: LDAP fallback configured (url=%s)", cfg.ldap_fallback_url->c_str());
  deps.ldap.reset(auth_ldap_init(
      qm::cstr(cfg.ldap_url), qm::cstr(cfg.ldap_base_dn), qm::cstr(cfg.ldap_bind_dn), qm::cstr(cfg.ldap_bind_password),
      qm::cstr(cfg.ldap_user_filter), qm::cstr(cfg.ldap_fallback_url), qm::cstr(cfg.ldap_fallback_base_dn),
      qm::cstr(cfg.ldap_fallback_bind_dn), qm::cstr(cfg.ldap_fallback_bind_password),
      qm::cstr(cfg.ldap_fallback_user_filter), cfg.ldap_pool_size, cfg.ldap_idle_timeout_seconds,
      qm::cstr(cfg.ldap_group_attribute), qm::cstr(cfg.ldap_cacert_path)));
  if (deps.ldap) return true;
  if (cfg.backend_type == AUTH_BACKEND_LDAP) {
    log_fatal("auth_service: failed to initialize LDAP backend");
    return false;
  }
  // No retry later: degraded mode lasts until the next start.
  log_warn("auth_service: LDAP backend init failed \u2014 running in degraded file-only mode. Fix LDAP config and "
           "restart qm-av-broker to re-enable LDAP fallback.");
  return true;
}

bool s_setup_deps(const auth_service_t& svc, dispatcher_deps& deps) {
  const auth_config_t& cfg = *svc.config;
  if (cfg.backend_type == AUTH_BACKEND_FILE || cfg.backend_type == AUTH_BACKEND_FILE_THEN_LDAP) {
    if (svc.creds == nullptr) {
      log_fatal("auth_service: --auth-backend=%s requires --auth-file but no credential store was provided",
                s_backend_word(cfg.backend_type));
      return false;
    }
    log_info("auth_service: file tier ready (gw_credential_store)");
  }
  if (!s_setup_ldap(cfg, deps)) return false;
  if (svc.profiles == nullptr && qm::has_text(cfg.permissions_file_path)) {
    log_fatal("auth_service: permissions file %s configured but not loaded", cfg.permissions_file_path->c_str());
    return false;
  }
  log_debug("auth_service: initializing JWT signing from %s", s_or(qm::cstr(cfg.signing_key_path), "(unset)"));
  deps.jwt.reset(auth_jwt_init(qm::cstr(cfg.signing_key_path)));
  if (!deps.jwt) {
    log_fatal("auth_service: failed to initialize JWT signing");
    return false;
  }
  log_info("auth_service: JWT signing ready (public key = %s)", auth_jwt_public_key(deps.jwt.get()));
  deps.decider.reset(auth_decider_create(svc.creds, deps.ldap.get(), svc.profiles, svc.auth_cache, svc.lock));
  deps.workers.reset(auth_workers_create(kRequestWorkers, 0));
  if (!deps.decider || !deps.workers) {
    log_fatal("auth_service: cannot start the request workers");
    return false;
  }
  return true;
}

bool s_subscribe(auth_service_t& svc, auth_callback_data_t& data) {
  natsStatus s = natsConnection_QueueSubscribe(&svc.callout_sub, svc.conn, kCalloutSubject, kCalloutQueue,
                                               auth_callout_cb, &data);
  if (s != NATS_OK) {
    svc.callout_sub = nullptr;
    log_fatal("auth_service: failed to subscribe to %s: %s", kCalloutSubject, natsStatus_GetText(s));
    return false;
  }
  svc.track_handler(svc.callout_sub);
  log_info("auth_service: subscribed to %s queue '%s' (nats-server auth callout)", kCalloutSubject, kCalloutQueue);
  s = natsConnection_QueueSubscribe(&svc.verify_sub, svc.conn, kVerifySubject, kVerifyQueue, auth_verify_cb, &data);
  if (s != NATS_OK) {
    svc.verify_sub = nullptr;
    log_fatal("auth_service: failed to subscribe to %s: %s", kVerifySubject, natsStatus_GetText(s));
    return false;
  }
  svc.track_handler(svc.verify_sub);
  // Only once the server has answered this round trip does it route logins to us; until
  // then the broker must not call itself ready.
  s = natsConnection_FlushTimeout(svc.conn, kSubscribeConfirmMs);
  if (s != NATS_OK) {
    log_fatal("auth_service: nats-server did not confirm the subscriptions: %s", natsStatus_GetText(s));
    return false;
  }
  log_info("auth_service: subscribed to %s queue '%s' (generic verify endpoint)", kVerifySubject, kVerifyQueue);
  return true;
}

// Refreshes still running use the directory, the profiles and the cache: they are
// waited for, however long the directory takes, before any of those goes.
void s_stop_refreshes(const auth_service_t& svc, dispatcher_deps& deps) {
  if (svc.auth_cache != nullptr) {
    log_debug("auth_service: draining in-flight refresh workers (timeout %d ms)", kRefreshDrainMs);
    if (auth_decider_drain_refreshes(deps.decider.get(), kRefreshDrainMs) != 0) {
      log_warn("auth_service: refresh drain timed out \u2014 proceeding to free dispatcher deps anyway; any worker "
               "still running risks UAF at process exit");
      log_warn("auth_service: waiting for the running refreshes to end before freeing them");
    }
  }
  deps.decider.reset();
}

// Whatever way serving ends, the subscriptions and the connection go before the
// handlers' data and the contexts they decide with.
class nats_release_guard {
 public:
  explicit nats_release_guard(auth_service_t& svc) : svc_(svc) {}
  nats_release_guard(const nats_release_guard&) = delete;
  nats_release_guard& operator=(const nats_release_guard&) = delete;
  ~nats_release_guard() { svc_.release_nats(); }

 private:
  auth_service_t& svc_;
};

// Start-up, serving and the orderly stop; -1 when start-up fails.
int s_serve(auth_service_t& svc) {
  auth_callback_data_t data;
  dispatcher_deps deps;
  nats_release_guard release(svc);
  if (!s_connect(svc) || !s_setup_deps(svc, deps)) return -1;
  data.svc = &svc;
  data.signer.jwt = deps.jwt.get();
  data.signer.account = svc.config->fleet_account.value_or("$G");
  data.decider = deps.decider.get();
  data.workers = deps.workers.get();
  if (!s_subscribe(svc, data)) return -1;

  svc.enter(auth_service::phase::serving);
  {
    // Woken by auth_service_stop; a stop that came earlier is seen under the same lock.
    std::unique_lock lock(svc.phase_mutex);
    svc.running = !svc.stop_requested.load();
    svc.phase_changed.wait(lock, [&svc] { return !svc.running.load(); });
  }

  // No new requests, then the queued ones answered, then the connection closed; the
  // refreshes those answers may have started end before what they use is freed.
  svc.release_subscriptions();
  deps.workers.reset();
  svc.release_connection();
  s_stop_refreshes(svc, deps);
  return 0;
}

}  // namespace

auth_service_t* auth_service_create(auth_config_t* config, gw_credential_store_t* creds, gw_auth_cache_t* auth_cache,
                                    const auth_profile_store_t* profiles, auth_lock* lock) {
  try {
    auto svc = std::make_unique<auth_service>();
    svc->lock = lock;
    svc->config = config;
    svc->creds = creds;
    svc->auth_cache = auth_cache;
    svc->profiles = profiles;
    return svc.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

int auth_service_run(auth_service_t* svc) {
  if (svc == nullptr || svc->config == nullptr) return -1;
  int rc = -1;
  try {
    rc = s_serve(*svc);
  } catch (const std::exception& e) {
    log_fatal("auth_service: %s", e.what());
  }
  svc->enter(auth_service::phase::ended);
  return rc;
}

int auth_service_wait_serving(auth_service_t* svc) {
  if (svc == nullptr) return -1;
  std::unique_lock lock(svc->phase_mutex);
  svc->phase_changed.wait(lock, [svc] { return svc->run_phase != auth_service::phase::starting; });
  return svc->served ? 0 : -1;
}

bool auth_service_serving(auth_service_t* svc) {
  if (svc == nullptr || !svc->running.load()) return false;
  std::lock_guard lock(svc->phase_mutex);
  return svc->run_phase == auth_service::phase::serving;
}

void auth_service_stop(auth_service_t* svc) {
  if (svc == nullptr) return;
  {
    std::lock_guard lock(svc->phase_mutex);
    svc->stop_requested = true;
    svc->running = false;
  }
  svc->phase_changed.notify_all();
}

void auth_service_destroy(auth_service_t* svc) {
  if (svc == nullptr) return;
  svc->release_nats();
  std::unique_ptr<auth_service> owned(svc);
}
