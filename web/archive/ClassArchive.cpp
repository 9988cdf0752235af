#include "ClassArchive.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

constexpr char OPTIONS_VARIABLE[] = "JAVA_OPTIONS";
// If set, it decides which Java VM the programs find.
constexpr char LIBRARIES_VARIABLE[] = "LD_LIBRARY_PATH";
// The last line: without it the record is incomplete.
constexpr char END[] = "end";

constexpr size_t MAX_RECORD = 16384;
constexpr size_t MAX_LINE = PATH_MAX + 128;

// True: snprintf cut nothing.
bool IsWhole(int length, size_t size) {
  return length >= 0 && static_cast<size_t>(length) < size;
}

bool Join(char (&path)[PATH_MAX], const char* folder, const char* name) {
  if (IsWhole(std::snprintf(path, sizeof path, "%s/%s", folder, name), sizeof path)) {
    return true;
  }
  errno = ENAMETOOLONG;
  return false;
}

// WriteVariable and WriteFile write the lines as they would be recorded now.

bool WriteVariable(char (&line)[MAX_LINE], const char* name) {
  const char* const value = std::getenv(name);
  errno = EINVAL;
  return IsWhole(std::snprintf(line, sizeof line, "%s=%s", name, value == nullptr ? "" : value),
                 sizeof line) &&
         std::strchr(line, '\n') == nullptr;
}

bool WriteFile(char (&line)[MAX_LINE], const char* path) {
  struct stat file = {};
  if (stat(path, &file) != 0 || access(path, R_OK) != 0) {
    return false;
  }
  errno = EINVAL;
  return IsWhole(std::snprintf(line, sizeof line, "%lld %lld.%09ld %llu %s",
                               static_cast<long long>(file.st_size),
                               static_cast<long long>(file.st_mtim.tv_sec), file.st_mtim.tv_nsec,
                               static_cast<unsigned long long>(file.st_ino), path),
                 sizeof line) &&
         path[0] == '/' && std::strchr(line, '\n') == nullptr;
}

// Reads the record, and ends it with a NUL. Returns its length, or -1 when it is missing, too large
// or holds a NUL.
ssize_t Read(const char* path, char (&text)[MAX_RECORD]) {
  const int file = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (file == -1) {
    return -1;
  }
  size_t length = 0;
  ssize_t count = 0;
  while (length < sizeof text - 1 &&
         (count = read(file, text + length, sizeof text - 1 - length)) > 0) {
    length += static_cast<size_t>(count);
  }
  close(file);
  text[length] = '\0';
  const bool isWhole = count == 0 && std::strlen(text) == length;
  return isWhole ? static_cast<ssize_t>(length) : -1;
}

// Cuts the first line off the text; null: no line is left that ends.
char* NextLine(char** text) {
  char* const line = *text;
  char* const end = std::strchr(line, '\n');
  if (end == nullptr) {
    return nullptr;
  }
  *end = '\0';
  *text = end + 1;
  return line;
}

bool Mismatch(const char** mismatch, const char* what) {
  if (mismatch != nullptr) {
    *mismatch = what;
  }
  return false;
}

bool WriteWhole(int file, const char* text, size_t length) {
  while (length > 0) {
    const ssize_t count = write(file, text, length);
    if (count <= 0) {
      return false;
    }
    text += count;
    length -= static_cast<size_t>(count);
  }
  return true;
}

bool SyncFolder(const char* folder) {
  const int file = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (file == -1) {
    return false;
  }
  const bool isSynced = fsync(file) == 0;
  close(file);
  return isSynced;
}

bool WriteLine(int record, char (&line)[MAX_LINE], size_t* size) {
  const size_t length = std::strlen(line);
  line[length] = '\n';
  *size += length + 1;
  errno = EFBIG;
  return *size < MAX_RECORD && WriteWhole(record, line, length + 1);
}

