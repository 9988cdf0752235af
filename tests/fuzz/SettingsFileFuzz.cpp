// Settings files of any bytes: a property is set, the file stored and loaded. The value comes back
// whole, and nothing else has changed. What stands where in a file is found out once more here,
// byte by byte, so that the library is not its own judge.
//
// An input: section, key, value, header, text of the file, a byte \1 between them.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "PropertiesIni.h"
#include "Require.h"

namespace {

using std::string_literals::operator""s;

// In memory: each store waits for the disk.
std::string MakeFolder() {
  std::string folder = "/dev/shm/settings." + std::to_string(getpid());
  std::filesystem::create_directories(folder);
  return folder;
}

const std::string& Path() {
  static const std::string path = MakeFolder() + "/obd.conf";
  return path;
}

void Write(const std::string& text) {
  std::ofstream(Path(), std::ios::binary) << text;
}

std::string Read() {
  std::ostringstream text;
  text << std::ifstream(Path(), std::ios::binary).rdbuf();
  return text.str();
}

// ---- What stands where.

struct Entry {
  std::string section;
  std::string key;
  std::size_t value;  // where it begins
  std::size_t end;    // and ends
};

struct Contents {
  std::vector<Entry> entries;
  std::vector<std::string> sections;
  std::size_t lines = 0;
};

bool IsBlank(char byte) {
  return byte == ' ' || byte == '\t';
}

std::string Strip(const std::string& text) {
  std::size_t begin = 0;
  std::size_t end = text.size();
  while (begin < end && IsBlank(text[begin])) {
    ++begin;
  }
  while (end > begin && IsBlank(text[end - 1])) {
    --end;
  }
  return text.substr(begin, end - begin);
}

// The line from `begin` to `end`, line end aside.
void Note(const std::string& text, std::size_t begin, std::size_t end, std::string& section,
          Contents& contents) {
  std::size_t first = begin;
  while (first < end && IsBlank(text[first])) {
    ++first;
  }
  if (first == end || text[first] == ';' || text[first] == '#') {
    return;
  }
  const std::string line = text.substr(first, end - first);
  if (line[0] == '[' && line.find(']') != std::string::npos) {
    section = Strip(line.substr(1, line.find(']') - 1));
    contents.sections.push_back(section);
    return;
  }
  std::size_t value = line.find('=');
  if (value == std::string::npos) {
    return;
  }
  const std::string key = Strip(line.substr(0, value));
  value += first + 1;
  while (value < end && IsBlank(text[value])) {
    ++value;
  }
  while (end > value && IsBlank(text[end - 1])) {
    --end;
  }
  contents.entries.push_back({section, key, value, end});
}

Contents Examine(const std::string& text) {
  Contents contents;
  std::string section;
  std::size_t begin = text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
  while (begin < text.size()) {
    std::size_t end = begin;
    while (end < text.size() && text[end] != '\n') {
      ++end;
    }
    const std::size_t next = end + 1;
    Note(text, begin, end > begin && text[end - 1] == '\r' ? end - 1 : end, section, contents);
    ++contents.lines;
    begin = next;
  }
  return contents;
}

bool Contains(const std::string& text, const std::string& anyOf) {
  return text.find_first_of(anyOf) != std::string::npos;
}

bool IsWritable(const std::string& section, const std::string& key) {
  return !key.empty() && !Contains(section + key, "\r\n\0"s) && !Contains(section, "]") &&
         !Contains(key, "=") && !Contains(key.substr(0, 1), "[;#") &&
         key.compare(0, 3, "\xEF\xBB\xBF") != 0;
}

// What the text of a value stands for, when it is one that the library wrote.
std::string Decoded(const std::string& stored) {
  if (stored.empty() || stored.front() != '"') {
    return stored;
  }
  Require(stored.size() > 1 && stored.back() == '"', "a value in quotes ends in one");
  std::string value;
  for (std::size_t i = 1; i < stored.size() - 1; ++i) {
    Require(stored[i] != '"', "there is no bare quote within the quotes");
    if (stored[i] != '\\') {
      value += stored[i];
      continue;
    }
    const std::size_t escape = R"("\nr0)"s.find(stored[++i]);
    Require(escape != std::string::npos && i < stored.size() - 1, "an escape is a known one");
    value += "\"\\\n\r\0"s[escape];
  }
  return value;
}

// ---- What must hold.

PropertiesIni Loaded() {
  PropertiesIni settings;
  Require(settings.Load(Path()), "a file that is there is loaded");
  return settings;
}

void CheckStored(const std::string& stored, const std::string& value) {
  Require(!Contains(stored, "\r\n\0"s), "a value adds no line");
  Require(Decoded(stored) == value, "the stored text stands for the value");
  const bool mustBeQuoted = Contains(value, "\r\n\0"s) || Strip(value) != value ||
                            (!value.empty() && value.front() == '"');
  Require(mustBeQuoted || stored == value, "a value stands verbatim when it can");
}

