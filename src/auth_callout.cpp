#include "auth_callout.hpp"

#include <vector>

#include "auth_jwt.hpp"
#include "auth_profile.hpp"
#include "log.hpp"
#include "qm_json.hpp"
#include "qm_nats_conn.hpp"

namespace {

// The header nats-server names its own xkey in when it seals a callout request.
constexpr const char* kServerXkeyHeader = "Nats-Server-Xkey";

// The NULL-terminated view json arrays are built from.
class c_list {
 public:
  explicit c_list(const std::vector<std::string>& items) {
    for (const std::string& item : items) view_.push_back(item.c_str());
    view_.push_back(nullptr);
  }
  const char* const* get() const { return view_.data(); }

 private:
  std::vector<const char*> view_;
};

const char* s_profile_label(const auth_profile_t* profile) {
  const char* name = auth_profile_name(profile);
  return name ? name : "default";
}

std::string s_hand_over(int rc, char* token) {
  qm::malloc_ptr<char> owned(token);
  return rc == 0 && owned ? std::string(owned.get()) : std::string();
}

std::string s_sign_deny(const auth_signer& signer, const auth_request_t& req, const char* reason) {
  char* token = nullptr;
  const int rc = auth_jwt_sign_deny(signer.jwt, req.server_id.c_str(), req.user_nkey.c_str(), reason, &token);
  return s_hand_over(rc, token);
}

// A profile with allow_responses may answer each request it receives with its reply plus
// progress messages, one a second, for as long as the gateway's longest wait (300 s).
constexpr int kResponsesPerRequest = 400;

std::string s_sign_grant(const auth_signer& signer, const auth_request_t& req, const auth_grant& grant) {
  const c_list pub_allow(grant.pub_allow), pub_deny(grant.pub_deny), sub_allow(grant.sub_allow),
      sub_deny(grant.sub_deny);
  char* token = nullptr;
  const int rc = auth_jwt_sign_grant_ex(signer.jwt, req.server_id.c_str(), req.user_nkey.c_str(),
                                        signer.account.c_str(), pub_allow.get(), pub_deny.get(), sub_allow.get(),
                                        sub_deny.get(), grant.allow_responses ? kResponsesPerRequest : 0, &token);
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

// A sealed request gets a sealed answer; a token that could not be made stays empty.
// Every answer given is one verdict of the callout (an error when no token could be made).
std::string s_sealed(const auth_signer& signer, const auth_request_t& req, std::string token, bool granted) {
  const broker_metrics_verdict_t counted = token.empty() ? BROKER_METRICS_ERROR : broker_metrics_verdict_of(granted);
  broker_metrics_count_auth(BROKER_METRICS_AUTH_CALLOUT, counted, req.received_ns);
  if (req.server_xkey.empty() || token.empty()) return token;
  return auth_jwt_seal(signer.jwt, token, req.server_xkey);
}

std::string s_answer(const auth_signer& signer, const auth_request_t& req, const auth_verdict& verdict) {
  auth_grant grant;
  if (verdict.granted && !auth_profile_grant(verdict.profile, req.user.c_str(), grant)) {
    // "{user}" would turn such a name into wildcards or extra tokens of the grant.
    log_warn("auth_callout: DENY user=%s profile=%s reason=user-name-unfit-for-templated-grant",
             log_safe(req.user).c_str(), s_profile_label(verdict.profile));
    return s_sealed(signer, req, s_sign_deny(signer, req, "user name unfit for a templated grant"), false);
  }
  s_log_verdict(req, verdict);
  if (!verdict.granted) return s_sealed(signer, req, s_sign_deny(signer, req, "invalid credentials"), false);
  return s_sealed(signer, req, s_sign_grant(signer, req, grant), true);
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

auth_callout_read_t auth_callout_read(natsMsg* msg, const auth_signer& signer, auth_request_t& req) {
  const char* data = natsMsg_GetData(msg);
  const int len = natsMsg_GetDataLength(msg);
  if (data == nullptr || len <= 0) return AUTH_CALLOUT_EMPTY;
  const std::string_view payload(data, static_cast<size_t>(len));
  const char* server_xkey = nullptr;
  bool complete = false;
  if (natsMsgHeader_Get(msg, kServerXkeyHeader, &server_xkey) == NATS_OK && server_xkey != nullptr) {
    req.server_xkey = server_xkey;
    if (std::optional<qm::secret_string> opened = auth_jwt_open(signer.jwt, payload, req.server_xkey))
      complete = extract_auth_request(opened->str(), req);
    else
      log_warn("auth_callout: a sealed request does not open \u2014 is nats-server's auth_callout xkey this broker's "
               "--print-issuer-xkey?");
  } else {
    complete = extract_auth_request(payload, req);
  }
  qm_nats_msg_wipe(msg);
  if (!complete) return AUTH_CALLOUT_MALFORMED;
  log_trace("auth_callout: request user=%s server=%s user_nkey=%s... sealed=%s", log_safe(req.user).c_str(),
            req.server_id.empty() ? "(null)" : log_safe(req.server_id).c_str(),
            req.user_nkey.empty() ? "(null)" : log_safe(std::string_view(req.user_nkey).substr(0, 12)).c_str(),
            req.server_xkey.empty() ? "no" : "yes");
  return AUTH_CALLOUT_REQUEST;
}

std::optional<std::string> auth_callout_answer_now(auth_decider_t* decider, const auth_signer& signer,
                                                   const auth_request_t& req) {
  const std::optional<auth_verdict> verdict = auth_decide_now(decider, {AUTH_ASKER_CALLOUT, req.user, req.password});
  if (!verdict) return std::nullopt;
  return s_answer(signer, req, *verdict);
}

std::string auth_callout_answer(auth_decider_t* decider, const auth_signer& signer, const auth_request_t& req) {
  return s_answer(signer, req, auth_decide(decider, {AUTH_ASKER_CALLOUT, req.user, req.password}));
}

std::string auth_callout_refuse_malformed(const auth_signer& signer, const auth_request_t& req) {
  log_warn("auth_callout: malformed auth request \u2014 sending deny");
  // A malformed request is the callout's error, whatever its deny token says.
  broker_metrics_count_auth(BROKER_METRICS_AUTH_CALLOUT, BROKER_METRICS_ERROR, req.received_ns);
  std::string token = s_sign_deny(signer, req, "malformed auth request");
  if (req.server_xkey.empty() || token.empty()) return token;
  return auth_jwt_seal(signer.jwt, token, req.server_xkey);
}
