// What a file has beside its content, its owner and its mode.
#pragma once

#include <string>

namespace file_replacement {

// Gives the open file the extended attributes of the file at `path`, its access control list among
// them, and takes from it those that the other has not: a folder's default list gives a new file
// readers that the old one did not have. Returns false, with some of them copied, when one cannot
// be read or set.
bool CopyAttributes(int descriptor, const std::string& path);

}  // namespace file_replacement
