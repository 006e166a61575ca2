#include "auth_callout.hpp"

#include "auth_jwt.hpp"
#include "auth_profile.hpp"
#include "log.hpp"
#include "qm_json.hpp"
#include "qm_nats_conn.hpp"

namespace {

// A grant without a profile may publish and subscribe anywhere in the account.
const char* const kDefaultAllow[] = {">", nullptr};

const char* s_profile_label(const auth_profile_t* profile) {
  const char* name = auth_profile_name(profile);
  return name ? name : "default";
}

std::string s_hand_over(int rc, char* token) {
  qm::malloc_ptr<char> owned(token);
  return rc == 0 && owned ? std::string(owned.get()) : std::string();
}

std::string s_sign(const auth_jwt_ctx_t* jwt, const auth_request_t& req, const auth_verdict& verdict) {
  char* token = nullptr;
  int rc = -1;
  if (!verdict.granted)
    rc = auth_jwt_sign_deny(jwt, req.server_id.c_str(), req.user_nkey.c_str(), "invalid credentials", &token);
  else if (verdict.profile == nullptr)
    rc = auth_jwt_sign_grant(jwt, req.server_id.c_str(), req.user_nkey.c_str(), "$G", kDefaultAllow, nullptr,
                             kDefaultAllow, nullptr, &token);
  else
    rc = auth_jwt_sign_grant(jwt, req.server_id.c_str(), req.user_nkey.c_str(), "$G",
                             auth_profile_pub_allow(verdict.profile), auth_profile_pub_deny(verdict.profile),
                             auth_profile_sub_allow(verdict.profile), auth_profile_sub_deny(verdict.profile), &token);
  return s_hand_over(rc, token);
}

void s_log_verdict(const auth_request_t& req, const auth_verdict& v) {
  const std::string safe_user = log_safe(req.user);
  const char* user = safe_user.c_str();
  switch (v.source) {
    case AUTH_VERDICT_CACHED:
      log_info("auth_callout: GRANT user=%s via=cache profile=%s", user, s_profile_label(v.profile));
      return;
    case AUTH_VERDICT_CACHED_DENY:
      log_warn("auth_callout: DENY user=%s via=neg-cache", user);
      return;
    case AUTH_VERDICT_COALESCED:
      if (v.granted)
        log_info("auth_callout: GRANT user=%s via=coalesced profile=%s", user, s_profile_label(v.profile));
      else
        log_warn("auth_callout: DENY user=%s via=coalesced", user);
      return;
    case AUTH_VERDICT_LIVE:
      log_trace("auth_callout: dispatcher %s for user=%s backend=%s groups=%d", v.granted ? "GRANT" : "DENY", user,
                v.backend, v.n_groups);
      if (v.granted)
        log_info("auth_callout: GRANT user=%s backend=%s profile=%s groups=%d", user, v.backend,
                 s_profile_label(v.profile), v.n_groups);
      else
        log_warn("auth_callout: DENY user=%s backend=%s reason=invalid-credentials", user, v.backend);
      return;
  }
}

std::string s_answer(const auth_jwt_ctx_t* jwt, const auth_request_t& req, const auth_verdict& verdict) {
  s_log_verdict(req, verdict);
  std::string token = s_sign(jwt, req, verdict);
  const broker_metrics_verdict_t counted =
      token.empty() ? BROKER_METRICS_ERROR : broker_metrics_verdict_of(verdict.granted);
  broker_metrics_count_auth(BROKER_METRICS_AUTH_CALLOUT, counted, req.received_ns);
  return token;
}

}  // namespace

bool extract_auth_request(std::string_view token, auth_request_t& req) {
  qm::secret_json_ptr claims = decode_jwt_claims(token);
  json_object* nats = qm::json_object_member(claims.get(), "nats");
  if (nats == nullptr) return false;
  if (const char* id = qm::json_string_member(qm::json_object_member(nats, "server_id"), "id")) req.server_id = id;
  if (const char* nkey = qm::json_string_member(nats, "user_nkey")) req.user_nkey = nkey;
  json_object* connect_opts = qm::json_object_member(nats, "connect_opts");
  if (const std::optional<std::string_view> user = qm::json_string_bytes(connect_opts, "user")) {
    req.user = *user;
    req.has_user = true;
  }
  if (const std::optional<std::string_view> pass = qm::json_string_bytes(connect_opts, "pass")) {
    req.password = qm::secret_string(std::string(*pass));
    req.has_password = true;
  }
  return req.has_user && req.has_password;
}

auth_callout_read_t auth_callout_read(natsMsg* msg, auth_request_t& req) {
  const char* data = natsMsg_GetData(msg);
  const int len = natsMsg_GetDataLength(msg);
  if (data == nullptr || len <= 0) return AUTH_CALLOUT_EMPTY;
  const bool complete = extract_auth_request(std::string_view(data, static_cast<size_t>(len)), req);
  qm_nats_msg_wipe(msg);
  if (!complete) return AUTH_CALLOUT_MALFORMED;
  log_trace("auth_callout: request user=%s server=%s user_nkey=%s...", log_safe(req.user).c_str(),
            req.server_id.empty() ? "(null)" : log_safe(req.server_id).c_str(),
            req.user_nkey.empty() ? "(null)" : log_safe(std::string_view(req.user_nkey).substr(0, 12)).c_str());
  return AUTH_CALLOUT_REQUEST;
}

std::optional<std::string> auth_callout_answer_now(auth_decider_t* decider, const auth_jwt_ctx_t* jwt,
                                                   const auth_request_t& req) {
  const std::optional<auth_verdict> verdict = auth_decide_now(decider, {AUTH_ASKER_CALLOUT, req.user, req.password});
  if (!verdict) return std::nullopt;
  return s_answer(jwt, req, *verdict);
}

std::string auth_callout_answer(auth_decider_t* decider, const auth_jwt_ctx_t* jwt, const auth_request_t& req) {
  return s_answer(jwt, req, auth_decide(decider, {AUTH_ASKER_CALLOUT, req.user, req.password}));
}

std::string auth_callout_refuse_malformed(const auth_jwt_ctx_t* jwt, const auth_request_t& req) {
  log_warn("auth_callout: malformed auth request \u2014 sending deny");
  broker_metrics_count_auth(BROKER_METRICS_AUTH_CALLOUT, BROKER_METRICS_ERROR, req.received_ns);
  char* token = nullptr;
  const int rc =
      auth_jwt_sign_deny(jwt, req.server_id.c_str(), req.user_nkey.c_str(), "malformed auth request", &token);
  return s_hand_over(rc, token);
}
