// Work-queue names derived from a service name, truncated to the caller's buffer. Plain
// names reach a real server in broker_kv_bootstrap_test.
#include "test_prelude.hpp"

#include "broker_kv_bootstrap.hpp"

namespace {

TEST(WorkQueueNaming, PrefixesDotsAndTruncation) {
  using namer = void (*)(const char*, char*, size_t);
  const std::string long_name(300, 's');
  const struct {
    namer name;
    std::string service;
    size_t size;
    std::string expected;
  } cases[] = {
      // Dots stay in the subject only; nothing else is replaced.
      {qm_nats_wq_subject, "x.y", 256, "jobs.x.y"},
      {qm_nats_wq_stream, "x.y", 256, "JOBS_x_y"},
      {qm_nats_wq_durable, "a.b.c", 256, "WORK_a_b_c"},
      {qm_nats_wq_stream, "a*b>c d", 256, "JOBS_a*b>c d"},
      {qm_nats_wq_stream, "service", 8, "JOBS_se"},
      {qm_nats_wq_subject, "service", 8, "jobs.se"},
      // The sanitised name is capped at 199 characters before the prefix is added.
      {qm_nats_wq_stream, long_name, 256, "JOBS_" + std::string(199, 's')},
      {qm_nats_wq_subject, long_name, 256, ("jobs." + long_name).substr(0, 255)},
      {qm_nats_wq_sanitize, "a.bcdef", 4, "a_b"},
      {qm_nats_wq_sanitize, "abc", 1, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.service.substr(0, 10) + " in " + std::to_string(c.size));
    std::string out(c.size, 'x');
    c.name(c.service.c_str(), out.data(), out.size());
    EXPECT_EQ(out.c_str(), c.expected);
  }
  char untouched[2] = {'x', 'y'};
  qm_nats_wq_sanitize("abc", untouched, 0);
  EXPECT_EQ(untouched[0], 'x');
}

}  // namespace
