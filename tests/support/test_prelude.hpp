// What nearly every test uses, included first: GoogleTest and gMock, the common parts of
// the standard library and of POSIX, the C library handles, and the light fixtures
// (temporary directories, ports, children, log capture, a nats-server). The fixtures that
// start brokers or doors are included by the tests that use them.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <future>
#include <initializer_list>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "log.hpp"
#include "log_capture.hpp"
#include "nats_server_fixture.hpp"
#include "qm_cpp.hpp"
#include "qm_handles.hpp"
#include "test_support.hpp"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace qmtest;
