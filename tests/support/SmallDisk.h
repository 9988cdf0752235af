// A file system of 256 KiB in the sandbox, for tests of a full disk.
#pragma once

#include <cstddef>
#include <filesystem>

class SmallDisk {
 public:
  static constexpr std::size_t SIZE = 262144;
  static constexpr char PATH[] = "/small";
  // For SKIP_WHERE_TRACED.
  static constexpr char NEED[] = "there is no small disk to fill";

  // Empty and writable, at the beginning and at the end.
  SmallDisk();
  ~SmallDisk();
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  std::filesystem::path Path() const { return PATH; }
  // Uses all the space that is left.
  void Fill();

 private:
  void Clear();
};
