// Process-wide state that main shares with its signal handler.
#pragma once

#include <csignal>

// Set by SIGINT/SIGTERM; main leaves its wait loop and shuts down.
extern volatile sig_atomic_t g_shutdown_requested;
// Set by SIGHUP; main reloads the credentials and forwards SIGHUP to the nats-server child.
extern volatile sig_atomic_t g_reload_requested;

struct gw_auth_cache;
// The auth result cache, shared by the callout service and the HTTP frontend; NULL when disabled.
extern gw_auth_cache* g_auth_cache;
