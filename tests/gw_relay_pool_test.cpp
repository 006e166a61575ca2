// The relay worker pool through its API, with a real relay and demo worker; the event
// loop's wake-up is a stand-in that records which connection was woken.
#include "gw_relay_pool.hpp"

#include "test_prelude.hpp"

#include "gw_inflight_budget.hpp"
#include "log_capture.hpp"
#include "scan_fixture.hpp"

namespace {

// What the pool's hand-off woke, per connection.
std::mutex g_wakes_mu;
std::condition_variable g_woken;
std::map<pn_connection_t*, int> g_wakes;

void s_record_wake(pn_connection_t* conn) {
  {
    std::lock_guard<std::mutex> guard(g_wakes_mu);
    ++g_wakes[conn];
  }
  g_woken.notify_all();
}

// How often conn has been woken, once that is at least `times` or `timeout` has passed.
int s_wakes(pn_connection_t* conn, int times = 0, std::chrono::milliseconds timeout = {}) {
  std::unique_lock<std::mutex> lock(g_wakes_mu);
  g_woken.wait_for(lock, timeout, [&] { return g_wakes[conn] >= times; });
  return g_wakes[conn];
}

// Stand-ins for AMQP connections: only ever compared and passed to the wake call.
pn_connection_t* s_fake_conn(int& slot) { return reinterpret_cast<pn_connection_t*>(&slot); }

using pool_ptr = qm::c_ptr<gw_relay_pool_t, gw_relay_pool_destroy>;

class RelayPool : public ::testing::Test {
 protected:
  void SetUp() override {
    g_wakes.clear();
    worker_ = &env_.start_worker("scan", false, 5);
    // Far beyond any wait of the tests: a request that ends did not just time out.
    relay_ = env_.make_relay([](gw_config_t& cfg) { cfg.relay_timeout_ms = 120000; });
  }

  pool_ptr make_pool(int threads) {
    return pool_ptr(gw_relay_pool_create(relay_.get(), threads, s_record_wake));
  }

  // A job for connection h asking the worker to take delay_ms; `tag` ends up in its reply
  // as the payload size, so that jobs can be told apart.
  static gw_relay_job_t* make_job(gw_relay_conn_handle_t* h, size_t tag, int delay_ms = 0) {
    gw_relay_job_t* job = gw_relay_job_new();
    job->address = "scan";
    job->json_str = R"({"delay_ms":)" + std::to_string(delay_ms) + "}";
    if (tag > 0) {
      job->bin_data = static_cast<char*>(malloc(tag));
      memset(job->bin_data, 'x', tag);
      job->bin_len = tag;
    }
    job->handle = h;
    gw_relay_conn_handle_addref(h);
    return job;
  }

  // The tags of a drained list, in list order.
  static std::vector<std::string> drained_sizes(gw_relay_job_t* list) {
    std::vector<std::string> sizes;
    while (list != nullptr) {
      gw_relay_job_t* next = list->next;
      EXPECT_EQ(list->rc, 0);
      sizes.push_back(json_member(list->reply_json ? list->reply_json.get() : "", "size"));
      gw_relay_job_free(list);
      list = next;
    }
    return sizes;
  }

  static void end_connection(gw_relay_conn_handle_t* h) {
    gw_relay_conn_handle_close(h);
    gw_relay_conn_handle_release(h);
  }

