// The relay's building blocks below its API: the reply-wait arithmetic, payload keys,
// and the chunked store in "qm-av-scan-data". The demo scan worker speaks the same chunk
// layout through these, and the tests reach them here; the gateway's callers use
// gw_nats_relay.hpp only.
#pragma once

#include <nats/nats.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "gw_nats_relay.hpp"

inline constexpr const char* GW_SCAN_DATA_BUCKET = "qm-av-scan-data";
// Every chunk holds this many bytes but the last, which holds the rest.
inline constexpr size_t GW_KV_CHUNK_SIZE = 524288;

// The bounds of the reply wait for requests that carry a scan budget.
struct gw_wait_bounds {
  unsigned long floor_ms;
  unsigned long ceiling_ms;
};

// "SCANTIMEOUT" and "SCANBANDWIDTH" of request_json, each 0 unless present and above 0.
void scan_params_from_json(const char* request_json, uint64_t* scan_timeout_ms, uint64_t* bandwidth);

// Extra wait for moving payload_len bytes at `bandwidth`; 0 when either is 0.
uint64_t gw_transfer_allowance_ms(size_t payload_len, uint64_t bandwidth);

// The reply wait: caller_timeout_ms as it is without a scan budget, else the budget plus
// transfer allowance plus a margin, raised to the floor and lowered to the ceiling.
// *scan_budget_ms receives the request's SCANTIMEOUT (0 without one).
unsigned long gw_relay_wait_ms(const gw_wait_bounds& bounds, const char* subject, const char* request_json,
                               size_t data_len, unsigned long caller_timeout_ms, uint64_t* scan_budget_ms);
unsigned long gw_effective_relay_timeout_ms(const gw_nats_relay_t* relay, const char* subject,
                                            const char* request_json, size_t data_len, unsigned long caller_timeout_ms,
                                            uint64_t* scan_budget_ms);

// A new key "gw-<pid>-<hex seconds>-<hex nanoseconds>" of the monotonic clock, never
// the same twice in one process (release with free()); NULL when memory runs out.
char* generate_unique_key();

// A new payload key bound to the login that stages it: "<owner>.<user>.<unique key>",
// where owner is 'c' for a client's request data and 'w' for a worker's reply data, so
// that a grant can name the user's own keys by "{user}". A user name holding anything
// but letters, digits, '-', '_' and '=' (no key could carry it) gets "x.<unique key>",
// which no grant names; a NULL or empty user the bare unique key (the gateway's own
// requests). Empty when memory runs out.
std::string gw_staged_key(char owner, const char* user);

// Lifetime of staged entries for a reply wait of timeout_ms: 110 % of it, at least 1 s.
int64_t gw_kv_ttl_ms_for(uint64_t timeout_ms);

// Stores data under `key` of the bucket `kv` as chunks "key-0" ... and the manifest
// "key" ({"chunks":n,"size":len}) last, publishing the chunks pipelined on a JetStream
// context of its own made from nc. With ttl_ms > 0 every entry asks for that
// per-message TTL, until the server has refused one: from then on this process relies
// on the bucket's TTL. 0, or -1 with the chunks written so far left in the bucket.
int kvstore_put_chunked(natsConnection* nc, kvStore* kv, const char* key, const char* data, size_t data_len,
                        int64_t ttl_ms);

// The payload under `key`, newly allocated (release with free()). Consistent across the
// bucket's replicas: an entry a direct read does not find is read again from the stream
// leader through nc, so a payload written through another node is always found. -1 when the manifest
// or a chunk is missing or they disagree; -2 (logged) when the manifest is refused
// before anything is allocated: larger than max_len (0: no cap), not the chunk count a
// writer makes for its size, or its last chunk missing or of another size.
int kvstore_get_chunked(natsConnection* nc, kvStore* kv, const char* key, size_t max_len, char** out_data,
                        size_t* out_len);

// Deletes the chunks the manifest names, then the manifest, pipelined on a JetStream
// context of its own made from nc; errors are ignored.
void kvstore_delete_chunked(natsConnection* nc, kvStore* kv, const char* key);

// Deletes "key-0" ... "key-(num_chunks-1)" and "key" whether or not a manifest exists:
// what a failed put may have left behind. Errors are ignored.
void kvstore_delete_chunks(natsConnection* nc, kvStore* kv, const char* key, size_t num_chunks);

// How many chunks a payload of data_len bytes takes (at least 1).
size_t gw_kv_num_chunks(size_t data_len);

// A payload's manifest {"chunks":n,"size":len} as a reader finds it: only a claim.
struct gw_kv_manifest {
  int64_t chunks = 0;
  int64_t size = 0;  // 0 when absent
};

// The manifest in text (len bytes, one JSON object with "chunks"); nullopt otherwise.
std::optional<gw_kv_manifest> gw_kv_manifest_parse(const char* text, size_t len);

// Why a manifest may not be read back before anything is allocated for it (out of
// range, above max_len when that is not 0, or not the chunk count a writer makes for its
// size); NULL when it may, pending the check of its last chunk.
const char* gw_kv_manifest_refusal(const gw_kv_manifest& manifest, size_t max_len);

// The payload key a worker's reply names by "_kv_key" into `key`: 0 when it names none
// (or is no JSON object), 1 when it names one, -1 when the key could not be part of a
// subject, which no worker's honest key is (the reply is then refused).
int gw_reply_payload_key(const char* reply_json, std::string& key);

// Tests only: whether this process has given up on per-message TTLs, and a reset of
// that and of the once-per-process warnings.
bool gw_nats_relay_msg_ttl_unsupported();
void gw_nats_relay_reset_once_flags();
