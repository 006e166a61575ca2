// Service-manager readiness notification, spoken directly on the datagram socket
// named by NOTIFY_SOCKET ("@name" for an abstract socket).
#pragma once

// Sends `state` ("READY=1", "STOPPING=1") in one datagram. 0 when sent or when there is
// nothing to do (NULL state, NOTIFY_SOCKET unset or empty); -1 with errno set otherwise
// (ENAMETOOLONG for a socket name over 107 bytes).
int broker_sd_notify(const char* state);
