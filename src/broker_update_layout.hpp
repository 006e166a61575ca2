// Where an installed broker keeps its versions: the base directory derived from the
// nats-server binary's path, and the broker's work directory below it. Shared by the
// update thread and activation.
#pragma once

#include <string>

#include "qm_cpp.hpp"

// The base directory of the installed layout: `nats_server_binary` with its last four
// path components cut off ("/opt/qm-av/qm-av-broker/latest/bin/nats-server" gives
// "/opt/qm-av"); std::nullopt for NULL or a path with fewer than four "/".
qm::opt_string broker_update_basedir(const char* nats_server_binary);

// The broker's work directory below a base directory: "<basedir>/qm-av-broker".
std::string broker_update_workdir(const std::string& basedir);
