// Looks for a byte string in this process's writable memory, freed heap blocks
// included: a secret that was released without being wiped is still found there.
#pragma once

#include <cstddef>
#include <string_view>

namespace qmtest {

// Occurrences of `needle` in the process's private writable mappings, read through
// /proc/self/mem (which bypasses the sanitizers' checks on freed memory). Leaves out the
// calling thread's stack and the sanitizers' huge shadow mappings.
size_t occurrences_in_own_memory(std::string_view needle);

}  // namespace qmtest
