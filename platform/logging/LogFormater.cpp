#include "LogFormater.h"

#include <cstdarg>
#include <cstdio>

#include "LogEvent.h"
#include "LogHandler.h"

namespace {

// Reads the arguments twice: to measure, then to write.
std::string FormatText(const char* format, va_list arguments) {
  va_list measured;
  va_copy(measured, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, measured);
  va_end(measured);
  if (length < 0) {
    return format;
  }
  std::string text(static_cast<std::size_t>(length), '\0');
  std::vsnprintf(text.data(), text.size() + 1, format, arguments);
  return text;
}

}  // namespace

LogFormater::LogFormater(std::uint32_t level, const std::string& fileName, std::int32_t line)
    : level(level), fileName(fileName), line(line) {}

void LogFormater::Log(LogHandler* handler, const char* format, ...) {
  LogEvent event;
  event.level = level;
  event.handlerName = handler->GetName();
  event.fileName = fileName;
  event.line = line;

  va_list arguments;
  va_start(arguments, format);
  event.message = FormatText(format, arguments);
  va_end(arguments);

  handler->HandleEvent(event);
}
