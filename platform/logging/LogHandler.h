// A named distributor of log events: it passes each event that it gets to all of its clients.
#pragma once

#include <string>
#include <vector>

#include "LogClient.h"

class LogHandler : public LogHandlerClient {
 public:
  // Logger::GetLogHandler makes handlers, one for each name.
  explicit LogHandler(const std::string& name);

  // Appends a client, which from now on gets every event, after the clients added before it. The
  // caller keeps ownership, and the client must outlive the handler. A handler must not be its own
  // client, directly or through others: an event would recurse without end.
  void AddLogClient(LogHandlerClient* client);

  // Passes the event on to each client. A handler without clients is silent.
  void HandleEvent(const LogEvent& event) override;

  const std::string& GetName() const;

 private:
  std::string name_;
  std::vector<LogHandlerClient*> clients_;
};
