// The HTTP door's check of an Authorization header for Basic credentials holding a NUL
// byte, against an independent strict Base64 decoder: wherever that one decodes the
// credentials, both must agree on whether they hold a NUL.
#include <sodium.h>
#include <strings.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "gw_http_frontend.hpp"

namespace {

// The credentials' bytes when the header is "Basic" and strict padded Base64 (blanks
// around it allowed); false otherwise.
bool s_strict_decode(const std::string& header, std::vector<unsigned char>& out) {
  if (header.size() < 6 || strncasecmp(header.c_str(), "Basic ", 6) != 0) return false;
  const size_t begin = header.find_first_not_of(' ', 6);
  if (begin == std::string::npos) return false;
  const size_t end = header.find_last_not_of(' ') + 1;
  const std::string encoded = header.substr(begin, end - begin);
  // libsodium decodes some bytes above 0x7f as if they were Base64 digits: keep to the alphabet.
  if (encoded.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") != std::string::npos)
    return false;
  out.assign(encoded.size(), 0);
  size_t len = 0;
  if (sodium_base642bin(out.data(), out.size(), encoded.data(), encoded.size(), nullptr, &len, nullptr,
                        sodium_base64_VARIANT_ORIGINAL) != 0)
    return false;
  out.resize(len);
  return !out.empty();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string header(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
  const bool holds_nul = gw_http_basic_credentials_hold_nul(header.c_str());
  std::vector<unsigned char> decoded;
  if (s_strict_decode(header, decoded) && holds_nul != (memchr(decoded.data(), 0, decoded.size()) != nullptr)) abort();
  return 0;
}
