// How one event becomes text.
#pragma once

#include <ostream>

class LogEvent;

class LogLayout {
 public:
  virtual ~LogLayout() = default;

  // Appends the event's text, line end included, to `out`; does not flush it.
  virtual void FormatAndAppend(std::ostream& out, const LogEvent& event) = 0;
};
