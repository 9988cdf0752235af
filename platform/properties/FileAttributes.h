// The extended attributes of a file.
#pragma once

#include <string>

namespace file_replacement {

// Gives the open file the extended attributes of the file at `path`, its access control list among
// them, and removes all others from the open file, since it may have got some from the folder's
// default access control list. Returns false, with some of them copied, when one cannot be read or
// set.
bool CopyAttributes(int descriptor, const std::string& path);

}  // namespace file_replacement
