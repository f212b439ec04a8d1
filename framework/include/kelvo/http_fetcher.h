#pragma once
// HttpFetcher: GET over http and https with libcurl, into memory or into a file.
//
// Connections, DNS answers and TLS sessions are shared by all transfers of one fetcher, and easy
// handles are kept in a pool, so consecutive requests to one server reuse the connection.
// Transient failures (connect errors, resets, time-outs, 5xx, 429) are tried again with a
// doubling back-off; other failures end at once. Error messages name the URL and, for an HTTP
// failure, the status. Safe for concurrent use by multiple threads.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "kelvo/id.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

namespace urlkeys {
// Bool: the request asks caches on the way not to answer from a stored copy.
inline const Id http_no_proxy_caching{"net.kelvo.url.http_no_proxy_caching"};
} // namespace urlkeys

struct HttpOptions {
  std::chrono::milliseconds connectTimeout{10000};
  // A transfer slower than lowSpeedBytes per second for lowSpeedTime is aborted as timed out,
  // which also bounds a server that accepts and never answers.
  long lowSpeedBytes = 1;
  std::chrono::seconds lowSpeedTime{30};
  // Tries of one request in all, at least 1.
  int maxAttempts = 4;
  // Wait before the second try; each further wait doubles, up to maxBackoff.
  std::chrono::milliseconds firstBackoff{250};
  std::chrono::milliseconds maxBackoff{4000};
  // A downloaded file is synced to the disk before it replaces the target, so that a crash
  // can't leave a torn file under the target's name. Off trades that for speed (a sync costs
  // milliseconds per file on many disks); it suits a caller that checks what it reads back and
  // syncs a batch of files at once (the RAM disk mirrors of remote databases).
  bool syncFiles = true;
};

// Called during a transfer with the bytes received so far and the expected size (0 when the
// server did not say). An error aborts the transfer, is not retried and becomes its result. A
// transfer run by a job also ends, with an OperationCancelledError, once that job is cancelled.
using HttpProgress = std::function<Result<void>(std::uint64_t done, std::uint64_t total)>;

class HttpFetcher {
public:
  explicit HttpFetcher(HttpOptions options = {});
  ~HttpFetcher();
  HttpFetcher(const HttpFetcher&) = delete;
  HttpFetcher& operator=(const HttpFetcher&) = delete;

  // The process-wide fetcher with default options. Never null.
  static HttpFetcher& GetDefault();

  // The body of url, at most maxBytes long: a larger body is an io error. Any thread.
  Result<std::string> FetchToMemory(const Url& url, std::uint64_t maxBytes, const HttpProgress& progress = {});
  // Writes the body of url to the file target (a "file" URL): into a temporary file beside it,
  // synced (HttpOptions::syncFiles) and renamed over target, so target is absent, old or complete. Returns the
  // byte count. On failure the temporary file is removed. Any thread.
  Result<std::uint64_t> FetchToFile(const Url& url, const Url& target, const HttpProgress& progress = {});

  // The text that libcurl is given for url ("https://host/path?query").
  static Result<std::string> ToRequestText(const Url& url);

  // Shared connections and idle easy handles (defined in the source).
  struct Pool;

private:
  HttpOptions _options;
  std::unique_ptr<Pool> _pool;
};

} // namespace kelvo
