// Log events of any content, laid out on a stream in any state: the columns hold the event, and the
// stream is left as JniLayout promises.

#include <fuzzer/FuzzedDataProvider.h>

#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>
#include <string>

#include "CgiLog.h"
#include "LogEvent.h"
#include "LogLevelManager.h"
#include "Logger.h"
#include "Require.h"

namespace {

using Flags = std::ios_base::fmtflags;

constexpr std::time_t YEAR_1000 = -30610224000;
constexpr std::time_t YEAR_10000 = 253402300800;

// Takes the text from the front of the line, and the blanks that pad it.
void Take(std::string& line, const std::string& text, std::size_t width) {
  Require(line.compare(0, text.size(), text) == 0, "a column holds its value, not cut");
  line.erase(0, text.size());
  for (std::size_t taken = text.size(); taken < width; ++taken) {
    Require(!line.empty() && line.front() == ' ', "a column is padded with blanks");
    line.erase(0, 1);
  }
}

// The columns' number as C prints it: signed in decimal, else the bits.
std::string Number(std::int32_t number, Flags flags) {
  const Flags base = flags & std::ios::basefield;
  const bool showsBase = (flags & std::ios::showbase) != 0;
  const auto bits = static_cast<std::uint32_t>(number);
  char text[32];
  if (base == std::ios::oct) {
    std::snprintf(text, sizeof text, showsBase ? "%#" PRIo32 : "%" PRIo32, bits);
  } else if (base == std::ios::hex && (flags & std::ios::uppercase) != 0) {
    std::snprintf(text, sizeof text, showsBase ? "%#" PRIX32 : "%" PRIX32, bits);
  } else if (base == std::ios::hex) {
    std::snprintf(text, sizeof text, showsBase ? "%#" PRIx32 : "%" PRIx32, bits);
  } else {
    const bool showsPlus = (flags & std::ios::showpos) != 0;
    std::snprintf(text, sizeof text, showsPlus ? "%+" PRId32 : "%" PRId32, number);
  }
  return text;
}

// Reads the time back, so that each of its digits counts.
void TakeTime(std::string& line, const timeval& time) {
  std::tm date{};
  long microseconds = -1;
  int length = 0;
  std::sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%6ld%n", &date.tm_year, &date.tm_mon,
              &date.tm_mday, &date.tm_hour, &date.tm_min, &date.tm_sec, &microseconds, &length);
  date.tm_year -= 1900;
  date.tm_mon -= 1;
  Require(length == 26, "the time has its width");
  Require(timegm(&date) == time.tv_sec && microseconds == time.tv_usec, "the time is the event's");
  line.erase(0, 26);
}

std::string LevelName(std::uint32_t level) {
  constexpr std::array<const char*, 6> NAMES = {"", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
  const bool isRegistered = level % 10 == 0 && level > 0 && level / 10 < NAMES.size();
  return isRegistered ? NAMES[level / 10] : std::to_string(level);
}

LogEvent AnyEvent(FuzzedDataProvider& input) {
  LogEvent event;
  event.level = input.ConsumeBool() ? 10 * input.ConsumeIntegralInRange<std::uint32_t>(0, 6)
                                    : input.ConsumeIntegral<std::uint32_t>();
  event.processId = input.ConsumeIntegral<std::int32_t>();
  event.line = input.ConsumeIntegral<std::int32_t>();
  event.time.tv_sec = input.ConsumeIntegralInRange(YEAR_1000, YEAR_10000 - 1);
  event.time.tv_usec = input.ConsumeIntegralInRange(0, 999999);
  event.handlerName = input.ConsumeRandomLengthString();
  event.fileName = input.ConsumeRandomLengthString();
  event.message = input.ConsumeRandomLengthString();
  return event;
}

void SetUp(FuzzedDataProvider& input, std::ostream& stream) {
  stream.setf(input.PickValueInArray<Flags>({Flags(), std::ios::oct, std::ios::dec, std::ios::hex}),
              std::ios::basefield);
  stream.setf(
      input.PickValueInArray<Flags>({Flags(), std::ios::left, std::ios::right, std::ios::internal}),
      std::ios::adjustfield);
  for (const Flags flag :
       {std::ios::showbase, std::ios::showpos, std::ios::uppercase, std::ios::boolalpha}) {
    stream.setf(input.ConsumeBool() ? flag : Flags(), flag);
  }
  stream.fill(static_cast<char>(input.ConsumeIntegral<std::uint8_t>()));
  stream.width(input.ConsumeIntegralInRange(0, 200));
  stream.precision(input.ConsumeIntegralInRange(0, 50));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "UTC0", 1);
  // Registers the levels.
  GetCgiLogHandler();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  const LogEvent event = AnyEvent(input);
  std::ostringstream stream;
  SetUp(input, stream);
  const Flags flags = stream.flags();
  const std::streamsize precision = stream.precision();

  JniLayout().FormatAndAppend(stream, event);

  std::string line = stream.str();
  TakeTime(line, event.time);
  Take(line, "  ", 2);
  Take(line, LevelName(event.level), 10);
  Take(line, event.handlerName, 15);
  Take(line, Number(event.processId, flags), 6);
  Take(line, event.fileName, 25);
  Take(line, Number(event.line, flags), 6);
  Take(line, event.message + "\n", 0);
  Require(line.empty(), "the line ends behind the message");

  const Flags adjusted = (flags & ~std::ios::adjustfield) | std::ios::left;
  Require(stream.flags() == adjusted, "the stream is left-adjusted, and else as it was");
  Require(stream.fill() == ' ' && stream.width() == 0, "the stream fills with blanks, no width");
  Require(stream.precision() == precision && stream.good(), "the stream is else as it was");
  return 0;
}
