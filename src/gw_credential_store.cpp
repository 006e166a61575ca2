#include "gw_credential_store.hpp"

#include <pthread.h>
#include <sodium.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
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

bool s_is_space(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

std::string_view s_skip_space(std::string_view text) {
  size_t at = 0;
  while (at < text.size() && s_is_space(text[at])) ++at;
  return text.substr(at);
}

// `key: "value"` at the first occurrence of key in the line; nullopt when that
// occurrence is not followed by a colon and a closed, double-quoted value, or when the
// value holds a NUL byte (no check could ever match it).
std::optional<std::string_view> s_extract_value(std::string_view line, std::string_view key) {
  const size_t found = line.find(key);
  if (found == std::string_view::npos) return std::nullopt;
  std::string_view rest = s_skip_space(line.substr(found + key.size()));
  if (rest.empty() || rest.front() != ':') return std::nullopt;
  rest = s_skip_space(rest.substr(1));
  if (rest.empty() || rest.front() != '"') return std::nullopt;
  rest.remove_prefix(1);
  const size_t closing = rest.find('"');
  if (closing == std::string_view::npos) return std::nullopt;
  const std::string_view value = rest.substr(0, closing);
  if (value.find('\0') != std::string_view::npos) return std::nullopt;
  return value;
}

// `#` starts a comment in nats-server's configuration language, and so does `//`.
bool s_is_comment_or_blank(std::string_view text) {
  return text.empty() || text.front() == '#' || text.starts_with("//");
}

// The whole file, in memory that is wiped when it goes: physical lines of any length are
// read whole, and neither a stdio buffer nor a grown buffer leaves a password behind.
bool s_read_whole(int fd, qm::secret_bytes& out) {
  struct stat st {};
  const size_t expected = fstat(fd, &st) == 0 && st.st_size > 0 ? static_cast<size_t>(st.st_size) : 0;
  qm::secret_bytes buffer(expected + 4096);
  size_t used = 0;
  for (;;) {
    if (used == buffer.size()) {
      qm::secret_bytes bigger(buffer.size() * 2);
      memcpy(bigger.data(), buffer.data(), used);
      buffer = std::move(bigger);
    }
    const ssize_t n = read(fd, buffer.data() + used, buffer.size() - used);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    used += static_cast<size_t>(n);
  }
  out = qm::secret_bytes(buffer.data(), used);
  return true;
}

// The line scanner: one key per line, a user waits for the next password. Returns the
// user of the first pair beyond the table's capacity, if there is one.
std::optional<std::string> s_scan_lines(std::string_view content, const s_digest_key& key, credential_table& out) {
  std::optional<std::string> pending_user;
  while (!content.empty()) {
    const size_t eol = content.find('\n');
    const std::string_view line = content.substr(0, eol);
    content.remove_prefix(eol == std::string_view::npos ? content.size() : eol + 1);
    const std::string_view text = s_skip_space(line);
    if (s_is_comment_or_blank(text)) continue;
    if (const std::optional<std::string_view> user = s_extract_value(text, "user")) {
      pending_user.emplace(*user);
      continue;
    }
    const std::optional<std::string_view> password = s_extract_value(text, "password");
    if (!password || !pending_user) continue;
    if (out.size() >= static_cast<size_t>(GW_CREDENTIAL_STORE_CAPACITY)) return pending_user;
    qm::secret_string secret{std::string(*password)};
    s_digest user_digest = s_digest_of(key, pending_user->c_str());
    s_digest password_digest = s_digest_of(key, secret.c_str());
    out.push_back(credential_entry{std::move(*pending_user), std::move(secret), user_digest, password_digest});
    pending_user.reset();
  }
  return std::nullopt;
}

// Reads the file into `out`. False when the file cannot be opened or read (logged): the
// caller keeps what it has.
bool s_parse_file(const std::string& path, const s_digest_key& key, credential_table& out) {
  const qm::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  qm::secret_bytes content;
  if (!fd || !s_read_whole(fd.get(), content)) {
    log_error("credential_store: cannot open %s: %m", path.c_str());
    return false;
  }
  out.clear();
  out.reserve(GW_CREDENTIAL_STORE_CAPACITY);
  const std::optional<std::string> dropped =
      s_scan_lines(std::string_view(reinterpret_cast<const char*>(content.data()), content.size()), key, out);
  if (dropped) {
    log_warn("credential_store: %s holds more than %d credentials; user '%s' and every one after it are ignored",
             path.c_str(), GW_CREDENTIAL_STORE_CAPACITY, log_safe(*dropped).c_str());
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
