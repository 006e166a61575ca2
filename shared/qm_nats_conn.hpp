// What every NATS connection of the broker shares: the library's start-up and the TLS
// settings a tls:// or wss:// URL asks for.
#pragma once

#include <nats/nats.h>

#include <string>

#include "log.hpp"
#include "qm_handles.hpp"

// Opens the NATS client library with mutexes that sleep at once instead of spinning
// first: the broker shares a few cores with nats-server, whose time a spinning thread
// would take. Call before the first connection; 0 or -1.
int qm_nats_library_open();

// Options for a connection on a request path (relay, workers, the auth service): each
// write goes out at once (SendAsap) instead of through the library's flusher, which
// sleeps 1 ms first and so puts a floor under every round trip. NULL when memory runs out.
qm::nats_options_ptr qm_nats_request_options();

// True for the schemes that need TLS from the first byte (tls://, wss://).
bool qm_nats_url_wants_tls(const std::string& url);

// The host between "://" and the first ':' or '/', for the certificate name check; ""
// when there is none or it is longer than 255 characters.
std::string qm_nats_url_host(const std::string& url);

enum qm_nats_tls_result_t {
  QM_NATS_TLS_PLAIN = 0,          // not a TLS URL: nothing set
  QM_NATS_TLS_SECURED = 1,        // TLS required, host checked, the CA bundle loaded
  QM_NATS_TLS_NO_CA = 2,          // TLS required, but no CA bundle given: the system store decides
  QM_NATS_TLS_SECURE_FAILED = 3,  // the library refused to require TLS
  QM_NATS_TLS_CA_FAILED = 4,      // the CA bundle could not be loaded
};

// Applies what `url` asks for to opts: TLS required, handshake first where the client
// library can, the expected host name, and the CA bundle at cert_path (NULL or empty:
// none). Callers log the outcome in their own words; *status holds the library's status
// of a failed step.
qm_nats_tls_result_t qm_nats_apply_tls(natsOptions* opts, const std::string& url, const char* cert_path,
                                       natsStatus* status);

// What a module says about its connection's TLS set-up, in its own words; a NULL text
// says nothing. The failure texts are printf formats.
struct qm_nats_tls_texts {
  const char* no_ca_warning = nullptr;  // TLS without a CA bundle: logged at WARN, the connection goes on
  int failure_level = QMLOG_ERROR;      // level of the two failure texts
  const char* secure_failed = nullptr;  // "%s": the library's status text
  const char* ca_failed = nullptr;      // "%s" the CA bundle's path, "%s" the library's status text
};

// qm_nats_apply_tls with its outcome logged in the caller's words. True when the options
// are ready to connect.
bool qm_nats_configure_tls(natsOptions* opts, const std::string& url, const char* cert_path,
                           const qm_nats_tls_texts& texts);

// Overwrites a received message's payload: requests to the auth subjects carry a
// client's password. The message stays valid; accepts NULL.
void qm_nats_msg_wipe(natsMsg* msg);
