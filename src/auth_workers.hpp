// A fixed set of threads working off a queue of jobs: the auth service's request workers
// (checks that have to wait for the directory) and its background refreshes. Every
// thread is joined by auth_workers_destroy, so no job outlives what its owner lends it.
#pragma once

#include <cstddef>
#include <memory>

// One piece of work. A job that is never run (refused by auth_workers_submit, or still
// queued when the workers stop without running their queue) is cancelled instead.
class auth_job {
 public:
  virtual ~auth_job() = default;
  virtual void run() noexcept = 0;
  virtual void cancel() noexcept {}
};

struct auth_workers;
using auth_workers_t = auth_workers;

enum auth_workers_queued_t {
  AUTH_WORKERS_RUN_QUEUED = 0,     // what is queued still runs
  AUTH_WORKERS_CANCEL_QUEUED = 1,  // what is queued is cancelled; running jobs finish
};

// `threads` threads (at least 1) and a queue of at most max_queued jobs (0: no limit).
// NULL when memory runs out or a thread cannot be started.
auth_workers_t* auth_workers_create(size_t threads, size_t max_queued);

// Queues job for the next free thread. False when the workers are stopping or the
// queue is full: the job has then been cancelled. Accepts a NULL job (false).
bool auth_workers_submit(auth_workers_t* w, std::unique_ptr<auth_job> job);

// Takes no more jobs; with AUTH_WORKERS_CANCEL_QUEUED, cancels what is queued. Does
// not wait. Accepts NULL; a second call changes nothing.
void auth_workers_stop(auth_workers_t* w, auth_workers_queued_t queued);

// Stops (running what is queued, unless stopped already), joins every thread, frees.
// Accepts NULL.
void auth_workers_destroy(auth_workers_t* w);
