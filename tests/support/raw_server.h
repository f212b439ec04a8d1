#pragma once
// A server on a loopback port for faults that a real web server won't show.

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace kelvo::testing {

// A server on a loopback port that accepts and then either never answers or sends a body
// shorter than it announced and closes.
class RawServer {
public:
  enum class MODE { SILENT, TRUNCATED };
  RawServer(int port, MODE mode) : _mode(mode) {
    _fd = ::socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    ::setsockopt(_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    _ok = ::bind(_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 && ::listen(_fd, 16) == 0;
    if (_ok) _thread = std::thread([this] { Serve(); });
  }
  ~RawServer() {
    _stop = true;
    ::shutdown(_fd, SHUT_RDWR);
    ::close(_fd);
    if (_thread.joinable()) _thread.join();
    for (int c : _clients) ::close(c);
  }
  bool IsListening() const { return _ok; }

private:
  void Serve() {
    while (!_stop) {
      const int c = ::accept(_fd, nullptr, nullptr);
      if (c < 0) return;
      if (_mode == MODE::SILENT) {
        _clients.push_back(c);
        continue;
      }
      char buffer[4096];
      (void)::recv(c, buffer, sizeof buffer, 0);
      const std::string reply = "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n0123456789";
      (void)::send(c, reply.data(), reply.size(), MSG_NOSIGNAL);
      ::close(c);
    }
  }
  MODE _mode;
  int _fd = -1;
  bool _ok = false;
  std::atomic<bool> _stop{false};
  std::thread _thread;
  std::vector<int> _clients;
};

} // namespace kelvo::testing
