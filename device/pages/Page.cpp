#include "Page.h"

#include <cgicc/HTMLClasses.h>

#include <iostream>

namespace {

void AppendCharacter(unsigned int code, std::string& html) {
  const bool isMarkup = code == '&' || code == '<' || code == '>' || code == '"' || code == '\'';
  if (isMarkup || code >= 0x7F) {
    html += "&#" + std::to_string(code) + ";";
  } else {
    html += static_cast<char>(code);
  }
}

// The length of the UTF-8 sequence that begins with this byte; 1 for a byte that begins none.
std::size_t SequenceLength(unsigned char lead) {
  if (lead >= 0xF0 && lead <= 0xF4) {
    return 4;
  }
  if (lead >= 0xE0 && lead <= 0xEF) {
    return 3;
  }
  return lead >= 0xC2 && lead <= 0xDF ? 2 : 1;
}

// Decodes the character at `position` and moves behind it.
unsigned int DecodeUtf8(const std::string& text, std::size_t& position) {
  const auto lead = static_cast<unsigned char>(text[position++]);
  const std::size_t length = SequenceLength(lead);
  if (length == 1 || position + length - 1 > text.size()) {
    return lead;
  }
  unsigned int code = lead & (0x7Fu >> length);
  for (std::size_t i = 0; i < length - 1; ++i) {
    const auto next = static_cast<unsigned char>(text[position + i]);
    if ((next & 0xC0) != 0x80) {
      return lead;
    }
    code = code << 6 | (next & 0x3Fu);
  }
  position += length - 1;
  return code;
}

}  // namespace

std::string HtmlFromLatin1(const std::string& text) {
  std::string html;
  for (const char character : text) {
    AppendCharacter(static_cast<unsigned char>(character), html);
  }
  return html;
}

std::string HtmlFromUtf8(const std::string& text) {
  std::string html;
  for (std::size_t position = 0; position < text.size();) {
    AppendCharacter(DecodeUtf8(text, position), html);
  }
  return html;
}

void OpenContent(const std::string& heading, const std::string& url) {
  const bool isDeviceInformation = url == "channeldeviceconfig.cgi";
  std::cout
      << cgicc::meta().set("name", "viewport").set("content", "width=device-width, initial-scale=1")
      << std::endl;
  std::cout << cgicc::div().set("class", "navi")
            << cgicc::a("Home").set("class", "small").set("href", "/index.html") << " / ";
  if (!isDeviceInformation) {
    std::cout << cgicc::a("Device Information")
                     .set("class", "small")
                     .set("href", "channeldeviceconfig.cgi")
              << " / ";
  }
  std::cout << cgicc::a(heading).set("class", "small").set("href", url) << cgicc::div()
            << std::endl;
  std::cout << cgicc::h2(heading) << std::endl;
  std::cout << cgicc::div().set("class", "content").set("lang", "en") << std::endl;
}

void CloseContent() {
  std::cout << cgicc::div() << std::endl;
}
