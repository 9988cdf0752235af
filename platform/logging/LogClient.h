// Where log events go.
#pragma once

#include <string>

class LogEvent;
class LogLayout;

// Receives the events of a LogHandler: a destination, or another handler.
class LogHandlerClient {
 public:
  virtual ~LogHandlerClient() = default;

  // Handles one event. Reports no failure: a log statement never disturbs its caller.
  virtual void HandleEvent(const LogEvent& event) = 0;
};

// A destination that writes events as text.
class LogClient : public LogHandlerClient {
 public:
  // Formats with `layout` from now on. The caller keeps ownership; the layout must outlive the
  // client. Without a layout (null, the initial state) an event is its message and a newline.
  void SetLayout(LogLayout* layout);

 protected:
  // The text of the event, line end included.
  std::string Format(const LogEvent& event) const;

 private:
  LogLayout* layout_ = nullptr;
};

// A destination that writes events to a file, each with one `write`, so that the lines of processes
// that share the file never mix.
class LogClientFile : public LogClient {
 public:
  // Opens the file at `path`, made with mode 0666 less the umask when it is missing; `append` keeps
  // what it holds, otherwise it is emptied. The descriptor is close-on-exec and never one of the
  // standard three, even when those are closed: otherwise a page written to standard output would
  // land in the log.
  //
  // When the file cannot be opened, or later not written, the client reports it on standard error
  // once and then is silent. Events that it cannot write are lost; when a full disk cuts one, the
  // beginning stays, as a line of its own. No failure ends the process: SIGXFSZ (a limit on the
  // size of files) and SIGPIPE (a pipe without a reader) are blocked and count as failed writes. A
  // named pipe without a reader cannot be opened; with one, the client waits while the pipe is
  // full. It also waits for another process's lease on the file.
  LogClientFile(const std::string& path, bool append);
  ~LogClientFile() override;
  LogClientFile(const LogClientFile&) = delete;
  LogClientFile& operator=(const LogClientFile&) = delete;

  void HandleEvent(const LogEvent& event) override;

 private:
  void ReportOnce(const char* what, int error);

  std::string path_;
  int descriptor_;
  bool reported_ = false;
};
