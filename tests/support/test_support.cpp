#include "tests/support/test_support.h"

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

namespace linkwash::testing {

TempHome::TempHome() {
  std::random_device rd;
  const auto base = std::filesystem::temp_directory_path();
  do {
    path_ = base / ("linkwash-test-" + std::to_string(rd()) + std::to_string(rd()));
  } while (std::filesystem::exists(path_));
  std::filesystem::create_directories(path_);
  if (const char* old = std::getenv("LINKWASH_HOME")) previous_ = old;
  setenv("LINKWASH_HOME", path_.c_str(), 1);
}

TempHome::~TempHome() {
  if (previous_) {
    setenv("LINKWASH_HOME", previous_->c_str(), 1);
  } else {
    unsetenv("LINKWASH_HOME");
  }
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

std::filesystem::path binDir() {
  if (const char* dir = std::getenv("LINKWASH_BIN_DIR")) return dir;
  return LINKWASH_DEFAULT_BIN_DIR;
}

}  // namespace linkwash::testing
