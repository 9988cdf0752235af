#include "SmallDisk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

SmallDisk::SmallDisk() {
  Clear();
}

SmallDisk::~SmallDisk() {
  Clear();
}

void SmallDisk::Clear() {
  std::filesystem::permissions(Path(), std::filesystem::perms(0755));
  for (const auto& entry : std::filesystem::directory_iterator(Path())) {
    std::filesystem::remove_all(entry);
  }
}

void SmallDisk::Fill() {
  const std::string page(4096, 'x');
  const int file = open((Path() / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  std::size_t filled = 0;
  while (filled < SIZE && write(file, page.data(), page.size()) > 0) {
    filled += page.size();
  }
  EXPECT_EQ(write(file, page.data(), page.size()), -1) << "not full";
  close(file);
}
