#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <stdexcept>
#include <thread>

#include "Pipe.h"

namespace {

using Clock = std::chrono::steady_clock;

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) {
    pointers.push_back(word.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

[[noreturn]] void Become(const Command& command) {
  std::vector<std::string> words = command.words;
  std::vector<std::string> environment;
  for (const auto& [name, value] : command.environment) {
    environment.push_back(name + "=" + value);
  }
  signal(SIGPIPE, SIG_DFL);
  if (command.prepare) {
    command.prepare();
  }
  execve(words[0].c_str(), Pointers(words).data(), Pointers(environment).data());
  _exit(127);
}

// Appends what is there; closes the pipe at its end.
void Drain(Pipe& from, std::string& text) {
  char chunk[65536];
  const ssize_t count = read(from.ends[0], chunk, sizeof chunk);
  if (count > 0) {
    text.append(chunk, static_cast<std::size_t>(count));
  } else {
    from.Close(0);
  }
}

void Feed(Pipe& to, const std::string& text, std::size_t& fed) {
  const ssize_t count = write(to.ends[1], text.data() + fed, text.size() - fed);
  fed += count > 0 ? static_cast<std::size_t>(count) : 0;
  if (count < 0 || fed == text.size()) {
    to.Close(1);
  }
}

}  // namespace

Command Preload(const std::string& name, Command command) {
  const std::string library = "/build/standin/lib" + name + ".so";
  if (!std::filesystem::exists(library)) {
    throw std::runtime_error("there is no " + library);
  }
  command.environment["LD_PRELOAD"] += ":" + library;
  return command;
}

Result Execute(const Command& command) {
  signal(SIGPIPE, SIG_IGN);  // a program need not read its input
  Pipe input;
  Pipe output;
  Pipe error;
  Command connected = command;
  connected.prepare = [&] {
    dup2(input.ends[0], STDIN_FILENO);
    dup2(output.ends[1], STDOUT_FILENO);
    dup2(error.ends[1], STDERR_FILENO);
    if (command.prepare) {
      command.prepare();
    }
  };
  BackgroundProcess process(connected);
  input.Close(0);
  output.Close(1);
  error.Close(1);
  fcntl(input.ends[1], F_SETFL, O_NONBLOCK);
  if (command.input.empty()) {
    input.Close(1);
  }

  Result result;
  std::size_t fed = 0;
  const auto deadline = Clock::now() + command.limit;
  while (output.ends[0] >= 0 || error.ends[0] >= 0) {
    std::array<pollfd, 3> waits = {
        {{output.ends[0], POLLIN, 0}, {error.ends[0], POLLIN, 0}, {input.ends[1], POLLOUT, 0}}};
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0 || poll(waits.data(), waits.size(), static_cast<int>(left)) <= 0) {
      kill(process.Id(), SIGKILL);
      break;
    }
    if (waits[0].revents != 0) {
      Drain(output, result.output);
    }
    if (waits[1].revents != 0) {
      Drain(error, result.error);
    }
    if (waits[2].revents != 0) {
      Feed(input, command.input, fed);
    }
  }
  const Result end = process.End(0, command.limit);
  result.exitStatus = end.exitStatus;
  result.signal = end.signal;
  return result;
}

BackgroundProcess::BackgroundProcess(const Command& command) : id_(fork()) {
  if (id_ == 0) {
    Become(command);
  }
}

BackgroundProcess::~BackgroundProcess() {
  if (!isReaped_) {
    End(SIGKILL);
  }
}

Result BackgroundProcess::End(int signal, std::chrono::seconds limit) {
  int status = 0;
  kill(id_, signal);
  if (!Eventually([&] { return waitpid(id_, &status, WNOHANG) == id_; }, limit)) {
    kill(id_, SIGKILL);
    waitpid(id_, &status, 0);
  }
  isReaped_ = true;
  Result result;
  if (WIFEXITED(status)) {
    result.exitStatus = WEXITSTATUS(status);
  } else {
    result.signal = WTERMSIG(status);
  }
  return result;
}

bool Eventually(const std::function<bool()>& isTrue, std::chrono::seconds limit) {
  const auto deadline = Clock::now() + limit;
  while (!isTrue()) {
    if (Clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}
