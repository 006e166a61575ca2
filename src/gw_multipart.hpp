// The part rules of the REST door's multipart scan request, fed what libmicrohttpd's post
// processor hands out: (part name, offset in the part, bytes) per call. A request holds
// one "request" part (the JSON, at most its cap) and at most one "payload" part (the file,
// at most its cap); a part of another name or of none refuses the request. The post
// processor does not say where a part begins: a call at offset 0 after another part, or
// after bytes of its own, begins a second part of that name. So an empty part followed
// by one of the same name reads as a single part, which is harmless: it adds no bytes.
// No connection is needed, so the rules can be driven from a buffer (the fuzz target).
#pragma once

#include <cstddef>
#include <cstdint>

struct gw_multipart;
using gw_multipart_t = gw_multipart;

// The verdict on a whole body, in the order the checks are made: the first that applies.
enum gw_multipart_verdict_t {
  GW_MULTIPART_OK,
  GW_MULTIPART_TOO_LARGE,          // a part passed its cap
  GW_MULTIPART_MALFORMED,          // a part of another name or none, or a body the post processor gave up on
  GW_MULTIPART_DUPLICATE_REQUEST,  // a second "request" part
  GW_MULTIPART_DUPLICATE_PAYLOAD,  // a second "payload" part
  GW_MULTIPART_MISSING_REQUEST,    // no "request" part, or an empty one
  GW_MULTIPART_STAGING_FAILED,     // the payload's bytes could not be kept
  GW_MULTIPART_REQUEST_NOT_OBJECT, // a payload came with a request that is not one JSON object
};

// Caps in bytes, 0 for none. NULL when out of memory.
gw_multipart_t* gw_multipart_create(size_t request_cap_bytes, size_t payload_cap_bytes);

// Accepts NULL.
void gw_multipart_destroy(gw_multipart_t* parts);

// One call of the post processor (name may be NULL). True when `data` are payload bytes
// the caller must keep (stage): some bytes of the one payload part of a request not yet
// refused. Once refused, nothing more is to be kept, and what was kept may go.
bool gw_multipart_feed(gw_multipart_t* parts, const char* name, uint64_t offset, const char* data, size_t size);

// Refuses the request for a cause outside the parts: GW_MULTIPART_MALFORMED (the post
// processor failed) or GW_MULTIPART_STAGING_FAILED (the kept bytes could not be stored).
void gw_multipart_fail(gw_multipart_t* parts, gw_multipart_verdict_t cause);

// True once the request is bound to be refused, whatever follows.
bool gw_multipart_refused(const gw_multipart_t* parts);

// The verdict once the body has ended (see the enum's order).
gw_multipart_verdict_t gw_multipart_verdict(const gw_multipart_t* parts);

// The "request" part so far, NUL-terminated ("" when none), and its length in *len.
const char* gw_multipart_request(const gw_multipart_t* parts, size_t* len);

// Payload bytes seen, kept or not.
size_t gw_multipart_payload_len(const gw_multipart_t* parts);
