#include "md5.hpp"

#include <openssl/evp.h>

#include <memory>

#include "log.hpp"
#include "qm_handles.hpp"

struct md5_state {
  qm::evp_md_ctx_ptr ctx;
};

md5_state_t* md5_init() {
  auto state = std::make_unique<md5_state>();
  state->ctx.reset(EVP_MD_CTX_new());
  if (!state->ctx || EVP_DigestInit_ex(state->ctx.get(), EVP_md5(), nullptr) != 1) {
    log_error("MD5 is not available from the crypto library");
    return nullptr;
  }
  return state.release();
}

int md5_append(md5_state_t* state, const void* data, size_t len) {
  if (state == nullptr || (data == nullptr && len > 0)) return -1;
  return EVP_DigestUpdate(state->ctx.get(), data, len) == 1 ? 0 : -1;
}

int md5_finish(md5_state_t* state, unsigned char digest[MD5_DIGEST_BYTES]) {
  std::unique_ptr<md5_state> owned(state);
  if (!owned || digest == nullptr) return -1;
  unsigned int written = 0;
  if (EVP_DigestFinal_ex(owned->ctx.get(), digest, &written) != 1 || written != MD5_DIGEST_BYTES) return -1;
  return 0;
}

void md5_free(md5_state_t* state) { std::unique_ptr<md5_state> owned(state); }

int md5_digest(const void* data, size_t len, unsigned char digest[MD5_DIGEST_BYTES]) {
  md5_state_t* state = md5_init();
  if (state == nullptr) return -1;
  if (md5_append(state, data, len) != 0) {
    md5_free(state);
    return -1;
  }
  return md5_finish(state, digest);
}
