#include "gw_relay_pool.hpp"

#include <proton/proactor.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "broker_metrics.hpp"
#include "log.hpp"

struct gw_relay_conn_handle {
  std::mutex mu;
  int refcount = 1;
  bool released = false;
  pn_connection_t* conn = nullptr;
  gw_relay_job* completed_head = nullptr;  // a stack: the newest first
};

struct gw_relay_pool {
  gw_nats_relay_t* relay = nullptr;
  std::vector<std::thread> threads;
  int num_threads = 0;
  std::mutex mu;
  std::condition_variable cv;
  gw_relay_job* head = nullptr;
  gw_relay_job* tail = nullptr;
  bool stopped = false;
  gw_relay_wake_fn wake = pn_connection_wake;  // fixed before the workers start
};

namespace {

void s_free_list(gw_relay_job* job, bool detach_handle) {
  while (job != nullptr) {
    gw_relay_job* next = job->next;
    if (detach_handle) job->handle = nullptr;  // the handle is going away: nothing to release
    gw_relay_job_free(job);
    job = next;
  }
}

// The finished job goes back to its connection, whose event loop is woken to reply. The
// wake happens under the handle's lock: close takes that lock too and clears the
// connection, so a connection that has ended is never woken.
void handoff_completed(gw_relay_pool& pool, gw_relay_job* job) {
  gw_relay_conn_handle* h = job->handle;
  std::unique_lock<std::mutex> lock(h->mu);
  if (h->released) {
    lock.unlock();
    gw_relay_job_free(job);
    return;
  }
  job->next = h->completed_head;
  h->completed_head = job;
  if (h->conn != nullptr) pool.wake(h->conn);
}

void s_relay(gw_relay_pool& pool, gw_relay_job& job) {
  char* reply_json = nullptr;
  char* reply_data = nullptr;
  size_t reply_data_len = 0;
  job.rc = gw_nats_relay_request_ex(pool.relay, job.user.empty() ? nullptr : job.user.c_str(), job.address.c_str(),
                                    job.json_str.c_str(), job.bin_data, job.bin_len,
                                    gw_nats_relay_default_timeout_ms(pool.relay), &reply_json, &reply_data,
                                    &reply_data_len);
  job.reply_json.reset(reply_json);
  job.reply_data.reset(reply_data);
  job.reply_data_len = reply_data_len;
  if (job.rc != 0) {
    log_warn("gw_relay_pool: relay failed subject=%s (rc=%d)",
             job.address.empty() ? "(null)" : log_safe(job.address).c_str(), job.rc);
  }
}

// Pops the next job; NULL once the pool is stopped and the queue is empty.
gw_relay_job* s_next_job(gw_relay_pool& pool) {
  std::unique_lock<std::mutex> lock(pool.mu);
  pool.cv.wait(lock, [&] { return pool.stopped || pool.head != nullptr; });
  gw_relay_job* job = pool.head;
  if (job == nullptr) return nullptr;
  pool.head = job->next;
  if (pool.head == nullptr) pool.tail = nullptr;
  lock.unlock();
  broker_metrics_relay_queue(-1);
  job->next = nullptr;
  return job;
}

// A stopped pool with queued jobs goes on relaying them: shutdown drains the queue.
void worker_main(gw_relay_pool* pool) {
  while (gw_relay_job* job = s_next_job(*pool)) {
    s_relay(*pool, *job);
    handoff_completed(*pool, job);
  }
}

void s_stop(gw_relay_pool& pool) {
  {
    std::lock_guard<std::mutex> guard(pool.mu);
    pool.stopped = true;
  }
  pool.cv.notify_all();
}

void s_join_all(gw_relay_pool& pool) {
  for (std::thread& t : pool.threads) {
    if (t.joinable()) t.join();
  }
  pool.threads.clear();
}

}  // namespace

gw_relay_job::~gw_relay_job() {
  gw_relay_conn_handle_release(handle);
  if (incoming_msg_owned != nullptr) {
    pn_message_free(incoming_msg_owned);
  } else {
    free(bin_data);
  }
}

