// A pipe that closes itself; `flags` as for pipe2.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

struct Pipe {
  explicit Pipe(int flags = 0) { EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC | flags), 0); }
  ~Pipe() {
    Close(0);
    Close(1);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  void Close(int end) {
    if (ends[end] >= 0) {
      close(ends[end]);
    }
    ends[end] = -1;
  }

  std::array<int, 2> ends;  // read, write
};
