#include "FileAttributes.h"

#include <sys/types.h>
#include <sys/xattr.h>

#include <cerrno>
#include <map>
#include <optional>

namespace file_replacement {
namespace {

using Attributes = std::map<std::string, std::string>;  // values by name

// The result of a call that returns the size it needs when it gets no buffer; nullopt on failure.
template <typename Call>
std::optional<std::string> Answer(const Call& call) {
  const ssize_t size = call(nullptr, 0);
  std::string answer(size > 0 ? static_cast<std::size_t>(size) : 0, '\0');
  const ssize_t length = size > 0 ? call(answer.data(), answer.size()) : size;
  if (length < 0) {
    return std::nullopt;
  }
  answer.resize(static_cast<std::size_t>(length));
  return answer;
}

// `list` and `get` are listxattr and getxattr for one file. Returns nullopt when one of them fails.
template <typename List, typename Get>
std::optional<Attributes> ReadAttributes(const List& list, const Get& get) {
  const auto names = Answer(list);
  if (!names) {
    // ENOTSUP: the file system has no extended attributes.
    return errno == ENOTSUP ? std::optional(Attributes()) : std::nullopt;
  }
  Attributes attributes;
  for (std::size_t begin = 0; begin < names->size();) {
    const std::string name = names->c_str() + begin;
    const auto value =
        Answer([&](char* answer, std::size_t size) { return get(name.c_str(), answer, size); });
    if (!value) {
      return std::nullopt;
    }
    attributes[name] = *value;
    begin += name.size() + 1;
  }
  return attributes;
}

}  // namespace

bool CopyAttributes(int descriptor, const std::string& path) {
  const auto wanted = ReadAttributes(
      [&](char* answer, std::size_t size) { return listxattr(path.c_str(), answer, size); },
      [&](const char* name, char* answer, std::size_t size) {
        return getxattr(path.c_str(), name, answer, size);
      });
  if (!wanted) {
    return false;
  }
  const auto own = ReadAttributes(
      [&](char* answer, std::size_t size) { return flistxattr(descriptor, answer, size); },
      [&](const char* name, char* answer, std::size_t size) {
        return fgetxattr(descriptor, name, answer, size);
      });
  if (!own) {
    return false;
  }
  for (const auto& [name, value] : *own) {
    if (wanted->count(name) == 0 && fremovexattr(descriptor, name.c_str()) != 0) {
      return false;
    }
  }
  for (const auto& [name, value] : *wanted) {
    // The folder gives some attributes to every new file, a security label for example, and nobody
    // may set them: those that already have the wanted value are left alone.
    const auto same = own->find(name);
    const bool isThere = same != own->end() && same->second == value;
    if (!isThere && fsetxattr(descriptor, name.c_str(), value.data(), value.size(), 0) != 0) {
      // A file that is a mount of its own can have attributes that the folder's file system lacks.
      // That counts as denied permission: the file can still be rewritten in place.
      errno = errno == ENOTSUP ? EPERM : errno;
      return false;
    }
  }
  return true;
}

}  // namespace file_replacement
