// Worker threads between the AMQP event loop, which must never block, and the relay,
// which blocks for a scan's whole budget. The loop submits each inbound request as a
// job; a worker relays it and hands the finished job back to its connection through a
// reference-counted handle, then wakes the loop to send the reply.
#pragma once

#include <proton/codec.h>
#include <proton/message.h>
#include <proton/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "gw_inflight_budget.hpp"
#include "gw_nats_relay.hpp"
#include "qm_cpp.hpp"

struct gw_relay_conn_handle;
using gw_relay_conn_handle_t = gw_relay_conn_handle;

// One inbound request and, once relayed, its result. Owned by the pool's queue while
// queued, by a worker while running, by its handle's completed list after hand-off and
// by the acceptor while it replies. Release with gw_relay_job_free.
struct gw_relay_job {
  gw_relay_job* next = nullptr;
  gw_relay_conn_handle_t* handle = nullptr;  // one reference held by the job
  pn_message_t* incoming_msg_owned = nullptr;  // kept alive while bin_data points into it
  std::string address;                          // NATS subject, already rewritten
  std::string json_str;                         // request JSON
  std::string user;                             // the authenticated caller: names its staged keys
  char* bin_data = nullptr;  // payload: points into incoming_msg_owned, or malloc'd and owned when that is NULL
  size_t bin_len = 0;
  qm::opt_string reply_to;
  pn_atom_t cid_atom{};                // correlation id copied into the reply
  std::vector<char> cid_bytes_owned;  // storage a string or binary cid_atom points into
  int rc = -1;                         // the relay's result: 0 or -1
  qm::malloc_ptr<char> reply_json;
  qm::malloc_ptr<char> reply_data;
  size_t reply_data_len = 0;
  pn_link_t* link = nullptr;  // the receiver link it came on; only compared, by the event loop
  qm::inflight_bytes held;    // the request's bytes, counted against the doors' budget

  gw_relay_job() = default;
  gw_relay_job(const gw_relay_job&) = delete;
  gw_relay_job& operator=(const gw_relay_job&) = delete;
  ~gw_relay_job();
};
using gw_relay_job_t = gw_relay_job;

struct gw_relay_pool;
using gw_relay_pool_t = gw_relay_pool;

// A job with every field empty; NULL when memory runs out.
gw_relay_job_t* gw_relay_job_new();

// Accepts NULL. Drops the job's handle reference, then frees what the job owns.
void gw_relay_job_free(gw_relay_job_t* job);

// What a finished job's hand-off calls to wake its connection's event loop.
using gw_relay_wake_fn = void (*)(pn_connection_t* conn);

// A stop waits this long for the jobs being relayed before it ends the relay's requests.
constexpr int GW_RELAY_POOL_STOP_DEADLINE_MS = 5000;

// num_threads workers relaying through `relay` (not owned); a finished job's connection
// is woken with `wake` (NULL: pn_connection_wake). NULL when relay is NULL,
// num_threads < 1, or a thread cannot start. stop_deadline_ms: see destroy.
gw_relay_pool_t* gw_relay_pool_create(gw_nats_relay_t* relay, int num_threads, gw_relay_wake_fn wake = nullptr,
                                      int stop_deadline_ms = GW_RELAY_POOL_STOP_DEADLINE_MS);

// Queues the job (FIFO, unbounded) and returns 0 at once. -1 when pool or job is NULL,
// the job has no handle or the pool is stopped; the job is then freed here, so a
// submitted job is never the caller's to free.
int gw_relay_pool_submit(gw_relay_pool_t* pool, gw_relay_job_t* job);

// Refuses further submissions; queued jobs still run. destroy completes the stop.
// Accepts NULL.
void gw_relay_pool_stop(gw_relay_pool_t* pool);

// Frees the queued jobs of the connection behind h, which has ended: nobody is left to
// take their replies. Jobs being relayed finish and are discarded. Returns how many were
// dropped; 0 for NULL arguments.
size_t gw_relay_pool_drop(gw_relay_pool_t* pool, gw_relay_conn_handle_t* h);

// Accepts NULL. Stops taking jobs, lets the workers relay and hand off everything
// already queued (jobs of closed connections excepted), joins them and frees the pool.
// Workers still relaying after the stop deadline have their requests ended through
// gw_nats_relay_abort, so that a stop never waits for a slow scan. Call after the event
// loop has stopped.
void gw_relay_pool_destroy(gw_relay_pool_t* pool);

// The handle of one AMQP connection: reference count 1 (the connection's own), not
// released, nothing completed. NULL when memory runs out.
gw_relay_conn_handle_t* gw_relay_conn_handle_new(pn_connection_t* conn);

// One more reference, for a job that is given the handle. Accepts NULL.
void gw_relay_conn_handle_addref(gw_relay_conn_handle_t* h);

// Drops a reference; the last one frees the jobs still completed and the handle.
void gw_relay_conn_handle_release(gw_relay_conn_handle_t* h);

// The connection has ended: jobs completed from now on are discarded, those waiting are
// freed. The event loop then releases the connection's own reference.
void gw_relay_conn_handle_close(gw_relay_conn_handle_t* h);

// Every completed job, newest first (linked by `next`), or NULL. For the event loop
// when it is woken.
gw_relay_job_t* gw_relay_conn_handle_drain(gw_relay_conn_handle_t* h);
