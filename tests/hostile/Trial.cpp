#include "Trial.h"

#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <filesystem>
#include <set>
#include <string_view>
#include <tuple>

#include "ExpectedPage.h"
#include "Files.h"
#include "PropertiesIni.h"
#include "Request.h"

namespace {

namespace fs = std::filesystem;

// The CGI library allocates what a request announces. The real Java VM reserves some GiB.
constexpr rlim_t FAKE_VM_MEMORY = 1UL << 30;
constexpr rlim_t REAL_VM_MEMORY = 8UL << 30;

// ---- The log: the statements of the request, one behind the other. What the environment put into
// a message may be any bytes, line ends included.

class LogText {
 public:
  explicit LogText(std::string text) : text_(std::move(text)) {}

  // Takes the statement from the text's beginning; false when something else stands there.
  bool Take(const std::string& level, const std::string& source, int line,
            const std::string& message) {
    constexpr std::string_view DATE_TIME = "0000-00-00 00:00:00.000000  ";
    std::string_view rest = std::string_view(text_).substr(position_);
    for (const char wanted : DATE_TIME) {
      if (rest.empty() || (wanted == '0' ? !IsDigit(rest.front()) : rest.front() != wanted)) {
        return false;
      }
      rest.remove_prefix(1);
    }
    if (processId_.empty()) {
      constexpr std::size_t PROCESS_ID = 10 + 15;
      const std::string_view number = rest.substr(std::min(PROCESS_ID, rest.size()));
      processId_ = number.substr(
          0, std::find_if_not(number.begin(), number.end(), IsDigit) - number.begin());
    }
    const std::string statement = Padded(level, 10) + Padded("cgi", 15) + Padded(processId_, 6) +
                                  Padded(source, 25) + Padded(std::to_string(line), 6) + message +
                                  "\n";
    if (processId_.empty() || rest.substr(0, statement.size()) != statement) {
      return false;
    }
    position_ += DATE_TIME.size() + statement.size();
    return true;
  }

  std::string Rest() const { return text_.substr(position_); }

 private:
  static bool IsDigit(char character) { return character >= '0' && character <= '9'; }

  static std::string Padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
  }

  std::string text_;
  std::size_t position_ = 0;
  std::string processId_;
};

// What getenv gives, as printf shows it.
std::string Shown(const Command& request, const std::string& variable) {
  const auto found = request.environment.find(variable);
  return found != request.environment.end() ? found->second : "(null)";
}

bool TakeStart(LogText& log, const Command& request) {
  return log.Take("DEBUG", "src/SetObdConf", 30, "main") &&
         log.Take("DEBUG", "src/JavaVmWrapper", 73, "OpenJavaVM") &&
         log.Take("DEBUG", "src/JavaVmWrapper", 81,
                  "JAVA_OPTIONS: " + Shown(request, "JAVA_OPTIONS")) &&
         log.Take("DEBUG", "src/JavaVmWrapper", 99,
                  "JAVA_CLASSPATH:" + Shown(request, "JAVA_CLASSPATH"));
}

bool TakeRedirection(LogText& log) {
  return log.Take("DEBUG", "src/JavaVmWrapper", 155, "ChangeStdErr");
}

// Takes all statements of such a request. Behind a missing class the real VM's words follow.
bool TakeAll(LogText& log, const Command& request, Vm vm, Outcome outcome) {
  if (!TakeStart(log, request)) {
    return false;
  }
  switch (outcome) {
    case Outcome::kStored:
    case Outcome::kAborted:
      return TakeRedirection(log) && log.Rest().empty();
    case Outcome::kAbsent:
      return TakeRedirection(log) &&
             log.Take("ERROR", "src/SetObdConf", 50, "Option CanDetectTimeout not set") &&
             log.Take("DEBUG", "src/SetObdConf", 88, "PrintBackButton") && log.Rest().empty();
    case Outcome::kFrameOnly:
      if (log.Take("ERROR", "src/JavaVmWrapper", 111, "Can't create Java VM")) {
        return log.Rest().empty();
      }
      return TakeRedirection(log) &&
             log.Take("ERROR", "src/JavaVmWrapper", 118,
                      "Class 'com/tarn/vemo/config/ConfigVemo' not found") &&
             (vm == Vm::kReal || log.Rest().empty());
    case Outcome::kVmExited:
      return log.Rest().empty();
  }
  return false;
}

// ---- The page.

bool StartsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

std::string CutPage() {
  const std::string end = "<div class=\"content\" >\n";
  const std::string page = WarningPage();
  return page.substr(0, page.find(end) + end.size());
}

std::string FrameOpening() {
  const std::string page = FrameOnly();
  return page.substr(0, page.find("</body>"));
}

std::optional<Outcome> OutcomeOf(const Result& result, Vm vm) {
  // The real VM may warn on standard error.
  const bool isQuiet = result.error.empty() || vm == Vm::kReal;
  if (result.signal == SIGABRT && result.output == CutPage() &&
      result.error.find("terminate called after throwing") != std::string::npos) {
    return Outcome::kAborted;
  }
  if (result.exitStatus == 0 && isQuiet) {
    return Outcome::kStored;
  }
  if (result.exitStatus == 1 && isQuiet && result.output == WarningPage()) {
    return Outcome::kAbsent;
  }
  if (result.exitStatus == 1 && isQuiet && result.output == FrameOnly()) {
    return Outcome::kFrameOnly;
  }
  if (result.exitStatus == 1 && vm == Vm::kReal && StartsWith(result.output, FrameOpening())) {
    return Outcome::kVmExited;
  }
  return std::nullopt;
}

