#include "qm_nats_nr_backoff.hpp"

#include <gtest/gtest.h>

#include "log_capture.hpp"

namespace {

// The pause the last granted retry slept, from the growth of waited_ms.
uint64_t granted_pause(qm_nats_nr_state_t& st, unsigned long budget_ms) {
  const uint64_t before = st.waited_ms;
  EXPECT_EQ(qm_nats_nr_should_retry(&st, budget_ms, "svc.scan"), 1);
  return st.waited_ms - before;
}

TEST(NatsRetryBackoff, NullStateIsHarmless) {
  qm_nats_nr_init(nullptr);
  EXPECT_EQ(qm_nats_nr_should_retry(nullptr, 10000, "x"), 0);
  EXPECT_EQ(qm_nats_nr_attempt_timeout_ms(nullptr, 1234), 1234);
}

TEST(NatsRetryBackoff, PausesGrowWithinTheirJitterBounds) {
  qm_nats_nr_state_t st;
  qm_nats_nr_init(&st);
  const uint64_t first = granted_pause(st, 60000);
  EXPECT_GE(first, 25u);
  EXPECT_LE(first, 37u);
  const uint64_t second = granted_pause(st, 60000);
  EXPECT_GE(second, 50u);
  EXPECT_LE(second, 75u);
  const uint64_t third = granted_pause(st, 60000);
  EXPECT_GE(third, 100u);
  EXPECT_LE(third, 150u);
  EXPECT_EQ(st.retries, 3u);

  // The fourth pause (200-300 ms) is granted only while the total stays within 400 ms.
  const uint64_t before = st.waited_ms;
  const int fourth = qm_nats_nr_should_retry(&st, 60000, "svc.scan");
  if (fourth == 1) {
    EXPECT_GE(st.waited_ms - before, 200u);
    EXPECT_LE(st.waited_ms, 400u);
  } else {
    EXPECT_EQ(st.waited_ms, before);
    EXPECT_EQ(st.retries, 3u);
  }
}

TEST(NatsRetryBackoff, NoRetryAfterFourGranted) {
  qm_nats_nr_state_t st;
  qm_nats_nr_init(&st);
  st.retries = 4;
  EXPECT_EQ(qm_nats_nr_should_retry(&st, 60000, "x"), 0);
  EXPECT_EQ(st.retries, 4u);
}

TEST(NatsRetryBackoff, TotalSleepCapRefusesAPauseThatWouldExceedIt) {
  qm_nats_nr_state_t st;
  qm_nats_nr_init(&st);
  st.retries = 3;       // next delay 200-300 ms
  st.waited_ms = 201;   // 201 + 200 > 400
  EXPECT_EQ(qm_nats_nr_should_retry(&st, 60000, "x"), 0);
}

TEST(NatsRetryBackoff, ShortBudgetAllowsOnlyRetriesThatEndInsideIt) {
  qm_nats_nr_state_t st;
  qm_nats_nr_init(&st);
  while (qm_nats_nr_should_retry(&st, 100, "svc.scan") == 1) {
  }
  EXPECT_GE(st.retries, 1u);
  EXPECT_LT(st.waited_ms, 100u);

  qm_nats_nr_state_t tiny;
  qm_nats_nr_init(&tiny);
  EXPECT_EQ(qm_nats_nr_should_retry(&tiny, 25, "x"), 0);  // 25 ms cannot finish inside 25 ms
}

TEST(NatsRetryBackoff, AttemptTimeoutDeductsOnlyTheSleeps) {
  qm_nats_nr_state_t st;
  qm_nats_nr_init(&st);
  EXPECT_EQ(qm_nats_nr_attempt_timeout_ms(&st, 1000), 1000);
  st.waited_ms = 300;
  EXPECT_EQ(qm_nats_nr_attempt_timeout_ms(&st, 1000), 700);
  st.waited_ms = 1500;
  EXPECT_EQ(qm_nats_nr_attempt_timeout_ms(&st, 1000), 0);
}

TEST(NatsRetryBackoff, LogsNoRespondersWithTheLabelOrUnknown) {
  qmtest::LogCapture log;
  qm_nats_nr_state_t st;
  qm_nats_nr_init(&st);
  ASSERT_EQ(qm_nats_nr_should_retry(&st, 60000, "jobs.scan"), 1);
  ASSERT_EQ(qm_nats_nr_should_retry(&st, 60000, nullptr), 1);
  EXPECT_TRUE(log.contains("nats: no responders for jobs.scan - backoff "));
  EXPECT_TRUE(log.contains("ms, retry 1/4"));
  EXPECT_TRUE(log.contains("nats: no responders for (unknown) - backoff "));
  EXPECT_TRUE(log.contains("ms, retry 2/4"));
}

}  // namespace
