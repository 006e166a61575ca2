// The gateway's one NATS client. Every scan request of the front doors and every AMQP
// password check becomes one request/reply exchange with a worker service: a core
// request on the caller's subject, or, for the services of --js-work-services, a job in
// the service's JetStream work queue answered on a private inbox. Binary payloads
// travel through the "qm-av-scan-data" bucket in chunks, named by "_kv_key".
#pragma once

#include <nats/nats.h>

#include <cstddef>

#include "gw_config.hpp"
#include "gw_subject_policy.hpp"

struct gw_nats_relay;
using gw_nats_relay_t = gw_nats_relay;

// Connects as the gateway user of `cfg` and binds the scan-data bucket (made by the KV
// bootstrap, never here). NULL on any failure, logged where it happened.
gw_nats_relay_t* gw_nats_relay_create(const gw_config_t* cfg);

// Accepts NULL. No other thread may still be inside gw_nats_relay_request.
void gw_nats_relay_destroy(gw_nats_relay_t* relay);

// Learns from the scan-data bucket's stream, as the server reads it back, whether staged
// entries can carry a per-message TTL, and turns that on or off for this process
// accordingly (a server that cannot read the stream changes nothing). Create runs it;
// so does provisioning after nats-server came back, which may be another version.
void gw_nats_relay_detect_msg_ttl(gw_nats_relay_t* relay);

// Closes the relay's connection: requests waiting return at once with a failure, and
// every later one fails. For a stop that must not wait for slow scans; any thread.
// Accepts NULL.
void gw_nats_relay_abort(gw_nats_relay_t* relay);

// The wait for requests without a scan budget (auth and control calls); 0 for NULL.
unsigned long gw_nats_relay_default_timeout_ms(const gw_nats_relay_t* relay);

// Sends request_json (a JSON object) to `subject` and waits for the worker's reply.
// data/data_len: an optional payload, staged only when both are set. timeout_ms: the
// wait for requests without "SCANTIMEOUT"; requests with one get a wait derived from it,
// bounded by the relay's floor and ceiling. 0 when a reply arrived: *reply_json is a
// copy of its body (NULL for an empty body) and, when the caller passes
// reply_data/reply_data_len, the payload the reply names by "_kv_key". -1 on any
// failure, a time-out included. The outputs are cleared on entry; the caller frees
// them with free(). Blocks for up to the wait plus retry back-off; any thread may call
// it at any time, no lock is taken.
int gw_nats_relay_request(gw_nats_relay_t* relay, const char* subject, const char* request_json, const char* data,
                          size_t data_len, unsigned long timeout_ms, char** reply_json, char** reply_data,
                          size_t* reply_data_len);

// The same on behalf of `caller`, the user a front door authenticated: the payload is
// staged under a key bound to that user (NULL: the gateway's own key).
int gw_nats_relay_request_ex(gw_nats_relay_t* relay, const char* caller, const char* subject,
                             const char* request_json, const char* data, size_t data_len, unsigned long timeout_ms,
                             char** reply_json, char** reply_data, size_t* reply_data_len);

// A payload staged in the scan-data bucket while it arrives, for a front door that
// streams an upload: chunks go out as they fill, at most `window_chunks` of them awaiting
// their acknowledgement (the caller's thread waits for room), so that an upload holds
// about (window_chunks + 1) chunks of memory whatever its size. The key is bound to
// `caller` as in gw_nats_relay_request_ex. Destroying it deletes whatever it staged.
// NULL when the relay is NULL or memory runs out.
struct gw_relay_upload;
gw_relay_upload* gw_nats_relay_upload_begin(gw_nats_relay_t* relay, const char* caller, size_t window_chunks);
// Appends bytes; -1 (logged) once a chunk could not be published, and on every write after.
int gw_relay_upload_write(gw_relay_upload* upload, const char* data, size_t len);
// Bytes written so far (0 for NULL).
size_t gw_relay_upload_size(const gw_relay_upload* upload);
void gw_relay_upload_destroy(gw_relay_upload* upload);  // NULL-safe

// gw_nats_relay_request with the upload as its payload (NULL or empty: none): the last
// chunk and the manifest are written, the request sent, and the staged entries deleted
// once it ends, whichever way. request_json must be a JSON object when there is a payload.
int gw_nats_relay_request_upload(gw_nats_relay_t* relay, const char* subject, const char* request_json,
                                 gw_relay_upload* upload, unsigned long timeout_ms, char** reply_json,
                                 char** reply_data, size_t* reply_data_len);

// True while the relay's NATS connection is up (false while it reconnects).
bool gw_nats_relay_connected(const gw_nats_relay_t* relay);

// Calls fn(arg) on the NATS library's thread each time the relay's connection is
// re-established after a loss: the server it now reaches may have lost the buckets and
// work queues. Set once, before the relay is used; fn must not block. Accepts NULL.
void gw_nats_relay_on_reconnected(gw_nats_relay_t* relay, void (*fn)(void* arg), void* arg);

// Undoes the one-way fallback to the bucket TTL: the next staging asks for per-message
// TTLs again, and falls back again if the server still refuses them. For after the
// buckets were provisioned anew.
void gw_nats_relay_retry_msg_ttl();

// True when `service` is one of the relay's JetStream work-queue services.
bool gw_service_uses_js(const gw_nats_relay_t* relay, const char* service);


// The statuses worth a retry with back-off: no responders, disconnected, and limit
// reached where the client library has that status (nats.c 3.4.1 has not).
bool gw_status_is_transient(natsStatus s);
