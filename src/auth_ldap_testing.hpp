// Seams of the LDAP backend for its tests: shorter time-outs than the production 10 s,
// and a settable clock for the pool's idle time-out. Not used by the daemon.
#pragma once

#include <cstdint>
#include <functional>

#include "auth_ldap.hpp"

struct auth_ldap_timeouts {
  int network_ms = 10000;    // TCP connect
  int operation_ms = 10000;  // each bind and search, also the search's server-side time limit
};

// Call before the first validation; not synchronised with running validations.
void auth_ldap_set_timeouts(auth_ldap_ctx_t* ctx, const auth_ldap_timeouts& timeouts);

// Monotonic milliseconds used for the idle time-out; an empty function restores the steady clock.
void auth_ldap_set_clock(auth_ldap_ctx_t* ctx, std::function<int64_t()> now_ms);
