// Back-off for NATS "no responders": jittered doubling pauses, refused once the count,
// the total sleep or the caller's budget would be exceeded.
#include "qm_nats_nr_backoff.hpp"

#include "test_prelude.hpp"

namespace {

qm_nats_nr_state_t fresh_state(uint32_t retries = 0, uint64_t waited_ms = 0) {
  qm_nats_nr_state_t st;
  qm_nats_nr_init(&st);
  st.retries = retries;
  st.waited_ms = waited_ms;
  return st;
}

TEST(NatsRetryBackoff, PausesGrowWithinTheirJitterBoundsAndAreLogged) {
  LogCapture log;
  qm_nats_nr_state_t st = fresh_state();
  const struct {
    uint64_t min_ms, max_ms;
    const char* label;
    const char* logged;
  } pauses[] = {{25, 37, "jobs.scan", "nats: no responders for jobs.scan - backoff "},
                {50, 75, nullptr, "nats: no responders for (unknown) - backoff "},
                {100, 150, "jobs.scan", "ms, retry 3/4"}};
  for (const auto& p : pauses) {
    SCOPED_TRACE(p.min_ms);
    const uint64_t before = st.waited_ms;
    ASSERT_EQ(qm_nats_nr_should_retry(&st, 60000, p.label), 1);
    EXPECT_GE(st.waited_ms - before, p.min_ms);
    EXPECT_LE(st.waited_ms - before, p.max_ms);
    EXPECT_LOGGED(log, p.logged);
  }
  EXPECT_EQ(st.retries, 3u);
}

TEST(NatsRetryBackoff, RefusesBeyondTheCountTheTotalSleepAndTheBudget) {
  const struct {
    const char* why;
    uint32_t retries;
    uint64_t waited_ms;
    unsigned long budget_ms;
  } refused[] = {
      {"201 + a 200 ms pause exceeds the 400 ms total", 3, 201, 60000},
      {"a 25 ms pause cannot end inside 25 ms", 0, 0, 25},
  };
  for (const auto& r : refused) {
    qm_nats_nr_state_t st = fresh_state(r.retries, r.waited_ms);
    EXPECT_EQ(qm_nats_nr_should_retry(&st, r.budget_ms, "x"), 0) << r.why;
    EXPECT_EQ(st.retries, r.retries) << r.why;
  }
  // A fifth pause is at least 400 ms, so the total refuses it too, unless its jitter is 0:
  // only then does the count decide. Ask often enough to meet that jitter.
  for (int attempt = 0; attempt < 20000; ++attempt) {
    qm_nats_nr_state_t st = fresh_state(4, 0);
    ASSERT_EQ(qm_nats_nr_should_retry(&st, 60000, "x"), 0) << "a fifth retry, attempt " << attempt;
  }
  EXPECT_EQ(qm_nats_nr_should_retry(nullptr, 10000, "x"), 0);
  qm_nats_nr_init(nullptr);

  // A short budget grants only the retries that end inside it.
  qm_nats_nr_state_t st = fresh_state();
  while (qm_nats_nr_should_retry(&st, 100, "svc.scan") == 1) {
  }
  EXPECT_GE(st.retries, 1u);
  EXPECT_LT(st.waited_ms, 100u);
}

TEST(NatsRetryBackoff, AttemptTimeoutDeductsOnlyTheSleeps) {
  for (const auto& [waited_ms, left_ms] : {std::pair<uint64_t, int>{0, 1000}, {300, 700}, {1500, 0}}) {
    const qm_nats_nr_state_t st = fresh_state(1, waited_ms);
    EXPECT_EQ(qm_nats_nr_attempt_timeout_ms(&st, 1000), left_ms) << waited_ms;
  }
  EXPECT_EQ(qm_nats_nr_attempt_timeout_ms(nullptr, 1234), 1234);
}

}  // namespace