// `before` with the values of the key exchanged, and nothing else.
void CheckExchanged(const std::string& before, const std::string& after,
                    const std::vector<Entry>& exchanged, const std::string& value) {
  const std::size_t growth = after.size() - before.size();  // may wrap around, and back
  std::size_t oldLengths = 0;
  for (const Entry& entry : exchanged) {
    oldLengths += entry.end - entry.value;
  }
  const std::size_t newLengths = oldLengths + growth;
  Require(newLengths % exchanged.size() == 0, "every occurrence gets the same text");
  const std::size_t length = newLengths / exchanged.size();
  std::string expected;
  std::size_t copied = 0;
  for (const Entry& entry : exchanged) {
    expected.append(before, copied, entry.value - copied);
    if (expected.size() + length <= after.size()) {
      const std::string stored = after.substr(expected.size(), length);
      CheckStored(stored, value);
      expected += stored;
    }
    copied = entry.end;
  }
  expected.append(before, copied);
  Require(after == expected, "no byte beside the value changes");
}

// `before` with new lines in one place, the last of them the entry.
void CheckInserted(const std::string& before, const std::string& after, const Contents& old,
                   const Entry& entry, const std::string& value) {
  Require(after.size() > before.size(), "a new key makes the text longer");
  std::size_t same = 0;
  while (same < before.size() && after[same] == before[same]) {
    ++same;
  }
  const std::size_t inserted = after.size() - before.size();
  Require(after.compare(same + inserted, std::string::npos, before, same) == 0,
          "a new key changes no byte that was there");
  CheckStored(after.substr(entry.value, entry.end - entry.value), value);
  const auto hasSection = std::count(old.sections.begin(), old.sections.end(), entry.section) > 0 ||
                          entry.section.empty();
  const Contents now = Examine(after);
  Require(now.entries.size() == old.entries.size() + 1, "a new key is one entry");
  Require(now.sections.size() == old.sections.size() + (hasSection ? 0 : 1),
          "a section is made when it must be");
  Require(now.lines <= old.lines + (hasSection ? 1 : 3), "no more lines are made than must be");
}

void CheckOthers(const std::string& before, const PropertiesIni& old, const PropertiesIni& now,
                 const std::string& section, const std::string& key) {
  for (const Entry& entry : Examine(before).entries) {
    if (entry.section != section || entry.key != key) {
      Require(
          old.GetProperty(entry.section, entry.key) == now.GetProperty(entry.section, entry.key),
          "no other value changes");
    }
  }
}

std::vector<Entry> Find(const Contents& contents, const std::string& section,
                        const std::string& key) {
  std::vector<Entry> found;
  for (const Entry& entry : contents.entries) {
    if (entry.section == section && entry.key == key) {
      found.push_back(entry);
    }
  }
  return found;
}

void CheckSet(const std::string& before, const std::string& rawSection, const std::string& rawKey,
              const std::string& value) {
  Write(before);
  const PropertiesIni old = Loaded();
  PropertiesIni settings = old;
  settings.SetProperty(rawSection, rawKey, value);
  Require(settings.Store(Path(), ""), "the text is stored");
  const std::string after = Read();
  const std::string section = Strip(rawSection);
  const std::string key = Strip(rawKey);
  if (!IsWritable(section, key)) {
    Require(after == before, "a name that no line can hold changes nothing");
    return;
  }

  const PropertiesIni now = Loaded();
  Require(now.GetProperty(rawSection, rawKey) == value, "the value comes back");
  const Contents contents = Examine(before);
  const std::vector<Entry> exchanged = Find(contents, section, key);
  if (exchanged.empty()) {
    Require(old.GetProperty(rawSection, rawKey).empty(), "a key that is not there has no value");
    const std::vector<Entry> made = Find(Examine(after), section, key);
    Require(made.size() == 1, "a new key stands once");
    CheckInserted(before, after, contents, made[0], value);
  } else {
    CheckExchanged(before, after, exchanged, value);
  }
  CheckOthers(before, old, now, section, key);

  settings.SetProperty(rawSection, rawKey, value);
  Require(settings.Store(Path(), "") && Read() == after, "setting it again changes nothing");
}

void CheckHeader(const std::string& before, const std::string& header) {
  Write(before);
  PropertiesIni settings = Loaded();
  Require(settings.Store(Path(), header), "the text is stored");
  const std::string after = Read();
  const std::size_t top = before.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
  Require(
      after.size() >= before.size() && after.compare(0, top, before, 0, top) == 0 &&
          after.compare(after.size() - (before.size() - top), std::string::npos, before, top) == 0,
      "a header stands above the text");
  const std::size_t headerSize = after.size() - before.size();
  Require(header.empty() == (headerSize == 0), "an empty header writes nothing");
  std::istringstream lines(after.substr(top, headerSize));
  for (std::string line; std::getline(lines, line);) {
    Require(line.compare(0, 2, "# ") == 0, "a header is made of comments");
    Require(!lines.eof(), "a header ends in a line end");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::array<std::string, 4> fields;
  std::size_t begin = 0;
  for (std::string& field : fields) {
    const std::size_t end = input.find('\1', begin);
    if (end == std::string::npos) {
      return -1;  // nothing to be learnt from it
    }
    field = input.substr(begin, end - begin);
    begin = end + 1;
  }
  const auto& [section, key, value, header] = fields;
  const std::string text = input.substr(begin);
  CheckSet(text, section, key, value);
  CheckHeader(text, header);
  return 0;
}
