#include "VemoHtml.h"

#include <cgicc/HTMLClasses.h>
#include <cgicc/HTMLDoctype.h>
#include <cgicc/HTTPHTMLHeader.h>

#include <iostream>

#include "VemoPages.h"

// An element without content opens or closes its tag, alternately: see the header.

// Contract and known issues: docs/kept-as-is.md, `VemoHtml`.
VemoHtml::VemoHtml(const std::string& name) {
  std::cout << cgicc::HTTPHTMLHeader() << std::endl;
  PrintHtmlHead(name);
  std::cout << cgicc::body() << std::endl;
  PrintLogos();
}

VemoHtml::~VemoHtml() {
  std::cout << cgicc::body() << std::endl;
  std::cout << cgicc::html() << std::endl;
}

// Contract and known issues: docs/kept-as-is.md, `PrintHtmlHead`.
void VemoHtml::PrintHtmlHead(const std::string& name) {
  std::cout << cgicc::HTMLDoctype(cgicc::HTMLDoctype::eStrict) << std::endl;
  std::cout << cgicc::html() << std::endl;
  std::cout << cgicc::head() << std::endl;
  std::cout << cgicc::meta()
                   .set("http-equiv", "content-type")
                   .set("content", "text/html;charset=iso-8859-1")
            << std::endl;
  std::cout << cgicc::meta().set("http-equiv", "cache-control").set("content", "no-cache")
            << std::endl;

  std::cout << cgicc::title() << "VEMO Web Server";
  if (!name.empty()) {
    std::cout << " - " << name;
  }
  std::cout << cgicc::title() << std::endl;

  std::cout
      << cgicc::link().set("href", "/css/all.css").set("rel", "stylesheet").set("media", "screen")
      << std::endl;
  std::cout << cgicc::head() << std::endl;
}

void VemoHtml::PrintLogos() {
  std::cout
      << cgicc::p()
      << cgicc::img().set("src", "/images/kesta.jpg").set("alt", "KESTA AG").set("align", "left")
      << cgicc::img().set("src", "/images/tarn.gif").set("alt", "TARN BELOX").set("align", "right")
      << cgicc::p() << std::endl;
  std::cout << cgicc::div().set("style", "clear:both") << cgicc::div() << std::endl;
}

// Contract and known issues: docs/kept-as-is.md, `PrintWarningPage`.
void VemoHtml::PrintWarningPage(const std::string& heading, const std::string& linkText,
                                const std::string& linkUrl, const std::string& warning) {
  std::cout << cgicc::div().set("class", "navi")
            << cgicc::a("Home").set("class", "small").set("href", HOME_PAGE) << " / "
            << cgicc::a(linkText).set("class", "small").set("href", linkUrl) << cgicc::div()
            << std::endl;
  std::cout << cgicc::h2(heading) << std::endl;
  std::cout << cgicc::div().set("class", "content") << std::endl;
  std::cout << cgicc::p().set("class", "warn") << warning << cgicc::p();
  std::cout << cgicc::form().set("action", linkUrl)
            << cgicc::input().set("type", "submit").set("value", " Back ").set("class", "mybutton")
            << cgicc::form() << std::endl;
  std::cout << cgicc::div() << std::endl;
}
