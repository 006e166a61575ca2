// Retry policy for NATS requests that fail with a transient status (chiefly "no
// responders": the worker for a subject is restarting or not subscribed yet). A few
// short, jittered, growing pauses that never outlast the caller's budget and never
// add up to more than a fixed total.
//
// Use: qm_nats_nr_init once per exchange; per attempt qm_nats_nr_attempt_timeout_ms,
// the NATS call, and on a transient status qm_nats_nr_should_retry (repeat on 1).
#pragma once

#include <cstdint>
#include <ctime>

struct qm_nats_nr_state {
  timespec t0;         // monotonic time the exchange began
  uint32_t retries;    // retries granted so far
  uint64_t waited_ms;  // total sleep in back-off so far
};
using qm_nats_nr_state_t = qm_nats_nr_state;

inline constexpr unsigned long QM_NATS_NR_BASE_DELAY_MS = 25;
inline constexpr uint32_t QM_NATS_NR_MAX_RETRIES = 4;
inline constexpr uint64_t QM_NATS_NR_MAX_TOTAL_SLEEP_MS = 400;

// Starts an exchange now. NULL is ignored.
void qm_nats_nr_init(qm_nats_nr_state_t* st);

// The wait to give the next attempt: budget_ms less the time slept in back-off (a NULL
// state counts as nothing slept), never below 0. Time spent in failed attempts is
// deliberately not deducted.
int64_t qm_nats_nr_attempt_timeout_ms(const qm_nats_nr_state_t* st, unsigned long budget_ms);

// 1 after sleeping the next back-off when another attempt is worth it, else 0 (no
// state, retries used up, total sleep cap reached, or the retry could not finish inside
// budget_ms counted from the start of the exchange). `label` (the subject) is for the
// log line only.
int qm_nats_nr_should_retry(qm_nats_nr_state_t* st, unsigned long budget_ms, const char* label);
