// SASL set-up for AMQP logins, and clean-up of runtime directories left by earlier runs.
#pragma once

// Removes "/tmp/qm-av-broker-<pid>" runtime directories (and their "sasl" subdirectory)
// whose pid no longer exists. Live pids, pids below 1 and non-numeric suffixes are kept.
void sweep_stale_sasl_runtime_dirs();
