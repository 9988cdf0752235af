#include "LogHandler.h"

LogHandler::LogHandler(const std::string& name) : name_(name) {}

void LogHandler::AddLogClient(LogHandlerClient* client) {
  clients_.push_back(client);
}

void LogHandler::HandleEvent(const LogEvent& event) {
  for (LogHandlerClient* client : clients_) {
    client->HandleEvent(event);
  }
}

const std::string& LogHandler::GetName() const {
  return name_;
}
