// Keeps errno across cleanup calls, so "-1 with errno as the system left it" holds.
#pragma once

#include <cerrno>

namespace kelo {

class ErrnoSaver {
 public:
  ErrnoSaver() : saved_(errno) {}
  ~ErrnoSaver() { errno = saved_; }
  ErrnoSaver(const ErrnoSaver &) = delete;
  ErrnoSaver &operator=(const ErrnoSaver &) = delete;

 private:
  int saved_;
};

}  // namespace kelo
