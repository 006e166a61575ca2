// Which NATS subjects the gateway may publish to, and which services a front door may
// relay a client's request to. The relay checks every subject it publishes to here; the
// doors check a client's target here before anything reaches NATS. The service lists of
// the command line (--gw-services, --js-work-services) are parsed here too.
#pragma once

#include <string>
#include <vector>

struct auth_profile;

// Subjects longer than this are refused (nats-server's own limit is larger; no service
// name of the fleet comes near it).
inline constexpr size_t GW_SUBJECT_MAX_BYTES = 255;

// True when `subject` is a literal NATS subject the relay may publish to: 1 to
// GW_SUBJECT_MAX_BYTES bytes of '.'-separated, non-empty tokens of printable ASCII
// without blanks, and no token that is a wildcard ("*" or ">"). A subject that fails this
// would be a protocol error on the gateway's connection, or worse, more protocol. NULL: false.
bool gw_subject_is_publishable(const char* subject);

enum gw_target_verdict_t {
  GW_TARGET_OK = 0,
  GW_TARGET_MALFORMED = 1,    // not publishable (see above), or holds a wildcard character anywhere
  GW_TARGET_RESERVED = 2,     // a system subject: a token starting with '$', or "_INBOX" as the first token
  GW_TARGET_NOT_OFFERED = 3,  // not in the --gw-services allow-list
  GW_TARGET_FORBIDDEN = 4,    // the caller's profile may not publish there
};

// A short lower-case text for a verdict, for logs and replies ("malformed target", ...).
const char* gw_target_verdict_text(gw_target_verdict_t verdict);

// The rules a front door applies to a client's target, the NATS subject after the
// ingress rewrite. `services`: the allow-list (comma-separated, see
// gw_service_list_parse); NULL or empty: any well-formed service. `profile`: the
// caller's permission profile (NULL: the built-in permissions); `user`: the caller, for
// templated grants. The profile is asked last, so that a malformed target never reaches it.
gw_target_verdict_t gw_subject_policy_check_target(const char* subject, const char* services,
                                                   const auth_profile* profile, const char* user);

// A client's target as a door admits it: the NATS subject the ingress rewrite makes of
// it, and the verdict of gw_subject_policy_check_target on that subject. An empty
// subject when the target is NULL or memory runs out (then MALFORMED).
struct gw_target {
  std::string subject;
  gw_target_verdict_t verdict = GW_TARGET_MALFORMED;
};
gw_target gw_subject_policy_admit(const char* ingress, const char* services, const auth_profile* profile,
                                  const char* user);

// The entries of a comma-separated service list, blanks and tabs around them trimmed,
// empty entries dropped, in order.
std::vector<std::string> gw_service_list_parse(const char* csv);

// 1 when `service` is an entry of the comma-separated list (exact and case-sensitive
// match), else 0; 0 for NULL or empty input.
int qm_nats_wq_service_in_csv(const char* csv, const char* service);
