// Owns a file descriptor; closes it when it goes out of scope.
#pragma once

#include <unistd.h>

#include <utility>

namespace file_replacement {

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  bool IsOpen() const { return number_ >= 0; }
  int Get() const { return number_; }

  void Reset(int number) {
    Close();
    number_ = number;
  }
  int Release() { return std::exchange(number_, -1); }

  // Returns false when closing fails: some file systems report only then that a write failed.
  bool Close() {
    const int number = Release();
    return number < 0 || close(number) == 0;
  }

 private:
  int number_;
};

}  // namespace file_replacement
