#include "auth_workers.hpp"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>
#include <vector>

struct auth_workers {
  std::mutex mutex;
  std::condition_variable ready;
  std::deque<std::unique_ptr<auth_job>> queue;
  size_t max_queued = 0;
  bool stopping = false;
  std::vector<std::thread> threads;

  auth_workers() = default;
  auth_workers(const auth_workers&) = delete;
  auth_workers& operator=(const auth_workers&) = delete;
  ~auth_workers() {
    auth_workers_stop(this, AUTH_WORKERS_RUN_QUEUED);
    for (std::thread& t : threads) t.join();
  }

  void work() {
    for (;;) {
      std::unique_ptr<auth_job> job;
      {
        std::unique_lock lock(mutex);
        ready.wait(lock, [this] { return stopping || !queue.empty(); });
        if (queue.empty()) return;
        job = std::move(queue.front());
        queue.pop_front();
      }
      job->run();
    }
  }
};

auth_workers_t* auth_workers_create(size_t threads, size_t max_queued) {
  try {
    auto w = std::make_unique<auth_workers>();
    w->max_queued = max_queued;
    for (size_t i = 0; i < std::max<size_t>(threads, 1); ++i) w->threads.emplace_back([raw = w.get()] { raw->work(); });
    return w.release();
  } catch (const std::exception&) {
    // The destructor of w joins the threads already started.
    return nullptr;
  }
}

bool auth_workers_submit(auth_workers_t* w, std::unique_ptr<auth_job> job) {
  if (!job) return false;
  if (w != nullptr) {
    try {
      std::unique_lock lock(w->mutex);
      if (!w->stopping && (w->max_queued == 0 || w->queue.size() < w->max_queued)) {
        w->queue.push_back(std::move(job));
        lock.unlock();
        w->ready.notify_one();
        return true;
      }
    } catch (const std::bad_alloc&) {
    }
  }
  job->cancel();
  return false;
}

void auth_workers_stop(auth_workers_t* w, auth_workers_queued_t queued) {
  if (w == nullptr) return;
  std::deque<std::unique_ptr<auth_job>> cancelled;
  {
    std::lock_guard lock(w->mutex);
    w->stopping = true;
    if (queued == AUTH_WORKERS_CANCEL_QUEUED) cancelled.swap(w->queue);
  }
  w->ready.notify_all();
  for (auto& job : cancelled) job->cancel();
}

void auth_workers_destroy(auth_workers_t* w) { std::unique_ptr<auth_workers> owned(w); }
