// The AMQP door's reading of a delivery: the encoded message decoded, its
// [request JSON, file] body taken apart, and its address put through the subject
// policy. Whatever is taken must lie inside the decoded message.
#include <proton/message.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "gw_amqp_acceptor.hpp"
#include "gw_subject_policy.hpp"
#include "qm_handles.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;  // the door refuses an empty delivery before decoding
  qm::pn_message_ptr msg(pn_message());
  if (!msg) abort();
  if (pn_message_decode(msg.get(), reinterpret_cast<const char*>(data), size) != 0) return 0;

  std::string json;
  pn_bytes_t payload{};
  if (gw_amqp_body_parts(msg.get(), json, payload)) {
    if (json.size() > size || payload.size > size) abort();  // both are parts of the input
    if (payload.size > 0 && payload.start == nullptr) abort();
  }
  const char* address = pn_message_get_address(msg.get());
  if (address != nullptr) {
    const gw_target admitted = gw_subject_policy_admit(address, "scan,qm-av-quarantine", nullptr, "fuzz-user");
    if (admitted.verdict == GW_TARGET_OK && admitted.subject.empty()) abort();
  }
  return 0;
}
