#include "qm_nats_nr_backoff.hpp"

#include <cerrno>

#include "log.hpp"
#include "qm_cpp.hpp"

namespace {

timespec s_now() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now;
}

uint64_t s_elapsed_ms(const timespec& since, const timespec& now) {
  const int64_t ms = static_cast<int64_t>(now.tv_sec - since.tv_sec) * 1000 + (now.tv_nsec - since.tv_nsec) / 1000000;
  return ms > 0 ? static_cast<uint64_t>(ms) : 0;
}

}  // namespace

void qm_nats_nr_init(qm_nats_nr_state_t* st) {
  if (st == nullptr) return;
  st->t0 = s_now();
  st->retries = 0;
  st->waited_ms = 0;
}

int64_t qm_nats_nr_attempt_timeout_ms(const qm_nats_nr_state_t* st, unsigned long budget_ms) {
  const uint64_t waited = st != nullptr ? st->waited_ms : 0;
  if (waited >= budget_ms) return 0;
  return static_cast<int64_t>(budget_ms - waited);
}

int qm_nats_nr_should_retry(qm_nats_nr_state_t* st, unsigned long budget_ms, const char* label) {
  if (st == nullptr) return 0;
  if (st->retries > QM_NATS_NR_MAX_RETRIES - 1) return 0;
  unsigned long delay = QM_NATS_NR_BASE_DELAY_MS << st->retries;
  // The clock's nanoseconds are random enough to keep a fleet of retrying callers apart.
  const timespec now = s_now();
  delay += static_cast<unsigned long>(now.tv_nsec) % (delay / 2 + 1);
  const uint64_t elapsed = s_elapsed_ms(st->t0, now);
  if (delay + st->waited_ms > QM_NATS_NR_MAX_TOTAL_SLEEP_MS) return 0;
  if (budget_ms <= delay + elapsed) return 0;
  log_debug("nats: no responders for %s - backoff %lums, retry %u/%u", label != nullptr ? label : "(unknown)", delay,
            st->retries + 1, QM_NATS_NR_MAX_RETRIES);
  qm::sleep_ms(static_cast<int64_t>(delay));
  st->waited_ms += delay;
  st->retries += 1;
  return 1;
}
