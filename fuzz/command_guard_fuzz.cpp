// The command guard with the shipped rules on arbitrary clipboard text and rule files: analysis
// must not crash, and a neutralised command is never flagged again (or the guard would keep
// rewriting what it already made safe).
#include <cstdint>
#include <string>

#include "core/clipboard/command_guard.h"
#include "fuzz/fuzz_support.h"

using namespace linkwash;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const CommandGuard guard(nullptr, std::filesystem::path("/nonexistent"));
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  (void)guard.analyze(text, CommandRiskSeverity::info);
  if (guard.analyze(CommandGuard::neutralizedCommand(text), CommandRiskSeverity::info)) {
    fuzz::broken("a neutralised command was flagged", text);
  }
  (void)CommandGuard::decodeRuleBundle(text);
  return 0;
}
