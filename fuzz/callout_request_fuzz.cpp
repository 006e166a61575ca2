// The callout's request extraction on arbitrary tokens, and on arbitrary claims wrapped
// into a token the way nats-server sends them. Whatever it accepts has a user and a
// password; whatever it refuses must not crash or leak.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "auth_callout.hpp"
#include "auth_jwt.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string raw(reinterpret_cast<const char*>(data), size);
  auth_request_t direct;
  if (extract_auth_request(raw, direct) && (!direct.has_user || !direct.has_password)) abort();

  const std::string token = "eyJ0eXAiOiJKV1QiLCJhbGciOiJlZDI1NTE5LW5rZXkifQ." + base64url_encode(data, size) + ".sig";
  auth_request_t wrapped;
  if (extract_auth_request(token, wrapped) && (!wrapped.has_user || !wrapped.has_password)) abort();
  return 0;
}
