#include <gtest/gtest.h>

#include <string>

#include "broker_kv_bootstrap.hpp"

namespace {

std::string subject(const char* s) {
  char buf[256];
  qm_nats_wq_subject(s, buf, sizeof buf);
  return buf;
}
std::string stream(const char* s) {
  char buf[256];
  qm_nats_wq_stream(s, buf, sizeof buf);
  return buf;
}
std::string durable(const char* s) {
  char buf[256];
  qm_nats_wq_durable(s, buf, sizeof buf);
  return buf;
}

TEST(WorkQueueNaming, PlainServiceName) {
  EXPECT_EQ(subject("qm-av-scanproxy"), "jobs.qm-av-scanproxy");
  EXPECT_EQ(stream("qm-av-scanproxy"), "JOBS_qm-av-scanproxy");
  EXPECT_EQ(durable("qm-av-scanproxy"), "WORK_qm-av-scanproxy");
}

TEST(WorkQueueNaming, DotsStayInTheSubjectButNotInStreamAndDurable) {
  EXPECT_EQ(subject("x.y"), "jobs.x.y");
  EXPECT_EQ(stream("x.y"), "JOBS_x_y");
  EXPECT_EQ(durable("a.b.c"), "WORK_a_b_c");
  // Only dots are replaced.
  EXPECT_EQ(stream("a*b>c d"), "JOBS_a*b>c d");
}

TEST(WorkQueueNaming, SanitizeTruncatesAndAlwaysTerminates) {
  char out[4] = {'x', 'x', 'x', 'x'};
  qm_nats_wq_sanitize("a.bcdef", out, sizeof out);
  EXPECT_STREQ(out, "a_b");
  char one[1] = {'x'};
  qm_nats_wq_sanitize("abc", one, sizeof one);
  EXPECT_EQ(one[0], '\0');
  char untouched[2] = {'x', 'y'};
  qm_nats_wq_sanitize("abc", untouched, 0);
  EXPECT_EQ(untouched[0], 'x');
}

TEST(WorkQueueNaming, NamesAreTruncatedToTheCallersBuffer) {
  char small[8];
  qm_nats_wq_stream("service", small, sizeof small);
  EXPECT_STREQ(small, "JOBS_se");
  qm_nats_wq_subject("service", small, sizeof small);
  EXPECT_STREQ(small, "jobs.se");
  // The sanitised name is capped at 199 characters before the prefix is added.
  const std::string long_name(300, 's');
  EXPECT_EQ(stream(long_name.c_str()), "JOBS_" + std::string(199, 's'));
  EXPECT_EQ(subject(long_name.c_str()), ("jobs." + long_name).substr(0, 255));
}

}  // namespace
