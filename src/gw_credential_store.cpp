#include "gw_credential_store.hpp"

#include <pthread.h>
#include <sodium.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <optional>
#include <string>
#include <vector>

#include "log.hpp"
#include "qm_handles.hpp"

namespace {

constexpr size_t s_digest_bytes = crypto_generichash_BYTES;

// A keyed hash that wipes itself.
struct s_digest {
  unsigned char bytes[s_digest_bytes] = {};
  s_digest() = default;
  s_digest(const s_digest& other) { memcpy(bytes, other.bytes, sizeof bytes); }
  s_digest& operator=(const s_digest&) = delete;
  ~s_digest() { sodium_memzero(bytes, sizeof bytes); }
};

// Keys the digests the table is compared by; drawn once per store.
struct s_digest_key {
  unsigned char bytes[crypto_generichash_KEYBYTES] = {};
  s_digest_key() { randombytes_buf(bytes, sizeof bytes); }
  s_digest_key(const s_digest_key&) = delete;
  s_digest_key& operator=(const s_digest_key&) = delete;
  ~s_digest_key() { sodium_memzero(bytes, sizeof bytes); }
};

s_digest s_digest_of(const s_digest_key& key, const char* text) {
  s_digest out;
  crypto_generichash(out.bytes, sizeof out.bytes, reinterpret_cast<const unsigned char*>(text), strlen(text),
                     key.bytes, sizeof key.bytes);
  return out;
}

// The clear text is kept for gw_credential_store_iterate; checks compare the digests.
struct credential_entry {
  std::string user;
  qm::secret_string password;
  s_digest user_digest;
  s_digest password_digest;
};
using credential_table = std::vector<credential_entry>;

}  // namespace

