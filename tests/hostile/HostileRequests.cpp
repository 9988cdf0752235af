// Sends hostile requests to the unmodified program and judges what each of them did; see Trial.h.
// Runs in the sandbox, started by ./run.
//
//   hostile_requests [--real-vm] COUNT SEED     so many made by chance
//   hostile_requests [--real-vm] --replay       the one on standard input; see RequestText.h
//
// A request that did what it must not is left behind as a text, /tmp/failed-SEED-NUMBER.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "Files.h"
#include "Generator.h"
#include "RequestText.h"
#include "Trial.h"

namespace {

constexpr char CORPUS[] = "/source/tests/hostile/corpus";
// After so many it is clear that something is wrong.
constexpr std::size_t MOST_FAILURES = 5;

std::vector<Command> ReadCorpus() {
  std::map<std::string, Command> requests;  // by name: the order is the same every time
  for (const auto& file : std::filesystem::directory_iterator(CORPUS)) {
    requests[file.path()] = FromText(ReadText(file.path())).request;
  }
  std::vector<Command> corpus;
  corpus.reserve(requests.size());
  for (auto& [name, request] : requests) {
    corpus.push_back(std::move(request));
  }
  return corpus;
}

class Report {
 public:
  void Count(Outcome outcome) { ++counts_[outcome]; }

  void Complain(const std::string& name, const Command& request, const std::string& complaint) {
    std::printf("%s: %s\n", name.c_str(), complaint.c_str());
    failed_[name] = ToText({request});
  }

  bool IsHopeless() const { return failed_.size() == MOST_FAILURES; }

  // Only now: while requests are tried, nothing else may lie in the folder.
  int End() const {
    std::size_t tried = 0;
    std::string kinds;
    for (const auto& [outcome, count] : counts_) {
      tried += count;
      kinds += ", " + std::to_string(count) + " " + NameOf(outcome);
    }
    std::printf("%zu tried%s; %zu failed\n", tried, kinds.c_str(), failed_.size());
    for (const auto& [name, text] : failed_) {
      WriteText("/tmp/failed-" + name, text);
    }
    return failed_.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
  }

 private:
  std::map<Outcome, std::size_t> counts_;
  std::map<std::string, std::string> failed_;
};

int TryMany(Vm vm, std::uint32_t count, std::uint32_t seed) {
  std::printf("%u hostile requests, %s Java VM, seed %u\n", count,
              vm == Vm::kReal ? "real" : "fake", seed);
  const std::vector<Command> corpus = ReadCorpus();
  Report report;
  for (std::uint32_t number = 0; number < count && !report.IsHopeless(); ++number) {
    const Command request =
        vm == Vm::kReal ? GenerateForRealVm(seed, number, corpus) : Generate(seed, number, corpus);
    std::string complaint;
    report.Count(Try(request, vm, AllSettings()[number % AllSettings().size()], complaint));
    if (!complaint.empty()) {
      report.Complain(std::to_string(seed) + "-" + std::to_string(number), request, complaint);
    }
  }
  return report.End();
}

// On each kind of settings file.
int Replay(Vm vm) {
  const NamedRequest named = FromText(std::string(std::istreambuf_iterator<char>(std::cin), {}));
  Report report;
  for (std::size_t i = 0; i < AllSettings().size(); ++i) {
    std::string complaint;
    const Outcome outcome = Try(named.request, vm, AllSettings()[i], complaint);
    report.Count(outcome);
    if (complaint.empty() && !named.outcome.empty() && NameOf(outcome) != named.outcome) {
      complaint = "ended as \"" + NameOf(outcome) + "\", not as \"" + named.outcome + "\"";
    }
    if (!complaint.empty()) {
      report.Complain("settings-" + std::to_string(i), named.request, complaint);
    }
  }
  return report.End();
}

}  // namespace

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::vector<std::string> arguments(argv + 1, argv + argc);
  const bool isReal = !arguments.empty() && arguments.front() == "--real-vm";
  if (isReal) {
    arguments.erase(arguments.begin());
  }
  const Vm vm = isReal ? Vm::kReal : Vm::kFake;
  if (arguments.size() == 1 && arguments[0] == "--replay") {
    return Replay(vm);
  }
  if (arguments.size() != 2) {
    std::fputs("usage: hostile_requests [--real-vm] (COUNT SEED | --replay)\n", stderr);
    return EXIT_FAILURE;
  }
  return TryMany(vm, static_cast<std::uint32_t>(std::stoul(arguments[0])),
                 static_cast<std::uint32_t>(std::stoul(arguments[1])));
}
