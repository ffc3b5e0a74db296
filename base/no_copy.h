#pragma once

namespace ostrel::base {

// A base for classes that own something that must not be duplicated (a
// thread, a handle, a file, a lock): derived classes can be neither copied
// nor moved.
class NoCopy {
 protected:
  NoCopy() = default;
  ~NoCopy() = default;

 public:
  NoCopy(const NoCopy&) = delete;
  NoCopy& operator=(const NoCopy&) = delete;
};

}  // namespace ostrel::base
