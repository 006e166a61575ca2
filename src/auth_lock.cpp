#include "auth_lock.hpp"

#include <sodium.h>

#include <algorithm>
#include <chrono>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>

#include "broker_metrics.hpp"
#include "log.hpp"

namespace {

// Users are counted under a keyed hash of their name: every entry has the same small
// size however long the names a client makes up.
constexpr size_t kUserKeyBytes = 16;
// How far from the oldest end eviction looks for a user that is not locked.
constexpr size_t kEvictionScan = 64;

struct counted_user {
  std::string key;
  int failures = 0;
  int64_t window_start_ms = 0;
  int locks = 0;               // locks of this run: the next one lasts min << locks
  int64_t locked_until_ms = 0;
  int64_t last_event_ms = 0;   // the last failure or the end of the last lock
};

int64_t s_steady_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace

struct auth_lock {
  auth_lock_options options;
  unsigned char hash_key[crypto_generichash_KEYBYTES] = {};
  mutable std::mutex mu;
  std::list<counted_user> users;  // most recent failure first
  std::unordered_map<std::string, std::list<counted_user>::iterator> by_key;

  ~auth_lock() { sodium_memzero(hash_key, sizeof hash_key); }

  int64_t now() const { return options.now_ms ? options.now_ms() : s_steady_ms(); }

  std::string key_of(const std::string& user) const {
    std::string key(kUserKeyBytes, '\0');
    crypto_generichash(reinterpret_cast<unsigned char*>(key.data()), key.size(),
                       reinterpret_cast<const unsigned char*>(user.data()), user.size(), hash_key, sizeof hash_key);
    return key;
  }

  counted_user* find(const std::string& key) {
    const auto it = by_key.find(key);
    return it == by_key.end() ? nullptr : &*it->second;
  }

  // Room for one more: the oldest user that is not locked goes, or the oldest of all
  // when every one near the end is locked (a flood must not grow the table).
  void make_room(int64_t now_ms) {
    if (users.size() < options.max_users) return;
    auto victim = std::prev(users.end());
    auto it = victim;
    for (size_t scanned = 0; scanned < kEvictionScan; ++scanned) {
      if (it->locked_until_ms <= now_ms) {
        victim = it;
        break;
      }
      if (it == users.begin()) break;
      --it;
    }
    by_key.erase(victim->key);
    users.erase(victim);
  }

  counted_user& touch(const std::string& key, int64_t now_ms) {
    const auto it = by_key.find(key);
    if (it != by_key.end()) {
      users.splice(users.begin(), users, it->second);
      return users.front();
    }
    make_room(now_ms);
    users.push_front(counted_user{key, 0, now_ms, 0, 0, now_ms});
    try {
      by_key.emplace(key, users.begin());
    } catch (...) {
      users.pop_front();
      throw;
    }
    return users.front();
  }

  // Seconds the next lock of this user lasts.
  int lock_seconds(const counted_user& u) const {
    const int64_t doubled = static_cast<int64_t>(options.min_seconds) << std::min(u.locks, 30);
    return static_cast<int>(std::min<int64_t>(doubled, options.max_seconds));
  }
};

auth_lock_t* auth_lock_create(const auth_lock_options& options) {
  if (options.failures < 1) return nullptr;
  try {
    auto lock = std::make_unique<auth_lock>();
    lock->options = options;
    lock->options.window_seconds = std::max(lock->options.window_seconds, 1);
    lock->options.min_seconds = std::max(lock->options.min_seconds, 1);
    lock->options.max_seconds = std::max(lock->options.max_seconds, lock->options.min_seconds);
    lock->options.max_users = std::max<size_t>(lock->options.max_users, 1);
    randombytes_buf(lock->hash_key, sizeof lock->hash_key);
    return lock.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void auth_lock_destroy(auth_lock_t* lock) { std::unique_ptr<auth_lock> owned(lock); }

bool auth_lock_refuses(auth_lock_t* lock, const std::string& user) {
  if (lock == nullptr) return false;
  const std::string key = lock->key_of(user);
  const int64_t now_ms = lock->now();
  std::lock_guard<std::mutex> guard(lock->mu);
  const counted_user* u = lock->find(key);
  return u != nullptr && now_ms < u->locked_until_ms;
}

void auth_lock_note(auth_lock_t* lock, const std::string& user, bool granted) {
  if (lock == nullptr) return;
  const std::string key = lock->key_of(user);
  const int64_t now_ms = lock->now();
  const int64_t window_ms = int64_t{lock->options.window_seconds} * 1000;
  int locked_for_s = 0;
  int failures = 0;
  {
    std::lock_guard<std::mutex> guard(lock->mu);
    if (granted) {
      const auto it = lock->by_key.find(key);
      if (it == lock->by_key.end()) return;
      lock->users.erase(it->second);
      lock->by_key.erase(it);
      return;
    }
    try {
      counted_user& u = lock->touch(key, now_ms);
      if (now_ms < u.locked_until_ms) return;  // a check that was under way when the lock came
      if (now_ms - u.last_event_ms >= window_ms) u.locks = 0;  // a quiet window ends the run
      if (now_ms - u.window_start_ms >= window_ms) {
        u.failures = 0;
        u.window_start_ms = now_ms;
      }
      ++u.failures;
      u.last_event_ms = now_ms;
      if (u.failures < lock->options.failures) return;
      locked_for_s = lock->lock_seconds(u);
      failures = u.failures;
      u.locked_until_ms = now_ms + int64_t{locked_for_s} * 1000;
      u.last_event_ms = u.locked_until_ms;
      ++u.locks;
    } catch (const std::bad_alloc&) {
      return;  // not counted: the check itself was still refused
    }
  }
  log_warn("auth_lock: user=%s locked for %d s after %d failed password checks", log_safe(user).c_str(),
           locked_for_s, failures);
  broker_metrics_count_auth_lock();
}

size_t auth_lock_tracked(const auth_lock_t* lock) {
  if (lock == nullptr) return 0;
  std::lock_guard<std::mutex> guard(lock->mu);
  return lock->users.size();
}
