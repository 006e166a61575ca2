// Issuer identity of the auth callout (an Ed25519 key kept as a 32-byte seed file)
// and the signed JWTs it returns to nats-server.
#pragma once

#include <json-c/json.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <optional>
#include <string_view>

#include "qm_cpp.hpp"
#include "qm_json.hpp"

struct auth_jwt_ctx;
using auth_jwt_ctx_t = auth_jwt_ctx;

// Loads the 32-byte seed at seed_path (a longer file: its first 32 bytes). When the file
// is missing or short, makes a new key and stores its seed there (owner-only, through a
// synced temporary file renamed into place; an unwritable path keeps the key in memory
// only, with a warning). A file that exists but cannot be read is an error: NULL,
// logged. seed_path may be NULL: in-memory key. NULL also when no key could be made.
auth_jwt_ctx_t* auth_jwt_init(const char* seed_path);

// The issuer's public account NKey (56 characters, "A..."), owned by ctx; NULL for NULL.
const char* auth_jwt_public_key(const auth_jwt_ctx_t* ctx);

// The public curve25519 key ("X...", an xkey) derived from the same seed, for
// nats-server's auth_callout { xkey: ... }: the server then seals every callout request
// to it and expects the answer sealed to the server's own xkey. NULL for NULL.
const char* auth_jwt_xkey(const auth_jwt_ctx_t* ctx);

// A message sealed by sender_xkey to the context's xkey: "xkv1", a 24-byte nonce, then
// crypto_box. The plain text, or nothing when it is not such a message or does not open.
std::optional<qm::secret_string> auth_jwt_open(const auth_jwt_ctx_t* ctx, std::string_view sealed,
                                               std::string_view sender_xkey);
// `plain` sealed the same way to recipient_xkey; "" when that is not an xkey.
std::string auth_jwt_seal(const auth_jwt_ctx_t* ctx, std::string_view plain, std::string_view recipient_xkey);

// Wipes the seed and frees; accepts NULL.
void auth_jwt_destroy(auth_jwt_ctx_t* ctx);

// Authorization response granting the connection, with a nested user JWT carrying the
// four permission lists (NULL-terminated arrays; NULL list = side member left out).
// NULL user_nkey and server_id count as "", NULL account as "$G". 0 and an owned token
// in *out_jwt (free with free()), or -1.
int auth_jwt_sign_grant(const auth_jwt_ctx_t* ctx, const char* server_id, const char* user_nkey, const char* account,
                        const char* const* pub_allow, const char* const* pub_deny, const char* const* sub_allow,
                        const char* const* sub_deny, char** out_jwt);

// The same; responses > 0 also lets the user publish that many replies to each request it
// receives, within 310 s of it, whatever its publish lists say (the user JWT's "resp").
int auth_jwt_sign_grant_ex(const auth_jwt_ctx_t* ctx, const char* server_id, const char* user_nkey,
                           const char* account, const char* const* pub_allow, const char* const* pub_deny,
                           const char* const* sub_allow, const char* const* sub_deny, int responses, char** out_jwt);

// Authorization response refusing the connection with `reason` ("access denied" when
// NULL). 0 and an owned token in *out_jwt (free with free()), or -1.
int auth_jwt_sign_deny(const auth_jwt_ctx_t* ctx, const char* server_id, const char* user_nkey, const char* reason,
                       char** out_jwt);

// header.payload.signature of `payload`, signed with the context's key. A failed
// signature leaves the last part empty (the token then ends in '.'). "" for a NULL
// or unloaded context.
std::string build_jwt(const auth_jwt_ctx_t* ctx, json_object* payload);

// Public NKey text of a raw 32-byte Ed25519 key; prefix_byte is the base32 index of
// the prefix letter (0 = 'A', an account key).
std::string nkey_encode_public(uint8_t prefix_byte, const unsigned char raw_key[32]);

// RFC 4648 URL-safe base64 without padding.
std::string base64url_encode(const unsigned char* data, size_t len);

// The claims of a JWT: the part between the first and second '.', base64url-decoded
// (lenient: characters outside the alphabet are not rejected) and parsed as JSON.
// NULL when a '.' is missing or the text is not JSON. The caller owns the result
// (json_object_put).
json_object* decode_jwt_payload(const char* token);

// The same for a token that need not end in a NUL, with every copy on the way wiped and
// a result whose strings are wiped when it goes: the claims of a callout request carry
// the client's password.
qm::secret_json_ptr decode_jwt_claims(std::string_view token);

// --print-issuer-nkey: prints the issuer NKey of the seed at seed_path on standard
// output (creating the seed when missing). Returns the exit code: 0, or 1 after a
// message on standard error.
int auth_jwt_print_issuer_nkey(const char* argv0, const char* seed_path);
// --print-issuer-xkey: the same for the xkey.
int auth_jwt_print_issuer_xkey(const char* argv0, const char* seed_path);
