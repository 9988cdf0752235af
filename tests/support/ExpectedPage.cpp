#include "ExpectedPage.h"

namespace {

// The opening of every page: the header's newline and the frame's make an empty line, twice.
const std::string FRAME_OPENING =
    "Content-Type: text/html\n"
    "\n"
    "\n"
    "<!DOCTYPE HTML//EN\" \"http://www.w3.org/TR/REC-html40/strict.dtd\">\n"
    "<html>\n"
    "<head>\n"
    "<meta http-equiv=\"content-type\" content=\"text/html;charset=iso-8859-1\"  />\n"
    "<meta http-equiv=\"cache-control\" content=\"no-cache\"  />\n"
    "<title>VEMO Web Server - SetObdConf</title>\n"
    "<link href=\"/css/all.css\" rel=\"stylesheet\" media=\"screen\"  />\n"
    "</head>\n"
    "<body>\n"
    "<p><img src=\"/images/kesta.jpg\" alt=\"KESTA AG\" align=\"left\"  />"
    "<img src=\"/images/tarn.gif\" alt=\"TARN BELOX\" align=\"right\"  /></p>\n"
    "<div style=\"clear:both\" ></div>\n";

const std::string CONTENT_OPENING =
    "<div class=\"navi\" ><a class=\"small\" href=\"/index.html\" >Home</a> / "
    "<a class=\"small\" href=\"channeldeviceconfig.cgi\" >Device Information</a> / "
    "<a class=\"small\" href=\"setobdconf.cgi\" >Set CanDetectTimeout</a></div>\n"
    "<h2>Set CanDetectTimeout</h2>\n"
    "<div class=\"content\" >\n";

const std::string FRAME_CLOSING =
    "</body>\n"
    "</html>\n";

}  // namespace

std::string SuccessPage(const std::string& value) {
  return FRAME_OPENING + CONTENT_OPENING + "<p>Set CanDetectTimeout to " + value +
         " ms.\n"
         "</p>Set new option was successful.<br />\n"
         "To activate the new setting <a href=\"reboot.cgi\" >reboot</a> the device.<p>\n"
         "</div>\n" +
         FRAME_CLOSING;
}

std::string WarningPage() {
  return FRAME_OPENING + CONTENT_OPENING +
         "<p class=\"warn\" >Option CanDetectTimeout not set</p>"
         "<form action=\"channeldeviceconfig.cgi\" >"
         "<input type=\"submit\" value=\" Back \" class=\"mybutton\"  /></form>\n" +
         FRAME_CLOSING;
}

std::string FrameOnly() {
  return FRAME_OPENING + FRAME_CLOSING;
}

std::vector<std::string> StartStatements(const std::string& javaOptions,
                                         const std::string& classPath) {
  return {"DEBUG src/SetObdConf 30 main", "DEBUG src/JavaVmWrapper 73 OpenJavaVM",
          "DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: " + javaOptions,
          "DEBUG src/JavaVmWrapper 99 JAVA_CLASSPATH:" + classPath};
}

std::vector<std::string> SuccessStatements() {
  auto statements = StartStatements();
  statements.push_back("DEBUG src/JavaVmWrapper 155 ChangeStdErr");
  return statements;
}
