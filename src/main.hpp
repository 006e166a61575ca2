// Process-wide state of main: the signal flags and the long-lived subsystems. Signals are
// taken on the main thread alone.
#pragma once

#include <atomic>

#include "broker_auth_watcher.hpp"

// Set when SIGINT or SIGTERM is taken (or supervision gives up); main stops the start-up
// or leaves its wait loop, and shuts down.
extern std::atomic<bool> g_shutdown_requested;
// Set when SIGHUP is taken; main reloads the credentials and forwards SIGHUP to the
// nats-server child.
extern std::atomic<bool> g_reload_requested;

// Long-lived subsystems the signal path and the teardown reach; NULL when not running.
extern broker_auth_watcher_t* g_auth_watcher;
struct gw_auth_cache;
// The auth result cache, shared by the callout service and the HTTP frontend; NULL when disabled.
extern gw_auth_cache* g_auth_cache;
struct gw_http_frontend;
// The REST front door, once started; NULL unless --http-enabled.
extern std::atomic<gw_http_frontend*> g_http_fe;
