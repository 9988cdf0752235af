// The frame around every page of the device's web interface.
//
// Pages are written as cgicc elements to standard output. cgicc keeps one open/closed state for
// each tag in the whole process: an element without content writes its opening tag when the state
// is closed and its closing tag when it is open. So use one frame at a time, from one thread, and
// no `html` or `body` element while it lives.
//
// Nothing here escapes HTML: texts are written as they are, and the caller escapes its input first.
// On sibling pages the page itself does so, with HtmlFromLatin1 and HtmlFromUtf8 of pages/Page.h.
// Nothing is checked, logged or reported: a failed write is lost.
#pragma once

#include <string>

class VemoHtml {
 public:
  // Writes the HTTP header, the head, the opening of the body and the logo bar; nothing may be
  // written before it. The page's title is the server's name, then `name` unless that is empty.
  explicit VemoHtml(const std::string& name);

  // Writes the closing of the body and of the document.
  virtual ~VemoHtml();

  VemoHtml(const VemoHtml&) = delete;
  VemoHtml& operator=(const VemoHtml&) = delete;

  // Writes the document type, opens `html` and writes the whole head.
  static void PrintHtmlHead(const std::string& name);

  // Writes the two logos and the block that ends their floating.
  static void PrintLogos();

  // Writes the body of a warning page: the navigation (the home page, then `linkText` leading to
  // `linkUrl`), the heading, the warning and a Back button that leads to `linkUrl`, too. Call it
  // while the frame lives, with no `div`, `p` or `form` open.
  void PrintWarningPage(const std::string& heading, const std::string& linkText,
                        const std::string& linkUrl, const std::string& warning);
};
