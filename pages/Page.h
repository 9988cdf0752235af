// What sibling pages share, on top of the page frame: escaping, and the parts that every page has.
//
//   const cgicc::Cgicc request(nullptr);  // before any output, since it may throw
//   const VemoHtml frame("Label");
//   OpenContent({{"Label", "label.cgi"}});
//   std::cout << cgicc::p(HtmlFromLatin1(request("Label"))) << std::endl;
//   CloseContent();
//
// The page escapes: parameters named `html` and texts of links are HTML, so a page passes every
// text that it did not write itself through HtmlFromLatin1 or HtmlFromUtf8 first.
//
// The Print functions write cgicc elements to standard output, as VemoHtml does, under the same
// rules: while a frame lives, from one thread, and with no `div`, `p` or `form` open unless the
// function says so. Nothing here reads the request or logs. Write errors are ignored.
#pragma once

#include <string>
#include <vector>

// Escapes ISO 8859-1 text, such as form fields and values of the settings file, for an element's
// content or an attribute's value. Characters beyond ASCII become character references, so that the
// page's character set does not matter. Takes any length, keeps zero bytes.
std::string HtmlFromLatin1(const std::string& text);

// The same for UTF-8 text, such as results of Java methods and of the nVm service. Takes a byte
// that is not valid UTF-8 as ISO 8859-1.
std::string HtmlFromUtf8(const std::string& text);

// A page's name and address, both in HTML. The texts are not copied: use constants, as in
// VemoPages.h.
struct Link {
  const char* text;
  const char* address;
};

// Writes the viewport for phones, which the frame lacks, the navigation and the heading. Then opens
// the content block, a `div` whose language is English, and leaves it open. `path` lists the
// page's parents, without the home page, and then the page itself; it must not be empty.
void OpenContent(const std::vector<Link>& path);

// Closes the content block of OpenContent; only its `div` may be open.
void CloseContent();

// Writes a highlighted paragraph: an error or a refusal.
void PrintNotice(const std::string& html);

// Writes the submit button of the open form, with this text. It has no name, so the form does not
// send it.
void PrintSubmitButton(const std::string& html);
