#include "qm_cpp.hpp"

#include <cstdlib>

namespace qm {

void free_deleter::operator()(void* p) const noexcept { std::free(p); }

}  // namespace qm
