// What sibling pages share, on top of the page frame: text as HTML, and the pieces that every page
// has.
//
//   const cgicc::Cgicc request(nullptr);  // before any output, since it may throw
//   const VemoHtml frame("Label");
//   OpenContent({{"Label", "label.cgi"}});
//   std::cout << cgicc::p(HtmlFromLatin1(request("Label"))) << std::endl;
//   CloseContent();
//
// What writes, writes cgicc elements to standard output, as VemoHtml does, and under the same
// rules: while a frame lives, from one thread, with no `div`, `p` or `form` left open but where it
// is said. Texts are HTML: whoever was given a text escapes it first. Nothing here reads the
// request, is logged or fails: a write that fails is lost.
#pragma once

#include <string>
#include <vector>

// Text as HTML, for an element's content and for an attribute's value: markup escaped, what is not
// ASCII as a character reference, so that the page's character set does not matter. Of any length;
// zero bytes are kept. From ISO 8859-1: what a browser posted, or the settings file holds.
std::string HtmlFromLatin1(const std::string& text);

// The same from UTF-8: what Java or the nVm service told. A byte that is no UTF-8 is taken for
// ISO 8859-1.
std::string HtmlFromUtf8(const std::string& text);

// A page as links name it, both in HTML. The texts are the caller's and are not copied: constants,
// as in VemoPages.h.
struct Link {
  const char* text;
  const char* address;
};

// Writes what a page has between the frame and its content: the viewport of a phone, which the
// frame does not know, the navigation, and the heading. Opens the content block, which names the
// page's language, English. `path` leads from the home page, which it does not name, over the
// page's parents to the page itself, so it is never empty. Leaves a `div` open.
void OpenContent(const std::vector<Link>& path);

// Closes the content block that OpenContent opened, with nothing but that `div` open.
void CloseContent();

// Writes a paragraph that stands out: what is wrong, or was refused.
void PrintNotice(const std::string& html);

// Writes the button that submits the open form, with this text on it. It has no name, so the form
// sends nothing of it.
void PrintSubmitButton(const std::string& html);
