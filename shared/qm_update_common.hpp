// Types shared by the self-update code of the scanning service's programs.
#pragma once

#include "qm_cpp.hpp"

// What the update thread may update, and from where.
struct qm_update_config {
  bool update_binary = true;
  bool update_data = false;
  bool update_engine = false;
  qm::opt_string update_server;      // unset: the built-in update server
  long update_check_interval = 60;  // minutes
  int update_max_backups = 3;
  bool no_certificate_check = false;
};
using qm_update_config_t = qm_update_config;

struct qm_network_config {
  qm::opt_string http_proxy;
};
using qm_network_config_t = qm_network_config;

// Life cycle of a worker thread as seen by its owner.
enum qm_thread_status {
  CREATING = 0,
  STARTING = 1,
  READY = 2,
  BUSY = 3,
  HOLD = 4,
  RESUME = 5,
  STOP = 6,
  TERMINATED = 7,
};