  ScanEnv env_;
  ScanWorker* worker_ = nullptr;
  relay_ptr relay_;
};

// One worker hands off in completion order, and the drain gives the newest first.
TEST_F(RelayPool, JobsAreHandedOffNewestFirst) {
  int slot = 0;
  gw_relay_conn_handle_t* h = gw_relay_conn_handle_new(s_fake_conn(slot));
  pool_ptr pool = make_pool(1);
  for (size_t tag : {1, 2, 3}) ASSERT_EQ(gw_relay_pool_submit(pool.get(), make_job(h, tag)), 0);
  ASSERT_EQ(s_wakes(s_fake_conn(slot), 3, 30s), 3);
  EXPECT_EQ(drained_sizes(gw_relay_conn_handle_drain(h)), (std::vector<std::string>{"3", "2", "1"}));
  EXPECT_EQ(gw_relay_conn_handle_drain(h), nullptr);
  end_connection(h);
}

// Nothing is leaked or handed back for a job the pool refuses or whose connection ended
// while it ran or waited (AddressSanitizer's leak check fails the test if a job or handle
// is kept); the queued jobs of an ended connection are dropped, another's still run, even
// when the pool is destroyed with them queued; a stop does not outwait its deadline.
TEST_F(RelayPool, RefusedJobsAndJobsOfClosedConnectionsAreFreed) {
  pool_ptr pool = make_pool(1);
  int slot = 0;
  int other_slot = 0;
  gw_relay_conn_handle_t* h = gw_relay_conn_handle_new(s_fake_conn(slot));
  gw_relay_conn_handle_t* other = gw_relay_conn_handle_new(s_fake_conn(other_slot));
  ASSERT_EQ(gw_relay_pool_submit(pool.get(), make_job(h, 5, 300)), 0);
  ASSERT_TRUE(worker_->wait_for_log("request received", 10s));
  for (size_t tag : {6, 7, 8}) ASSERT_EQ(gw_relay_pool_submit(pool.get(), make_job(h, tag)), 0);
  ASSERT_EQ(gw_relay_pool_submit(pool.get(), make_job(other, 9)), 0);
  EXPECT_EQ(gw_relay_pool_drop(pool.get(), h), 3u);
  gw_relay_job_t* orphan = gw_relay_job_new();  // no handle
  orphan->bin_data = static_cast<char*>(malloc(16));
  EXPECT_EQ(gw_relay_pool_submit(pool.get(), orphan), -1);
  EXPECT_EQ(gw_relay_pool_submit(nullptr, make_job(h, 1)), -1);
  gw_relay_pool_stop(pool.get());
  EXPECT_EQ(gw_relay_pool_submit(pool.get(), make_job(h, 1)), -1);
  end_connection(h);  // the running job now holds the handle's last reference
  pool.reset();  // the other connection's job is still relayed
  EXPECT_EQ(s_wakes(s_fake_conn(slot)), 0);
  EXPECT_EQ(drained_sizes(gw_relay_conn_handle_drain(other)), (std::vector<std::string>{"9"}));
  end_connection(other);
  EXPECT_TRUE(worker_->wait_for_log("request answered", 10s));

  const auto received = [&] { return qmtest::LogCapture::count_in(worker_->log(), "request received"); };
  EXPECT_EQ(received(), 2u);  // the dropped jobs never reached the worker

  // A job still relaying at the stop deadline has its request ended with the relay's,
  // before its worker has said that it is busy.
  pool.reset(gw_relay_pool_create(relay_.get(), 1, s_record_wake, 100));
  h = gw_relay_conn_handle_new(s_fake_conn(slot));
  ASSERT_EQ(gw_relay_pool_submit(pool.get(), make_job(h, 1, 60000)), 0);
  ASSERT_TRUE(qmtest::wait_until([&] { return received() == 3; }, 10s));
  auto stopped = std::async(std::launch::async, [&] { pool.reset(); });
  EXPECT_EQ(stopped.wait_for(60s), std::future_status::ready);  // the relay would wait two minutes
  stopped.get();
  gw_relay_job_t* ended = gw_relay_conn_handle_drain(h);
  ASSERT_NE(ended, nullptr);
  EXPECT_EQ(ended->rc, -1);
  gw_relay_job_free(ended);
  EXPECT_EQ(qmtest::relay_request(relay_.get(), "scan", "{}").rc, -1);  // the relay was closed
  end_connection(h);
}

}  // namespace

// The doors' shared byte budget: what fits is taken, what does not is refused without
// taking anything, a waiter is woken by a release, and the release hook runs after it.
TEST(InflightBudget, TakesWhatFitsAndWakesAWaiterOnRelease) {
  const qm::c_ptr<gw_inflight_budget, gw_inflight_budget_destroy> budget(gw_inflight_budget_create(100));
  ASSERT_NE(budget, nullptr);
  std::atomic<int> hooks{0};
  gw_inflight_budget_set_release_hook(budget.get(), [&] { hooks++; });
  EXPECT_EQ(gw_inflight_budget_try_acquire(budget.get(), 101), -1);
  EXPECT_EQ(gw_inflight_budget_acquire(budget.get(), 101, 0), -1);
  EXPECT_EQ(gw_inflight_budget_try_acquire(budget.get(), 60), 0);
  EXPECT_EQ(gw_inflight_budget_try_acquire(budget.get(), 41), -1);
  EXPECT_EQ(gw_inflight_budget_in_use(budget.get()), 60u);
  {
    qm::inflight_bytes held(budget.get(), 0);
    EXPECT_TRUE(held.grow(40));
    EXPECT_FALSE(held.grow(1));
    EXPECT_EQ(gw_inflight_budget_in_use(budget.get()), 100u);
  }
  EXPECT_EQ(hooks.load(), 1);
  EXPECT_EQ(gw_inflight_budget_in_use(budget.get()), 60u);

  std::thread releaser([&] { gw_inflight_budget_release(budget.get(), 60); });
  EXPECT_EQ(gw_inflight_budget_acquire(budget.get(), 90, 60000), 0);  // woken by the release
  releaser.join();
  EXPECT_EQ(gw_inflight_budget_in_use(budget.get()), 90u);
  EXPECT_EQ(hooks.load(), 2);
}
