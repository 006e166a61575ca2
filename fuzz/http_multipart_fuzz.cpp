// The REST door's multipart part rules, driven as the post processor drives them: the
// input describes a body's parts, each handed over in chunks at growing offsets. The
// verdict is checked against one worked out from the parts themselves, and what the
// rules keep (the request's text, the payload's staged bytes) against the parts' bytes.
//
// Input: request cap - 1, payload cap (0: none), flags (bit 0: the body was cut short,
// bit 1: staging fails), then per part: kind, length, chunk size (0: one call), bytes.
#include <cstdint>
#include <cstdlib>
#include <algorithm>
#include <string>
#include <vector>

#include "gw_multipart.hpp"

namespace {

const char* const kNames[] = {"request", "payload", "", nullptr, "file", "REQUEST"};
constexpr size_t kKinds = sizeof kNames / sizeof kNames[0];

struct s_part {
  size_t kind;
  std::string bytes;
  size_t chunk;
};

struct s_model {
  size_t requests = 0;
  size_t payloads = 0;
  std::string request;
  std::string payload;
  bool stray = false;
};

// The post processor gives no sign of a part's start: an empty part and a following one
// of the same name arrive as one.
s_model s_expected(const std::vector<s_part>& parts) {
  s_model m;
  for (size_t i = 0; i < parts.size(); ++i) {
    const s_part& p = parts[i];
    const bool merges = p.bytes.empty() && i + 1 < parts.size() && parts[i + 1].kind == p.kind;
    if (p.kind == 0) {
      m.requests += merges ? 0 : 1;
      m.request += p.bytes;
    } else if (p.kind == 1) {
      m.payloads += merges ? 0 : 1;
      m.payload += p.bytes;
    } else {
      m.stray = true;
    }
  }
  return m;
}

void s_check(bool holds) {
  if (!holds) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const size_t request_cap = size_t{data[0]} + 1;
  const size_t payload_cap = data[1];
  const bool cut_short = (data[2] & 1) != 0;
  const bool staging_fails = (data[2] & 2) != 0;
  std::vector<s_part> parts;
  for (size_t at = 3; at + 3 <= size;) {
    s_part part{data[at] % kKinds, {}, data[at + 2]};
    const size_t len = std::min<size_t>(data[at + 1], size - at - 3);
    part.bytes.assign(reinterpret_cast<const char*>(data + at + 3), len);
    parts.push_back(part);
    at += 3 + len;
  }

  gw_multipart_t* rules = gw_multipart_create(request_cap, payload_cap);
  s_check(rules != nullptr);
  std::string staged;
  bool staged_any = false;
  for (const s_part& part : parts) {
    const size_t chunk = part.chunk != 0 ? part.chunk : std::max<size_t>(part.bytes.size(), 1);
    size_t offset = 0;
    do {
      const size_t n = std::min(chunk, part.bytes.size() - offset);
      const bool was_refused = gw_multipart_refused(rules);
      if (gw_multipart_feed(rules, kNames[part.kind], offset, part.bytes.data() + offset, n)) {
        s_check(!was_refused && n > 0 && part.kind == 1);
        staged_any = true;
        if (staging_fails) gw_multipart_fail(rules, GW_MULTIPART_STAGING_FAILED);
        staged.append(part.bytes, offset, n);
      }
      offset += n;
    } while (offset < part.bytes.size());
  }
  if (cut_short) gw_multipart_fail(rules, GW_MULTIPART_MALFORMED);

  const s_model m = s_expected(parts);
  gw_multipart_verdict_t expected = GW_MULTIPART_OK;
  if (m.request.size() > request_cap || (payload_cap != 0 && m.payload.size() > payload_cap)) {
    expected = GW_MULTIPART_TOO_LARGE;
  } else if (m.stray || cut_short) {
    expected = GW_MULTIPART_MALFORMED;
  } else if (m.requests > 1) {
    expected = GW_MULTIPART_DUPLICATE_REQUEST;
  } else if (m.payloads > 1) {
    expected = GW_MULTIPART_DUPLICATE_PAYLOAD;
  } else if (m.request.empty()) {
    expected = GW_MULTIPART_MISSING_REQUEST;
  } else if (staging_fails && staged_any) {
    expected = GW_MULTIPART_STAGING_FAILED;
  } else if (!m.payload.empty() && m.request.find('{') == std::string::npos) {
    expected = GW_MULTIPART_REQUEST_NOT_OBJECT;
  }
  const gw_multipart_verdict_t verdict = gw_multipart_verdict(rules);
  // Whether a text with a brace is one JSON object is the parser's call (it takes comments).
  if (expected == GW_MULTIPART_OK && !m.payload.empty()) {
    s_check(verdict == GW_MULTIPART_OK || verdict == GW_MULTIPART_REQUEST_NOT_OBJECT);
  } else {
    s_check(verdict == expected);
  }
  if (expected != GW_MULTIPART_TOO_LARGE) {
    size_t len = 0;
    const char* request = gw_multipart_request(rules, &len);
    s_check(std::string(request, len) == m.request && request[len] == '\0');
    s_check(gw_multipart_payload_len(rules) == m.payload.size());
  }
  if (verdict == GW_MULTIPART_OK) s_check(staged == m.payload);
  // The other refusals are known before the body ends; a missing request may come with one.
  if (verdict != GW_MULTIPART_MISSING_REQUEST) {
    const bool decided_late = verdict == GW_MULTIPART_OK || verdict == GW_MULTIPART_REQUEST_NOT_OBJECT;
    s_check(gw_multipart_refused(rules) != decided_late);
  }
  gw_multipart_destroy(rules);
  return 0;
}