gw_relay_job_t* gw_relay_job_new() {
  try {
    return std::make_unique<gw_relay_job>().release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void gw_relay_job_free(gw_relay_job_t* job) { std::unique_ptr<gw_relay_job> owned(job); }

gw_relay_pool_t* gw_relay_pool_create(gw_nats_relay_t* relay, int num_threads, gw_relay_wake_fn wake) {
  if (relay == nullptr || num_threads < 1) return nullptr;
  std::unique_ptr<gw_relay_pool> pool;
  try {
    pool = std::make_unique<gw_relay_pool>();
    pool->relay = relay;
    if (wake != nullptr) pool->wake = wake;
    pool->threads.reserve(static_cast<size_t>(num_threads));
    for (int i = 0; i < num_threads; ++i) pool->threads.emplace_back(worker_main, pool.get());
  } catch (const std::exception&) {
    if (pool) {
      s_stop(*pool);
      s_join_all(*pool);
    }
    return nullptr;
  }
  pool->num_threads = num_threads;
  log_info("gw_relay_pool: %d worker thread(s) started", num_threads);
  return pool.release();
}

int gw_relay_pool_submit(gw_relay_pool_t* pool, gw_relay_job_t* job) {
  if (pool == nullptr || job == nullptr || job->handle == nullptr) {
    gw_relay_job_free(job);
    return -1;
  }
  {
    std::lock_guard<std::mutex> guard(pool->mu);
    if (!pool->stopped) {
      job->next = nullptr;
      if (pool->tail != nullptr) {
        pool->tail->next = job;
      } else {
        pool->head = job;
      }
      pool->tail = job;
      job = nullptr;
      broker_metrics_relay_queue(+1);
    }
  }
  if (job != nullptr) {
    gw_relay_job_free(job);
    return -1;
  }
  pool->cv.notify_one();
  return 0;
}

void gw_relay_pool_destroy(gw_relay_pool_t* pool) {
  if (pool == nullptr) return;
  std::unique_ptr<gw_relay_pool> owned(pool);
  s_stop(*pool);
  s_join_all(*pool);
  // Nothing is left once the workers have drained the queue; this is for a pool whose
  // threads never ran.
  s_free_list(pool->head, false);
  pool->head = pool->tail = nullptr;
}

void gw_relay_pool_stop(gw_relay_pool_t* pool) {
  if (pool != nullptr) s_stop(*pool);
}

gw_relay_conn_handle_t* gw_relay_conn_handle_new(pn_connection_t* conn) {
  try {
    auto h = std::make_unique<gw_relay_conn_handle>();
    h->conn = conn;
    return h.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void gw_relay_conn_handle_addref(gw_relay_conn_handle_t* h) {
  if (h == nullptr) return;
  std::lock_guard<std::mutex> guard(h->mu);
  ++h->refcount;
}

void gw_relay_conn_handle_release(gw_relay_conn_handle_t* h) {
  if (h == nullptr) return;
  bool last = false;
  {
    std::lock_guard<std::mutex> guard(h->mu);
    last = --h->refcount < 1;
  }
  if (!last) return;
  std::unique_ptr<gw_relay_conn_handle> owned(h);
  s_free_list(std::exchange(h->completed_head, nullptr), true);
}

void gw_relay_conn_handle_close(gw_relay_conn_handle_t* h) {
  if (h == nullptr) return;
  gw_relay_job* completed = nullptr;
  {
    std::lock_guard<std::mutex> guard(h->mu);
    h->released = true;
    h->conn = nullptr;
    completed = std::exchange(h->completed_head, nullptr);
  }
  s_free_list(completed, false);
}

gw_relay_job_t* gw_relay_conn_handle_drain(gw_relay_conn_handle_t* h) {
  if (h == nullptr) return nullptr;
  std::lock_guard<std::mutex> guard(h->mu);
  return std::exchange(h->completed_head, nullptr);
}
