// Helpers shared by the tests: an isolated LINKWASH_HOME and the paths of shared fixtures.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace linkwash::testing {

// Sets (or, given nothing, unsets) an environment variable for the object's lifetime.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::optional<std::string>& value);
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* name_;
  std::optional<std::string> previous_;
};

// Points LINKWASH_HOME at a fresh temporary folder for the object's lifetime, so a test never
// touches real preferences or data; removes the folder afterwards.
class TempHome {
 public:
  TempHome();
  ~TempHome();
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
  std::optional<ScopedEnvironment> home_;
};

std::filesystem::path sourceDir();
// The shared folder beside the checkout (holds the public ClearURLs file and the link corpus).
std::filesystem::path sharedDir();
// The real ClearURLs rule file; nothing when it is absent (tests then skip).
std::optional<std::filesystem::path> clearUrlsFixture();
std::optional<std::string> readFixture(const std::filesystem::path& path);
// The rows of tests/fixtures/<name>: tab-separated cells, skipping blank lines and lines that
// start with '#'. Empty when the file is missing, which the caller's size check then reports.
std::vector<std::vector<std::string>> fixtureTable(const std::string& name);
// Where the build put its executables (bin/).
std::filesystem::path binDir();

}  // namespace linkwash::testing

namespace linkwash::testing {

struct RunResult {
  int exitCode = -1;  // 128 + signal when the program was killed
  std::string out;
  std::string err;
};

// Runs `program` with `arguments` and the current environment, feeding `input` on standard input.
// Output is collected through files in `scratch`, which cannot fill up and block the child.
RunResult runProgram(const std::filesystem::path& program,
                     const std::vector<std::string>& arguments,
                     const std::filesystem::path& scratch, const std::string& input = "");

// Starts `program` with standard input read from `inputFile` and output into files in `scratch`;
// returns its process ID (or -1). Collect it with finishProgram.
int startProgram(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                 const std::filesystem::path& inputFile, const std::filesystem::path& scratch);
RunResult finishProgram(int pid, const std::filesystem::path& scratch);

}  // namespace linkwash::testing
