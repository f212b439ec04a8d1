#pragma once
// A real nginx for tests: started on a free loopback port with its own temporary prefix and
// configuration, in the foreground as a child process, serving a directory the test fills.
// Stopped (and its prefix removed) by Stop or the destructor. Requests are logged one per line
// as "METHOD URI STATUS CONNECTION", so a test can count what reached the server and over how
// many connections.

#include <sys/types.h>

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo::test {

class NginxServer {
public:
  // Starts nginx serving root. extraServerConfig is placed inside the server block (locations
  // such as "location = /busy { return 503; }"). Fails when nginx can't be started or does not
  // answer within a few seconds.
  static Result<std::unique_ptr<NginxServer>> Start(const std::string& root, const std::string& extraServerConfig = {});

  ~NginxServer();
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  // Terminates nginx and waits for it; the port is free afterwards. Safe to call again.
  void Stop();
  bool IsRunning() const { return _pid > 0; }

  int GetPort() const { return _port; }
  // "http://127.0.0.1:<port>" followed by path (which should begin with "/").
  std::string GetUrlText(std::string_view path = {}) const;
  Url GetUrl(std::string_view path = {}) const { return Url(GetUrlText(path)); }

  // The access log, one "METHOD URI STATUS CONNECTION" line per request (URI as sent).
  std::vector<std::string> GetAccessLog() const;
  // The number of logged requests whose URI is exactly uri (any URI when uri is empty). nginx
  // logs a request after its response has gone out, so this waits (up to 5 s) until at least
  // awaited requests are logged.
  std::size_t CountRequests(std::string_view uri, std::size_t awaited = 0) const;
  // The number of distinct connections that carried the logged requests.
  std::size_t CountConnections() const;

private:
  NginxServer() = default;
  Result<void> Launch(const std::string& root, const std::string& extraServerConfig);

  std::string _prefix;
  int _port = 0;
  pid_t _pid = -1;
};

// A loopback port on which nothing listens right now.
Result<int> FindFreeLoopbackPort();

} // namespace kelvo::test
