#include "gw_config.hpp"

#include <memory>
#include <new>

gw_config_t* gw_config_new() {
  try {
    return std::make_unique<gw_config_t>().release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void gw_config_free(gw_config_t* cfg) { std::unique_ptr<gw_config_t> owned(cfg); }
