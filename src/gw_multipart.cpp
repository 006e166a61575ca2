#include "gw_multipart.hpp"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "log.hpp"
#include "qm_cpp.hpp"
#include "qm_handles.hpp"

namespace {

constexpr size_t kFirstBufferBytes = 4096;

// Which part the post processor's last call was for.
enum class s_part { none, request, payload, other };

}  // namespace

struct gw_multipart {
  size_t request_cap_bytes = 0;
  size_t payload_cap_bytes = 0;
  qm::malloc_ptr<char> request;  // NUL-terminated once allocated
  size_t request_len = 0;
  size_t request_alloc = 0;
  size_t payload_len = 0;
  s_part last_part = s_part::none;
  uint64_t last_part_end = 0;  // offset after the last call's bytes
  bool seen_request = false;
  bool seen_payload = false;
  bool overflow = false;
  bool malformed = false;
  bool duplicate_request = false;
  bool duplicate_payload = false;
  bool staging_failed = false;

  bool refused() const { return overflow || malformed || duplicate_request || duplicate_payload || staging_failed; }
};

namespace {

// Appends n bytes unless the total would pass the cap. The buffer doubles from 4096
// bytes and never grows beyond the cap + 1.
bool s_append_request(gw_multipart& parts, const char* data, size_t n) {
  const size_t max = parts.request_cap_bytes;
  if (max != 0 && (n > max || parts.request_len > max - n)) return false;
  if (n > SIZE_MAX - 1 - parts.request_len) return false;
  const size_t needed = parts.request_len + n + 1;
  if (needed > parts.request_alloc) {
    size_t size = parts.request_alloc != 0 ? parts.request_alloc : kFirstBufferBytes;
    while (size < needed) size = size > SIZE_MAX / 2 ? needed : size * 2;
    if (max != 0 && size > max + 1) size = max + 1;
    char* grown = static_cast<char*>(realloc(parts.request.get(), size));
    if (grown == nullptr) return false;
    (void)parts.request.release();
    parts.request.reset(grown);
    parts.request_alloc = size;
  }
  if (n > 0) memcpy(parts.request.get() + parts.request_len, data, n);
  parts.request_len += n;
  parts.request.get()[parts.request_len] = '\0';
  return true;
}

// True when this call begins a second part of `part`.
bool s_begins_another_part(gw_multipart& parts, s_part part, bool seen, uint64_t offset, size_t size) {
  const bool again = seen && offset == 0 && (parts.last_part != part || parts.last_part_end > 0);
  parts.last_part = part;
  parts.last_part_end = offset + size;
  return again;
}

// Whether the payload's bytes fit under its cap; they count either way.
bool s_count_payload(gw_multipart& parts, size_t size) {
  const size_t cap = parts.payload_cap_bytes;
  if (cap != 0 && (size > cap || parts.payload_len > cap - size)) return false;
  parts.payload_len += size;
  return true;
}

// A whole text that is one JSON object.
bool s_is_json_object(const char* text, size_t len) {
  qm::json_tokener_ptr tok(json_tokener_new());
  if (!tok || len > INT_MAX) return false;
  qm::json_ptr doc(json_tokener_parse_ex(tok.get(), text, static_cast<int>(len)));
  if (!doc || json_tokener_get_error(tok.get()) != json_tokener_success) return false;
  for (size_t at = json_tokener_get_parse_end(tok.get()); at < len; ++at)
    if (strchr(" \t\r\n", text[at]) == nullptr) return false;
  return json_object_is_type(doc.get(), json_type_object);
}

}  // namespace

gw_multipart_t* gw_multipart_create(size_t request_cap_bytes, size_t payload_cap_bytes) {
  try {
    auto parts = std::make_unique<gw_multipart>();
    parts->request_cap_bytes = request_cap_bytes;
    parts->payload_cap_bytes = payload_cap_bytes;
    return parts.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void gw_multipart_destroy(gw_multipart_t* parts) { std::unique_ptr<gw_multipart> owned(parts); }

bool gw_multipart_feed(gw_multipart_t* parts, const char* name, uint64_t offset, const char* data, size_t size) {
  if (parts == nullptr) return false;
  if (name == nullptr || *name == '\0') {
    parts->malformed = true;
  } else if (strcmp(name, "request") == 0) {
    if (s_begins_another_part(*parts, s_part::request, parts->seen_request, offset, size))
      parts->duplicate_request = true;
    parts->seen_request = true;
    if (!s_append_request(*parts, data, size)) parts->overflow = true;
  } else if (strcmp(name, "payload") == 0) {
    if (s_begins_another_part(*parts, s_part::payload, parts->seen_payload, offset, size))
      parts->duplicate_payload = true;
    parts->seen_payload = true;
    if (!s_count_payload(*parts, size)) parts->overflow = true;
    return size > 0 && !parts->refused();
  } else {
    parts->last_part = s_part::other;
    // Once per request: a body of thousands of stray parts must not flood the log.
    if (!parts->malformed) log_debug("http_frontend: ignoring unexpected multipart field '%s'", log_safe(name).c_str());
    parts->malformed = true;
  }
  return false;
}

void gw_multipart_fail(gw_multipart_t* parts, gw_multipart_verdict_t cause) {
  if (parts == nullptr) return;
  if (cause == GW_MULTIPART_STAGING_FAILED) {
    parts->staging_failed = true;
  } else {
    parts->malformed = true;
  }
}

bool gw_multipart_refused(const gw_multipart_t* parts) { return parts == nullptr || parts->refused(); }

gw_multipart_verdict_t gw_multipart_verdict(const gw_multipart_t* parts) {
  if (parts == nullptr) return GW_MULTIPART_MALFORMED;
  if (parts->overflow) return GW_MULTIPART_TOO_LARGE;
  if (parts->malformed) return GW_MULTIPART_MALFORMED;
  if (parts->duplicate_request) return GW_MULTIPART_DUPLICATE_REQUEST;
  if (parts->duplicate_payload) return GW_MULTIPART_DUPLICATE_PAYLOAD;
  if (parts->request_len == 0) return GW_MULTIPART_MISSING_REQUEST;
  if (parts->staging_failed) return GW_MULTIPART_STAGING_FAILED;
  // The payload's key is added to the request, which must be an object for that.
  if (parts->payload_len > 0 && !s_is_json_object(parts->request.get(), parts->request_len))
    return GW_MULTIPART_REQUEST_NOT_OBJECT;
  return GW_MULTIPART_OK;
}

const char* gw_multipart_request(const gw_multipart_t* parts, size_t* len) {
  const bool any = parts != nullptr && parts->request;
  if (len != nullptr) *len = any ? parts->request_len : 0;
  return any ? parts->request.get() : "";
}

size_t gw_multipart_payload_len(const gw_multipart_t* parts) { return parts != nullptr ? parts->payload_len : 0; }
