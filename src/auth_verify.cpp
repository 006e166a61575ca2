#include "auth_verify.hpp"

#include <string_view>

#include "auth_profile.hpp"
#include "log.hpp"
#include "qm_json.hpp"
#include "qm_nats_conn.hpp"

namespace {

struct verify_answer {
  bool ok = false;
  const char* reason = "";
  const char* backend = "none";
  const char* profile = nullptr;  // a grant's profile name; NULL: the built-in permissions
};

verify_request s_parse(std::string_view body) {
  verify_request req;
  qm::secret_json_ptr root = qm::json_parse_secret(body);
  if (!root || !json_object_is_type(root.get(), json_type_object)) return req;
  if (const std::optional<std::string_view> user = qm::json_string_bytes(root.get(), "user")) req.user.emplace(*user);
  if (const std::optional<std::string_view> password = qm::json_string_bytes(root.get(), "password"))
    req.password.emplace(std::string(*password));
  if (const std::optional<std::string_view> method = qm::json_string_bytes(root.get(), "method"))
    req.method.emplace(*method);
  json_object* revalidate = nullptr;
  if (json_object_object_get_ex(root.get(), "revalidate", &revalidate) &&
      json_object_is_type(revalidate, json_type_boolean))
    req.revalidate = json_object_get_boolean(revalidate);
  return req;
}

std::string s_answer_json(const verify_answer& answer) {
  qm::json_ptr root(json_object_new_object());
  json_object_object_add(root.get(), "ok", json_object_new_boolean(answer.ok));
  json_object_object_add(root.get(), "reason", json_object_new_string(answer.reason));
  json_object_object_add(root.get(), "backend", json_object_new_string(answer.backend));
  if (answer.ok && answer.profile != nullptr)
    json_object_object_add(root.get(), "profile", json_object_new_string(answer.profile));
  return json_object_to_json_string_ext(root.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

// Requests no backend can check are answered before any deciding.
std::optional<verify_answer> s_refuse_unanswerable(auth_decider_t* decider, int backend_type,
                                                   const verify_request& req) {
  if (!req.user || !req.password) {
    log_warn("auth_verify: malformed request (user=%s password=%s method=%s)",
             req.user ? log_safe(*req.user).c_str() : "(absent)", req.password ? "(set)" : "(absent)",
             req.method ? log_safe(*req.method).c_str() : "(absent)");
    return verify_answer{false, "missing user or password", "none"};
  }
  if (auth_decider_creds(decider) == nullptr && auth_decider_ldap(decider) == nullptr) {
    log_error("auth_verify: no backend context (backend_type=%d creds=%p ldap_ctx=%p)", backend_type,
              static_cast<void*>(auth_decider_creds(decider)), static_cast<void*>(auth_decider_ldap(decider)));
    return verify_answer{false, "auth backend not initialized", "none"};
  }
  return std::nullopt;
}

verify_answer s_answer_of(const verify_request& req, const auth_verdict& v) {
  const std::string safe_user = log_safe(*req.user);
  const std::string safe_method = req.method ? log_safe(*req.method) : std::string("(unspecified)");
  const char* user = safe_user.c_str();
  const char* method = safe_method.c_str();
  switch (v.source) {
    case AUTH_VERDICT_CACHED:
      log_info("auth_verify: GRANT user='%s' via=cache method=%s", user, method);
      return {true, "valid credentials (cached)", "cache"};
    case AUTH_VERDICT_CACHED_DENY:
      log_warn("auth_verify: DENY user='%s' via=neg-cache method=%s", user, method);
      return {false, "invalid credentials (cached)", "neg-cache"};
    case AUTH_VERDICT_COALESCED:
      if (v.granted) {
        log_info("auth_verify: GRANT user='%s' via=coalesced method=%s", user, method);
        return {true, "valid credentials (coalesced)", "coalesced"};
      }
      log_warn("auth_verify: DENY user='%s' via=coalesced method=%s", user, method);
      return {false, "invalid credentials (coalesced)", "coalesced-neg"};
    case AUTH_VERDICT_LIVE:
      break;
  }
  if (v.granted) {
    log_info("auth_verify: GRANT user='%s' backend=%s method=%s", user, v.backend, method);
    return {true, "valid credentials", v.backend};
  }
  log_warn("auth_verify: DENY user='%s' backend=%s method=%s", user, v.backend, method);
  return {false, "invalid credentials", v.backend};
}

// A door that verified over NATS finds the caller's profile by this name.
verify_answer s_answer(const verify_request& req, const auth_verdict& v) {
  verify_answer answer = s_answer_of(req, v);
  answer.profile = auth_profile_name(v.profile);
  return answer;
}

// The answer's JSON; every answer given is one verdict of the verify endpoint.
std::string s_counted_answer(const verify_request& req, const verify_answer& answer, bool undecidable) {
  const broker_metrics_verdict_t verdict = undecidable ? BROKER_METRICS_ERROR : broker_metrics_verdict_of(answer.ok);
  broker_metrics_count_auth(BROKER_METRICS_AUTH_VERIFY, verdict, req.received_ns);
  return s_answer_json(answer);
}

auth_question s_question(const verify_request& req) {
  return {AUTH_ASKER_VERIFY, *req.user, *req.password, req.revalidate};
}

}  // namespace

verify_request auth_verify_read(natsMsg* msg) {
  const char* data = natsMsg_GetData(msg);
  const int len = natsMsg_GetDataLength(msg);
  verify_request req;
  if (data != nullptr && len > 0) req = s_parse(std::string_view(data, static_cast<size_t>(len)));
  qm_nats_msg_wipe(msg);
  log_trace("auth_verify: request user=%s method=%s", req.user ? log_safe(*req.user).c_str() : "(absent)",
            req.method ? log_safe(*req.method).c_str() : "(absent)");
  if (req.revalidate && req.user && req.password)
    log_debug("auth_verify: revalidate requested user='%s' \u2014 bypassing cache, consulting live backend",
              log_safe(*req.user).c_str());
  return req;
}

std::optional<std::string> auth_verify_answer_now(auth_decider_t* decider, int backend_type,
                                                  const verify_request& req) {
  if (std::optional<verify_answer> refused = s_refuse_unanswerable(decider, backend_type, req))
    return s_counted_answer(req, *refused, true);
  const std::optional<auth_verdict> verdict = auth_decide_now(decider, s_question(req));
  if (!verdict) return std::nullopt;
  return s_counted_answer(req, s_answer(req, *verdict), false);
}

std::string auth_verify_answer(auth_decider_t* decider, int backend_type, const verify_request& req) {
  if (std::optional<verify_answer> refused = s_refuse_unanswerable(decider, backend_type, req))
    return s_counted_answer(req, *refused, true);
  return s_counted_answer(req, s_answer(req, auth_decide(decider, s_question(req))), false);
}
