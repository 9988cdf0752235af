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

// The request with this variable in its environment, and without it.
Command WithVariable(Command request, const std::string& name, const std::string& value);
Command WithoutVariable(Command request, const std::string& name);

// Names and values of a form, in the order in which they are sent.
using Fields = std::vector<std::pair<std::string, std::string>>;

// A POST request with these fields as multipart/form-data.
Command PostMultipart(const Fields& fields);

// The request with the fake VM in front of the real one; see standin/preload/FakeVm.cpp. Quick, for
// what has nothing to do with Java.
Command WithFakeVm(const Command& request);
