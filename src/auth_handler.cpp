#include "auth_handler.hpp"

#include <json-c/json.h>
#include <nats/nats.h>
#include <sodium.h>
#include <strings.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <vector>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

#include "auth_jwt.hpp"
#include "auth_ldap.hpp"
#include "auth_profile.hpp"
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
constexpr int kCoalesceWaitMs = 5000;
constexpr int kRefreshDrainMs = 6000;
constexpr auto kStopPollInterval = std::chrono::milliseconds(500);
constexpr auto kHandlerCompletionWait = std::chrono::seconds(5);

// A grant without a profile may publish and subscribe anywhere in the account.
const char* const kDefaultAllow[] = {">", nullptr};



// The groups an LDAP grant brought back, released with the user info's own free.
struct user_groups {
  ldap_user_info_t info;
  user_groups() = default;
  user_groups(const user_groups&) = delete;
  user_groups& operator=(const user_groups&) = delete;
  ~user_groups() { ldap_user_info_free(&info); }
  const char* const* list() const { return info.groups; }
  size_t count() const { return info.n_groups > 0 ? static_cast<size_t>(info.n_groups) : 0; }
};

const char* s_or(const char* text, const char* fallback) { return text ? text : fallback; }

const char* s_profile_label(const auth_profile_t* profile) {
  const char* name = auth_profile_name(profile);
  return name ? name : "default";
}

}  // namespace

// Everything the two handlers need; lives in auth_service_run's frame while serving.
struct auth_callback_data_t {
  auth_service_t* svc = nullptr;
  gw_credential_store_t* creds = nullptr;
  auth_ldap_ctx_t* ldap_ctx = nullptr;
  auth_jwt_ctx_t* jwt_ctx = nullptr;
  auth_profile_store_t* profile_store = nullptr;
  gw_auth_cache_t* auth_cache = nullptr;
};

struct auth_service {
  auth_config_t* config = nullptr;
  gw_credential_store_t* creds = nullptr;
  gw_auth_cache_t* auth_cache = nullptr;
  natsConnection* conn = nullptr;
  natsSubscription* callout_sub = nullptr;
  natsSubscription* verify_sub = nullptr;
  std::atomic<bool> running{false};
  // Set by stop before run has raised `running`, so an early stop is not lost.
  std::atomic<bool> stop_requested{false};

  // Subscriptions whose message handler the client library may still be running.
  std::mutex handlers_mutex;
  std::condition_variable handlers_done;
  int open_handlers = 0;

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

bool auth_dispatch_validate_ext(gw_credential_store_t* creds, auth_ldap_ctx_t* ldap_ctx, const char* user,
                                const char* password, const char** out_backend, ldap_user_info_t* out_info) {
  if (out_backend) *out_backend = "none";
  if (out_info) {
    out_info->groups = nullptr;
    out_info->n_groups = 0;
  }
  if (user == nullptr || password == nullptr || user[0] == '\0' || password[0] == '\0') return false;
  if (creds != nullptr && gw_credential_store_validate(creds, user, password)) {
    if (out_backend) *out_backend = "file";
    return true;
  }
  if (ldap_ctx == nullptr) return false;
  const bool ok = out_info ? auth_ldap_validate_ext(ldap_ctx, user, password, out_info)
                           : auth_ldap_validate(ldap_ctx, user, password);
  if (ok && out_backend) *out_backend = "ldap";
  return ok;
}

bool auth_dispatch_validate(gw_credential_store_t* creds, auth_ldap_ctx_t* ldap_ctx, const char* user,
                            const char* password, const char** out_backend) {
  return auth_dispatch_validate_ext(creds, ldap_ctx, user, password, out_backend, nullptr);
}

namespace {

const char* s_json_string(json_object* obj, const char* key) {
  json_object* member = nullptr;
  if (obj == nullptr || !json_object_object_get_ex(obj, key, &member)) return nullptr;
  return json_object_is_type(member, json_type_string) ? json_object_get_string(member) : nullptr;
}

json_object* s_json_object(json_object* obj, const char* key) {
  json_object* member = nullptr;
  if (obj == nullptr || !json_object_object_get_ex(obj, key, &member)) return nullptr;
  return json_object_is_type(member, json_type_object) ? member : nullptr;
}

}  // namespace

bool extract_auth_request(const std::string& token, auth_request_t& req) {
  qm::json_ptr claims(decode_jwt_payload(token.c_str()));
  json_object* nats = s_json_object(claims.get(), "nats");
  if (nats == nullptr) return false;
  if (const char* id = s_json_string(s_json_object(nats, "server_id"), "id")) req.server_id = id;
  if (const char* nkey = s_json_string(nats, "user_nkey")) req.user_nkey = nkey;
  json_object* connect_opts = s_json_object(nats, "connect_opts");
  if (const char* user = s_json_string(connect_opts, "user")) {
    req.user = user;
    req.has_user = true;
  }
  if (const char* pass = s_json_string(connect_opts, "pass")) {
    req.password = qm::secret_string(pass);
    req.has_password = true;
  }
  return req.has_user && req.has_password;
}

namespace {

// ---- background refresh of grants that are getting old ----

struct nats_refresh_ctx_t {
  gw_credential_store_t* creds = nullptr;
  auth_ldap_ctx_t* ldap_ctx = nullptr;
  auth_profile_store_t* profile_store = nullptr;
  gw_auth_cache_t* auth_cache = nullptr;
  std::string user;
  qm::secret_string password;
  unsigned char hash[GW_AUTH_CACHE_HASH_BYTES] = {};
  uint32_t gen = 0;

