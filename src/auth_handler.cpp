#include "auth_handler.hpp"

#include <strings.h>

#include <memory>
#include <new>

auth_config_t* auth_config_new() {
  try {
    return std::make_unique<auth_config_t>().release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void auth_config_free(auth_config_t* cfg) { std::unique_ptr<auth_config_t> owned(cfg); }

auth_backend_type_t auth_config_parse_backend(const char* text) {
  if (text == nullptr) return AUTH_BACKEND_FILE;
  if (strcasecmp(text, "file+ldap") == 0 || strcasecmp(text, "file,ldap") == 0 ||
      strcasecmp(text, "filethenldap") == 0)
    return AUTH_BACKEND_FILE_THEN_LDAP;
  if (strcasecmp(text, "ldap") == 0) return AUTH_BACKEND_LDAP;
  return AUTH_BACKEND_FILE;
}
