// The program's requests, as a web server makes them.
#pragma once

#include <string>

#include "Process.h"

constexpr char PROGRAM[] = "/build/setobdconf.cgi";

// A GET request with this query string; the device's class path, no Java options.
Command Get(const std::string& query);

// A POST request with this body.
Command Post(const std::string& contentType, const std::string& body);
Command PostForm(const std::string& body);        // application/x-www-form-urlencoded
Command PostMultipart(const std::string& value);  // multipart/form-data, one field CanDetectTimeout

// The request with the stand-in for the Java VM in front of the real one; see preload/JavaVm.cpp.
// Quick, for what has nothing to do with Java.
Command WithoutJava(Command request);

// What the page must be, byte for byte.
std::string SuccessPage(const std::string& value);
std::string WarningPage();
std::string FrameOnly();
