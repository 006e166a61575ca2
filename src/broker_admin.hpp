// The admin listener: plain HTTP for the service manager, the load balancer and
// Prometheus. GET /healthz says whether the broker is alive, GET /readyz whether it
// should be given clients (one JSON entry per readiness check), GET /metrics serves
// broker_metrics_render. A daemon of its own, separate from the REST door: an update's
// drain never quiesces it, and it runs from just after the logger is configured until the
// very end of the shutdown.
#pragma once

struct broker_admin;
using broker_admin_t = broker_admin;

// A readiness check: true when the part it looks at is ready. It may set *state to a
// short word for the JSON body ("up", "connected", "draining", ...); the default is
// "up" or "down". Runs on the listener's thread while the check is registered.
using broker_admin_probe_fn = bool (*)(const void* subject, const char** state);

// A listener for host (a numeric address or a name) and port (1..65535); NULL when an
// argument is unusable or memory runs out. Nothing listens yet.
broker_admin_t* broker_admin_create(const char* host, int port);

// Starts listening; 0, or -1 (logged) when the address cannot be bound.
int broker_admin_start(broker_admin_t* admin);

// Registers the check `name` (a fixed text that outlives the listener), or replaces its
// probe; checks are listed in the order they were first named. A NULL probe leaves the
// check in place but not ready ("starting" until a probe was set, "stopped" after one
// was cleared). Returns once no request is still running the previous probe, so the
// subject may be destroyed right after clearing. No-op on a NULL listener.
void broker_admin_set_check(broker_admin_t* admin, const char* name, broker_admin_probe_fn probe,
                            const void* subject);

// The broker is shutting down: /healthz and /readyz answer 503 from now on, /metrics
// goes on. Accepts NULL.
void broker_admin_set_stopping(broker_admin_t* admin);

// Stops listening (requests in progress finish) and frees the listener. Accepts NULL.
void broker_admin_destroy(broker_admin_t* admin);
