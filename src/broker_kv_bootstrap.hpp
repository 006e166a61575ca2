// Provisions the JetStream objects the broker and the scan workers share: five
// key/value buckets and, for every configured work service, a work-queue stream with
// one durable pull consumer. Existing objects are bound and never changed beyond a few
// stream settings that can be adjusted in place; for anything else the operator is told
// what to do. Also owns the naming of work-queue subjects, streams and durables.
#pragma once

#include <cstddef>
#include <cstdint>

#include <nats/nats.h>

namespace qm {
class stop_flag;
}

struct broker_workqueue_opts {
  const char* work_services = nullptr;  // comma-separated service names; NULL or empty = none
  int64_t ackwait_ns = 0;               // consumer AckWait; 0 = server default
  int64_t maxdeliver = 0;               // consumer MaxDeliver; 0 = server default
  int64_t maxackpending = 0;            // consumer MaxAckPending; 0 = server default
  int64_t stream_maxage_ns = 0;         // stream MaxAge; 0 = unlimited
  int64_t maxwaiting = 0;               // consumer MaxWaiting; 0 = server default
};

// The retry schedule; the defaults are production's.
struct broker_kv_bootstrap_timing {
  int budget_ms = 300000;        // give up once this much time has passed
  int initial_delay_ms = 1000;   // first pause between attempts, doubled each time
  int max_delay_ms = 5000;       // ceiling of the pause
  int note_interval_ms = 15000;  // at most one "not ready yet" note per interval
};

// Connects as user/password (user NULL = anonymous) and makes sure every bucket, stream
// and consumer exists, retrying while JetStream is not ready (a cluster electing its meta
// leader) on `timing`'s schedule (NULL: the defaults, up to 300 s). 0 when everything
// exists, -1 otherwise. `opts` may be NULL. A request on `stop` ends the retries at once
// with -1, without a message.
int broker_kv_bootstrap(const char* nats_url, const char* user, const char* password, const char* cert_path,
                        int kv_replicas, bool kv_scandata_allow_direct, bool js_transient_memory,
                        const broker_workqueue_opts* opts, const qm::stop_flag* stop = nullptr,
                        const broker_kv_bootstrap_timing* timing = nullptr);

// Whether the bucket's stream takes per-message TTLs: its configuration, as the server
// reads it back, carries allow_msg_ttl (nats-server 2.10 drops the field, and ignores the
// TTL header). 1 yes, 0 no, -1 (logged) when the stream could not be read.
int broker_kv_msg_ttl_supported(natsConnection* nc, const char* bucket);

// What a reprovisioner provisions with: broker_kv_bootstrap's arguments, copied.
struct broker_kv_reprovision_params {
  const char* nats_url = nullptr;
  const char* user = nullptr;
  const char* password = nullptr;
  const char* cert_path = nullptr;
  int kv_replicas = 1;
  bool kv_scandata_allow_direct = true;
  bool js_transient_memory = true;
  broker_workqueue_opts wq;  // its service list is copied too
  broker_kv_bootstrap_timing timing;
  // Called on the reprovisioner's thread after each provisioning that succeeded (the
  // relay's one-way per-message TTL fallback is undone there); NULL: nothing.
  void (*after_reprovision)(void* arg) = nullptr;
  void* after_reprovision_arg = nullptr;
};

// Provisions the buckets and work queues again, on a thread of its own, each time it is
// asked: a nats-server that restarted has lost what it kept in memory, and a relay that
// reconnects may have reached such a server. Requests that come while one provisioning
// runs are folded into one more run.
struct broker_kv_reprovisioner;
using broker_kv_reprovisioner_t = broker_kv_reprovisioner;

// Starts the thread; NULL when params or its URL is missing or the thread cannot start.
broker_kv_reprovisioner_t* broker_kv_reprovisioner_create(const broker_kv_reprovision_params* params);
// Asks for one more provisioning. Cheap, never blocks on the provisioning itself; any
// thread (NATS callbacks included). Accepts NULL.
void broker_kv_reprovisioner_request(broker_kv_reprovisioner_t* reprovisioner);
// Provisionings finished so far, successful or not.
int broker_kv_reprovisioner_runs(const broker_kv_reprovisioner_t* reprovisioner);
// Ends a provisioning under way at its next pause, joins the thread, frees. Accepts NULL.
void broker_kv_reprovisioner_destroy(broker_kv_reprovisioner_t* reprovisioner);

// Names, written into buf (size n) and truncated silently to fit:
// "jobs.<service>" with the name as given.
void qm_nats_wq_subject(const char* service, char* buf, size_t n);
// A copy with every '.' replaced by '_'; at most n-1 characters, terminated when n > 0.
void qm_nats_wq_sanitize(const char* in, char* out, size_t n);
// "JOBS_<sanitised service>".
void qm_nats_wq_stream(const char* service, char* buf, size_t n);
// "WORK_<sanitised service>".
void qm_nats_wq_durable(const char* service, char* buf, size_t n);

