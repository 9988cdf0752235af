#include "Request.h"

Command Get(const std::string& query) {
  Command command;
  command.words = {PROGRAM};
  command.environment = {{"GATEWAY_INTERFACE", "CGI/1.1"},
                         {"REQUEST_METHOD", "GET"},
                         {"QUERY_STRING", query},
                         {"JAVA_CLASSPATH", "/srv/vemo/java"}};
  return command;
}

Command Post(const std::string& contentType, const std::string& body) {
  Command command = Get("");
  command.environment["REQUEST_METHOD"] = "POST";
  command.environment["CONTENT_TYPE"] = contentType;
  command.environment["CONTENT_LENGTH"] = std::to_string(body.size());
  command.input = body;
  return command;
}

Command PostForm(const std::string& body) {
  return Post("application/x-www-form-urlencoded", body);
}

Command WithVariable(Command request, const std::string& name, const std::string& value) {
  request.environment[name] = value;
  return request;
}

Command WithoutVariable(Command request, const std::string& name) {
  request.environment.erase(name);
  return request;
}

Command PostMultipart(const Fields& fields) {
  std::string body;
  for (const auto& [name, value] : fields) {
    body += "--frontier\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value +
            "\r\n";
  }
  return Post("multipart/form-data; boundary=frontier", body + "--frontier--\r\n");
}

Command WithFakeVm(const Command& request) {
  return Preload("fake-vm", request);
}