bool WriteRecord(const char* path, const char* const* files, int count) {
  const int record =
      open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  if (record == -1) {
    return false;
  }
  char line[MAX_LINE];
  size_t size = 0;
  bool isWritten = true;
  for (const char* variable : {OPTIONS_VARIABLE, LIBRARIES_VARIABLE}) {
    isWritten = isWritten && WriteVariable(line, variable) && WriteLine(record, line, &size);
  }
  for (int i = 0; i < count; ++i) {
    isWritten = isWritten && WriteFile(line, files[i]) && WriteLine(record, line, &size);
  }
  std::snprintf(line, sizeof line, "%s", END);
  isWritten = isWritten && WriteLine(record, line, &size) && fsync(record) == 0;
  const int error = errno;
  close(record);
  errno = error;
  return isWritten;
}

}  // namespace

bool ClassArchiveFits(const char* folder, const char** mismatch) {
  static char text[MAX_RECORD];
  char path[PATH_MAX];
  if (!Join(path, folder, CLASS_ARCHIVE_RECORD) || Read(path, text) < 0) {
    return Mismatch(mismatch, "there is no record");
  }
  char* rest = text;
  char now[MAX_LINE];
  for (const char* variable : {OPTIONS_VARIABLE, LIBRARIES_VARIABLE}) {
    const char* const line = NextLine(&rest);
    if (line == nullptr || !WriteVariable(now, variable) || std::strcmp(line, now) != 0) {
      return Mismatch(mismatch, variable);
    }
  }
  // The folder's own files come first: the record of a copied folder names the original's files.
  for (const char* name : {CLASS_ARCHIVE, CLASS_ARCHIVE_OPTIONS}) {
    const char* const line = NextLine(&rest);
    if (line == nullptr || !Join(path, folder, name) || !WriteFile(now, path) ||
        std::strcmp(line, now) != 0) {
      return Mismatch(mismatch, name);
    }
  }
  while (const char* const line = NextLine(&rest)) {
    if (std::strcmp(line, END) == 0) {
      return *rest == '\0' || Mismatch(mismatch, "the record goes on after its end");
    }
    const char* const file = std::strchr(line, '/');
    if (file == nullptr || !WriteFile(now, file) || std::strcmp(line, now) != 0) {
      return Mismatch(mismatch, file == nullptr ? "the record is malformed" : file);
    }
  }
  return Mismatch(mismatch, "the record is incomplete");
}

bool UseClassArchive(const char* folder) {
  char path[PATH_MAX];
  char option[PATH_MAX + 32];
  return ClassArchiveFits(folder) && Join(path, folder, CLASS_ARCHIVE_OPTIONS) &&
         IsWhole(std::snprintf(option, sizeof option, "-XX:VMOptionsFile=%s", path),
                 sizeof option) &&
         setenv(OPTIONS_VARIABLE, option, 1) == 0;
}

bool RecordClassArchive(const char* folder, const char* const* files, int count) {
  char record[PATH_MAX];
  char fresh[PATH_MAX];
  char archive[PATH_MAX];
  char options[PATH_MAX];
  constexpr int MAX_FILES = 16;
  const char* all[MAX_FILES] = {archive, options};
  if (!Join(record, folder, CLASS_ARCHIVE_RECORD) || !Join(fresh, folder, "record.new") ||
      !Join(archive, folder, CLASS_ARCHIVE) || !Join(options, folder, CLASS_ARCHIVE_OPTIONS)) {
    return false;
  }
  unlink(record);
  if (count > MAX_FILES - 2) {
    errno = E2BIG;
    return false;
  }
  std::memcpy(all + 2, files, sizeof *files * static_cast<size_t>(count));
  // The archive's name has to be on disk before the record of it.
  if (SyncFolder(folder) && WriteRecord(fresh, all, count + 2) && rename(fresh, record) == 0 &&
      SyncFolder(folder)) {
    return true;
  }
  const int error = errno;
  unlink(fresh);
  unlink(record);
  errno = error;
  return false;
}
