// Throw-away desktop servers for the clipboard tests: an Xvfb display and a bounded wait. Each
// server is stopped (and, if it ignores that, killed) when its object goes away.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace linkwash::testing {

class XvfbServer {
 public:
  // Starts Xvfb on a free display and waits up to 10 s for it; display() is empty on failure.
  XvfbServer();
  ~XvfbServer();
  XvfbServer(const XvfbServer&) = delete;
  XvfbServer& operator=(const XvfbServer&) = delete;
  const std::string& display() const { return display_; }

 private:
  int pid_ = -1;
  std::string display_;
};

// Polls `done` every 20 ms until it holds or `timeout` passes; returns its last answer.
bool waitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(5));

// Sends SIGTERM, waits up to 5 s, then SIGKILL; returns the exit status (128 + signal if killed).
int stopProcess(int pid);

}  // namespace linkwash::testing
