#include "qm_cpp.hpp"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>

namespace qm {

void free_deleter::operator()(void* p) const noexcept { std::free(p); }

int64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void sleep_ms(int64_t ms) {
  if (ms <= 0) return;
  timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

void stop_flag::request() {
  {
    std::lock_guard guard(mutex_);
    requested_ = true;
  }
  wake_.notify_all();
}

bool stop_flag::requested() const {
  std::lock_guard guard(mutex_);
  return requested_;
}

bool stop_flag::sleep_for(int64_t ms) const {
  std::unique_lock guard(mutex_);
  wake_.wait_for(guard, std::chrono::milliseconds(ms > 0 ? ms : 0), [this] { return requested_; });
  return !requested_;
}

}  // namespace qm
