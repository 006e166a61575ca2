// Cyrus SASL on the AMQP listener's transports. Proton builds without Cyrus cannot check
// a PLAIN password on the server side; this binding plugs Cyrus SASL's server API (as
// gw_sasl_setup initialised it) into Proton's SASL plugin interface, per transport.
// Where Proton brings its own Cyrus support, the binding stays off and Proton's is used.
//
// A password check asks the auth service over NATS and may take seconds, so Cyrus's
// steps do not run on the event loop: a step goes to a small pool of threads, and its
// outcome is applied to the transport when the worker wakes the connection.
#pragma once

#include <proton/connection.h>
#include <proton/transport.h>

struct gw_amqp_cyrus_steps;
using gw_amqp_cyrus_steps_t = gw_amqp_cyrus_steps;

// True when the gateway must bring its own binding: this Proton has no Cyrus SASL.
bool gw_amqp_cyrus_needed();

// `threads` threads that run Cyrus's steps; NULL when one cannot start.
gw_amqp_cyrus_steps_t* gw_amqp_cyrus_steps_create(int threads);

// Accepts NULL. Drops the steps still queued, waits for those running and joins.
void gw_amqp_cyrus_steps_destroy(gw_amqp_cyrus_steps_t* steps);

// Hands SASL on the server transport `t` to Cyrus. Call when `t` is bound to its
// connection, after pn_sasl(t) has its allowed mechanisms and insecure policy, before the
// transport does any I/O. server_fqdn is the name Cyrus announces (copied; NULL leaves
// Cyrus to resolve the host name per connection). steps (not owned) runs the steps and
// must be destroyed only after the transport has closed. 0, or -1 when steps is NULL or
// memory runs out.
int gw_amqp_cyrus_attach(pn_transport_t* t, const char* server_fqdn, gw_amqp_cyrus_steps_t* steps);

// For the event loop when the connection of a transport the binding was attached to is
// woken: applies the outcome of a step that has finished, if any.
void gw_amqp_cyrus_resume(pn_transport_t* t);

// For the event loop when such a transport has closed: a step finishing later no longer
// wakes its connection.
void gw_amqp_cyrus_detach(pn_transport_t* t);

// For the event loop once the transport has authenticated: the permission profile the
// auth service named with the grant ("" for none: the built-in permissions), or NULL
// when the binding is not attached to `t` or no login succeeded on it. Valid until the
// transport is freed.
const char* gw_amqp_cyrus_granted_profile(pn_transport_t* t);
