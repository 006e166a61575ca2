#include "auth_jwt.hpp"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>
#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "log.hpp"
#include "qm_handles.hpp"
#include "qm_json.hpp"

namespace {

// How long a granted reply permission lasts: the gateway's longest wait and a margin.
constexpr int64_t kResponseWindowNs = 310LL * 1000000000LL;
constexpr size_t s_key_size = crypto_sign_SEEDBYTES;
}

struct auth_jwt_ctx {
  unsigned char seed[s_key_size] = {};
  unsigned char public_key[s_key_size] = {};
  // The seed expanded once (seed and public key): deriving the public key costs as much
  // as a signature, and a login takes two. Signing threads share it read-only.
  unsigned char secret_key[crypto_sign_SECRETKEYBYTES] = {};
  std::string public_key_str;
  // The curve25519 pair callout requests are sealed to, derived from the same seed.
  unsigned char xkey_secret[crypto_box_SECRETKEYBYTES] = {};
  unsigned char xkey_public[crypto_box_PUBLICKEYBYTES] = {};
  std::string xkey_str;
  // The box key shared with each server xkey seen: computing it is the costly half of
  // opening a request and sealing its answer, and a server keeps its xkey for its life.
  mutable std::mutex shared_mutex;
  mutable std::map<std::string, std::array<unsigned char, crypto_box_BEFORENMBYTES>> shared_keys;
  bool loaded = false;

  auth_jwt_ctx() = default;
  auth_jwt_ctx(const auth_jwt_ctx&) = delete;
  auth_jwt_ctx& operator=(const auth_jwt_ctx&) = delete;
  ~auth_jwt_ctx() {
    sodium_memzero(seed, sizeof seed);
    sodium_memzero(secret_key, sizeof secret_key);
    sodium_memzero(xkey_secret, sizeof xkey_secret);
    for (auto& [server, key] : shared_keys) sodium_memzero(key.data(), key.size());
  }
};

