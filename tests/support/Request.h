// The program's requests, as a web server makes them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Process.h"

constexpr char PROGRAM[] = "/build/setobdconf.cgi";

// A GET request with this query string; the device's class path, no Java options.
Command Get(const std::string& query);

// A POST request with this body.
Command Post(const std::string& contentType, const std::string& body);
Command PostForm(const std::string& body);  // application/x-www-form-urlencoded

// Names and values of a form, in the order in which they are sent.
using Fields = std::vector<std::pair<std::string, std::string>>;

// A POST request with these fields as multipart/form-data.
Command PostMultipart(const Fields& fields);

// The request with the stand-in for the Java VM in front of the real one; see preload/JavaVm.cpp.
// Quick, for what has nothing to do with Java.
Command WithoutJava(Command request);

// What the page must be, byte for byte.
std::string SuccessPage(const std::string& value);
std::string WarningPage();
std::string FrameOnly();

// What the log says of a request until its Java VM is made, as Summary lines.
std::vector<std::string> StartStatements(const std::string& javaOptions = "(null)",
                                         const std::string& classPath = "/srv/vemo/java");

// All that the log says of a request that succeeds.
std::vector<std::string> SuccessStatements();
