// What a worker (or a client, for the request) hands the relay: a chunk manifest, a
// reply naming its payload key, a verify reply, a request's scan budget. A manifest that
// passes the checks describes exactly the chunks a writer makes; a key that passes can
// be part of a subject; a wait with a budget stays within its bounds.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "gw_nats_relay_internal.hpp"
#include "gw_verify_reply.hpp"

namespace {

void s_check_manifest(const std::string& text) {
  const auto manifest = gw_kv_manifest_parse(text.data(), text.size());
  if (!manifest) return;
  for (const size_t max_len : {size_t{0}, size_t{1} << 20}) {
    if (gw_kv_manifest_refusal(*manifest, max_len) != nullptr) continue;
    const auto size = static_cast<uint64_t>(manifest->size);
    const auto chunks = static_cast<uint64_t>(manifest->chunks);
    if (manifest->size <= 0 || manifest->chunks < 1) abort();
    if (max_len != 0 && size > max_len) abort();
    if (size > chunks * GW_KV_CHUNK_SIZE || size <= (chunks - 1) * GW_KV_CHUNK_SIZE) abort();
  }
}

void s_check_payload_key(const std::string& text) {
  std::string key;
  if (gw_reply_payload_key(text.c_str(), key) != 1) return;
  // '*' and '>' are wildcards only as whole tokens; blanks and controls end a subject.
  for (size_t begin = 0, end = 0; end != std::string::npos; begin = end + 1) {
    end = key.find('.', begin);
    const std::string token = key.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
    if (token.empty() || token == "*" || token == ">") abort();
  }
  for (const unsigned char c : key)
    if (c <= ' ' || c == 0x7f) abort();
}

void s_check_wait(const std::string& text) {
  const gw_wait_bounds bounds{1000, 60000};
  uint64_t budget = 0;
  const unsigned long wait = gw_relay_wait_ms(bounds, "scan", text.c_str(), text.size(), 5000, &budget);
  if (budget == 0 ? wait != 5000 : wait < bounds.floor_ms || wait > bounds.ceiling_ms) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  s_check_manifest(text);
  s_check_payload_key(text);
  s_check_wait(text);
  const auto verify = gw_verify_reply_parse(text.c_str());
  if (verify && verify->ok && text.find("true") == std::string::npos) abort();
  return 0;
}