namespace {

using s_json_ptr = qm::json_ptr;

// Base32 index of 'X', the prefix of curve25519 (xkey) NKeys.
constexpr uint8_t kCurvePrefix = 23;
// Version tag of a sealed message: the tag, a 24-byte nonce, then the crypto_box.
constexpr std::string_view kXkeyVersion = "xkv1";

constexpr const char* s_jwt_header = R"({"typ":"JWT","alg":"ed25519-nkey"})";
constexpr const char* s_base32_alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
constexpr const char* s_base64url_alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

class s_fd {
 public:
  explicit s_fd(int fd) : fd_(fd) {}
  ~s_fd() {
    if (fd_ >= 0) close(fd_);
  }
  s_fd(const s_fd&) = delete;
  s_fd& operator=(const s_fd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

// Reads up to `want` bytes; the count read (short at end of file), -1 on a read error.
ssize_t s_read_up_to(int fd, unsigned char* buf, size_t want) {
  size_t got = 0;
  while (got < want) {
    const ssize_t n = read(fd, buf + got, want - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(got);
}

// Derives the public and the expanded signing key from ctx.seed.
bool s_expand_seed(auth_jwt_ctx& ctx) {
  return crypto_sign_seed_keypair(ctx.public_key, ctx.secret_key, ctx.seed) == 0;
}

enum class s_seed_file { loaded, make_new, unreadable };

// Only a missing or short file asks for a new key. Anything else that stops us reading
// it (permissions, a directory, an I/O error) must not quietly change the issuer
// identity that nats-server trusts.
s_seed_file s_load_seed_file(const char* path, auth_jwt_ctx& ctx) {
  // Non-blocking, so that a FIFO in the key's place cannot hang the start.
  s_fd fd(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd.get() < 0) {
    if (errno == ENOENT) return s_seed_file::make_new;
    log_error("auth_jwt: cannot open signing key %s: %s", path, strerror(errno));
    return s_seed_file::unreadable;
  }
  struct stat st {};
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
    log_error("auth_jwt: signing key %s is not a regular file", path);
    return s_seed_file::unreadable;
  }
  qm::secret_bytes seed(s_key_size);
  const ssize_t got = s_read_up_to(fd.get(), seed.data(), seed.size());
  if (got < 0) {
    log_error("auth_jwt: cannot read signing key %s: %s", path, strerror(errno));
    return s_seed_file::unreadable;
  }
  if (got != static_cast<ssize_t>(s_key_size)) return s_seed_file::make_new;
  memcpy(ctx.seed, seed.data(), s_key_size);
  return s_expand_seed(ctx) ? s_seed_file::loaded : s_seed_file::unreadable;
}

bool s_generate_key(auth_jwt_ctx& ctx) {
  randombytes_buf(ctx.seed, sizeof ctx.seed);
  return s_expand_seed(ctx);
}

bool s_write_all(int fd, const unsigned char* data, size_t len) {
  size_t done = 0;
  while (done < len) {
    const ssize_t n = write(fd, data + done, len - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// Makes the rename itself durable; a failure here only weakens durability.
void s_sync_parent_dir(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  s_fd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() >= 0) (void)fsync(fd.get());
}

// A private key, owner-only: written whole to a temporary file next to the key, synced,
// then renamed into place, so that a crash leaves either the old file or the new key,
// never a torn one. Not being able to write is no error; the key then lives for this
// run only.
void s_store_seed_file(const char* path, const auth_jwt_ctx& ctx) {
  std::string tmp_path = std::string(path) + ".XXXXXX";
  s_fd fd(mkostemp(tmp_path.data(), O_CLOEXEC));
  if (fd.get() < 0) {
    log_warn("auth_jwt: cannot store the new signing key at %s: %s \u2014 it lives in memory for this run only", path,
             strerror(errno));
    return;
  }
  (void)fchmod(fd.get(), 0600);
  const bool stored = s_write_all(fd.get(), ctx.seed, s_key_size) && fsync(fd.get()) == 0;
  if (!stored || rename(tmp_path.c_str(), path) != 0) {
    log_warn("auth_jwt: cannot store the new signing key at %s: %s \u2014 it lives in memory for this run only", path,
             strerror(errno));
    unlink(tmp_path.c_str());
    return;
  }
  s_sync_parent_dir(path);
}

uint16_t s_crc16_xmodem(const unsigned char* data, size_t len) {
  uint16_t crc = 0;
  for (size_t i = 0; i < len; ++i) {
    crc = static_cast<uint16_t>(crc ^ (static_cast<uint16_t>(data[i]) << 8));
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 0x8000) != 0 ? static_cast<uint16_t>((crc << 1) ^ 0x1021) : static_cast<uint16_t>(crc << 1);
    }
  }
  return crc;
}

std::string s_base32_encode(const unsigned char* data, size_t len) {
  std::string out;
  out.reserve((len * 8 + 4) / 5);
  uint32_t buffer = 0;
  int bits = 0;
  for (size_t i = 0; i < len; ++i) {
    buffer = (buffer << 8) | data[i];
    bits += 8;
    while (bits >= 5) {
      out.push_back(s_base32_alphabet[(buffer >> (bits - 5)) & 0x1f]);
      bits -= 5;
    }
  }
  if (bits > 0) out.push_back(s_base32_alphabet[(buffer << (5 - bits)) & 0x1f]);
  return out;
}

int s_base64_value(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return 0;  // lenient: anything else reads as zero bits
}

// base64url or standard base64, padded with '=' to a multiple of 4 as it is read, with
// characters outside the alphabet read as zero bits; trailing '=' shorten the output.
// Decodes straight into a buffer that wipes itself: a callout request's claims carry the
// client's password.
qm::secret_bytes s_base64_decode_lenient(std::string_view text) {
  const size_t padded = (text.size() + 3) / 4 * 4;
  auto at = [&](size_t i) -> unsigned char {
    if (i >= text.size()) return '=';
    const char c = text[i];
    return c == '-' ? '+' : c == '_' ? '/' : static_cast<unsigned char>(c);
  };
  size_t padding = 0;
  while (padding < padded && padding < 3 && at(padded - 1 - padding) == '=') ++padding;
  qm::secret_bytes out(padded / 4 * 3 + 1);  // room for a terminating NUL
  size_t len = 0;
  for (size_t i = 0; i + 4 <= padded; i += 4) {
    uint32_t group = 0;
    for (size_t k = 0; k < 4; ++k) group = (group << 6) | static_cast<uint32_t>(s_base64_value(at(i + k)));
    out.data()[len++] = static_cast<unsigned char>((group >> 16) & 0xff);
    out.data()[len++] = static_cast<unsigned char>((group >> 8) & 0xff);
    out.data()[len++] = static_cast<unsigned char>(group & 0xff);
  }
  len = len >= padding ? len - padding : 0;
  out.data()[len] = 0;
  return out;
}

std::string s_sign(const auth_jwt_ctx& ctx, const std::string& input) {
  unsigned char signature[crypto_sign_BYTES];
  if (crypto_sign_detached(signature, nullptr, reinterpret_cast<const unsigned char*>(input.data()), input.size(),
                           ctx.secret_key) != 0) {
    return {};
  }
  return base64url_encode(signature, sizeof signature);
}

void s_add(json_object* obj, const char* key, json_object* value) { json_object_object_add(obj, key, value); }
void s_add_string(json_object* obj, const char* key, const char* value) {
  s_add(obj, key, json_object_new_string(value));
}

json_object* s_str_list_to_json_array(const char* const* list) {
  json_object* array = json_object_new_array();
  for (const char* const* p = list; *p != nullptr; ++p) json_object_array_add(array, json_object_new_string(*p));
  return array;
}

void s_add_perm_side(json_object* perms, const char* side, const char* const* allow, const char* const* deny) {
  if (allow == nullptr && deny == nullptr) return;
  json_object* obj = json_object_new_object();
  if (allow != nullptr) s_add(obj, "allow", s_str_list_to_json_array(allow));
  if (deny != nullptr) s_add(obj, "deny", s_str_list_to_json_array(deny));
  s_add(perms, side, obj);
}

// iat, iss, sub: the head every token shares.
s_json_ptr s_claims_head(const auth_jwt_ctx& ctx, int64_t now, const char* subject) {
  s_json_ptr claims(json_object_new_object());
  s_add(claims.get(), "iat", json_object_new_int64(now));
  s_add_string(claims.get(), "iss", ctx.public_key_str.c_str());
  s_add_string(claims.get(), "sub", subject);
  return claims;
}

json_object* s_nats_head(const char* type) {
  json_object* nats = json_object_new_object();
  s_add_string(nats, "type", type);
  s_add(nats, "version", json_object_new_int(2));
  return nats;
}

bool s_usable(const auth_jwt_ctx_t* ctx, char** out_jwt) { return ctx != nullptr && ctx->loaded && out_jwt != nullptr; }

int s_hand_out(const std::string& token, char** out_jwt) {
  *out_jwt = strdup(token.c_str());
  return *out_jwt != nullptr ? 0 : -1;
}

}  // namespace

auth_jwt_ctx_t* auth_jwt_init(const char* seed_path) {
  if (sodium_init() < 0) return nullptr;
  try {
    auto ctx = std::make_unique<auth_jwt_ctx>();
    if (seed_path != nullptr) {
      const s_seed_file found = s_load_seed_file(seed_path, *ctx);
      if (found == s_seed_file::unreadable) return nullptr;
      ctx->loaded = found == s_seed_file::loaded;
    }
    if (!ctx->loaded) {
      if (!s_generate_key(*ctx)) return nullptr;
      ctx->loaded = true;
      if (seed_path != nullptr) s_store_seed_file(seed_path, *ctx);
    }
    ctx->public_key_str = nkey_encode_public(0, ctx->public_key);
    if (crypto_sign_ed25519_sk_to_curve25519(ctx->xkey_secret, ctx->secret_key) != 0 ||
        crypto_scalarmult_curve25519_base(ctx->xkey_public, ctx->xkey_secret) != 0)
      return nullptr;
    ctx->xkey_str = nkey_encode_public(kCurvePrefix, ctx->xkey_public);
    return ctx.release();
  } catch (...) {
    return nullptr;
  }
}

const char* auth_jwt_public_key(const auth_jwt_ctx_t* ctx) { return ctx ? ctx->public_key_str.c_str() : nullptr; }

void auth_jwt_destroy(auth_jwt_ctx_t* ctx) { std::unique_ptr<auth_jwt_ctx> owned(ctx); }

std::string nkey_encode_public(uint8_t prefix_byte, const unsigned char raw_key[32]) {
  unsigned char raw[35];
  raw[0] = static_cast<unsigned char>(prefix_byte << 3);
  memcpy(raw + 1, raw_key, 32);
  const uint16_t crc = s_crc16_xmodem(raw, 33);
  raw[33] = static_cast<unsigned char>(crc & 0xff);
  raw[34] = static_cast<unsigned char>(crc >> 8);
  return s_base32_encode(raw, sizeof raw);
}

std::string base64url_encode(const unsigned char* data, size_t len) {
  std::string out;
  out.reserve((len + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= len; i += 3) {
    const uint32_t group = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8) | data[i + 2];
    for (int shift = 18; shift >= 0; shift -= 6) out.push_back(s_base64url_alphabet[(group >> shift) & 0x3f]);
  }
  const size_t rest = len - i;
  if (rest == 1) {
    const uint32_t group = uint32_t{data[i]} << 16;
    out.push_back(s_base64url_alphabet[(group >> 18) & 0x3f]);
    out.push_back(s_base64url_alphabet[(group >> 12) & 0x3f]);
  } else if (rest == 2) {
    const uint32_t group = (uint32_t{data[i]} << 16) | (uint32_t{data[i + 1]} << 8);
    out.push_back(s_base64url_alphabet[(group >> 18) & 0x3f]);
    out.push_back(s_base64url_alphabet[(group >> 12) & 0x3f]);
    out.push_back(s_base64url_alphabet[(group >> 6) & 0x3f]);
  }
  return out;
}

std::string build_jwt(const auth_jwt_ctx_t* ctx, json_object* payload) {
  if (ctx == nullptr || !ctx->loaded || payload == nullptr) return {};
  const char* payload_text = json_object_to_json_string_ext(payload, JSON_C_TO_STRING_PLAIN);
  if (payload_text == nullptr) return {};
  std::string token = base64url_encode(reinterpret_cast<const unsigned char*>(s_jwt_header), strlen(s_jwt_header));
  token += '.';
  token += base64url_encode(reinterpret_cast<const unsigned char*>(payload_text), strlen(payload_text));
  const std::string signature = s_sign(*ctx, token);
  token += '.';
  token += signature;
  return token;
}

int auth_jwt_sign_grant(const auth_jwt_ctx_t* ctx, const char* server_id, const char* user_nkey, const char* account,
                        const char* const* pub_allow, const char* const* pub_deny, const char* const* sub_allow,
                        const char* const* sub_deny, char** out_jwt) {
  return auth_jwt_sign_grant_ex(ctx, server_id, user_nkey, account, pub_allow, pub_deny, sub_allow, sub_deny, 0,
                                out_jwt);
}

int auth_jwt_sign_grant_ex(const auth_jwt_ctx_t* ctx, const char* server_id, const char* user_nkey,
                           const char* account, const char* const* pub_allow, const char* const* pub_deny,
                           const char* const* sub_allow, const char* const* sub_deny, int responses,
                           char** out_jwt) {
  if (!s_usable(ctx, out_jwt)) return -1;
  try {
    const int64_t now = static_cast<int64_t>(time(nullptr));
    const char* nkey = user_nkey ? user_nkey : "";

    s_json_ptr user = s_claims_head(*ctx, now, nkey);
    s_add_string(user.get(), "name", nkey);
    s_add_string(user.get(), "aud", account ? account : "$G");
    json_object* user_nats = s_nats_head("user");
    s_add_perm_side(user_nats, "pub", pub_allow, pub_deny);
    s_add_perm_side(user_nats, "sub", sub_allow, sub_deny);
    if (responses > 0) {
      json_object* resp = json_object_new_object();
      s_add(resp, "max", json_object_new_int(responses));
      // Bounded in time too, so that the server forgets the permission of every request
      // whose answer used fewer than `responses` messages.
      s_add(resp, "ttl", json_object_new_int64(kResponseWindowNs));
      s_add(user_nats, "resp", resp);
    }
    s_add(user.get(), "nats", user_nats);
    const std::string user_jwt = build_jwt(ctx, user.get());
    if (user_jwt.empty()) return -1;

    s_json_ptr response = s_claims_head(*ctx, now, nkey);
    s_add_string(response.get(), "aud", server_id ? server_id : "");
    json_object* nats = s_nats_head("authorization_response");
    s_add_string(nats, "user_nkey", nkey);
    s_add_string(nats, "jwt", user_jwt.c_str());
    s_add(response.get(), "nats", nats);
    return s_hand_out(build_jwt(ctx, response.get()), out_jwt);
  } catch (...) {
    return -1;
  }
}

int auth_jwt_sign_deny(const auth_jwt_ctx_t* ctx, const char* server_id, const char* user_nkey, const char* reason,
                       char** out_jwt) {
  if (!s_usable(ctx, out_jwt)) return -1;
  try {
    const int64_t now = static_cast<int64_t>(time(nullptr));
    s_json_ptr response = s_claims_head(*ctx, now, user_nkey ? user_nkey : "");
    s_add_string(response.get(), "aud", server_id ? server_id : "");
    json_object* nats = s_nats_head("authorization_response");
    s_add_string(nats, "error", reason ? reason : "access denied");
    s_add(response.get(), "nats", nats);
    return s_hand_out(build_jwt(ctx, response.get()), out_jwt);
  } catch (...) {
    return -1;
  }
}

qm::secret_json_ptr decode_jwt_claims(std::string_view token) {
  try {
    const size_t first = token.find('.');
    if (first == std::string_view::npos) return nullptr;
    const size_t second = token.find('.', first + 1);
    if (second == std::string_view::npos) return nullptr;
    const qm::secret_bytes decoded = s_base64_decode_lenient(token.substr(first + 1, second - first - 1));
    // Read as a C string: an embedded NUL ends the JSON text.
    return qm::json_parse_secret(reinterpret_cast<const char*>(decoded.data()));
  } catch (...) {
    return nullptr;
  }
}

json_object* decode_jwt_payload(const char* token) {
  return token != nullptr ? decode_jwt_claims(token).release() : nullptr;
}

int auth_jwt_print_issuer_nkey(const char* argv0, const char* seed_path) {
  std::unique_ptr<auth_jwt_ctx> ctx(auth_jwt_init(seed_path));
  if (!ctx) {
    fprintf(stderr, "%s: failed to load or generate signing seed at %s\n", argv0, seed_path ? seed_path : "");
    return 1;
  }
  const char* nkey = auth_jwt_public_key(ctx.get());
  if (nkey == nullptr || *nkey == '\0') {
    fprintf(stderr, "%s: signing key loaded but issuer NKey is empty\n", argv0);
    return 1;
  }
  printf("%s\n", nkey);
  fflush(stdout);
  return 0;
}

namespace {

// The raw key of a public NKey with the given prefix; false for anything else.
bool s_nkey_decode(std::string_view text, uint8_t prefix_index, unsigned char out[32]) {
  if (text.size() != 56) return false;
  unsigned char raw[35];
  size_t n = 0;
  uint32_t buffer = 0;
  int bits = 0;
  for (const char c : text) {
    const char* at = strchr(s_base32_alphabet, c);
    if (c == '\0' || at == nullptr) return false;
    buffer = (buffer << 5) | static_cast<uint32_t>(at - s_base32_alphabet);
    bits += 5;
    if (bits >= 8) {
      if (n == sizeof raw) return false;
      raw[n++] = static_cast<unsigned char>(buffer >> (bits - 8));
      bits -= 8;
    }
  }
  const uint16_t crc = s_crc16_xmodem(raw, 33);
  if (n != sizeof raw || raw[0] != static_cast<unsigned char>(prefix_index << 3) ||
      raw[33] != static_cast<unsigned char>(crc & 0xff) || raw[34] != static_cast<unsigned char>(crc >> 8))
    return false;
  memcpy(out, raw + 1, 32);
  return true;
}

}  // namespace

const char* auth_jwt_xkey(const auth_jwt_ctx_t* ctx) { return ctx ? ctx->xkey_str.c_str() : nullptr; }

namespace {

// A cluster has a few servers; a flood of made-up keys only empties the cache.
constexpr size_t kMaxSharedKeys = 64;

// The box key shared between the context's xkey and peer_xkey, or false when peer_xkey
// is not an xkey.
bool s_shared_key(const auth_jwt_ctx& ctx, std::string_view peer_xkey,
                  std::array<unsigned char, crypto_box_BEFORENMBYTES>& out) {
  const std::lock_guard lock(ctx.shared_mutex);
  const auto found = ctx.shared_keys.find(std::string(peer_xkey));
  if (found != ctx.shared_keys.end()) {
    out = found->second;
    return true;
  }
  unsigned char peer[32];
  if (!s_nkey_decode(peer_xkey, kCurvePrefix, peer) || crypto_box_beforenm(out.data(), peer, ctx.xkey_secret) != 0)
    return false;
  if (ctx.shared_keys.size() >= kMaxSharedKeys) {
    for (auto& [server, key] : ctx.shared_keys) sodium_memzero(key.data(), key.size());
    ctx.shared_keys.clear();
  }
  ctx.shared_keys.emplace(std::string(peer_xkey), out);
  return true;
}

// Wipes the copy of a shared key when it goes.
struct s_shared_copy {
  std::array<unsigned char, crypto_box_BEFORENMBYTES> key{};
  ~s_shared_copy() { sodium_memzero(key.data(), key.size()); }
};

}  // namespace

std::optional<qm::secret_string> auth_jwt_open(const auth_jwt_ctx_t* ctx, std::string_view sealed,
                                               std::string_view sender_xkey) {
  const size_t head = kXkeyVersion.size() + crypto_box_NONCEBYTES;
  s_shared_copy shared;
  if (ctx == nullptr || !ctx->loaded || sealed.size() < head + crypto_box_MACBYTES ||
      !sealed.starts_with(kXkeyVersion) || !s_shared_key(*ctx, sender_xkey, shared.key))
    return std::nullopt;
  const auto* nonce = reinterpret_cast<const unsigned char*>(sealed.data() + kXkeyVersion.size());
  const auto* box = reinterpret_cast<const unsigned char*>(sealed.data() + head);
  std::string plain(sealed.size() - head - crypto_box_MACBYTES, '\0');
  if (crypto_box_open_easy_afternm(reinterpret_cast<unsigned char*>(plain.data()), box, sealed.size() - head, nonce,
                                   shared.key.data()) != 0)
    return std::nullopt;  // nothing was written: there is nothing to wipe
  return qm::secret_string(std::move(plain));
}

std::string auth_jwt_seal(const auth_jwt_ctx_t* ctx, std::string_view plain, std::string_view recipient_xkey) {
  s_shared_copy shared;
  if (ctx == nullptr || !ctx->loaded || !s_shared_key(*ctx, recipient_xkey, shared.key)) return {};
  std::string sealed(kXkeyVersion);
  unsigned char nonce[crypto_box_NONCEBYTES];
  randombytes_buf(nonce, sizeof nonce);
  sealed.append(reinterpret_cast<const char*>(nonce), sizeof nonce);
  const size_t head = sealed.size();
  sealed.resize(head + plain.size() + crypto_box_MACBYTES);
  if (crypto_box_easy_afternm(reinterpret_cast<unsigned char*>(sealed.data() + head),
                              reinterpret_cast<const unsigned char*>(plain.data()), plain.size(), nonce,
                              shared.key.data()) != 0)
    return {};
  return sealed;
}

int auth_jwt_print_issuer_xkey(const char* argv0, const char* seed_path) {
  std::unique_ptr<auth_jwt_ctx> ctx(auth_jwt_init(seed_path));
  if (!ctx) {
    fprintf(stderr, "%s: failed to load or generate signing seed at %s\n", argv0, seed_path ? seed_path : "");
    return 1;
  }
  printf("%s\n", ctx->xkey_str.c_str());
  fflush(stdout);
  return 0;
}