  ~nats_refresh_ctx_t() { sodium_memzero(hash, sizeof hash); }
};

// A refresh never revokes: a failed check may be a passing directory outage, so the
// old grant runs out its TTL instead.
void nats_refresh_worker(std::unique_ptr<nats_refresh_ctx_t> ctx) {
  user_groups groups;
  const char* backend = "none";
  if (auth_dispatch_validate_ext(ctx->creds, ctx->ldap_ctx, ctx->user.c_str(), ctx->password.c_str(), &backend,
                                 &groups.info)) {
    const auth_profile_t* profile =
        auth_profile_resolve(ctx->profile_store, ctx->user.c_str(), groups.list(), groups.count());
    log_debug("auth_refresh: GRANTED user=%s backend=%s profile=%s groups=%d", ctx->user.c_str(), backend,
              s_profile_label(profile), groups.info.n_groups);
    gw_auth_cache_complete_refresh_ex(ctx->auth_cache, ctx->hash, ctx->gen, GW_REFRESH_GRANTED,
                                      const_cast<auth_profile_t*>(profile));
  } else {
    log_info("auth_refresh: dispatcher returned false user=%s backend=%s \u2014 treating as ABORTED to avoid "
             "invalidating on transient LDAP failure",
             ctx->user.c_str(), backend);
    gw_auth_cache_complete_refresh(ctx->auth_cache, ctx->hash, ctx->gen, GW_REFRESH_ABORTED);
  }
}

void dispatch_nats_refresh(const auth_callback_data_t& data, const char* user, const char* password) {
  if (data.auth_cache == nullptr || user == nullptr || password == nullptr || !*user || !*password) return;
  unsigned char hash[GW_AUTH_CACHE_HASH_BYTES];
  uint32_t gen = 0;
  if (!gw_auth_cache_try_claim_refresh(data.auth_cache, user, password, hash, &gen)) return;

  std::unique_ptr<nats_refresh_ctx_t> ctx;
  try {
    ctx = std::make_unique<nats_refresh_ctx_t>();
  } catch (const std::bad_alloc&) {
    log_warn("auth_refresh: OOM allocating ctx user=%s", user);
    gw_auth_cache_complete_refresh(data.auth_cache, hash, gen, GW_REFRESH_ABORTED);
    sodium_memzero(hash, sizeof hash);
    return;
  }
  memcpy(ctx->hash, hash, sizeof hash);
  sodium_memzero(hash, sizeof hash);
  ctx->gen = gen;
  ctx->creds = data.creds;
  ctx->ldap_ctx = data.ldap_ctx;
  ctx->profile_store = data.profile_store;
  ctx->auth_cache = data.auth_cache;
  try {
    ctx->user = user;
    ctx->password = qm::secret_string(password);
  } catch (const std::bad_alloc&) {
    log_warn("auth_refresh: OOM duplicating credentials user=%s", user);
    gw_auth_cache_complete_refresh(data.auth_cache, ctx->hash, ctx->gen, GW_REFRESH_ABORTED);
    return;
  }

  gw_auth_cache_t* cache = data.auth_cache;
  const uint32_t claimed_gen = ctx->gen;
  unsigned char claimed_hash[GW_AUTH_CACHE_HASH_BYTES];
  memcpy(claimed_hash, ctx->hash, sizeof claimed_hash);
  try {
    std::thread(nats_refresh_worker, std::move(ctx)).detach();
    log_trace("auth_refresh: dispatched user=%s", user);
  } catch (const std::system_error& e) {
    log_warn("auth_refresh: pthread_create failed (rc=%d) user=%s", e.code().value(), user);
    gw_auth_cache_complete_refresh(cache, claimed_hash, claimed_gen, GW_REFRESH_ABORTED);
  }
  sodium_memzero(claimed_hash, sizeof claimed_hash);
}

// ---- the auth callout ----

struct callout_verdict {
  bool granted = false;
  const auth_profile_t* profile = nullptr;
};

// An empty user or password is never looked up in, nor stored into, the cache.
bool s_cacheable(const auth_request_t& req) { return !req.user.empty() && !req.password.empty(); }

// Waits for the leader that is checking the same pair. True when the verdict was settled
// by it; false means: check live.
bool s_callout_join(const auth_callback_data_t& data, const auth_request_t& req, callout_verdict& verdict) {
  const gw_auth_cache_result_t waited =
      gw_auth_cache_wait_for_result(data.auth_cache, req.user.c_str(), req.password.c_str(), kCoalesceWaitMs);
  if (waited == GW_AUTH_CACHE_GRANT) {
    const gw_auth_cache_lookup_t again =
        gw_auth_cache_lookup_ex(data.auth_cache, req.user.c_str(), req.password.c_str());
    if (again.result == GW_AUTH_CACHE_GRANT || again.result == GW_AUTH_CACHE_GRANT_STALE) {
      verdict = {true, static_cast<const auth_profile_t*>(again.user_data)};
      log_info("auth_callout: GRANT user=%s via=coalesced profile=%s", req.user.c_str(),
               s_profile_label(verdict.profile));
      return true;
    }
    log_debug("auth_callout: coalesce wake-then-lookup MISS user=%s \u2014 running uncoalesced live verify",
              req.user.c_str());
    return false;
  }
  if (waited == GW_AUTH_CACHE_DENY) {
    log_warn("auth_callout: DENY user=%s via=coalesced", req.user.c_str());
    verdict = {false, nullptr};
    return true;
  }
  log_debug("auth_callout: coalesce wait MISS user=%s \u2014 running live verify", req.user.c_str());
  return false;
}

callout_verdict s_callout_live(const auth_callback_data_t& data, const auth_request_t& req, bool cacheable,
                               bool leader) {
  user_groups groups;
  const char* backend = "none";
  const bool ok = auth_dispatch_validate_ext(data.creds, data.ldap_ctx, req.user.c_str(), req.password.c_str(),
                                             &backend, &groups.info);
  log_trace("auth_callout: dispatcher %s for user=%s backend=%s groups=%d", ok ? "GRANT" : "DENY",
            req.user.c_str(), backend, groups.info.n_groups);
  callout_verdict verdict;
  if (ok) {
    verdict = {true, auth_profile_resolve(data.profile_store, req.user.c_str(), groups.list(), groups.count())};
    log_info("auth_callout: GRANT user=%s backend=%s profile=%s groups=%d", req.user.c_str(), backend,
             s_profile_label(verdict.profile), groups.info.n_groups);
  } else {
    log_warn("auth_callout: DENY user=%s backend=%s reason=invalid-credentials", req.user.c_str(), backend);
  }
  if (cacheable && data.auth_cache != nullptr) {
    if (ok)
      gw_auth_cache_insert_grant_ex(data.auth_cache, req.user.c_str(), req.password.c_str(),
                                    const_cast<auth_profile_t*>(verdict.profile));
    if (leader) gw_auth_cache_publish_result(data.auth_cache, req.user.c_str(), req.password.c_str(), ok);
  }
  return verdict;
}

// What the cache alone settles: a fresh or stale grant (a stale one refreshed in the
// background), or a remembered refusal. Nothing when the pair must be checked.
std::optional<callout_verdict> s_callout_from_cache(const auth_callback_data_t& data, const auth_request_t& req) {
  if (!s_cacheable(req) || data.auth_cache == nullptr) return std::nullopt;
  const gw_auth_cache_lookup_t hit = gw_auth_cache_lookup_ex(data.auth_cache, req.user.c_str(), req.password.c_str());
  switch (hit.result) {
    case GW_AUTH_CACHE_GRANT_STALE:
      dispatch_nats_refresh(data, req.user.c_str(), req.password.c_str());
      [[fallthrough]];
    case GW_AUTH_CACHE_GRANT: {
      callout_verdict verdict{true, static_cast<const auth_profile_t*>(hit.user_data)};
      log_info("auth_callout: GRANT user=%s via=cache profile=%s", req.user.c_str(), s_profile_label(verdict.profile));
      return verdict;
    }
    case GW_AUTH_CACHE_DENY:
      log_warn("auth_callout: DENY user=%s via=neg-cache", req.user.c_str());
      return callout_verdict{};
    case GW_AUTH_CACHE_MISS:
      break;
  }
  return std::nullopt;
}

// A cache miss: join a check of the same pair that is under way, or check live (and lead
// the joiners that come meanwhile).
callout_verdict s_callout_check(const auth_callback_data_t& data, const auth_request_t& req) {
  const bool cacheable = s_cacheable(req);
  bool leader = false;
  if (cacheable && data.auth_cache != nullptr) {
    const gw_verify_role_t role = gw_auth_cache_begin_verify(data.auth_cache, req.user.c_str(), req.password.c_str());
    if (role == GW_VERIFY_JOINED) {
      callout_verdict verdict;
      if (s_callout_join(data, req, verdict)) return verdict;
    }
    leader = role == GW_VERIFY_LEAD;
  }
  return s_callout_live(data, req, cacheable, leader);
}

int s_sign_verdict(const auth_callback_data_t& data, const auth_request_t& req, const callout_verdict& verdict,
                   char** token) {
  if (!verdict.granted)
    return auth_jwt_sign_deny(data.jwt_ctx, req.server_id.c_str(), req.user_nkey.c_str(), "invalid credentials",
                              token);
  if (verdict.profile == nullptr)
    return auth_jwt_sign_grant(data.jwt_ctx, req.server_id.c_str(), req.user_nkey.c_str(), "$G", kDefaultAllow,
                               nullptr, kDefaultAllow, nullptr, token);
  return auth_jwt_sign_grant(data.jwt_ctx, req.server_id.c_str(), req.user_nkey.c_str(), "$G",
                             auth_profile_pub_allow(verdict.profile), auth_profile_pub_deny(verdict.profile),
                             auth_profile_sub_allow(verdict.profile), auth_profile_sub_deny(verdict.profile), token);
}

void s_reply(natsConnection* nc, natsMsg* msg, const char* text, size_t len) {
  const char* reply_to = natsMsg_GetReply(msg);
  if (reply_to == nullptr || reply_to[0] == '\0') return;
  natsConnection_Publish(nc, reply_to, text, static_cast<int>(len));
}

void s_sign_and_reply(natsConnection* nc, natsMsg* msg, const auth_callback_data_t& data, const auth_request_t& req,
                      const callout_verdict& verdict) {
  char* signed_token = nullptr;
  const int rc = s_sign_verdict(data, req, verdict, &signed_token);
  qm::malloc_ptr<char> reply(signed_token);
  if (rc == 0 && reply) s_reply(nc, msg, reply.get(), strlen(reply.get()));
}

// A request that names no user, password or "nats" claims: refused with its own reason.
void s_refuse_malformed(natsConnection* nc, natsMsg* msg, const auth_callback_data_t& data, const auth_request_t& req) {
  log_warn("auth_callout: malformed auth request \u2014 sending deny");
  char* signed_token = nullptr;
  const int rc = auth_jwt_sign_deny(data.jwt_ctx, req.server_id.c_str(), req.user_nkey.c_str(),
                                    "malformed auth request", &signed_token);
  qm::malloc_ptr<char> reply(signed_token);
  if (rc == 0 && reply) s_reply(nc, msg, reply.get(), strlen(reply.get()));
}

// The decoded request, or nothing when the message is empty (ignored) or malformed
// (refused here).
std::optional<auth_request_t> s_take_callout_request(natsConnection* nc, natsMsg* msg,
                                                     const auth_callback_data_t& data) {
  if (natsMsg_GetData(msg) == nullptr || natsMsg_GetDataLength(msg) <= 0) return std::nullopt;
  const std::string token(natsMsg_GetData(msg), static_cast<size_t>(natsMsg_GetDataLength(msg)));
  auth_request_t req;
  if (!extract_auth_request(token, req)) {
    s_refuse_malformed(nc, msg, data, req);
    return std::nullopt;
  }
  log_trace("auth_callout: request user=%s server=%s user_nkey=%.12s...", req.user.c_str(),
            req.server_id.empty() ? "(null)" : req.server_id.c_str(),
            req.user_nkey.empty() ? "(null)" : req.user_nkey.c_str());
  return req;
}

// A cache miss, on a request worker: check, sign and answer. A signing failure sends
// nothing, and nats-server refuses the client when its wait runs out.
void s_handle_callout_miss(natsConnection* nc, natsMsg* msg, const auth_request_t* req,
                           const auth_callback_data_t& data) noexcept {
  try {
    s_sign_and_reply(nc, msg, data, *req, s_callout_check(data, *req));
  } catch (const std::exception&) {
    // Out of memory in a handler: the client is refused by nats-server's own time-out.
  }
}

// ---- the generic verify endpoint ----

struct verify_answer {
  bool ok = false;
  const char* reason = "";
  const char* backend = "none";
};

struct verify_request {
  std::optional<std::string> user;
  std::optional<qm::secret_string> password;
  std::optional<std::string> method;
  bool revalidate = false;
};

verify_request s_parse_verify_request(natsMsg* msg) {
  verify_request req;
  if (natsMsg_GetData(msg) == nullptr || natsMsg_GetDataLength(msg) <= 0) return req;
  const std::string body(natsMsg_GetData(msg), static_cast<size_t>(natsMsg_GetDataLength(msg)));
  qm::json_ptr root(json_tokener_parse(body.c_str()));
  if (!root || !json_object_is_type(root.get(), json_type_object)) return req;
  if (const char* user = s_json_string(root.get(), "user")) req.user = user;
  if (const char* password = s_json_string(root.get(), "password")) req.password.emplace(password);
  if (const char* method = s_json_string(root.get(), "method")) req.method = method;
  json_object* revalidate = nullptr;
  if (json_object_object_get_ex(root.get(), "revalidate", &revalidate) &&
      json_object_is_type(revalidate, json_type_boolean))
    req.revalidate = json_object_get_boolean(revalidate);
  return req;
}

// A coalesced or cached verdict, or nothing (check live).
std::optional<verify_answer> s_verify_from_cache(const auth_callback_data_t& data, const verify_request& req,
                                                 const char* method, bool& leader) {
  const char* user = req.user->c_str();
  const char* password = req.password->c_str();
  gw_auth_cache_result_t cached = GW_AUTH_CACHE_MISS;
  if (req.revalidate) {
    log_debug("auth_verify: revalidate requested user='%s' \u2014 bypassing cache, consulting live backend", user);
  } else {
    cached = gw_auth_cache_lookup(data.auth_cache, user, password);
  }
  if (cached == GW_AUTH_CACHE_GRANT_STALE) dispatch_nats_refresh(data, user, password);
  if (cached == GW_AUTH_CACHE_GRANT || cached == GW_AUTH_CACHE_GRANT_STALE) {
    log_info("auth_verify: GRANT user='%s' via=cache method=%s", user, method);
    return verify_answer{true, "valid credentials (cached)", "cache"};
  }
  if (cached == GW_AUTH_CACHE_DENY) {
    log_warn("auth_verify: DENY user='%s' via=neg-cache method=%s", user, method);
    return verify_answer{false, "invalid credentials (cached)", "neg-cache"};
  }
  const gw_verify_role_t role = gw_auth_cache_begin_verify(data.auth_cache, user, password);
  leader = role == GW_VERIFY_LEAD;
  if (role != GW_VERIFY_JOINED) return std::nullopt;
  const gw_auth_cache_result_t waited = gw_auth_cache_wait_for_result(data.auth_cache, user, password, kCoalesceWaitMs);
  if (waited == GW_AUTH_CACHE_GRANT) {
    log_info("auth_verify: GRANT user='%s' via=coalesced method=%s", user, method);
    return verify_answer{true, "valid credentials (coalesced)", "coalesced"};
  }
  if (waited == GW_AUTH_CACHE_DENY) {
    log_warn("auth_verify: DENY user='%s' via=coalesced method=%s", user, method);
    return verify_answer{false, "invalid credentials (coalesced)", "coalesced-neg"};
  }
  log_debug("auth_verify: coalesce wait MISS user=%s \u2014 running live verify", user);
  return std::nullopt;
}

verify_answer s_verify_decide(const auth_callback_data_t& data, const verify_request& req) {
  if (!req.user || !req.password) {
    log_warn("auth_verify: malformed request (user=%s password=%s method=%s)",
             req.user ? req.user->c_str() : "(absent)", req.password ? "(set)" : "(absent)",
             req.method ? req.method->c_str() : "(absent)");
    return {false, "missing user or password", "none"};
  }
  if (data.creds == nullptr && data.ldap_ctx == nullptr) {
    log_error("auth_verify: no backend context (backend_type=%d creds=%p ldap_ctx=%p)",
              static_cast<int>(data.svc->config->backend_type), static_cast<void*>(data.creds),
              static_cast<void*>(data.ldap_ctx));
    return {false, "auth backend not initialized", "none"};
  }
  const char* method = req.method ? req.method->c_str() : "(unspecified)";
  bool leader = false;
  if (data.auth_cache != nullptr) {
    if (auto answer = s_verify_from_cache(data, req, method, leader)) return *answer;
  }
  const char* user = req.user->c_str();
  const char* backend = "none";
  const bool ok = auth_dispatch_validate(data.creds, data.ldap_ctx, user, req.password->c_str(), &backend);
  if (data.auth_cache != nullptr) {
    if (ok) gw_auth_cache_insert_grant(data.auth_cache, user, req.password->c_str());
    if (leader) gw_auth_cache_publish_result(data.auth_cache, user, req.password->c_str(), ok);
  }
  if (ok) {
    log_info("auth_verify: GRANT user='%s' backend=%s method=%s", user, backend, method);
    return {true, "valid credentials", backend};
  }
  log_warn("auth_verify: DENY user='%s' backend=%s method=%s", user, backend, method);
  return {false, "invalid credentials", backend};
}

std::string s_verify_answer_json(const verify_answer& answer) {
  qm::json_ptr root(json_object_new_object());
  json_object_object_add(root.get(), "ok", json_object_new_boolean(answer.ok));
  json_object_object_add(root.get(), "reason", json_object_new_string(answer.reason));
  json_object_object_add(root.get(), "backend", json_object_new_string(answer.backend));
  return json_object_to_json_string_ext(root.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

void s_handle_verify(natsConnection* nc, natsMsg* msg, const auth_request_t*, const auth_callback_data_t& data) noexcept {
  const char* reply_to = natsMsg_GetReply(msg);
  if (reply_to == nullptr || reply_to[0] == '\0') {
    log_trace("auth_verify: message on %s has no reply-to \u2014 dropping", kVerifySubject);
    return;
  }
  try {
    const verify_request req = s_parse_verify_request(msg);
    log_trace("auth_verify: request user=%s method=%s", req.user ? req.user->c_str() : "(absent)",
              req.method ? req.method->c_str() : "(absent)");
    const std::string answer = s_verify_answer_json(s_verify_decide(data, req));
    s_reply(nc, msg, answer.data(), answer.size());
  } catch (const std::exception&) {
    // Out of memory in a handler: the caller's request times out.
  }
}

// ---- request workers ----

// The callout request comes decoded by the delivering thread; verify requests come raw.
using request_handler = void (*)(natsConnection*, natsMsg*, const auth_request_t*, const auth_callback_data_t&) noexcept;

// Checks are made on a few threads of our own rather than on the library's one delivery
// thread per subscription: a slow directory check then holds up only its own login, and
// identical concurrent checks can coalesce.
class request_workers {
 public:
  explicit request_workers(const auth_callback_data_t& data) : data_(data) {}
  request_workers(const request_workers&) = delete;
  request_workers& operator=(const request_workers&) = delete;
  ~request_workers() { stop(); }

  void start(size_t count) {
    for (size_t i = 0; i < count; ++i) threads_.emplace_back([this] { run(); });
  }

  // Takes the message; it is destroyed after its handler ran, or at once when the
  // workers have stopped (a late delivery during shutdown goes unanswered).
  void submit(request_handler handler, natsConnection* nc, natsMsg* msg, std::optional<auth_request_t> request = {}) {
    msg_ptr owned(msg);
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      queue_.push_back({handler, nc, std::move(owned), std::move(request)});
    }
    ready_.notify_one();
  }

  const auth_callback_data_t& data() const { return data_; }

  // Runs what is queued, then joins every thread.
  void stop() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    ready_.notify_all();
    for (auto& t : threads_) t.join();
    threads_.clear();
  }

 private:
  using msg_ptr = qm::nats_msg_ptr;
  struct job {
    request_handler handler;
    natsConnection* nc;
    msg_ptr msg;
    std::optional<auth_request_t> request;
  };

  void run() {
    for (;;) {
      job next;
      {
        std::unique_lock lock(mutex_);
        ready_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) return;
        next = std::move(queue_.front());
        queue_.pop_front();
      }
      next.handler(next.nc, next.msg.get(), next.request ? &*next.request : nullptr, data_);
    }
  }

