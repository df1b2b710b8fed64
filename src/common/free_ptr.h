// unique_ptr that releases with free(): for malloc'd blocks and C library results.
#pragma once

#include <cstdlib>
#include <memory>

namespace kelo {

struct FreeDeleter {
  void operator()(void *p) const { std::free(p); }
};

template <typename T>
using FreePtr = std::unique_ptr<T, FreeDeleter>;

}  // namespace kelo
