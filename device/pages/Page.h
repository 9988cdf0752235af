// What the stand-in device's own pages share, on top of the page frame.
#pragma once

#include <string>
#include <vector>

// Text as HTML: markup escaped, what is not ASCII as a character reference, so that the page's
// character set does not matter. From ISO 8859-1, as browsers post it and the settings file holds
// it; from UTF-8, as Java and XML give it, where a byte that is none is taken for ISO 8859-1.
std::string HtmlFromLatin1(const std::string& text);
std::string HtmlFromUtf8(const std::string& text);

// A page as links name it; both are HTML.
struct Link {
  const char* text;
  const char* address;
};

// Writes what a page has between the frame and its content: the viewport of a phone, which the
// frame does not know, the navigation, and the heading. Opens the content block. `path` leads from
// the home page, which it does not name, over the page's parents to the page itself.
void OpenContent(const std::vector<Link>& path);

// Closes the content block.
void CloseContent();

// Writes the button that submits the open form, with this text on it.
void PrintSubmitButton(const std::string& text);
