// How the auth service decides one credential check, the same way for the nats-server
// auth callout and for the verify endpoint: the result cache (with background refresh
// of ageing grants and coalescing of identical concurrent checks), then the credentials
// file, then the LDAP directory; a grant comes with the user's permission profile.
#pragma once

#include <optional>
#include <string>

#include "qm_cpp.hpp"

struct gw_credential_store;
struct gw_auth_cache;
struct auth_ldap_ctx;
struct ldap_user_info;
struct auth_profile;
struct auth_profile_store;
struct auth_lock;

// The live check: the credentials file first, then LDAP. *out_backend (if given) becomes
// "none", "file" or "ldap"; out_info (if given) is cleared and, after an LDAP grant,
// holds the user's groups. False at once for NULL or empty user or password.
bool auth_dispatch_validate_ext(gw_credential_store* creds, auth_ldap_ctx* ldap_ctx, const char* user,
                                const char* password, const char** out_backend, ldap_user_info* out_info);
bool auth_dispatch_validate(gw_credential_store* creds, auth_ldap_ctx* ldap_ctx, const char* user,
                            const char* password, const char** out_backend);

struct auth_decider;
using auth_decider_t = auth_decider;

// Who asks. A callout grant becomes a NATS login's permissions: the cache answers it only
// with a grant that carries the profile resolved for the user, never with one recorded
// without it (the verify endpoint's older entries, the HTTP frontend's).
enum auth_asker_t {
  AUTH_ASKER_CALLOUT = 0,
  AUTH_ASKER_VERIFY = 1,
};

// One check; the strings are borrowed for the call.
struct auth_question {
  auth_asker_t asker;
  const std::string& user;
  const qm::secret_string& password;
  bool revalidate = false;  // skip the cache lookup: only a live check may answer
};

enum auth_verdict_source_t {
  AUTH_VERDICT_LIVE = 0,         // checked against the file or the directory just now
  AUTH_VERDICT_CACHED = 1,       // a remembered grant
  AUTH_VERDICT_CACHED_DENY = 2,  // a remembered refusal
  AUTH_VERDICT_COALESCED = 3,    // the outcome of an identical check that was under way
};

struct auth_verdict {
  bool granted = false;
  auth_verdict_source_t source = AUTH_VERDICT_LIVE;
  const char* backend = "none";             // a live check's tier: "none", "file" or "ldap"
  const auth_profile* profile = nullptr;    // a grant's profile; NULL: the built-in permissions
  int n_groups = 0;                         // a live LDAP grant's group count
};

// The contexts are borrowed and must outlive the decider; any of them may be NULL.
// With a lock, a user it holds is refused without a check (the answer of a wrong
// password), and every check's outcome is told to it. Background refreshes run on
// threads of the decider's own. NULL when memory runs out.
auth_decider_t* auth_decider_create(gw_credential_store* creds, auth_ldap_ctx* ldap_ctx,
                                    const auth_profile_store* profiles, gw_auth_cache* cache,
                                    auth_lock* lock = nullptr);

// What can be decided without waiting: the cache, then the credentials file (and, with
// no directory, the refusal). Nothing when only the directory can tell: auth_decide
// then, where waiting does no harm.
std::optional<auth_verdict> auth_decide_now(auth_decider_t* d, const auth_question& q);

// The whole decision; may wait for an identical check under way (up to 5 s) or for the
// directory.
auth_verdict auth_decide(auth_decider_t* d, const auth_question& q);

// Takes no more refreshes, gives up the queued ones and waits up to timeout_ms for those
// running: 0 when none is left (or there is no cache), -1 (logged) when some still run.
int auth_decider_drain_refreshes(auth_decider_t* d, int timeout_ms);

// Waits for running refreshes (however long the directory takes) and frees. Accepts NULL.
void auth_decider_destroy(auth_decider_t* d);

// The tiers the decider checks against (NULL when absent).
gw_credential_store* auth_decider_creds(const auth_decider_t* d);
auth_ldap_ctx* auth_decider_ldap(const auth_decider_t* d);
