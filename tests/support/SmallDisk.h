// The sandbox's file system of 256 KiB, for the disk that runs full.
#pragma once

#include <cstddef>
#include <filesystem>

class SmallDisk {
 public:
  static constexpr std::size_t SIZE = 262144;

  // Empty and writable, at the beginning and at the end.
  SmallDisk();
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  std::filesystem::path Path() const { return "/small"; }
  // Takes all the room that is left.
  void Fill();

 private:
  void Clear();
};
