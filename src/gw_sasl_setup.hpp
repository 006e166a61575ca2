// SASL set-up for AMQP logins, and clean-up of runtime directories left by earlier runs.
#pragma once

// Removes "/tmp/qm-av-broker-<pid>" runtime directories (and their "sasl" subdirectory)
// whose pid no longer exists. Live pids, pids below 1 and non-numeric suffixes are kept.
// Only real directories of this user are touched: a symbolic link is never followed (nor
// removed), and a directory another user owns is left alone.
void sweep_stale_sasl_runtime_dirs();

// Tests only: the same sweep for directories named `prefix` + pid, where prefix is a
// directory path followed by the start of a name ("/some/dir/qm-av-broker-").
void sweep_stale_sasl_runtime_dirs_at(const char* prefix);
