// Watches the credentials file for changes made by other programs and asks the main
// thread to reload it by sending that thread SIGHUP.
#pragma once

#include <pthread.h>

struct broker_auth_watcher;
using broker_auth_watcher_t = broker_auth_watcher;

// Takes the file's current signature (inode, size, mtime) as the baseline. interval_sec
// below 1 means 5 s. NULL for a NULL/empty path, when the file cannot be stat'ed (logged),
// or when memory runs out.
broker_auth_watcher_t* broker_auth_watcher_create(const char* path, int interval_sec, pthread_t target_tid);
// Starts the polling thread. -1 when w is NULL, already running, or the thread fails.
int broker_auth_watcher_start(broker_auth_watcher_t* w);
// Stops and joins the polling thread, at once, whatever the interval. No-op when not running.
void broker_auth_watcher_stop(broker_auth_watcher_t* w);
// Stops and frees; accepts NULL.
void broker_auth_watcher_destroy(broker_auth_watcher_t* w);
// Tests only: polls every interval_ms instead; call before broker_auth_watcher_start.
void broker_auth_watcher_set_interval_ms(broker_auth_watcher_t* w, int interval_ms);
// Tests only: how many polls the thread has completed so far (0 for NULL).
unsigned broker_auth_watcher_polls(const broker_auth_watcher_t* w);
