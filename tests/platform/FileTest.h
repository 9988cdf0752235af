// What the tests of a replaced file share.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "FileReplacement.h"
#include "Files.h"

using file_replacement::ReadFile;
using file_replacement::ReadResult;
using file_replacement::ReplaceFile;

namespace fs = std::filesystem;

const std::string OLD = "the old content\n";
const std::string NEW = "the new content, which is longer\n";

inline std::vector<std::string> Names(const fs::path& folder) {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename());
  }
  return names;
}

// Every test leaves behind no temporary file and no open descriptor.
class FileTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(folder);
    fs::create_directories(elsewhere);
  }
  void TearDown() override {
    AllowNewFiles(true);
    for (const fs::path& one : {folder, elsewhere}) {
      EXPECT_THAT(Names(one), testing::Each(testing::Not(testing::EndsWith(".tmp"))));
      fs::remove_all(one);
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
  }

  // Without new files in the folder, the file is rewritten in place.
  void AllowNewFiles(bool isAllowed) const {
    fs::permissions(folder, fs::perms(isAllowed ? 0755 : 0555));
  }

  struct stat Status() const {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status;
  }

  const std::ptrdiff_t descriptors = OpenDescriptors();
  const fs::path folder = "/tmp/replaced";
  const fs::path elsewhere = "/tmp/elsewhere";
  const fs::path path = folder / "file";
};
