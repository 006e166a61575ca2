// Cyrus SASL on the AMQP listener's transports. Proton builds without Cyrus cannot check
// a PLAIN password on the server side; this binding plugs Cyrus SASL's server API (as
// gw_sasl_setup initialised it) into Proton's SASL plugin interface, per transport.
// Where Proton brings its own Cyrus support, the binding stays off and Proton's is used.
#pragma once

#include <proton/transport.h>

// True when the gateway must bring its own binding: this Proton has no Cyrus SASL.
bool gw_amqp_cyrus_needed();

// Hands SASL on the server transport `t` to Cyrus. Call after pn_sasl(t) has its allowed
// mechanisms and insecure policy, before the transport does any I/O. server_fqdn is the
// name Cyrus announces (copied by Cyrus; NULL leaves Cyrus to resolve the host name per
// connection). 0, or -1 when memory runs out.
int gw_amqp_cyrus_attach(pn_transport_t* t, const char* server_fqdn);
