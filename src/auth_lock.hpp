// A soft lock per user name against password guessing: after too many failed password
// checks within a window, every check for that user is refused without being made,
// for a time that doubles with each lock of a run. One lock serves every door (the
// callout, the verify endpoint, the REST and AMQP doors): whoever decides a check asks
// it first and tells it the outcome after.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

struct auth_lock;
using auth_lock_t = auth_lock;

struct auth_lock_options {
  int failures = 10;           // failed checks within `window_seconds` that lock the user
  int window_seconds = 600;    // the count starts afresh once this has passed since its first failure
  int min_seconds = 1;         // the first lock of a run; each further lock doubles it ...
  int max_seconds = 300;       // ... up to this
  size_t max_users = 10000;    // users counted at once; beyond it the oldest unlocked one is forgotten
  std::function<int64_t()> now_ms;  // monotonic milliseconds; empty: the steady clock
};

// NULL when failures < 1 (the lock is off) or memory runs out.
auth_lock_t* auth_lock_create(const auth_lock_options& options);
// Accepts NULL.
void auth_lock_destroy(auth_lock_t* lock);

// True while `user` is locked: the caller refuses the check, without making it, exactly
// as it refuses a wrong password. False for a NULL lock.
bool auth_lock_refuses(auth_lock_t* lock, const std::string& user);

// The outcome of a check made for `user`. A success forgets the user's failures and
// locks; a failure may lock the user (logged once, and counted in the metrics). NULL
// lock: nothing.
void auth_lock_note(auth_lock_t* lock, const std::string& user, bool granted);

// Users counted now (for tests and the bound on memory); 0 for NULL.
size_t auth_lock_tracked(const auth_lock_t* lock);
