#include "gw_relay_pool.hpp"

#include <proton/proactor.h>

#include <atomic>
#include <chrono>
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
  int relaying = 0;                // jobs a worker is relaying now, under mu
  std::condition_variable idle;    // signalled when relaying falls to 0
  gw_relay_wake_fn wake = pn_connection_wake;  // fixed before the workers start
  int stop_deadline_ms = GW_RELAY_POOL_STOP_DEADLINE_MS;
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

bool s_connection_gone(gw_relay_job& job) {
  std::lock_guard<std::mutex> guard(job.handle->mu);
  return job.handle->released;
}

// Pops the next job and counts it as being relayed; NULL once the pool is stopped and
// the queue is empty.
gw_relay_job* s_next_job(gw_relay_pool& pool) {
  std::unique_lock<std::mutex> lock(pool.mu);
  pool.cv.wait(lock, [&] { return pool.stopped || pool.head != nullptr; });
  gw_relay_job* job = pool.head;
  if (job == nullptr) return nullptr;
  pool.head = job->next;
  if (pool.head == nullptr) pool.tail = nullptr;
  ++pool.relaying;
  lock.unlock();
  broker_metrics_relay_queue(-1);
  job->next = nullptr;
  return job;
}

void s_job_done(gw_relay_pool& pool) {
  bool idle = false;
  {
    std::lock_guard<std::mutex> guard(pool.mu);
    idle = --pool.relaying == 0;
  }
  if (idle) pool.idle.notify_all();
}

// A stopped pool with queued jobs goes on relaying them: shutdown drains the queue. A
// job whose connection has ended is not relayed: nobody would take its reply.
void worker_main(gw_relay_pool* pool) {
  while (gw_relay_job* job = s_next_job(*pool)) {
    if (s_connection_gone(*job)) {
      gw_relay_job_free(job);
    } else {
      s_relay(*pool, *job);
      handoff_completed(*pool, job);
    }
    s_job_done(*pool);
  }
}

// Waits for the queue to drain and the workers to finish within the stop deadline; past
// it the relay's requests are ended, so that the workers return at once.
void s_wait_or_abort(gw_relay_pool& pool) {
  std::unique_lock<std::mutex> lock(pool.mu);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(pool.stop_deadline_ms);
  if (pool.idle.wait_until(lock, deadline, [&] { return pool.relaying == 0 && pool.head == nullptr; })) return;
  const int relaying = pool.relaying;
  lock.unlock();
  log_warn("gw_relay_pool: %d job(s) still relaying %d ms into the stop \u2014 ending their requests", relaying,
           pool.stop_deadline_ms);
  gw_nats_relay_abort(pool.relay);
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

gw_relay_pool_t* gw_relay_pool_create(gw_nats_relay_t* relay, int num_threads, gw_relay_wake_fn wake,
                                      int stop_deadline_ms) {
  if (relay == nullptr || num_threads < 1) return nullptr;
  std::unique_ptr<gw_relay_pool> pool;
  try {
    pool = std::make_unique<gw_relay_pool>();
    pool->relay = relay;
    if (wake != nullptr) pool->wake = wake;
    pool->stop_deadline_ms = stop_deadline_ms < 0 ? 0 : stop_deadline_ms;
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
  if (!pool->threads.empty()) s_wait_or_abort(*pool);
  s_join_all(*pool);
  // Nothing is left once the workers have drained the queue; this is for a pool whose
  // threads never ran.
  s_free_list(pool->head, false);
  pool->head = pool->tail = nullptr;
}

size_t gw_relay_pool_drop(gw_relay_pool_t* pool, gw_relay_conn_handle_t* h) {
  if (pool == nullptr || h == nullptr) return 0;
  gw_relay_job* dropped = nullptr;
  size_t count = 0;
  {
    std::lock_guard<std::mutex> guard(pool->mu);
    gw_relay_job** link = &pool->head;
    pool->tail = nullptr;
    while (gw_relay_job* job = *link) {
      if (job->handle != h) {
        pool->tail = job;
        link = &job->next;
        continue;
      }
      *link = job->next;
      job->next = dropped;
      dropped = job;
      ++count;
    }
  }
  if (count > 0) broker_metrics_relay_queue(-static_cast<int>(count));
  s_free_list(dropped, false);
  return count;
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