// ---- The files.

// Distinguishes a file that was written to, or replaced, from one that was not.
using Stamp = std::tuple<ino_t, off_t, time_t, long>;

Stamp StampOf(const char* path) {
  struct stat status {};
  stat(path, &status);
  return {status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

std::set<std::string> Files() {
  std::set<std::string> files;
  for (const char* const folder : {"/app", "/tmp"}) {
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
      files.insert(entry.path());
    }
  }
  return files;
}

// What the real VM leaves behind: its performance data, and after an abort its socket.
bool IsOfRealVm(const std::string& file) {
  return StartsWith(file, "/tmp/hsperfdata_") || StartsWith(file, "/tmp/.java_pid");
}

std::string JudgeFiles(const Settings& settings, Vm vm, Outcome outcome) {
  std::set<std::string> wanted = {"/app/tarn-belox", "/app/tarn-belox/runvex", LOG_FILE};
  if (settings.before || outcome == Outcome::kStored) {
    wanted.insert(SETTINGS_FILE);
  }
  for (const std::string& file : Files()) {
    if (wanted.erase(file) == 0 && !(vm == Vm::kReal && IsOfRealVm(file))) {
      return "made " + file;
    }
  }
  return wanted.empty() ? "" : "took away " + *wanted.begin();
}

std::string JudgeStored(const Settings& settings, const std::string& page) {
  const std::string text = ReadText(SETTINGS_FILE);
  const std::size_t around = settings.head.size() + settings.tail.size();
  if (text.size() < around || !StartsWith(text, settings.head) ||
      text.compare(text.size() - settings.tail.size(), std::string::npos, settings.tail) != 0) {
    return "changed the settings file beside the value";
  }
  const std::string stored = text.substr(settings.head.size(), text.size() - around);
  if (stored.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) {
    return "stored a value that adds a line";
  }
  PropertiesIni reader;
  reader.Load(SETTINGS_FILE);
  const std::string value = reader.GetProperty("SETTINGS", "VEMODCanDetectTimeout");
  return page == SuccessPage(value) ? "" : "the page does not show the stored value";
}

void PutSettings(const Settings& settings) {
  for (const char* const folder : {"/app", "/tmp"}) {
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      fs::remove_all(entry);
    }
  }
  ResetDevice();
  if (settings.before) {
    WriteText(SETTINGS_FILE, *settings.before);
  }
}

void Limit(rlim_t memory) {
  const rlimit address{memory, memory};
  const rlimit none{0, 0};
  setrlimit(RLIMIT_AS, &address);
  setrlimit(RLIMIT_CORE, &none);
}

}  // namespace

std::string NameOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::kStored:
      return "stored";
    case Outcome::kAbsent:
      return "absent";
    case Outcome::kFrameOnly:
      return "frame only";
    case Outcome::kAborted:
      return "aborted";
    case Outcome::kVmExited:
      return "ended by the Java VM";
  }
  return "";
}

const std::vector<Settings>& AllSettings() {
  static const std::string above =
      "; Of the diagnostic runtime.\n[RUNTIME]\nVEMODCanDetectTimeout=1\n\n[SETTINGS]\n"
      "VEMODRequestRetries = 2\n";
  static const std::string below = "\n[CAN]\n# Lines.\nTermination=0\n";
  static const std::vector<Settings> all = {
      {above + "VEMODCanDetectTimeout = 300 " + below,
       above + "VEMODCanDetectTimeout = ", " " + below},
      {std::nullopt, "[SETTINGS]\nVEMODCanDetectTimeout=", "\n"},
      {above + below, above + "VEMODCanDetectTimeout=", "\n" + below},
      {"[CAN]\r\nTermination=0\r\n\r\n[SETTINGS]\r\nVEMODCanDetectTimeout=\"3\\n\"",
       "[CAN]\r\nTermination=0\r\n\r\n[SETTINGS]\r\nVEMODCanDetectTimeout=", ""},
  };
  return all;
}

Outcome Try(Command request, Vm vm, const Settings& settings, std::string& complaint) {
  PutSettings(settings);
  const Stamp before = StampOf(SETTINGS_FILE);
  const rlim_t memory = vm == Vm::kFake ? FAKE_VM_MEMORY : REAL_VM_MEMORY;
  request.prepare = [memory] { Limit(memory); };
  const Result result = Execute(vm == Vm::kFake ? WithFakeVm(request) : request);

  const std::optional<Outcome> outcome = OutcomeOf(result, vm);
  if (!outcome) {
    complaint = "ended as no request may: exit status " + std::to_string(result.exitStatus) +
                ", signal " + std::to_string(result.signal) + ", standard error: " + result.error +
                ", page:\n" + result.output.substr(0, 4000);
    return Outcome::kAborted;
  }
  complaint = JudgeFiles(settings, vm, *outcome);
  if (complaint.empty() && *outcome == Outcome::kStored) {
    complaint = JudgeStored(settings, result.output);
  } else if (complaint.empty() && (StampOf(SETTINGS_FILE) != before ||
                                   ReadText(SETTINGS_FILE) != settings.before.value_or(""))) {
    complaint = "touched the settings file without storing";
  }
  LogText log(ReadText(LOG_FILE));
  if (complaint.empty() && !TakeAll(log, request, vm, *outcome)) {
    complaint = "logged what it must not: " + log.Rest().substr(0, 4000);
  }
  return *outcome;
}
