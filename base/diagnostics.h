// One-line diagnostics of the library ("Warning: Could not load bundled rules"). They go to
// standard output by default; executables whose standard output carries data (the browser host,
// `linkwash clean`) send them to standard error instead.
#pragma once

#include <functional>
#include <string_view>

namespace linkwash {

using DiagnosticSink = std::function<void(std::string_view line)>;

void setDiagnosticSink(DiagnosticSink sink);
void diagnostic(std::string_view line);
// A sink that writes each line to standard error.
DiagnosticSink standardErrorSink();

}  // namespace linkwash
