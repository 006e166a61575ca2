// RFC 1321 MD5, used to check update packages against the digest their server announces.
// Not for anything that needs collision resistance.
#pragma once

#include <cstddef>

inline constexpr size_t MD5_DIGEST_BYTES = 16;

struct md5_state;
using md5_state_t = md5_state;

// A fresh digest state, ready for md5_append; NULL when the crypto library refuses MD5.
md5_state_t* md5_init();

// Adds `len` bytes; 0 or -1.
int md5_append(md5_state_t* state, const void* data, size_t len);

// Writes the 16-byte digest of everything appended and frees the state, which must not
// be used again; 0 or -1 (the state is freed either way).
int md5_finish(md5_state_t* state, unsigned char digest[MD5_DIGEST_BYTES]);

// Frees a state that is given up without finishing. NULL is allowed.
void md5_free(md5_state_t* state);

// The digest of one buffer; 0 or -1.
int md5_digest(const void* data, size_t len, unsigned char digest[MD5_DIGEST_BYTES]);
