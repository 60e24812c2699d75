#include "base/diagnostics.h"

#include <cstdio>
#include <mutex>

namespace linkwash {
namespace {

std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

DiagnosticSink& currentSink() {
  static DiagnosticSink sink = [](std::string_view line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
  };
  return sink;
}

}  // namespace

void setDiagnosticSink(DiagnosticSink sink) {
  std::lock_guard lock(sinkMutex());
  currentSink() = std::move(sink);
}

void diagnostic(std::string_view line) {
  std::lock_guard lock(sinkMutex());
  if (currentSink()) currentSink()(line);
}

DiagnosticSink standardErrorSink() {
  return [](std::string_view line) {
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fputc('\n', stderr);
  };
}

}  // namespace linkwash
