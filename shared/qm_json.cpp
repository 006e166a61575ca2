#include "qm_json.hpp"

#include <cstring>

#include "qm_handles.hpp"

namespace qm {

const char* json_string_member(json_object* obj, const char* key) {
  json_object* member = nullptr;
  if (obj == nullptr || !json_object_object_get_ex(obj, key, &member)) return nullptr;
  return json_object_is_type(member, json_type_string) ? json_object_get_string(member) : nullptr;
}

std::optional<std::string_view> json_string_bytes(json_object* obj, const char* key) {
  json_object* member = nullptr;
  if (obj == nullptr || !json_object_object_get_ex(obj, key, &member)) return std::nullopt;
  if (!json_object_is_type(member, json_type_string)) return std::nullopt;
  return std::string_view(json_object_get_string(member), static_cast<size_t>(json_object_get_string_len(member)));
}

json_object* json_object_member(json_object* obj, const char* key) {
  json_object* member = nullptr;
  if (obj == nullptr || !json_object_object_get_ex(obj, key, &member)) return nullptr;
  return json_object_is_type(member, json_type_object) ? member : nullptr;
}

void json_wipe_strings(json_object* root) {
  if (root == nullptr) return;
  switch (json_object_get_type(root)) {
    case json_type_string: {
      // json-c hands its own buffer out read-only; it is ours to clear before the put.
      const int len = json_object_get_string_len(root);
      if (len > 0) OPENSSL_cleanse(const_cast<char*>(json_object_get_string(root)), static_cast<size_t>(len));
      break;
    }
    case json_type_object: {
      json_object_object_foreach(root, key, value) {
        (void)key;
        json_wipe_strings(value);
      }
      break;
    }
    case json_type_array: {
      const size_t n = json_object_array_length(root);
      for (size_t i = 0; i < n; ++i) json_wipe_strings(json_object_array_get_idx(root, i));
      break;
    }
    default:
      break;
  }
}

secret_json_ptr json_parse_secret(std::string_view text) {
  const size_t until_nul = text.find('\0');
  if (until_nul != std::string_view::npos) text = text.substr(0, until_nul);
  json_tokener_ptr tokener(json_tokener_new());
  if (!tokener) return nullptr;
  secret_json_ptr root(json_tokener_parse_ex(tokener.get(), text.data(), static_cast<int>(text.size())));
  // A document that is complete without a closing token (a bare number) waits for more.
  if (!root && json_tokener_get_error(tokener.get()) == json_tokener_continue)
    root.reset(json_tokener_parse_ex(tokener.get(), "", 1));
  if (json_tokener_get_error(tokener.get()) != json_tokener_success) root.reset();
  // The parser collects every string in its scratch buffer before it makes the value.
  printbuf* scratch = tokener->pb;
  if (scratch != nullptr && scratch->buf != nullptr && scratch->size > 0)
    OPENSSL_cleanse(scratch->buf, static_cast<size_t>(scratch->size));
  return root;
}

}  // namespace qm
