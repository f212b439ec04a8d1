#include "nginx_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

extern char** environ;

namespace kelvo::test {

namespace {

namespace fs = std::filesystem;

constexpr const char* kNginx = "/usr/sbin/nginx";

sockaddr_in Loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  return addr;
}

bool CanConnect(int port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in addr = Loopback(port);
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  ::close(fd);
  return ok;
}

std::string ReadText(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string Config(const std::string& prefix, const std::string& root, int port, const std::string& extra) {
  std::ostringstream c;
  // As root, nginx would hand its workers to "nobody", who can't read a test's private directory.
  if (::geteuid() == 0) c << "user root root;\n";
  c << "daemon off;\nmaster_process off;\nworker_processes 1;\n"
    << "pid " << prefix << "/nginx.pid;\n"
    << "error_log " << prefix << "/logs/error.log warn;\n"
    << "events { worker_connections 256; }\n"
    << "http {\n"
    << "  default_type application/octet-stream;\n"
    << "  log_format plain '$request_method $request_uri $status $connection';\n"
    << "  access_log " << prefix << "/logs/access.log plain;\n"
    << "  client_body_temp_path " << prefix << "/tmp/body;\n"
    << "  proxy_temp_path " << prefix << "/tmp/proxy;\n"
    << "  fastcgi_temp_path " << prefix << "/tmp/fastcgi;\n"
    << "  uwsgi_temp_path " << prefix << "/tmp/uwsgi;\n"
    << "  scgi_temp_path " << prefix << "/tmp/scgi;\n"
    << "  keepalive_requests 10000;\n"
    << "  server {\n"
    << "    listen 127.0.0.1:" << port << ";\n"
    << "    root " << root << ";\n"
    << extra << "\n"
    << "  }\n"
    << "}\n";
  return c.str();
}

} // namespace

Result<int> FindFreeLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return IoError("Can't open a socket: @", std::strerror(errno));
  sockaddr_in addr = Loopback(0);
  socklen_t len = sizeof(addr);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    const int e = errno;
    ::close(fd);
    return IoError("Can't find a free port: @", std::strerror(e));
  }
  ::close(fd);
  return static_cast<int>(ntohs(addr.sin_port));
}

Result<std::unique_ptr<NginxServer>> NginxServer::Start(const std::string& root, const std::string& extraServerConfig) {
  std::unique_ptr<NginxServer> server(new NginxServer());
  KELVO_RETURN_ON_ERROR(server->Launch(root, extraServerConfig));
  return server;
}

Result<void> NginxServer::Launch(const std::string& root, const std::string& extraServerConfig) {
  std::string pattern = (fs::temp_directory_path() / "kelvo_nginx_XXXXXX").string();
  if (!::mkdtemp(pattern.data())) return IoError("Can't make an nginx prefix: @", std::strerror(errno));
  _prefix = pattern;
  fs::create_directories(fs::path(_prefix) / "logs");
  fs::create_directories(fs::path(_prefix) / "tmp");
  const std::string conf = _prefix + "/nginx.conf";
  const std::string out = _prefix + "/logs/stderr.log";
  std::string lastError;
  // Another process may take the port between the probe and nginx's bind: try a few ports.
  for (int attempt = 0; attempt < 5; ++attempt) {
    KELVO_ASSIGN_OR_RETURN(_port, FindFreeLoopbackPort());
    std::ofstream(conf) << Config(_prefix, root, _port, extraServerConfig);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    const std::string errorLog = _prefix + "/logs/error.log";
    const char* argv[] = {kNginx, "-p", _prefix.c_str(), "-c", conf.c_str(), "-e", errorLog.c_str(), nullptr};
    pid_t pid = -1;
    const int rc = ::posix_spawn(&pid, kNginx, &actions, nullptr, const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) return IoError("Can't start @: @", kNginx, std::strerror(rc));
    _pid = pid;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
      int status = 0;
      if (::waitpid(_pid, &status, WNOHANG) == _pid) {
        _pid = -1;
        break;
      }
      if (CanConnect(_port)) return {};
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    Stop();
    lastError = ReadText(errorLog) + ReadText(out);
    if (lastError.find("Address already in use") == std::string::npos) break;
  }
  return IoError("nginx did not start: @", lastError);
}

NginxServer::~NginxServer() {
  Stop();
  if (!_prefix.empty()) {
    std::error_code ec;
    fs::remove_all(_prefix, ec);
  }
}

void NginxServer::Stop() {
  if (_pid <= 0) return;
  ::kill(_pid, SIGTERM);
  int status = 0;
  while (::waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
  }
  _pid = -1;
}

std::string NginxServer::GetUrlText(std::string_view path) const {
  return "http://127.0.0.1:" + std::to_string(_port) + std::string(path);
}

std::vector<std::string> NginxServer::GetAccessLog() const {
  std::vector<std::string> lines;
  std::istringstream in(ReadText(fs::path(_prefix) / "logs" / "access.log"));
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) lines.push_back(line);
  return lines;
}

namespace {

std::vector<std::string> Fields(const std::string& line) {
  std::vector<std::string> fields;
  std::istringstream in(line);
  for (std::string f; in >> f;) fields.push_back(f);
  return fields;
}

} // namespace

std::size_t NginxServer::CountRequests(std::string_view uri, std::size_t awaited) const {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (;;) {
    std::size_t n = 0;
    for (const std::string& line : GetAccessLog()) {
      const auto f = Fields(line);
      if (f.size() >= 2 && (uri.empty() || f[1] == uri)) ++n;
    }
    if (n >= awaited || std::chrono::steady_clock::now() > deadline) return n;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

std::size_t NginxServer::CountConnections() const {
  std::set<std::string> connections;
  for (const std::string& line : GetAccessLog()) {
    const auto f = Fields(line);
    if (f.size() >= 4) connections.insert(f[3]);
  }
  return connections.size();
}

} // namespace kelvo::test
