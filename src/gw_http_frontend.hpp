// The gateway's REST front door: HTTPS (or plain HTTP without a certificate) POSTs of a
// multipart scan request (field "request": the JSON, field "payload": the file) with
// Basic credentials, relayed to the worker service named by "X-Target-Service". The
// worker's JSON reply is the response body. Credentials go through the auth result
// cache, the credentials file and "qm.auth.verify"; a stale cached grant is served at
// once while a background thread of the frontend re-verifies it. The target must pass the subject policy
// for the caller's profile before anything is relayed. Credentials, target, Content-Length
// and the in-flight budget (cfg->inflight_budget) are decided from the headers, before a
// byte of the body is read; an admitted payload streams into the scan-data bucket as it
// arrives, so a request holds a few chunks of memory whatever its size.
#pragma once

#include "auth_profile.hpp"
#include "gw_auth_cache.hpp"
#include "gw_config.hpp"
#include "gw_credential_store.hpp"
#include "gw_nats_relay.hpp"

struct gw_http_frontend;
using gw_http_frontend_t = gw_http_frontend;

// cfg, creds and relay are borrowed and must be non-NULL (else NULL, logged); they,
// auth_cache (may be NULL: no caching, no background refresh) and profiles (may be NULL:
// every caller has the built-in permissions; else the store the auth service resolves
// profiles from, so that a verify grant's profile name is found in it) must outlive the
// frontend. Nothing is started.
gw_http_frontend_t* gw_http_frontend_create(const gw_config_t* cfg, gw_credential_store_t* creds,
                                            gw_nats_relay_t* relay, gw_auth_cache_t* auth_cache,
                                            const auth_profile_store_t* profiles);

// Starts listening on cfg->http_listen_port (every local address), with TLS when both
// the certificate and the key file are configured; a connection silent for
// cfg->http_inactivity_timeout_seconds is closed, and so is one whose request headers take
// longer than cfg->http_header_timeout_ms; connections beyond cfg->http_max_connections
// (cfg->http_max_connections_per_ip from one address) are closed as they come. 0 on success or when already
// started; -1 (logged at FATAL) when only one of the two files is set, a file cannot be
// read, or the daemon does not start. A failed start leaves nothing running.
int gw_http_frontend_start(gw_http_frontend_t* fe);

// The port the running daemon is bound to (http_listen_port 0 lets the kernel choose
// one), else 0.
int gw_http_frontend_bound_port(gw_http_frontend_t* fe);

// True while started and not quiesced: new connections are taken. Lock-free.
bool gw_http_frontend_listening(const gw_http_frontend_t* fe);

// Quiesce: new connections are refused from now on, requests in flight complete.
// No-op when not started. Safe to call while another thread stops the frontend.
void gw_http_frontend_stop_accepting(gw_http_frontend_t* fe);

// Scan requests begun and not yet answered (0 for NULL); any thread.
size_t gw_http_frontend_inflight(const gw_http_frontend_t* fe);

// Stops the daemon and waits for its connection threads (requests in flight finish
// first), then for every background refresh: one that has not asked the auth service
// yet does not, one that has waits for its answer (at most the verify time-out). So not
// from a signal handler or a connection thread. No-op when not started; start may
// follow (the PEM files are read again).
void gw_http_frontend_stop(gw_http_frontend_t* fe);

// Stops (see above) and frees the frontend (not the cache). Accepts NULL.
void gw_http_frontend_destroy(gw_http_frontend_t* fe);

// Whether an Authorization header's Basic credentials decode to bytes holding a NUL
// (NULL, another scheme or no Base64: no). libmicrohttpd hands the credentials out as C
// strings, so "pw\0junk" would be checked as "pw": such a request is refused.
bool gw_http_basic_credentials_hold_nul(const char* header);
