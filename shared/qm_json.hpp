// JSON documents that carry secrets (a client's password in an auth request): parsed
// without leaving copies behind, and wiped before they are released.
#pragma once

#include <json-c/json.h>

#include <optional>
#include <string_view>

#include "qm_cpp.hpp"

namespace qm {

// The member `key` of obj when it is of that type, else NULL (also for a NULL obj).
// json_string_member's text ends at the first NUL byte a JSON string may carry as \u0000;
// json_string_bytes gives all of it, for values that are compared or passed on.
const char* json_string_member(json_object* obj, const char* key);
std::optional<std::string_view> json_string_bytes(json_object* obj, const char* key);
json_object* json_object_member(json_object* obj, const char* key);

// Overwrites every string value in the document (nested objects and arrays included).
void json_wipe_strings(json_object* root);

namespace detail {
inline void json_wipe_and_put(json_object* root) {
  json_wipe_strings(root);
  json_object_put(root);
}
}  // namespace detail

// A parsed document whose strings are wiped when it goes.
using secret_json_ptr = c_ptr<json_object, detail::json_wipe_and_put>;

// Parses `text` (up to its first NUL, if any) with a parser whose scratch buffer is wiped
// afterwards. NULL when the text is not JSON.
secret_json_ptr json_parse_secret(std::string_view text);

}  // namespace qm
