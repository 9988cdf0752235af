// Starting a program and seeing what it did.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

struct Command {
  std::vector<std::string> words;                       // the program's path first
  std::map<std::string, std::string> environment = {};  // all of it: nothing is inherited
  std::string input = {};                               // standard input, then its end
  // Runs in the child between fork and exec, with the standard descriptors in place.
  std::function<void()> prepare = {};
  // A hanging program is killed after this; its signal is then SIGKILL.
  std::chrono::seconds limit = std::chrono::seconds(60);
};

struct Result {
  int exitStatus = -1;  // -1: ended by a signal
  int signal = 0;
  std::string output;  // standard output
  std::string error;   // standard error
};

// The command with the library standin/preload/NAME.cpp in front of the program's own. Throws when
// it has not been built: the loader would only warn, and the test would go on without it.
Command Preload(const std::string& name, Command command);

// Runs the command to its end.
Result Execute(const Command& command);

// A program in the background; killed and reaped when the object goes. Its output goes where the
// test's own does, unless `prepare` redirects it. `input` is not used.
class BackgroundProcess {
 public:
  explicit BackgroundProcess(const Command& command);
  ~BackgroundProcess();
  BackgroundProcess(const BackgroundProcess&) = delete;
  BackgroundProcess& operator=(const BackgroundProcess&) = delete;

  pid_t Id() const { return id_; }
  // Sends the signal and waits for the end; kills what does not end within the limit. Exit status
  // and signal as in Result.
  Result End(int signal, std::chrono::seconds limit = std::chrono::seconds(20));

 private:
  pid_t id_;
  bool isReaped_ = false;
};

// Asks `isTrue` again and again, at most for some seconds; whether it became true.
bool Eventually(const std::function<bool()>& isTrue,
                std::chrono::seconds limit = std::chrono::seconds(20));
