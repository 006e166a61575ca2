#include "broker_auth_thread.hpp"

#include <atomic>
#include <memory>
#include <new>
#include <system_error>
#include <thread>

#include "log.hpp"

struct broker_auth_thread {
  auth_service_t* svc = nullptr;
  std::thread thread;
  bool running = false;
  std::atomic<int> rc{0};
};

broker_auth_thread_t* broker_auth_thread_create(auth_service_t* svc) {
  if (svc == nullptr) return nullptr;
  try {
    auto t = std::make_unique<broker_auth_thread>();
    t->svc = svc;
    return t.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

int broker_auth_thread_start(broker_auth_thread_t* t) {
  if (t == nullptr || t->svc == nullptr || t->running) return -1;
  try {
    t->thread = std::thread([t] { t->rc = auth_service_run(t->svc); });
  } catch (const std::system_error&) {
    log_fatal("auth-callout: failed to spawn worker thread");
    return -1;
  }
  t->running = true;
  // A broker that cannot adjudicate logins must not go on to say it is ready.
  if (auth_service_wait_serving(t->svc) != 0) {
    broker_auth_thread_join(t);
    return -1;
  }
  return 0;
}

void broker_auth_thread_join(broker_auth_thread_t* t) {
  if (t == nullptr || !t->running) return;
  auth_service_stop(t->svc);
  t->thread.join();
  t->running = false;
}

int broker_auth_thread_rc(const broker_auth_thread_t* t) { return t ? t->rc.load() : -1; }

void broker_auth_thread_destroy(broker_auth_thread_t* t) {
  broker_auth_thread_join(t);
  std::unique_ptr<broker_auth_thread> owned(t);
}
