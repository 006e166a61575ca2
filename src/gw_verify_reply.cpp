#include "gw_verify_reply.hpp"

#include <json-c/json.h>

#include <climits>
#include <cstring>

#include "qm_handles.hpp"

namespace {

qm::opt_string s_string_member(json_object* doc, const char* name) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(doc, name, &value) || !json_object_is_type(value, json_type_string))
    return std::nullopt;
  return std::string(json_object_get_string(value));
}

}  // namespace

std::optional<gw_verify_reply> gw_verify_reply_parse(const char* json) {
  if (json == nullptr) return std::nullopt;
  const size_t len = strlen(json);
  qm::json_tokener_ptr tok(json_tokener_new());
  if (!tok || len > INT_MAX) return std::nullopt;
  // Strictly JSON: json-c would otherwise read "truE" as true, which the auth service never sends.
  json_tokener_set_flags(tok.get(), JSON_TOKENER_STRICT);
  const qm::json_ptr doc(json_tokener_parse_ex(tok.get(), json, static_cast<int>(len)));
  if (!doc || json_tokener_get_error(tok.get()) != json_tokener_success) return std::nullopt;
  gw_verify_reply reply;
  json_object* ok = nullptr;
  reply.ok = json_object_object_get_ex(doc.get(), "ok", &ok) && json_object_is_type(ok, json_type_boolean) &&
             json_object_get_boolean(ok);
  reply.reason = s_string_member(doc.get(), "reason");
  reply.backend = s_string_member(doc.get(), "backend");
  reply.profile = s_string_member(doc.get(), "profile");
  return reply;
}
