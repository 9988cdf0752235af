// A request as a text that people can read and change:
//
//   # aborted
//   REQUEST_METHOD=POST
//   CONTENT_LENGTH=1000
//
//   CanDetectTimeout=500
//
// First, if it is known, how the request ends, as NameOf(Outcome) says it. Then the environment, a
// line for each variable, an empty line, and the body. Bytes that cannot be read are written \n,
// \r, \xHH, a backslash \\. Line ends of the body's text mean nothing: they are for the reader.
#pragma once

#include <string>

#include "Process.h"

struct NamedRequest {
  Command request;
  std::string outcome = {};  // empty when it is not known
};

std::string ToText(const NamedRequest& named);
NamedRequest FromText(const std::string& text);
