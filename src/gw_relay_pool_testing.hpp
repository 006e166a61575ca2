// Seams of the relay worker pool for its tests: what a finished job's hand-off calls to
// wake its connection's event loop (pn_connection_wake unless replaced), and a stop
// without the join of destroy. Not used by the daemon.
#pragma once

#include "gw_relay_pool.hpp"

using gw_relay_wake_fn = void (*)(pn_connection_t* conn);

// Set before the first submit; NULL restores pn_connection_wake.
void gw_relay_pool_set_wake(gw_relay_pool_t* pool, gw_relay_wake_fn wake);

// Refuses further submissions; queued jobs still run. destroy completes the stop.
void gw_relay_pool_stop(gw_relay_pool_t* pool);
