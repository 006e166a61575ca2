// Process-wide state that main shares with its signal handler.
#pragma once

#include <csignal>

#include "broker_auth_watcher.hpp"

// Set by SIGINT/SIGTERM; main leaves its wait loop and shuts down.
extern volatile sig_atomic_t g_shutdown_requested;
// Set by SIGHUP; main reloads the credentials and forwards SIGHUP to the nats-server child.
extern volatile sig_atomic_t g_reload_requested;

// Long-lived subsystems the signal handler and the teardown reach; NULL when not running.
extern broker_auth_watcher_t* g_auth_watcher;
struct gw_auth_cache;
// The auth result cache, shared by the callout service and the HTTP frontend; NULL when disabled.
extern gw_auth_cache* g_auth_cache;
struct gw_http_frontend;
// The REST front door; NULL unless --http-enabled.
extern gw_http_frontend* g_http_fe;
