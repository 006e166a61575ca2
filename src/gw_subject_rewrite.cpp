#include "gw_subject_rewrite.hpp"

#include <cstring>

char* gw_subject_rewrite_ingress_to_nats(const char* in) {
  if (in == nullptr) return nullptr;
  char* out = strdup(in);
  if (out == nullptr) return nullptr;
  const size_t prefix_len = strlen(QUAR_PREFIX);
  if (strncmp(out, QUAR_PREFIX, prefix_len) == 0 && out[prefix_len] != '\0') out[prefix_len - 1] = '.';
  return out;
}
