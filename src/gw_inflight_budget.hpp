// The payload bytes both front doors may hold in memory at once (--max-inflight-mb). A
// door reserves what a request will hold before it reads or keeps it, and gives it back
// when the request is done; a request that does not fit is refused (HTTP 503) or waits
// for credit (AMQP), so that memory stays bounded whatever the clients send. Thread-safe.
#pragma once

#include <cstdint>
#include <functional>

#include "broker_metrics.hpp"

struct gw_inflight_budget;

// A budget of `limit_bytes` (at least 1). NULL when memory runs out.
gw_inflight_budget* gw_inflight_budget_create(uint64_t limit_bytes);
void gw_inflight_budget_destroy(gw_inflight_budget* budget);  // NULL-safe

// Reserves `bytes` when they fit under the limit now: 0; else -1 and nothing is taken.
// A reservation of 0 bytes always succeeds; one larger than the whole limit never does.
int gw_inflight_budget_try_acquire(gw_inflight_budget* budget, uint64_t bytes);
// As try_acquire, but waits up to `wait_ms` for releases to make room.
int gw_inflight_budget_acquire(gw_inflight_budget* budget, uint64_t bytes, int wait_ms);
// Counts bytes that are already in memory and must not be lost (an AMQP message that has
// arrived on credit granted earlier, a reply waiting for its client), past the limit if
// need be: what a door then withholds waits until they are freed. True when they fitted.
bool gw_inflight_budget_charge(gw_inflight_budget* budget, uint64_t bytes);
// True while nothing more fits (the bytes held have reached the limit). False for NULL.
bool gw_inflight_budget_spent(const gw_inflight_budget* budget);
// Gives back bytes taken by an acquire or a charge; wakes waiters and runs the release hook.
void gw_inflight_budget_release(gw_inflight_budget* budget, uint64_t bytes);

// Called, outside the budget's lock, after every release: a door that withholds work
// (AMQP credit) re-offers it here. One hook; a later call replaces it; an empty one clears it.
void gw_inflight_budget_set_release_hook(gw_inflight_budget* budget, std::function<void()> hook);

uint64_t gw_inflight_budget_in_use(const gw_inflight_budget* budget);
uint64_t gw_inflight_budget_limit(const gw_inflight_budget* budget);

// Counts and logs (at most once a second per door) one request refused for the budget.
void gw_inflight_budget_note_refusal(gw_inflight_budget* budget, broker_metrics_door_t door, uint64_t bytes);

namespace qm {
// Bytes held of a budget, given back when the holder goes. Move-only; an empty holder
// (no budget, or nothing taken) gives back nothing.
class inflight_bytes {
 public:
  inflight_bytes() = default;
  inflight_bytes(gw_inflight_budget* budget, uint64_t bytes) : budget_(budget), bytes_(bytes) {}
  inflight_bytes(inflight_bytes&& o) noexcept : budget_(o.budget_), bytes_(o.bytes_) { o.bytes_ = 0; }
  inflight_bytes& operator=(inflight_bytes&& o) noexcept {
    if (this != &o) {
      reset();
      budget_ = o.budget_;
      bytes_ = o.bytes_;
      o.bytes_ = 0;
    }
    return *this;
  }
  inflight_bytes(const inflight_bytes&) = delete;
  inflight_bytes& operator=(const inflight_bytes&) = delete;
  ~inflight_bytes() { reset(); }

  // Takes `more` bytes in addition when they fit now (try_acquire semantics).
  bool grow(uint64_t more) {
    if (budget_ == nullptr || gw_inflight_budget_try_acquire(budget_, more) != 0) return budget_ == nullptr;
    bytes_ += more;
    return true;
  }
  void reset() {
    if (budget_ != nullptr && bytes_ > 0) gw_inflight_budget_release(budget_, bytes_);
    bytes_ = 0;
  }
  uint64_t bytes() const { return bytes_; }

 private:
  gw_inflight_budget* budget_ = nullptr;
  uint64_t bytes_ = 0;
};
}  // namespace qm