  const auth_callback_data_t& data_;
  std::mutex mutex_;
  std::condition_variable ready_;
  std::deque<job> queue_;
  std::vector<std::thread> threads_;
  bool stopping_ = false;
};

constexpr size_t kRequestWorkers = 8;

// What the cache settles is answered here on the delivering thread (a login waits on
// it, and a hand-over to a worker would cost more than the answer); the rest goes to
// the workers.
void auth_callout_cb(natsConnection* nc, natsSubscription*, natsMsg* msg, void* closure) noexcept {
  qm::nats_msg_ptr owned(msg);
  auto& workers = *static_cast<request_workers*>(closure);
  const auth_callback_data_t& data = workers.data();
  try {
    std::optional<auth_request_t> req = s_take_callout_request(nc, msg, data);
    if (!req) return;
    if (const std::optional<callout_verdict> verdict = s_callout_from_cache(data, *req)) {
      s_sign_and_reply(nc, msg, data, *req, *verdict);
      return;
    }
    workers.submit(s_handle_callout_miss, nc, owned.release(), std::move(req));
  } catch (const std::exception&) {
    // Out of memory: the client is refused by nats-server's own time-out.
  }
}

void auth_verify_cb(natsConnection* nc, natsSubscription*, natsMsg* msg, void* closure) noexcept {
  try {
    static_cast<request_workers*>(closure)->submit(s_handle_verify, nc, msg);
  } catch (const std::exception&) {
    // Out of memory: the message is gone with the failed submit, the requester times out.
  }
}

// ---- start-up ----

qm::nats_options_ptr s_connection_options(const auth_config_t& cfg) {
  natsOptions* raw = nullptr;
  if (natsOptions_Create(&raw) != NATS_OK) return nullptr;
  qm::nats_options_ptr opts(raw);
  const std::string url = cfg.nats_url.value_or("");
  natsOptions_SetURL(opts.get(), url.c_str());
  natsOptions_SetUserInfo(opts.get(), qm::cstr(cfg.nats_user), qm::cstr(cfg.nats_password));
  natsOptions_SetMaxReconnect(opts.get(), -1);
  natsOptions_SetReconnectWait(opts.get(), 2000);
  // Every reply is a login waiting: the worker writes it itself instead of waking the
  // library's flusher thread for each one.
  natsOptions_SetSendAsap(opts.get(), true);
  natsStatus status = NATS_OK;
  switch (qm_nats_apply_tls(opts.get(), url, qm::cstr(cfg.nats_cert_path), &status)) {
    case QM_NATS_TLS_PLAIN:
    case QM_NATS_TLS_SECURED:
      break;
    case QM_NATS_TLS_NO_CA:
      log_warn("auth_service: tls:// URL but no nats_cert_path — server cert will be checked against the system "
               "trust store and almost certainly fail");
      break;
    case QM_NATS_TLS_SECURE_FAILED:
      log_fatal("auth_service: cannot require TLS: %s", natsStatus_GetText(status));
      return nullptr;
    case QM_NATS_TLS_CA_FAILED:
      log_fatal("auth_service: failed to load CA bundle %s: %s", cfg.nats_cert_path->c_str(), natsStatus_GetText(status));
      return nullptr;
  }
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

// The contexts the handlers decide with, released in reverse order when serving ends.
struct dispatcher_deps {
  qm::c_ptr<auth_ldap_ctx_t, auth_ldap_destroy> ldap;
  qm::c_ptr<auth_profile_store_t, auth_profile_destroy> profiles;
  qm::c_ptr<auth_jwt_ctx_t, auth_jwt_destroy> jwt;
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
  if (qm::has_text(cfg.permissions_file_path)) {
    deps.profiles.reset(auth_profile_load(cfg.permissions_file_path->c_str()));
    if (!deps.profiles) {
      log_fatal("auth_service: failed to load permissions file: %s", cfg.permissions_file_path->c_str());
      return false;
    }
  } else {
    log_info("auth_service: no --permissions-file configured \u2014 every callout grant will use the compiled-in "
             "default permissions");
  }
  log_debug("auth_service: initializing JWT signing from %s", s_or(qm::cstr(cfg.signing_key_path), "(unset)"));
  deps.jwt.reset(auth_jwt_init(qm::cstr(cfg.signing_key_path)));
  if (!deps.jwt) {
    log_fatal("auth_service: failed to initialize JWT signing");
    return false;
  }
  log_info("auth_service: JWT signing ready (public key = %s)", auth_jwt_public_key(deps.jwt.get()));
  return true;
}

bool s_subscribe(auth_service_t& svc, request_workers& workers) {
  natsStatus s = natsConnection_QueueSubscribe(&svc.callout_sub, svc.conn, kCalloutSubject, kCalloutQueue,
                                               auth_callout_cb, &workers);
  if (s != NATS_OK) {
    svc.callout_sub = nullptr;
    log_fatal("auth_service: failed to subscribe to %s: %s", kCalloutSubject, natsStatus_GetText(s));
    return false;
  }
  svc.track_handler(svc.callout_sub);
  log_info("auth_service: subscribed to %s queue '%s' (nats-server auth callout)", kCalloutSubject, kCalloutQueue);
  s = natsConnection_QueueSubscribe(&svc.verify_sub, svc.conn, kVerifySubject, kVerifyQueue, auth_verify_cb,
                                    &workers);
  if (s != NATS_OK) {
    svc.verify_sub = nullptr;
    log_fatal("auth_service: failed to subscribe to %s: %s", kVerifySubject, natsStatus_GetText(s));
    return false;
  }
  svc.track_handler(svc.verify_sub);
  // The server knows both subscriptions once this round trip is done: logins from here on reach us.
  s = natsConnection_FlushTimeout(svc.conn, 5000);
  if (s != NATS_OK) log_warn("auth_service: flush after subscribing failed: %s", natsStatus_GetText(s));
  log_info("auth_service: subscribed to %s queue '%s' (generic verify endpoint)", kVerifySubject, kVerifyQueue);
  return true;
}

void s_drain_refreshes(gw_auth_cache_t* cache) {
  if (cache == nullptr) return;
  log_debug("auth_service: draining in-flight refresh workers (timeout %d ms)", kRefreshDrainMs);
  if (gw_auth_cache_wait_inflight_drain(cache, kRefreshDrainMs) != 0)
    log_warn("auth_service: refresh drain timed out \u2014 proceeding to free dispatcher deps anyway; any worker "
             "still running risks UAF at process exit");
}

}  // namespace

auth_service_t* auth_service_create(auth_config_t* config, gw_credential_store_t* creds, gw_auth_cache_t* auth_cache) {
  try {
    auto svc = std::make_unique<auth_service>();
    svc->config = config;
    svc->creds = creds;
    svc->auth_cache = auth_cache;
    return svc.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

int auth_service_run(auth_service_t* svc) {
  if (svc == nullptr || svc->config == nullptr) return -1;
  try {
    if (!s_connect(*svc)) return -1;
    dispatcher_deps deps;
    auth_callback_data_t data;
    data.svc = svc;
    data.creds = svc->creds;
    data.auth_cache = svc->auth_cache;
    if (!s_setup_deps(*svc, deps)) {
      svc->release_nats();
      return -1;
    }
    data.ldap_ctx = deps.ldap.get();
    data.profile_store = deps.profiles.get();
    data.jwt_ctx = deps.jwt.get();
    request_workers workers(data);
    workers.start(kRequestWorkers);
    if (!s_subscribe(*svc, workers)) {
      svc->release_subscriptions();
      workers.stop();
      svc->release_connection();
      return -1;
    }

    svc->running = !svc->stop_requested.load();
    while (svc->running) std::this_thread::sleep_for(kStopPollInterval);

    // No new requests, then the queued ones answered, then the connection closed.
    svc->release_subscriptions();
    workers.stop();
    svc->release_connection();
    s_drain_refreshes(svc->auth_cache);
    return 0;
  } catch (const std::exception& e) {
    log_fatal("auth_service: %s", e.what());
    svc->release_nats();
    return -1;
  }
}

void auth_service_stop(auth_service_t* svc) {
  if (svc == nullptr) return;
  svc->stop_requested = true;
  svc->running = false;
}

void auth_service_destroy(auth_service_t* svc) {
  if (svc == nullptr) return;
  svc->release_nats();
  std::unique_ptr<auth_service> owned(svc);
}
