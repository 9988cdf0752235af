// The frame around every page of the device's web interface.
//
// Pages are written as cgicc elements to standard output. cgicc keeps one open/closed state for
// each tag in the whole process: an element without content writes its opening tag when the state
// is closed and its closing tag when it is open. So one frame at a time, from one thread, and no
// `html` or `body` element while it lives.
//
// Texts are written as they are, never HTML-escaped; a caller that writes what it was given escapes
// it first. Nothing is checked, logged or reported: a write that fails is lost.
#pragma once

#include <string>

class VemoHtml {
 public:
  // Writes the HTTP header, the head, the opening of the body and the logo bar, so it comes before
  // any other output. `name` ends the page's title; empty, the title is the server's name alone.
  explicit VemoHtml(const std::string& name);

  // Writes the closing of the body and of the document.
  virtual ~VemoHtml();

  VemoHtml(const VemoHtml&) = delete;
  VemoHtml& operator=(const VemoHtml&) = delete;

  // Writes the document type, opens `html` and writes the whole head.
  static void PrintHtmlHead(const std::string& name);

  // Writes the two logos and the line that ends their floating.
  static void PrintLogos();

  // Writes the body of a warning page: the navigation (the home page, then `linkText` leading to
  // `linkUrl`), the heading, the warning and a Back button that leads to `linkUrl` too. To be
  // called while the frame lives, with no `div`, `p` or `form` open.
  void PrintWarningPage(const std::string& heading, const std::string& linkText,
                        const std::string& linkUrl, const std::string& warning);
};
