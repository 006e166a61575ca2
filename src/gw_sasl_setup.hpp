// SASL set-up for AMQP logins: the generated Cyrus SASL configuration file in a private
// runtime directory, Cyrus's server library initialised with the gateway's callbacks, and
// the PLAIN password check, which asks the auth service on "qm.auth.verify" through the
// NATS relay. Also the clean-up of runtime directories left by earlier runs.
#pragma once

#include <string>

#include "gw_nats_relay.hpp"

// The application name: it names the generated "<name>.conf" and every AMQP transport
// asks Cyrus for the same name.
inline constexpr const char* GW_SASL_SERVICE_NAME = "quillmere-av-scangateway";

// Makes runtime_dir and "<runtime_dir>/sasl" (mode 0700), writes
// "<runtime_dir>/sasl/<service_name>.conf" (mode 0600) and initialises Cyrus SASL's
// server library (process-global) with the gateway's callbacks; password checks go
// through `relay` (not owned; it must outlive gw_sasl_teardown). Returns the
// configuration directory, owned by this module, or NULL (logged). A second call
// returns the same directory and changes nothing.
const char* gw_sasl_setup(const char* service_name, const char* runtime_dir, gw_nats_relay_t* relay);

// The callback table gw_sasl_setup initialises Cyrus with (Cyrus's sasl_callback_t,
// ended by SASL_CB_LIST_END): the log, the configuration path, user-name
// canonicalisation and the password check. For a caller that initialises Cyrus again
// itself; valid for the whole process.
struct sasl_callback;
const sasl_callback* gw_sasl_callbacks();

// Shuts Cyrus's server library down and removes the file and both directories. Safe
// after a set-up that failed half-way, and when set-up never ran.
void gw_sasl_teardown();

// The verdict of the last password check made on the calling thread (SASL_OK,
// SASL_BADAUTH or SASL_TRYAGAIN), or 0 when none was made since the last call; clears
// it. Cyrus replaces a refusal by its own fallback's code, so the AMQP side asks here
// whether the auth service could not decide and the client should try again later.
int gw_sasl_take_checkpass_verdict();

// The permission profile the last granted password check on the calling thread came with
// (the auth service names it in its verify reply), "" when it named none: the built-in
// permissions. Clears it; take it with the verdict.
std::string gw_sasl_take_checkpass_profile();

// Removes "/tmp/qm-av-broker-<pid>" runtime directories (and their "sasl" subdirectory)
// whose pid no longer exists. Live pids, pids below 1 and non-numeric suffixes are kept.
// Only real directories of this user are touched: a symbolic link is never followed (nor
// removed), and a directory another user owns is left alone.
void sweep_stale_sasl_runtime_dirs();

// Tests only: the same sweep for directories named `prefix` + pid, where prefix is a
// directory path followed by the start of a name ("/some/dir/qm-av-broker-").
void sweep_stale_sasl_runtime_dirs_at(const char* prefix);
