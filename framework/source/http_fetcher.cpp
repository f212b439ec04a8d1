#include "kelvo/http_fetcher.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "kelvo/data.h"
#include "kelvo/job_queue.h"

namespace kelvo {

namespace {

Result<void> EnsureCurlInitialised() {
  static std::once_flag once;
  static CURLcode code = CURLE_OK;
  std::call_once(once, [] { code = curl_global_init(CURL_GLOBAL_DEFAULT); });
  if (code != CURLE_OK) return IllegalStateError("Can't initialise libcurl: @", curl_easy_strerror(code));
  return {};
}

std::string ErrnoText() { return std::strerror(errno); }

// Where the body of one transfer goes. Begin starts (or restarts, for a retry) an empty body.
class BodySink {
public:
  virtual ~BodySink() = default;
  virtual Result<void> Begin() = 0;
  virtual Result<void> Write(const char* data, std::size_t size) = 0;
};

class MemorySink final : public BodySink {
public:
  MemorySink(std::string requestText, std::uint64_t maxBytes) : _text(std::move(requestText)), _maxBytes(maxBytes) {}
  Result<void> Begin() override {
    _body.clear();
    return {};
  }
  Result<void> Write(const char* data, std::size_t size) override {
    if (_body.size() + size > _maxBytes)
      return IoError("Can't fetch @: the body is larger than @ bytes", _text, _maxBytes);
    _body.append(data, size);
    return {};
  }
  std::string& Body() { return _body; }

private:
  std::string _text;
  std::uint64_t _maxBytes;
  std::string _body;
};

// A temporary file beside the target, published by Publish; removed when not published.
class FileSink final : public BodySink {
public:
  ~FileSink() override {
    if (_fd >= 0) ::close(_fd);
    if (!_tempPath.empty()) ::unlink(_tempPath.c_str());
  }
  Result<void> Open(const std::string& target) {
    _target = target;
    const auto slash = target.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : target.substr(0, std::max<std::size_t>(slash, 1));
    const std::string name = slash == std::string::npos ? target : target.substr(slash + 1);
    if (name.empty()) return IllegalArgumentError("Can't download to @: no file name", target);
    std::string pattern = dir + "/." + name + ".part.XXXXXX";
    _fd = ::mkostemp(pattern.data(), O_CLOEXEC);
    if (_fd < 0) return IoError("Can't create a temporary file beside @: @", target, ErrnoText());
    _tempPath = pattern;
    ::fchmod(_fd, 0644);
    return {};
  }
  Result<void> Begin() override {
    // Only a retry has something to take back; truncating a fresh file costs a journal update.
    if (_size == 0) return {};
    if (::ftruncate(_fd, 0) != 0 || ::lseek(_fd, 0, SEEK_SET) != 0)
      return IoError("Can't reset @: @", _tempPath, ErrnoText());
    _size = 0;
    return {};
  }
  Result<void> Write(const char* data, std::size_t size) override {
    while (size > 0) {
      const ssize_t n = ::write(_fd, data, size);
      if (n < 0) {
        if (errno == EINTR) continue;
        return IoError("Can't write @: @", _tempPath, ErrnoText());
      }
      data += n;
      size -= static_cast<std::size_t>(n);
      _size += static_cast<std::uint64_t>(n);
    }
    return {};
  }
  // Syncs the file (unless told not to) and renames it over the target, so that a crash leaves
  // the old target or the complete new one. The directory is not synced: a rename lost in a
  // crash leaves the old target, as if the download had not happened.
  Result<std::uint64_t> Publish(bool sync) {
    if (sync && ::fsync(_fd) != 0) return IoError("Can't sync @: @", _tempPath, ErrnoText());
    const int fd = std::exchange(_fd, -1);
    if (::close(fd) != 0) return IoError("Can't close @: @", _tempPath, ErrnoText());
    if (::rename(_tempPath.c_str(), _target.c_str()) != 0)
      return IoError("Can't rename @ to @: @", _tempPath, _target, ErrnoText());
    _tempPath.clear();
    return _size;
  }

private:
  std::string _target, _tempPath;
  int _fd = -1;
  std::uint64_t _size = 0;
};

// State of one transfer that the libcurl callbacks see.
struct TransferContext {
  BodySink* sink = nullptr;
  const HttpProgress* progress = nullptr;
  Error callbackError; // from the sink or the progress delegate; ends the transfer
  std::uint64_t lastDone = 0, lastTotal = 0;
};

std::size_t WriteBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* ctx = static_cast<TransferContext*>(user);
  Result<void> r = ctx->sink->Write(data, size * count);
  if (r.HasError()) {
    ctx->callbackError = r.GetError();
    return 0;
  }
  return size * count;
}

// Passes the counts to the delegate; a cancelled job, or the delegate's error, ends the transfer.
Result<void> CheckProgress(const HttpProgress& progress, std::uint64_t done, std::uint64_t total) {
  if (IsCurrentJobCancelled()) return OperationCancelledError();
  return progress ? progress(done, total) : Result<void>();
}

int ReportProgress(void* user, curl_off_t dltotal, curl_off_t dlnow, curl_off_t, curl_off_t) {
  auto* ctx = static_cast<TransferContext*>(user);
  ctx->lastDone = static_cast<std::uint64_t>(std::max<curl_off_t>(dlnow, 0));
  ctx->lastTotal = static_cast<std::uint64_t>(std::max<curl_off_t>(dltotal, 0));
  Result<void> r = CheckProgress(*ctx->progress, ctx->lastDone, ctx->lastTotal);
  if (r.HasError()) {
    ctx->callbackError = r.GetError();
    return 1;
  }
  return 0;
}

bool IsTransientCurlError(CURLcode code) {
  switch (code) {
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return true;
    default:
      return false;
  }
}

bool IsTransientStatus(long status) { return status >= 500 || status == 429; }

} // namespace

