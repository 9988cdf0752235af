#include "RotatedLog.h"

#include <unistd.h>

RotatedLog::RotatedLog(const std::string& path, LogLayout* layout) : path_(path), layout_(layout) {
  Open();
}

void RotatedLog::HandleEvent(const LogEvent& event) {
  struct stat now = {};
  if (stat(path_.c_str(), &now) != 0 || now.st_ino != opened_.st_ino ||
      now.st_dev != opened_.st_dev) {
    Open();
  }
  file_->HandleEvent(event);
}

void RotatedLog::Open() {
  auto file = std::make_unique<LogClientFile>(path_, true);
  file->SetLayout(layout_);
  struct stat now = {};
  const bool isUsable =
      stat(path_.c_str(), &now) == 0 && S_ISREG(now.st_mode) && access(path_.c_str(), W_OK) == 0;
  if (isUsable || file_ == nullptr) {
    file_ = std::move(file);
    opened_ = now;
  }
}
