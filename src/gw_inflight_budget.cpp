#include "gw_inflight_budget.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <memory>
#include <new>

#include "log.hpp"

struct gw_inflight_budget {
  explicit gw_inflight_budget(uint64_t limit_bytes) : limit(limit_bytes) {}

  const uint64_t limit;
  mutable std::mutex mu;
  std::condition_variable released;
  uint64_t in_use = 0;
  std::function<void()> hook;
  // Last refusal logged per door, in steady-clock seconds: a flood is logged, not mirrored.
  std::array<std::atomic<int64_t>, 2> last_log_s{};

  bool fits_locked(uint64_t bytes) const { return bytes <= limit && in_use <= limit - bytes; }
  void take_locked(uint64_t bytes) {
    in_use += bytes;
    broker_metrics_inflight_bytes(static_cast<int64_t>(bytes));
  }
};

gw_inflight_budget* gw_inflight_budget_create(uint64_t limit_bytes) {
  try {
    return std::make_unique<gw_inflight_budget>(limit_bytes < 1 ? 1 : limit_bytes).release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void gw_inflight_budget_destroy(gw_inflight_budget* budget) { std::unique_ptr<gw_inflight_budget> owned(budget); }

int gw_inflight_budget_try_acquire(gw_inflight_budget* budget, uint64_t bytes) {
  if (budget == nullptr) return -1;
  if (bytes == 0) return 0;
  std::lock_guard<std::mutex> lock(budget->mu);
  if (!budget->fits_locked(bytes)) return -1;
  budget->take_locked(bytes);
  return 0;
}

int gw_inflight_budget_acquire(gw_inflight_budget* budget, uint64_t bytes, int wait_ms) {
  if (budget == nullptr) return -1;
  if (bytes == 0) return 0;
  std::unique_lock<std::mutex> lock(budget->mu);
  if (bytes > budget->limit) return -1;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait_ms < 0 ? 0 : wait_ms);
  if (!budget->released.wait_until(lock, deadline, [&] { return budget->fits_locked(bytes); })) return -1;
  budget->take_locked(bytes);
  return 0;
}

bool gw_inflight_budget_charge(gw_inflight_budget* budget, uint64_t bytes) {
  if (budget == nullptr || bytes == 0) return true;
  std::lock_guard<std::mutex> lock(budget->mu);
  const bool fits = budget->fits_locked(bytes);
  budget->take_locked(bytes);
  return fits;
}

bool gw_inflight_budget_spent(const gw_inflight_budget* budget) {
  if (budget == nullptr) return false;
  std::lock_guard<std::mutex> lock(budget->mu);
  return budget->in_use >= budget->limit;
}

void gw_inflight_budget_release(gw_inflight_budget* budget, uint64_t bytes) {
  if (budget == nullptr || bytes == 0) return;
  std::function<void()> hook;
  {
    std::lock_guard<std::mutex> lock(budget->mu);
    const uint64_t given = bytes < budget->in_use ? bytes : budget->in_use;
    budget->in_use -= given;
    broker_metrics_inflight_bytes(-static_cast<int64_t>(given));
    hook = budget->hook;
  }
  budget->released.notify_all();
  if (hook) hook();
}

void gw_inflight_budget_set_release_hook(gw_inflight_budget* budget, std::function<void()> hook) {
  if (budget == nullptr) return;
  std::lock_guard<std::mutex> lock(budget->mu);
  budget->hook = std::move(hook);
}

uint64_t gw_inflight_budget_in_use(const gw_inflight_budget* budget) {
  if (budget == nullptr) return 0;
  std::lock_guard<std::mutex> lock(budget->mu);
  return budget->in_use;
}

uint64_t gw_inflight_budget_limit(const gw_inflight_budget* budget) { return budget == nullptr ? 0 : budget->limit; }

void gw_inflight_budget_note_refusal(gw_inflight_budget* budget, broker_metrics_door_t door, uint64_t bytes) {
  broker_metrics_count_budget_refusal(door);
  if (budget == nullptr) return;
  const auto d = static_cast<size_t>(door) < budget->last_log_s.size() ? static_cast<size_t>(door) : 0;
  const int64_t now_s =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
  int64_t last = budget->last_log_s[d].load(std::memory_order_relaxed);
  if (last == now_s || !budget->last_log_s[d].compare_exchange_strong(last, now_s)) return;
  log_warn("gateway: in-flight payload budget spent (%llu of %llu bytes held); refused a %s request of %llu bytes",
             static_cast<unsigned long long>(gw_inflight_budget_in_use(budget)),
             static_cast<unsigned long long>(budget->limit), door == BROKER_METRICS_DOOR_HTTP ? "HTTP" : "AMQP",
             static_cast<unsigned long long>(bytes));
}
