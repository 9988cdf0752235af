#include "RequestText.h"

#include <cstdio>
#include <sstream>

#include "Request.h"

namespace {

std::string Escaped(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    if (byte == '\\') {
      text += "\\\\";
    } else if (byte == '\n') {
      text += "\\n";
    } else if (byte == '\r') {
      text += "\\r";
    } else if (byte >= ' ' && byte <= '~') {
      text += byte;
    } else {
      char code[8];
      std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(byte));
      text += code;
    }
  }
  return text;
}

std::string Unescaped(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      bytes += text[i];
      continue;
    }
    const char escape = text.at(++i);
    if (escape == 'x') {
      bytes += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      bytes += escape == 'n' ? '\n' : escape == 'r' ? '\r' : escape;
    }
  }
  return bytes;
}

}  // namespace

std::string ToText(const NamedRequest& named) {
  std::string text = named.outcome.empty() ? "" : "# " + named.outcome + "\n";
  for (const auto& [name, value] : named.request.environment) {
    text += name + "=" + Escaped(value) + "\n";
  }
  text += "\n";
  std::istringstream lines(named.request.input);
  for (std::string line; std::getline(lines, line);) {
    text += Escaped(line) + (lines.eof() ? "" : "\\n") + "\n";
  }
  return text;
}

NamedRequest FromText(const std::string& text) {
  NamedRequest named;
  named.request.words = {PROGRAM};
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line) && !line.empty();) {
    if (line[0] == '#') {
      named.outcome = line.substr(2);
      continue;
    }
    const std::size_t separator = line.find('=');
    named.request.environment[line.substr(0, separator)] = Unescaped(line.substr(separator + 1));
  }
  for (std::string line; std::getline(lines, line);) {
    named.request.input += Unescaped(line);
  }
  return named;
}
