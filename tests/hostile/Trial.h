// One request on a device in a known state, and the judgement of all that it did.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Process.h"

// How a request may end.
enum class Outcome {
  kStored,     // the success page, exit status 0
  kAbsent,     // the warning page, exit status 1
  kFrameOnly,  // Java is not available: the frame alone, exit status 1
  kAborted,   // an exception that nothing caught: SIGABRT, the page cut below the content's opening
  kVmExited,  // the real Java VM ended the process inside its creation, exit status 1
};

std::string NameOf(Outcome outcome);

enum class Vm { kFake, kReal };

// A settings file that a request meets: `head`, the value, `tail` is what a success makes of
// `before`. No text: there is no file.
struct Settings {
  std::optional<std::string> before;
  std::string head;
  std::string tail;
};

const std::vector<Settings>& AllSettings();

// Runs the request and judges it. `complaint` says what must not be; it stays empty when all is as
// it may be. What the page, the exit status, the settings file, the log file and the two folders
// say must fit together: that the value was taken for the right one is not judged, only that the
// page shows the one that the settings file holds.
Outcome Try(Command request, Vm vm, const Settings& settings, std::string& complaint);
