// decode_jwt_payload on arbitrary tokens, and the round trip through base64url: the
// payload segment of any text must decode to what json-c makes of the text itself.
#include <json-c/json.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "auth_jwt.hpp"

namespace {

std::string serialised(json_object* obj) {
  return obj ? json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN) : "<null>";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string token(reinterpret_cast<const char*>(data), size);
  json_object_put(decode_jwt_payload(token.c_str()));

  const std::string wrapped = "h." + base64url_encode(data, size) + ".s";
  json_object* decoded = decode_jwt_payload(wrapped.c_str());
  json_object* direct = json_tokener_parse(token.c_str());  // stops at the first NUL, as the decoder does
  if (serialised(decoded) != serialised(direct)) abort();
  json_object_put(decoded);
  json_object_put(direct);
  return 0;
}