struct HttpFetcher::Pool {
  CURLSH* share = nullptr;
  std::mutex shareLocks[CURL_LOCK_DATA_LAST];
  std::mutex handlesLock;
  std::vector<CURL*> idle;

  static void LockShare(CURL*, curl_lock_data data, curl_lock_access, void* user) {
    static_cast<Pool*>(user)->shareLocks[data].lock();
  }
  static void UnlockShare(CURL*, curl_lock_data data, void* user) { static_cast<Pool*>(user)->shareLocks[data].unlock(); }

  Pool() {
    share = curl_share_init();
    if (!share) return;
    curl_share_setopt(share, CURLSHOPT_LOCKFUNC, &Pool::LockShare);
    curl_share_setopt(share, CURLSHOPT_UNLOCKFUNC, &Pool::UnlockShare);
    curl_share_setopt(share, CURLSHOPT_USERDATA, this);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_CONNECT);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
    curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
  }
  ~Pool() {
    for (CURL* h : idle) curl_easy_cleanup(h);
    if (share) curl_share_cleanup(share);
  }

  CURL* Acquire() {
    {
      std::lock_guard guard(handlesLock);
      if (!idle.empty()) {
        CURL* h = idle.back();
        idle.pop_back();
        return h;
      }
    }
    return curl_easy_init();
  }
  void Release(CURL* h) {
    curl_easy_reset(h);
    std::lock_guard guard(handlesLock);
    idle.push_back(h);
  }
};

namespace {

struct AttemptOutcome {
  Error error;
  bool transient = false;
  std::chrono::milliseconds retryAfter{0};
};

AttemptOutcome RunOnce(HttpFetcher::Pool& pool, const HttpOptions& options, const std::string& text,
                       bool noProxyCaching, TransferContext& ctx) {
  AttemptOutcome out;
  Result<void> begun = ctx.sink->Begin();
  if (begun.HasError()) {
    out.error = begun.GetError();
    return out;
  }
  CURL* h = pool.Acquire();
  if (!h) {
    out.error = Error(errors::outofmemory, FormatString("Can't fetch @: no libcurl handle", text));
    return out;
  }
  char errorText[CURL_ERROR_SIZE] = {0};
  curl_slist* headers = nullptr;
  if (noProxyCaching) {
    headers = curl_slist_append(headers, "Cache-Control: no-cache");
    headers = curl_slist_append(headers, "Pragma: no-cache");
  }
  curl_easy_setopt(h, CURLOPT_URL, text.c_str());
  curl_easy_setopt(h, CURLOPT_SHARE, pool.share);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(h, CURLOPT_MAXREDIRS, 8L);
  curl_easy_setopt(h, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(h, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options.connectTimeout.count()));
  curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, options.lowSpeedBytes);
  curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, static_cast<long>(options.lowSpeedTime.count()));
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, &WriteBody);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &ctx);
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, &ReportProgress);
  curl_easy_setopt(h, CURLOPT_XFERINFODATA, &ctx);
  curl_easy_setopt(h, CURLOPT_USERAGENT, "kelvo-fetch/1");
  if (headers) curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);

  const CURLcode code = curl_easy_perform(h);
  long status = 0;
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
  curl_off_t retryAfter = 0;
  curl_easy_getinfo(h, CURLINFO_RETRY_AFTER, &retryAfter);
  pool.Release(h);
  curl_slist_free_all(headers);

  if (code == CURLE_OK) return out;
  if (ctx.callbackError) {
    // The delegate's own error is the result of a cancelled transfer; a failed write is ours.
    out.error = ctx.callbackError;
    return out;
  }
  if (code == CURLE_HTTP_RETURNED_ERROR) {
    out.error = IoError("Can't fetch @: HTTP status @", text, status);
    out.transient = IsTransientStatus(status);
    out.retryAfter = std::chrono::seconds(std::max<curl_off_t>(retryAfter, 0));
    return out;
  }
  out.error = IoError("Can't fetch @: @", text, errorText[0] ? std::string(errorText) : curl_easy_strerror(code));
  out.transient = IsTransientCurlError(code);
  return out;
}

} // namespace

