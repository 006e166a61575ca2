// The callbacks the SASL set-up hands to Cyrus SASL, for the tests that call them
// directly or initialise Cyrus again with the same table. Not used by the daemon.
#pragma once

#include <sasl/sasl.h>

// Cyrus's log lines, as "sasl_cb: <message>" at the matching level.
int sasl_log_cb(void* context, int level, const char* message);

// The directory of the generated "<service>.conf" (Cyrus asks for it as GETCONFPATH).
int sasl_getpath_cb(void* context, char** path);

// Passes the name through unchanged (no realm, no case folding), truncated to fit `out`.
int sasl_canon_user_cb(sasl_conn_t* conn, void* context, const char* in, unsigned inlen, unsigned flags,
                       const char* user_realm, char* out, unsigned out_max, unsigned* out_len);

// The PLAIN password check over "qm.auth.verify": SASL_OK, SASL_BADAUTH (refused) or
// SASL_TRYAGAIN (the auth service could not decide).
int auth_checkpass_cb(sasl_conn_t* conn, void* context, const char* user, const char* password,
                      unsigned password_len, struct propctx* propctx);

// The callback table gw_sasl_setup initialises Cyrus with.
const sasl_callback_t* gw_sasl_callbacks();
