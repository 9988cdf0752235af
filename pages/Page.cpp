#include "Page.h"

#include <cgicc/HTMLClasses.h>
#include <libxml/HTMLparser.h>
#include <libxml/encoding.h>

#include <iostream>
#include <string_view>

#include "VemoPages.h"

namespace {

const unsigned char* Bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string Utf8FromLatin1(char character) {
  unsigned char utf8[2];
  int length = sizeof utf8;
  int taken = 1;
  isolat1ToUTF8(utf8, &length, Bytes({&character, 1}), &taken);
  return {utf8, utf8 + length};
}

// Appends the beginning of `text`, as far as it is UTF-8 and fits the buffer. Returns the number of
// bytes taken; 0: `text` does not begin with UTF-8.
std::size_t AppendUtf8(std::string_view text, std::string& html) {
  text = text.substr(0, 64);
  // The library accepts overlong encodings of ASCII characters.
  text = text.substr(0, text.find_first_of("\xC0\xC1"));

  unsigned char encoded[256];
  int length = sizeof encoded;
  auto taken = static_cast<int>(text.size());
  htmlEncodeEntities(encoded, &length, Bytes(text), &taken, '"');
  for (int i = 0; i < length; ++i) {
    if (encoded[i] == '\'') {
      html += "&#39;";  // the library escapes only one kind of quotes
    } else {
      html += static_cast<char>(encoded[i]);
    }
  }
  return static_cast<std::size_t>(taken);
}

}  // namespace

std::string HtmlFromLatin1(const std::string& text) {
  std::string html;
  for (const char character : text) {
    AppendUtf8(Utf8FromLatin1(character), html);
  }
  return html;
}

std::string HtmlFromUtf8(const std::string& text) {
  std::string html;
  for (std::string_view rest = text; !rest.empty();) {
    std::size_t taken = AppendUtf8(rest, html);
    if (taken == 0) {
      taken = 1;
      AppendUtf8(Utf8FromLatin1(rest.front()), html);
    }
    rest.remove_prefix(taken);
  }
  return html;
}

void OpenContent(const std::vector<Link>& path) {
  std::cout
      << cgicc::meta().set("name", "viewport").set("content", "width=device-width, initial-scale=1")
      << std::endl;
  std::cout << cgicc::div().set("class", "navi")
            << cgicc::a("Home").set("class", "small").set("href", HOME_PAGE);
  for (const Link& page : path) {
    std::cout << " / " << cgicc::a(page.text).set("class", "small").set("href", page.address);
  }
  std::cout << cgicc::div() << std::endl;
  std::cout << cgicc::h2(path.back().text) << std::endl;
  std::cout << cgicc::div().set("class", "content").set("lang", "en") << std::endl;
}

void CloseContent() {
  std::cout << cgicc::div() << std::endl;
}

void PrintNotice(const std::string& html) {
  std::cout << cgicc::p(html).set("class", "warn") << std::endl;
}

void PrintSubmitButton(const std::string& html) {
  std::cout << cgicc::input().set("type", "submit").set("value", html).set("class", "mybutton");
}
