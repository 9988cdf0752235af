#include "PropertiesIni.h"

#include <sys/stat.h>

#include <algorithm>
#include <optional>
#include <string_view>

#include "FileReplacement.h"

namespace {

constexpr std::string_view BYTE_ORDER_MARK = "\xEF\xBB\xBF";
constexpr std::string_view BLANKS = " \t";
// With its length, since it contains a NUL.
constexpr std::string_view LINE_BREAKERS("\r\n\0", 3);

std::string_view Trim(std::string_view text) {
  const std::size_t first = text.find_first_not_of(BLANKS);
  if (first == std::string_view::npos) {
    return text.substr(text.size());
  }
  return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

bool StartsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

bool IsBlank(std::string_view line) {
  return line.find_first_not_of(BLANKS) == std::string_view::npos;
}

// The line's first non-blank character; NUL when there is none.
char FirstCharacter(std::string_view line) {
  const std::size_t first = line.find_first_not_of(BLANKS);
  return first == std::string_view::npos ? '\0' : line[first];
}

bool IsComment(std::string_view line) {
  const char first = FirstCharacter(line);
  return first == ';' || first == '#';
}

// The section's name when the line begins one.
std::optional<std::string_view> ParseSection(std::string_view line) {
  if (FirstCharacter(line) != '[') {
    return std::nullopt;
  }
  const std::size_t begin = line.find('[') + 1;
  const std::size_t end = line.find(']', begin);
  if (end == std::string_view::npos) {
    return std::nullopt;
  }
  return Trim(line.substr(begin, end - begin));
}

struct Entry {
  std::string_view key;
  std::string_view
      value;  // as written; an empty one still points to where a value goes in the line
};

std::optional<Entry> ParseEntry(std::string_view line) {
  const std::size_t separator = line.find('=');
  if (separator == std::string_view::npos || IsComment(line) || ParseSection(line)) {
    return std::nullopt;
  }
  return Entry{Trim(line.substr(0, separator)), Trim(line.substr(separator + 1))};
}

// Iterates over the lines of a text, with the section of each. The line `[name]` belongs to
// the section that it begins.
class LineReader {
 public:
  explicit LineReader(std::string_view text)
      : text_(text), next_(StartsWith(text, BYTE_ORDER_MARK) ? BYTE_ORDER_MARK.size() : 0) {}

  // Goes to the next line; returns false when there is none.
  bool Next() {
    if (next_ == text_.size()) {
      return false;
    }
    const std::size_t newline = text_.find('\n', next_);
    const bool isTerminated = newline != std::string_view::npos;
    const std::size_t end = isTerminated ? newline : text_.size();
    line_ = text_.substr(next_, end - next_);
    if (!line_.empty() && line_.back() == '\r') {
      line_.remove_suffix(1);
    }
    next_ = isTerminated ? end + 1 : end;
    if (const auto section = ParseSection(line_)) {
      section_ = *section;
    }
    return true;
  }

  std::string_view Line() const { return line_; }  // without its line end
  std::string_view Section() const { return section_; }
  std::size_t NextOffset() const { return next_; }  // after the line end

 private:
  std::string_view text_;
  std::size_t next_;
  std::string_view line_;
  std::string_view section_;
};

std::string_view LineEnd(std::string_view text) {
  const std::size_t newline = text.find('\n');
  const bool isCrLf = newline != std::string_view::npos && newline > 0 && text[newline - 1] == '\r';
  return isCrLf ? "\r\n" : "\n";
}

bool IsTerminated(std::string_view text) {
  return text.empty() || text == BYTE_ORDER_MARK || text.back() == '\n';
}

// The line end that a text without a final newline lacks.
std::string_view MissingLineEnd(std::string_view text) {
  return text.back() == '\r' ? "\n" : LineEnd(text);
}

bool IsWritableSection(std::string_view name) {
  return name.find_first_of(LINE_BREAKERS) == std::string_view::npos &&
         name.find(']') == std::string_view::npos;
}

bool IsWritableKey(std::string_view name) {
  constexpr std::string_view FIRST_CHARACTERS_OF_OTHER_LINES = "[;#";
  return !name.empty() && name.find_first_of(LINE_BREAKERS) == std::string_view::npos &&
         name.find('=') == std::string_view::npos &&
         FIRST_CHARACTERS_OF_OTHER_LINES.find(name.front()) == std::string_view::npos &&
         !StartsWith(name, BYTE_ORDER_MARK);
}

std::string Quote(const std::string& value) {
  std::string quoted = "\"";
  for (const char character : value) {
    switch (character) {
      case '"':
        quoted += "\\\"";
        break;
      case '\\':
        quoted += "\\\\";
        break;
      case '\n':
        quoted += "\\n";
        break;
      case '\r':
        quoted += "\\r";
        break;
      case '\0':
        quoted += "\\0";
        break;
      default:
        quoted += character;
    }
  }
  return quoted + '"';
}

// The value as written in the file.
std::string Encode(const std::string& value) {
  const bool isVerbatim = Trim(value).size() == value.size() && !StartsWith(value, "\"") &&
                          value.find_first_of(LINE_BREAKERS) == std::string::npos;
  return isVerbatim ? value : Quote(value);
}

// Decodes a backslash and this character. Before a character that Quote does not escape, a
// backslash stands for itself.
std::string Unescape(char character) {
  switch (character) {
    case '"':
    case '\\':
      return std::string(1, character);
    case 'n':
      return "\n";
    case 'r':
      return "\r";
    case '0':
      return std::string(1, '\0');
    default:
      return std::string("\\") + character;
  }
}

// Decodes a value as written in the file. Quotes that do not enclose all of it are part of it.
std::string Decode(std::string_view stored) {
  if (!StartsWith(stored, "\"")) {
    return std::string(stored);
  }
  std::string value;
  for (std::size_t i = 1; i < stored.size(); ++i) {
    if (stored[i] == '"') {
      return i + 1 == stored.size() ? value : std::string(stored);
    }
    if (stored[i] == '\\' && i + 1 < stored.size()) {
      value += Unescape(stored[++i]);
    } else {
      value += stored[i];
    }
  }
  return std::string(stored);
}

// Returns `text` with a new section of one line at its end.
std::string AppendSection(std::string text, const std::string& header, const std::string& entry) {
  const bool wasTerminated = IsTerminated(text);
  if (!wasTerminated) {
    text += MissingLineEnd(text);
  }
  const std::string lineEnd(LineEnd(text));
  std::string_view lastLine;
  bool hasLines = false;
  for (LineReader reader(text); reader.Next(); hasLines = true) {
    lastLine = reader.Line();
  }
  if (hasLines && !IsBlank(lastLine)) {
    text += lineEnd;
  }
  return text + header + lineEnd + entry + (wasTerminated ? lineEnd : "");
}

// Returns `text` with a new line at `offset`, which is the top or the end of a line.
std::string InsertLine(std::string text, std::size_t offset, const std::string& line) {
  const std::string lineEnd(LineEnd(text));
  const bool isAfterUnterminatedLine = offset == text.size() && !IsTerminated(text);
  const std::string inserted =
      isAfterUnterminatedLine ? std::string(MissingLineEnd(text)) + line : line + lineEnd;
  return text.insert(offset, inserted);
}

// The lines of `header` as comments. A CR alone ends a line, too: some readers treat it so.
std::string Comment(const std::string& header, std::string_view lineEnd) {
  std::string comment;
  for (std::size_t begin = 0; begin < header.size();) {
    const std::size_t end = std::min(header.find_first_of("\r\n", begin), header.size());
    comment.append("# ").append(header, begin, end - begin).append(lineEnd);
    begin = end + (header.compare(end, 2, "\r\n") == 0 ? 2 : 1);
  }
  return comment;
}

// std::filesystem::equivalent fails on 32-bit machines for files dated after 2038.
bool IsSameFile(const std::string& path, const std::string& other) {
  struct stat one {};
  struct stat two {};
  return path == other || (stat(path.c_str(), &one) == 0 && stat(other.c_str(), &two) == 0 &&
                           one.st_dev == two.st_dev && one.st_ino == two.st_ino);
}

}  // namespace

bool PropertiesIni::Load(const std::string& path) {
  if (file_replacement::ReadFile(path, text_) == file_replacement::ReadResult::kUnreadable) {
    unreadablePaths_.insert(path);
    return false;
  }
  unreadablePaths_.erase(path);
  return true;
}

void PropertiesIni::SetProperty(const std::string& section, const std::string& key,
                                const std::string& value) {
  const std::string sectionName(Trim(section));
  const std::string keyName(Trim(key));
  if (!IsWritableSection(sectionName) || !IsWritableKey(keyName)) {
    return;
  }
  const std::string stored = Encode(value);

  std::string edited;
  std::size_t copied = 0;
  bool isFound = false;
  std::optional<std::size_t> sectionEnd;
  if (sectionName.empty()) {
    sectionEnd = StartsWith(text_, BYTE_ORDER_MARK) ? BYTE_ORDER_MARK.size() : 0;
  }
  for (LineReader reader(text_); reader.Next();) {
    if (reader.Section() != sectionName) {
      continue;
    }
    if (!IsBlank(reader.Line())) {
      sectionEnd = reader.NextOffset();
    }
    const auto entry = ParseEntry(reader.Line());
    if (entry && entry->key == keyName) {
      isFound = true;
      edited.reserve(text_.size() + stored.size());
      const auto begin = static_cast<std::size_t>(entry->value.data() - text_.data());
      edited.append(text_, copied, begin - copied).append(stored);
      copied = begin + entry->value.size();
    }
  }

  const std::string line = keyName + "=" + stored;
  if (isFound) {
    text_ = edited.append(text_, copied, std::string::npos);
  } else if (sectionEnd) {
    text_ = InsertLine(std::move(text_), *sectionEnd, line);
  } else {
    text_ = AppendSection(std::move(text_), "[" + sectionName + "]", line);
  }
}

std::string PropertiesIni::GetProperty(const std::string& section, const std::string& key) const {
  const std::string_view sectionName = Trim(section);
  const std::string_view keyName = Trim(key);
  if (!IsWritableKey(keyName)) {
    return "";
  }
  for (LineReader reader(text_); reader.Next();) {
    const auto entry = ParseEntry(reader.Line());
    if (entry && reader.Section() == sectionName && entry->key == keyName) {
      return Decode(entry->value);
    }
  }
  return "";
}

bool PropertiesIni::Store(const std::string& path, const std::string& header) {
  if (std::any_of(unreadablePaths_.begin(), unreadablePaths_.end(),
                  [&](const std::string& unreadable) { return IsSameFile(path, unreadable); })) {
    return false;
  }
  if (header.empty()) {
    return file_replacement::ReplaceFile(path, text_);
  }
  const std::size_t top = StartsWith(text_, BYTE_ORDER_MARK) ? BYTE_ORDER_MARK.size() : 0;
  return file_replacement::ReplaceFile(
      path, std::string(text_).insert(top, Comment(header, LineEnd(text_))));
}
