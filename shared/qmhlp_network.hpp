// Small IPv4 helpers: a TCP reachability probe with a short timeout, and the local
// host's name and first address. None of them is thread-safe: the host helpers return
// shared static buffers and use the non-reentrant resolver.
#pragma once

// Size the caller's error buffer of qmhlp_CheckConnect must have at least.
inline constexpr int QMHLP_ERROR_BUFFER_SIZE = 1024;

// 0 when a TCP connection to server:port_s opens within 3 s; -1 when no socket could be
// made or the port is not a number; -2 when the connection failed or timed out.
// `error` (at least QMHLP_ERROR_BUFFER_SIZE bytes) receives the failure text.
int qmhlp_CheckConnect(const char* server, const char* port_s, char* error);

// The host name as the system reports it (no DNS look-up), in a static buffer; NULL on
// failure.
const char* qmhlp_GetMyFQDN();

// The first IPv4 address the host name resolves to, dotted quad, in a second static
// buffer; NULL on failure or when the name has no address.
const char* qmhlp_GetMyIP();