namespace {

// Reader-writer lock that lets a waiting writer in ahead of new readers: with the
// default (reader-preferring) kind, steady validation traffic could hold a reload off
// for ever.
class s_rwlock {
 public:
  s_rwlock() {
    pthread_rwlockattr_t attr;
    pthread_rwlockattr_init(&attr);
    pthread_rwlockattr_setkind_np(&attr, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
    pthread_rwlock_init(&lock_, &attr);
    pthread_rwlockattr_destroy(&attr);
  }
  ~s_rwlock() { pthread_rwlock_destroy(&lock_); }
  s_rwlock(const s_rwlock&) = delete;
  s_rwlock& operator=(const s_rwlock&) = delete;
  void lock_shared() { pthread_rwlock_rdlock(&lock_); }
  void unlock_shared() { pthread_rwlock_unlock(&lock_); }
  void lock() { pthread_rwlock_wrlock(&lock_); }
  void unlock() { pthread_rwlock_unlock(&lock_); }

 private:
  pthread_rwlock_t lock_;
};

}  // namespace

struct gw_credential_store {
  std::string path;
  s_digest_key digest_key;
  credential_table entries;  // capacity reserved up front: at most 128 entries
  s_rwlock lock;
};

namespace {

constexpr size_t s_line_buffer_size = 1024;

using s_file_ptr = qm::file_ptr;

const char* s_skip_space(const char* p) {
  while (*p != '\0' && isspace(static_cast<unsigned char>(*p))) ++p;
  return p;
}

// `key: "value"` at the first occurrence of key in the line; nullopt when that
// occurrence is not followed by a colon and a closed, double-quoted value.
std::optional<std::string> s_extract_value(const char* line, const char* key) {
  const char* p = strstr(line, key);
  if (p == nullptr) return std::nullopt;
  p = s_skip_space(p + strlen(key));
  if (*p != ':') return std::nullopt;
  p = s_skip_space(p + 1);
  if (*p != '"') return std::nullopt;
  const char* value = p + 1;
  const char* closing = strchr(value, '"');
  if (closing == nullptr) return std::nullopt;
  return std::string(value, static_cast<size_t>(closing - value));
}

// The line scanner: one key per line, a user waits for the next password. Returns
// false when the file cannot be opened (logged).
bool s_parse_file(const std::string& path, const s_digest_key& key, credential_table& out) {
  s_file_ptr file(fopen(path.c_str(), "re"));
  if (!file) {
    log_error("credential_store: cannot open %s: %m", path.c_str());
    return false;
  }
  out.clear();
  out.reserve(GW_CREDENTIAL_STORE_CAPACITY);
  char line[s_line_buffer_size];
  std::optional<std::string> pending_user;
  while (fgets(line, sizeof line, file.get()) != nullptr) {
    if (out.size() >= static_cast<size_t>(GW_CREDENTIAL_STORE_CAPACITY)) break;
    const char* text = s_skip_space(line);
    if (*text == '#' || *text == '\n' || *text == '\0') continue;
    if (auto user = s_extract_value(text, "user")) {
      pending_user = std::move(user);
      continue;
    }
    auto password = s_extract_value(text, "password");
    if (!password) continue;
    qm::secret_string secret(std::move(*password));
    if (!pending_user) continue;
    s_digest user_digest = s_digest_of(key, pending_user->c_str());
    s_digest password_digest = s_digest_of(key, secret.c_str());
    out.push_back(credential_entry{std::move(*pending_user), std::move(secret), user_digest, password_digest});
    pending_user.reset();
  }
  OPENSSL_cleanse(line, sizeof line);
  // A read error (a directory, an I/O fault) is no empty file: the caller keeps what it has.
  if (ferror(file.get())) {
    log_error("credential_store: cannot open %s: %m", path.c_str());
    return false;
  }
  return true;
}

}  // namespace

gw_credential_store_t* gw_credential_store_load(const char* path) {
  if (path == nullptr) return nullptr;
  if (sodium_init() < 0) {
    log_error("credential_store: sodium_init failed");
    return nullptr;
  }
  try {
    auto store = std::make_unique<gw_credential_store>();
    store->path = path;
    if (!s_parse_file(store->path, store->digest_key, store->entries)) return nullptr;
    log_info("credential_store: loaded %d credentials from %s", static_cast<int>(store->entries.size()), path);
    return store.release();
  } catch (...) {
    return nullptr;
  }
}

// Every entry is compared, by digests of equal length, without stopping at a match: how
// long a check takes tells nothing about how close a guess came, nor which users exist.
bool gw_credential_store_validate(gw_credential_store_t* store, const char* user, const char* password) {
  if (store == nullptr || user == nullptr || password == nullptr) return false;
  const s_digest user_digest = s_digest_of(store->digest_key, user);
  const s_digest password_digest = s_digest_of(store->digest_key, password);
  int matched = 0;
  std::shared_lock guard(store->lock);
  for (const credential_entry& entry : store->entries) {
    // crypto_verify_32 gives 0 for equal, -1 otherwise.
    matched |= ~(crypto_verify_32(entry.user_digest.bytes, user_digest.bytes) |
                 crypto_verify_32(entry.password_digest.bytes, password_digest.bytes)) &
               1;
  }
  return matched != 0;
}

void gw_credential_store_iterate(gw_credential_store_t* store, gw_credential_iter_fn fn, void* userdata) {
  if (store == nullptr || fn == nullptr) return;
  std::shared_lock guard(store->lock);
  for (const credential_entry& entry : store->entries) {
    if (!fn(entry.user.c_str(), entry.password.c_str(), userdata)) break;
  }
}

int gw_credential_store_reload(gw_credential_store_t* store) {
  if (store == nullptr || store->path.empty()) return -1;
  try {
    credential_table fresh;
    if (!s_parse_file(store->path, store->digest_key, fresh)) return -1;
    int count = 0;
    {
      std::unique_lock guard(store->lock);
      store->entries.swap(fresh);
      count = static_cast<int>(store->entries.size());
    }
    // `fresh` now holds the old entries; their passwords are wiped as it goes.
    log_info("credential_store: reloaded %d credentials", count);
    return 0;
  } catch (...) {
    return -1;
  }
}

void gw_credential_store_free(gw_credential_store_t* store) { std::unique_ptr<gw_credential_store> owned(store); }
