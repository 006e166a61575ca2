// Runs the auth-callout service's blocking loop on a thread of its own.
#pragma once

#include "auth_handler.hpp"

struct broker_auth_thread;
using broker_auth_thread_t = broker_auth_thread;

// NULL for a NULL service or when memory runs out. The service stays the caller's.
broker_auth_thread_t* broker_auth_thread_create(auth_service_t* svc);
// Starts auth_service_run on a new thread and returns once the service serves (both its
// subscriptions confirmed by nats-server). -1 when t or its service is NULL, the thread
// fails, or the service's start-up fails (logged there; the thread is joined).
int broker_auth_thread_start(broker_auth_thread_t* t);
// Stops the service and joins the thread; no-op when not running.
void broker_auth_thread_join(broker_auth_thread_t* t);
// What auth_service_run returned (0 until it has).
int broker_auth_thread_rc(const broker_auth_thread_t* t);
// Joins and frees; accepts NULL.
void broker_auth_thread_destroy(broker_auth_thread_t* t);
