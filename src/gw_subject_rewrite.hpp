// Ingress addresses (AMQP target addresses, the HTTP X-Target-Service header) turned
// into NATS subjects before they reach the relay.
#pragma once

// Quarantine services are addressed as "qm-av-quarantine_<name>" by legacy clients,
// whose address syntax has no dots; on NATS they live under "qm-av-quarantine.<name>".
inline constexpr const char* QUAR_PREFIX = "qm-av-quarantine_";

// A newly allocated subject (release with free()): `in` with the prefix's own '_'
// turned into '.' when `in` starts with QUAR_PREFIX and has more after it, else an
// unchanged copy. NULL for NULL input or when memory runs out.
char* gw_subject_rewrite_ingress_to_nats(const char* in);
