// Runs tests/support/https_server.py behind a certificate from a CA made for this one server.
#include "tests/support/https_test_server.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tests/support/test_support.h"

extern char** environ;

namespace linkwash::testing {
namespace {

constexpr std::string_view kTestAddress = "127.0.0.1";

bool writeFile(const std::filesystem::path& path, std::string_view content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  return static_cast<bool>(out);
}

// Reads one line from `fd`, waiting at most `limit`; nothing on time-out or end of file.
std::optional<std::string> readLine(int fd, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::string line;
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd waiting{fd, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
    char c = 0;
    const auto got = ::read(fd, &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::nullopt;
    if (c == '\n') return line;
    line += c;
  }
}

}  // namespace

std::optional<std::string> HttpsLoggedRequest::header(std::string_view lowercaseName) const {
  for (const auto& [name, value] : headers) {
    if (name == lowercaseName) return value;
  }
  return std::nullopt;
}

HttpsTestServer::HttpsTestServer(std::vector<std::string> hosts) : hosts_(std::move(hosts)) {
  std::random_device random;
  const auto base = std::filesystem::temp_directory_path();
  do {
    dir_ = base / ("linkwash-https-" + std::to_string(random()) + std::to_string(random()));
  } while (std::filesystem::exists(dir_));
  root_ = dir_ / "www";
  caFile_ = dir_ / "ca.pem";
  std::error_code ec;
  std::filesystem::create_directories(root_, ec);
  std::filesystem::create_directories(dir_ / "scratch", ec);
  if (ec) {
    error_ = "cannot create " + dir_.string();
    return;
  }
  writeRoutes();
  // Python's start-up overlaps the certificate work; the server loads its certificate only
  // when told the files are ready.
  if (!startServer()) return;
  if (!makeCertificates() || !waitForPort()) return;

  std::string resolve;
  for (const auto& host : hosts_) {
    const auto port = std::to_string(port_);
    if (!resolve.empty()) resolve += ',';
    resolve += host + ":443:" + std::string(kTestAddress) + ":" + port;
    resolve += "," + host + ":" + port + ":" + std::string(kTestAddress);
  }
  for (const auto& [name, value] :
       {std::pair<const char*, std::string>{"LINKWASH_CA_FILE", caFile_},
        {"LINKWASH_RESOLVE", resolve},
        {"NO_PROXY", "*"},
        {"no_proxy", "*"}}) {
    environment_.push_back(std::make_unique<ScopedEnvironment>(name, value));
  }
}

HttpsTestServer::~HttpsTestServer() {
  environment_.clear();
  if (stdoutFd_ >= 0) ::close(stdoutFd_);
  if (stdinFd_ >= 0) ::close(stdinFd_);  // the server exits when its input closes
  if (pid_ > 0) {
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (::waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
        break;
      }
      ::usleep(5000);
    }
  }
  std::error_code ec;
  if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
}

// Runs one command, given as words separated by single blanks (the temporary paths have none).
bool HttpsTestServer::run(const std::string& commandLine) {
  std::vector<std::string> words;
  for (std::size_t start = 0, blank; start <= commandLine.size(); start = blank + 1) {
    blank = std::min(commandLine.find(' ', start), commandLine.size());
    words.push_back(commandLine.substr(start, blank - start));
  }
  const std::string program = words.front();
  words.erase(words.begin());
  const auto result = runProgram(program, words, dir_ / "scratch");
  if (result.exitCode != 0) error_ = commandLine + " failed: " + result.err;
  return result.exitCode == 0;
}

bool HttpsTestServer::makeCertificates() {
  std::string altNames;
  for (const auto& host : hosts_) altNames += (altNames.empty() ? "DNS:" : ",DNS:") + host;
  const bool written =
      writeFile(dir_ / "ca.cnf",
                "[req]\ndistinguished_name = dn\nx509_extensions = v3_ca\nprompt = no\n"
                "[dn]\nCN = Linkwash Test CA\n"
                "[v3_ca]\nbasicConstraints = critical, CA:TRUE\n"
                "keyUsage = critical, keyCertSign, cRLSign\nsubjectKeyIdentifier = hash\n") &&
      writeFile(dir_ / "server.cnf",
                "[req]\ndistinguished_name = dn\nprompt = no\n[dn]\nCN = " + hosts_.front() +
                    "\n[v3_server]\nbasicConstraints = critical, CA:FALSE\n"
                    "keyUsage = critical, digitalSignature\nextendedKeyUsage = serverAuth\n"
                    "subjectKeyIdentifier = hash\nauthorityKeyIdentifier = keyid\n"
                    "subjectAltName = " +
                    altNames + "\n");
  if (!written) {
    error_ = "cannot write the certificate settings";
    return false;
  }
  const std::string dir = dir_.string() + "/";
  const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2";
  std::random_device random;
  // OpenSSL 3 signs a new request directly with -CA: key, request and certificate at once.
  return run("/usr/bin/openssl req -x509 -config " + dir + "ca.cnf" + key + " -keyout " + dir +
             "ca.key -out " + caFile_.string()) &&
         run("/usr/bin/openssl req -x509 -new -config " + dir + "server.cnf -extensions v3_server" +
             key + " -keyout " + dir + "server.key -CA " + caFile_.string() + " -CAkey " + dir +
             "ca.key -set_serial " + std::to_string(random() & 0x7fffffff) + " -out " + dir +
             "server.pem");
}

bool HttpsTestServer::startServer() {
  const std::filesystem::path python = "/usr/bin/python3";
  const auto script = sourceDir() / "tests" / "support" / "https_server.py";
  // Close-on-exec on our ends, so programs a test starts later never hold the server open.
  // Its input is a socket rather than a pipe so that telling a dead server to go cannot raise
  // SIGPIPE in the test (send with MSG_NOSIGNAL).
  int input[2] = {-1, -1};
  int output[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, input) != 0) {
    error_ = "pipe failed";
    return false;
  }
  if (::pipe2(output, O_CLOEXEC) != 0) {
    ::close(input[0]);
    ::close(input[1]);
    error_ = "pipe failed";
    return false;
  }
  const std::string dir = dir_.string() + "/";
  std::vector<std::string> args = {python,
                                   "-u",
                                   "-I",
                                   "-S",
                                   script,
                                   "--root",
                                   root_,
                                   "--cert",
                                   dir + "server.pem",
                                   "--key",
                                   dir + "server.key",
                                   "--routes",
                                   dir + "routes.json",
                                   "--log",
                                   dir + "requests.log"};
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  const auto errorLog = dir_ / "server.stderr";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], 0);
  posix_spawn_file_actions_adddup2(&actions, output[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, errorLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  pid_t pid = -1;
  const int spawned = ::posix_spawn(&pid, python.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(input[0]);
  ::close(output[1]);
  if (spawned != 0) {
    ::close(input[1]);
    ::close(output[0]);
    error_ = "cannot start " + python.string();
    return false;
  }
  pid_ = pid;
  stdinFd_ = input[1];
  stdoutFd_ = output[0];
  return true;
}

bool HttpsTestServer::waitForPort() {
  const bool told = ::send(stdinFd_, "go\n", 3, MSG_NOSIGNAL) == 3;
  const auto line = told ? readLine(stdoutFd_, std::chrono::seconds(15)) : std::nullopt;
  ::close(stdoutFd_);
  stdoutFd_ = -1;
  const int port = line ? std::atoi(line->c_str()) : 0;
  if (port <= 0 || port > 65535) {
    error_ = "the test server did not start: " + readFixture(dir_ / "server.stderr").value_or("");
    return false;
  }
  port_ = static_cast<std::uint16_t>(port);
  return true;
}

void HttpsTestServer::requireHost(std::string_view host) const {
  for (const auto& name : hosts_) {
    if (name == host) return;
  }
  std::fprintf(stderr, "HttpsTestServer: %.*s is not one of its hosts\n",
               static_cast<int>(host.size()), host.data());
  std::abort();
}

std::string HttpsTestServer::url(std::string_view host, std::string_view path) const {
  requireHost(host);
  return "https://" + std::string(host) + std::string(path);
}

std::string HttpsTestServer::urlWithPort(std::string_view host, std::string_view path) const {
  requireHost(host);
  return "https://" + std::string(host) + ":" + std::to_string(port_) + std::string(path);
}

bool HttpsTestServer::putFile(std::string_view path, std::string_view content) const {
  auto relative = std::filesystem::path(std::string(path)).relative_path();
  const auto target = root_ / relative;
  std::error_code ec;
  std::filesystem::create_directories(target.parent_path(), ec);
  return !ec && writeFile(target, content);
}

void HttpsTestServer::setRoute(const std::string& path, const HttpsRoute& route) {
  removeRoute(path);
  routes_.emplace_back(path, route);
  writeRoutes();
}

void HttpsTestServer::removeRoute(const std::string& path) {
  std::erase_if(routes_, [&](const auto& entry) { return entry.first == path; });
  writeRoutes();
}

void HttpsTestServer::writeRoutes() {
  auto all = nlohmann::json::object();
  for (const auto& [path, route] : routes_) {
    nlohmann::json entry = {{"body", route.body}, {"delay_ms", route.delayMs}};
    // A bare redirect defaults to 302 on the server side.
    if (route.status != 200 || !route.redirectTo) entry["status"] = route.status;
    auto headers = nlohmann::json::object();
    for (const auto& [name, value] : route.headers) headers[name] = value;
    entry["headers"] = headers;
    if (route.redirectTo) entry["redirect_to"] = *route.redirectTo;
    if (route.declaredLength) entry["declared_length"] = *route.declaredLength;
    if (route.omitLength) entry["omit_length"] = true;
    all[path] = entry;
  }
  // Replaced in one step: the server reads the file on every request.
  const auto temporary = dir_ / "routes.json.tmp";
  if (!writeFile(temporary, all.dump())) return;
  std::error_code ec;
  std::filesystem::rename(temporary, dir_ / "routes.json", ec);
}

std::vector<HttpsLoggedRequest> HttpsTestServer::requests() const {
  std::vector<HttpsLoggedRequest> result;
  std::ifstream in(dir_ / "requests.log");
  std::string line;
  while (std::getline(in, line)) {
    const auto entry = nlohmann::json::parse(line, nullptr, false);
    if (entry.is_discarded() || !entry.is_object()) continue;
    HttpsLoggedRequest request;
    request.method = entry.value("method", "");
    request.path = entry.value("path", "");
    for (const auto& pair : entry.value("headers", nlohmann::json::array())) {
      if (pair.is_array() && pair.size() == 2 && pair[0].is_string() && pair[1].is_string()) {
        request.headers.emplace_back(pair[0].get<std::string>(), pair[1].get<std::string>());
      }
    }
    result.push_back(std::move(request));
  }
  return result;
}

void HttpsTestServer::trustCa(bool trusted) const {
  trusted ? ::setenv("LINKWASH_CA_FILE", caFile_.c_str(), 1) : ::unsetenv("LINKWASH_CA_FILE");
}

}  // namespace linkwash::testing