HttpFetcher::HttpFetcher(HttpOptions options) : _options(options) {
  (void)EnsureCurlInitialised();
  _pool = std::make_unique<Pool>();
}

HttpFetcher::~HttpFetcher() = default;

HttpFetcher& HttpFetcher::GetDefault() {
  static HttpFetcher* fetcher = new HttpFetcher();
  return *fetcher;
}

Result<std::string> HttpFetcher::ToRequestText(const Url& url) {
  const std::string& scheme = url.GetScheme();
  if (scheme != "http" && scheme != "https") return IllegalArgumentError("@ is no http or https URL.", url);
  std::string_view path = url.GetPath();
  while (!path.empty() && path.front() == '/') path.remove_prefix(1);
  if (path.empty() || path.front() == '/' || path.substr(0, path.find('/')).empty())
    return IllegalArgumentError("@ names no host.", url);
  // Bytes that can't stand in a request line are escaped; separators and escapes pass as given.
  std::string text = scheme + "://" + PercentEncode(path, "/:@!$&'()*+,;=%[]");
  const std::string query = url.GetQuery();
  if (!query.empty()) text += "?" + query;
  return text;
}

namespace {

// Runs attempts until one succeeds, a failure is not transient, or the tries are used up.
Result<void> FetchWithRetries(HttpFetcher::Pool& pool, const HttpOptions& options, const Url& url, BodySink& sink,
                              const HttpProgress& progress) {
  KELVO_RETURN_ON_ERROR(EnsureCurlInitialised());
  if (!pool.share) return IllegalStateError("Can't fetch @: libcurl has no share handle", url);
  KELVO_ASSIGN_OR_RETURN(const std::string text, HttpFetcher::ToRequestText(url));
  const bool noProxyCaching = url.GetData(urlkeys::http_no_proxy_caching).Get<bool>().value_or(false);
  TransferContext ctx;
  ctx.sink = &sink;
  ctx.progress = &progress;
  std::chrono::milliseconds backoff = options.firstBackoff;
  const int attempts = std::max(options.maxAttempts, 1);
  for (int attempt = 1;; ++attempt) {
    ctx.callbackError = Error();
    AttemptOutcome outcome = RunOnce(pool, options, text, noProxyCaching, ctx);
    if (!outcome.error) return {};
    if (!outcome.transient || attempt >= attempts) {
      if (attempt > 1 && outcome.transient)
        return ErrorWithCause(outcome.error, errors::io, FormatString("Can't fetch @ after @ tries", text, attempt));
      return outcome.error;
    }
    // What stops a transfer stops the retries too.
    KELVO_RETURN_ON_ERROR(CheckProgress(progress, ctx.lastDone, ctx.lastTotal));
    std::this_thread::sleep_for(std::min(std::max(backoff, outcome.retryAfter), options.maxBackoff));
    backoff = std::min(backoff * 2, options.maxBackoff);
  }
}

} // namespace

Result<std::string> HttpFetcher::FetchToMemory(const Url& url, std::uint64_t maxBytes, const HttpProgress& progress) {
  MemorySink sink(ToRequestText(url).GetValueOr(url.ToString()), maxBytes);
  KELVO_RETURN_ON_ERROR(FetchWithRetries(*_pool, _options, url, sink, progress));
  return std::move(sink.Body());
}

Result<std::uint64_t> HttpFetcher::FetchToFile(const Url& url, const Url& target, const HttpProgress& progress) {
  if (target.GetScheme() != "file") return IllegalArgumentError("Can't download @ to @: not a local file", url, target);
  FileSink sink;
  KELVO_RETURN_ON_ERROR(sink.Open(target.GetPath()));
  KELVO_RETURN_ON_ERROR(FetchWithRetries(*_pool, _options, url, sink, progress));
  return sink.Publish(_options.syncFiles);
}

} // namespace kelvo
