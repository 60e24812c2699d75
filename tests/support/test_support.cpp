#include "tests/support/test_support.h"

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <vector>

namespace linkwash::testing {

ScopedEnvironment::ScopedEnvironment(const char* name, const std::optional<std::string>& value)
    : name_(name) {
  if (const char* before = std::getenv(name)) previous_ = before;
  value ? setenv(name, value->c_str(), 1) : unsetenv(name);
}

ScopedEnvironment::~ScopedEnvironment() {
  previous_ ? setenv(name_, previous_->c_str(), 1) : unsetenv(name_);
}

TempHome::TempHome() {
  std::random_device rd;
  const auto base = std::filesystem::temp_directory_path();
  do {
    path_ = base / ("linkwash-test-" + std::to_string(rd()) + std::to_string(rd()));
  } while (std::filesystem::exists(path_));
  std::filesystem::create_directories(path_);
  home_.emplace("LINKWASH_HOME", path_.string());
}

TempHome::~TempHome() {
  home_.reset();
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::filesystem::path sourceDir() {
  if (const char* dir = std::getenv("LINKWASH_SOURCE_DIR")) return dir;
  return LINKWASH_DEFAULT_SOURCE_DIR;
}

std::filesystem::path sharedDir() {
  if (const char* dir = std::getenv("LINKWASH_SHARED_DIR")) return dir;
  return sourceDir().parent_path() / "shared";
}

std::optional<std::filesystem::path> clearUrlsFixture() {
  auto path = sharedDir() / "fixtures" / "clearurls" / "data.min.json";
  if (!std::filesystem::exists(path)) return std::nullopt;
  return path;
}

std::optional<std::string> readFixture(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

std::vector<std::vector<std::string>> fixtureTable(const std::string& name) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream in(readFixture(sourceDir() / "tests" / "fixtures" / name).value_or(""));
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string>& row = rows.emplace_back();
    std::size_t start = 0;
    for (std::size_t tab; (tab = line.find('\t', start)) != std::string::npos; start = tab + 1)
      row.push_back(line.substr(start, tab - start));
    row.push_back(line.substr(start));
  }
  return rows;
}

std::filesystem::path binDir() {
  if (const char* dir = std::getenv("LINKWASH_BIN_DIR")) return dir;
  return LINKWASH_DEFAULT_BIN_DIR;
}

}  // namespace linkwash::testing

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace linkwash::testing {

int startProgram(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                 const std::filesystem::path& inputFile, const std::filesystem::path& scratch) {
  std::vector<std::string> args = arguments;
  args.insert(args.begin(), program.string());
  std::vector<char*> argv;
  for (auto& argument : args) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const auto outFile = scratch / "stdout";
  const auto errFile = scratch / "stderr";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, inputFile.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  pid_t pid = -1;
  if (posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

RunResult finishProgram(int pid, const std::filesystem::path& scratch) {
  RunResult run;
  if (pid > 0) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  run.out = readFixture(scratch / "stdout").value_or("");
  run.err = readFixture(scratch / "stderr").value_or("");
  return run;
}

RunResult runProgram(const std::filesystem::path& program,
                     const std::vector<std::string>& arguments,
                     const std::filesystem::path& scratch, const std::string& input) {
  const auto inputFile = scratch / "stdin";
  std::ofstream(inputFile, std::ios::binary | std::ios::trunc) << input;
  return finishProgram(startProgram(program, arguments, inputFile, scratch), scratch);
}

}  // namespace linkwash::testing
