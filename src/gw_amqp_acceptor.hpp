// The AMQP 1.0 front door: one listener (plain or TLS) whose connections log in with
// SASL PLAIN and send scan requests, each relayed to a NATS worker through the relay
// worker pool; every result goes back as a message to the request's reply address. One
// event loop on one thread touches every AMQP object; it never blocks on NATS. A
// message's address must pass the subject policy for the client's profile, else it is
// rejected before anything reaches NATS.
#pragma once

#include <proton/codec.h>
#include <proton/message.h>

#include <cstddef>
#include <string>

#include "auth_profile.hpp"
#include "gw_config.hpp"
#include "gw_nats_relay.hpp"

struct gw_amqp_acceptor;
using gw_amqp_acceptor_t = gw_amqp_acceptor;

// The event loop and a pool of amqp_relay_workers relay threads (4 when below 1).
// cfg, relay and profiles (may be NULL: every client has the built-in permissions; else
// the store the auth service resolves profiles from) are not owned and must outlive the
// acceptor; sasl_config_dir (may be NULL) is copied. NULL when the pool cannot start
// (logged).
gw_amqp_acceptor_t* gw_amqp_acceptor_create(const gw_config_t* cfg, gw_nats_relay_t* relay,
                                            const char* sasl_config_dir, const auth_profile_store_t* profiles);

// Listens on "<amqp_listen_host>:<amqp_listen_port>" (an unset host listens on every
// interface) and runs the event loop on the calling thread until gw_amqp_acceptor_stop;
// then closes every connection and returns 0.
int gw_amqp_acceptor_run(gw_amqp_acceptor_t* acc);

// Ends the event loop. Callable from any thread (not from a signal handler: the process
// takes its signals with sigwaitinfo). Accepts NULL.
void gw_amqp_acceptor_stop(gw_amqp_acceptor_t* acc);

// From now on new connections are accepted and closed at once; existing ones carry on.
// Async-signal-safe. Accepts NULL.
void gw_amqp_acceptor_stop_accepting(gw_amqp_acceptor_t* acc);

// Scan requests accepted and not yet answered (0 for NULL); any thread.
size_t gw_amqp_acceptor_inflight(const gw_amqp_acceptor_t* acc);

// Accepts NULL. Call after gw_amqp_acceptor_run has returned (or when it never ran):
// relays what is still queued, then frees the event loop and the acceptor.
// True while the listener is open and new connections are taken (not once an update
// stopped accepting). Lock-free; any thread.
bool gw_amqp_acceptor_listening(const gw_amqp_acceptor_t* acc);

void gw_amqp_acceptor_destroy(gw_amqp_acceptor_t* acc);

// Writes "<prefix>.<pid>.<n>" to buffer, n counting the calls of this process from 0.
// For the event-loop thread only.
void gw_unique_id(const char* prefix, char* buffer, size_t size);

// The request JSON and the optional payload of a decoded message's body: a string or
// binary value (the JSON only), or a list or array whose first element is a string or
// binary (the JSON) and whose optional second one is a string or binary (the payload,
// pointing into msg; empty otherwise). False when the body has no such JSON.
bool gw_amqp_body_parts(pn_message_t* msg, std::string& json, pn_bytes_t& payload);
