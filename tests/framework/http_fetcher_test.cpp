#include "kelvo/http_fetcher.h"
#include "kelvo/job_queue.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>

#include "nginx_server.h"
#include "temp_tree.h"

using namespace kelvo;
using kelvo::test::NginxServer;
namespace fs = std::filesystem;

namespace {

// Short time-outs and back-off so that the failure cases finish quickly.
HttpOptions FastOptions(int attempts = 3) {
  HttpOptions o;
  o.connectTimeout = std::chrono::milliseconds(2000);
  o.lowSpeedTime = std::chrono::seconds(1);
  o.maxAttempts = attempts;
  o.firstBackoff = std::chrono::milliseconds(10);
  o.maxBackoff = std::chrono::milliseconds(40);
  return o;
}

std::string Pattern(std::size_t size) {
  std::string s(size, '\0');
  for (std::size_t i = 0; i < size; ++i) s[i] = static_cast<char>('a' + (i * 7 + i / 4093) % 26);
  return s;
}

class HttpFetcherTest : public kelvo::testing::TempTreeTest {
protected:
  void SetUp() override {
    TempTreeTest::SetUp();
    fs::create_directories(_dir / "www" / "sub dir");
    fs::create_directories(_dir / "out");
    Write(_dir / "www" / "small.txt", "hello over http");
    Write(_dir / "www" / "sub dir" / "a b.txt", "spaced");
    _big = Pattern(6 << 20);
    Write(_dir / "www" / "big.bin", _big);
    auto server = NginxServer::Start((_dir / "www").string(),
                                     "location = /busy { return 503; }\nlocation = /slowdown { return 429; }");
    ASSERT_TRUE(server.HasValue()) << server.GetError().ToString();
    _nginx = std::move(*server);
  }
  void TearDown() override {
    _nginx.reset();
    TempTreeTest::TearDown();
  }
  static void Write(const fs::path& p, const std::string& content) { kelvo::testing::WriteFile(p, content); }
  static std::string Read(const fs::path& p) { return kelvo::testing::ReadFile(p); }
  // The names in out/, temporary files included.
  std::size_t OutCount() const { return static_cast<std::size_t>(std::distance(fs::directory_iterator(_dir / "out"), {})); }

  std::string _big;
  std::unique_ptr<NginxServer> _nginx;
};

} // namespace

TEST_F(HttpFetcherTest, FetchesToMemoryAndFileOverOneConnection) {
  HttpFetcher fetcher(FastOptions());
  for (int i = 0; i < 10; ++i) {
    auto body = fetcher.FetchToMemory(_nginx->GetUrl("/small.txt"), 1 << 20);
    ASSERT_TRUE(body.HasValue()) << body.GetError().ToString();
    EXPECT_EQ(*body, "hello over http");
  }
  const Url target = Url::FromFile((_dir / "out" / "big.bin").string());
  auto size = fetcher.FetchToFile(_nginx->GetUrl("/big.bin"), target);
  ASSERT_TRUE(size.HasValue()) << size.GetError().ToString();
  EXPECT_EQ(*size, _big.size());
  EXPECT_TRUE(Read(_dir / "out" / "big.bin") == _big);
  EXPECT_EQ(OutCount(), 1u) << "no temporary file stays behind";
  // Names with spaces are escaped on the request line.
  auto spaced = fetcher.FetchToMemory(_nginx->GetUrl("/sub dir/a b.txt"), 100);
  ASSERT_TRUE(spaced.HasValue()) << spaced.GetError().ToString();
  EXPECT_EQ(*spaced, "spaced");
  EXPECT_EQ(_nginx->CountConnections(), 1u) << "the requests reuse one connection";
}

TEST_F(HttpFetcherTest, ClientErrorsEndAtOnceAndKeepTheOldFile) {
  HttpFetcher fetcher(FastOptions(3));
  const Url target = Url::FromFile((_dir / "out" / "kept.txt").string());
  Write(target.GetPath(), "old");
  auto r = fetcher.FetchToFile(_nginx->GetUrl("/missing.bin"), target);
  ASSERT_TRUE(r.HasError());
  const std::string text = r.GetError().ToString();
  EXPECT_NE(text.find("404"), std::string::npos) << text;
  EXPECT_NE(text.find(_nginx->GetUrlText("/missing.bin")), std::string::npos) << text;
  EXPECT_EQ(_nginx->CountRequests("/missing.bin", 1), 1u) << "a 404 is not retried";
  EXPECT_EQ(Read(target.GetPath()), "old");
  EXPECT_EQ(OutCount(), 1u);

  auto tooBig = fetcher.FetchToMemory(_nginx->GetUrl("/big.bin"), 1000);
  ASSERT_TRUE(tooBig.HasError());
  EXPECT_NE(tooBig.GetError().ToString().find("larger than 1000"), std::string::npos);
  EXPECT_EQ(_nginx->CountRequests("/big.bin", 1), 1u);

  EXPECT_TRUE(fetcher.FetchToMemory(Url("ftp://127.0.0.1/x"), 10).HasError());
  EXPECT_TRUE(fetcher.FetchToMemory(Url("http:///"), 10).HasError());
}

TEST_F(HttpFetcherTest, TransientFailuresAreRetriedAFixedNumberOfTimes) {
  HttpFetcher fetcher(FastOptions(3));
  for (const char* uri : {"/busy", "/slowdown"}) {
    auto r = fetcher.FetchToMemory(_nginx->GetUrl(uri), 100);
    ASSERT_TRUE(r.HasError());
    const std::string text = r.GetError().ToString();
    EXPECT_NE(text.find("3 tries"), std::string::npos) << text;
    EXPECT_NE(text.find(uri[1] == 'b' ? "503" : "429"), std::string::npos) << text;
    EXPECT_EQ(_nginx->CountRequests(uri, 3), 3u) << uri;
  }
  // The progress delegate can stop the retries: here once the first try has reached the server.
  auto stopped = fetcher.FetchToMemory(_nginx->GetUrl("/busy"), 100, [&](std::uint64_t, std::uint64_t) -> Result<void> {
    if (_nginx->CountRequests("/busy") > 3) return OperationCancelledError();
    return {};
  });
  ASSERT_TRUE(stopped.HasError());
  EXPECT_TRUE(stopped.GetError().Is(errors::OperationCancelledError));
  EXPECT_EQ(_nginx->CountRequests("/busy", 4), 4u);
}

TEST_F(HttpFetcherTest, UnreachableAndSilentServersFailWithinBounds) {
  const Url url = _nginx->GetUrl("/small.txt");
  _nginx->Stop();
  HttpFetcher fetcher(FastOptions(2));
  auto down = fetcher.FetchToMemory(url, 100);
  ASSERT_TRUE(down.HasError());
  EXPECT_NE(down.GetError().ToString().find("2 tries"), std::string::npos) << down.GetError().ToString();

  // A socket that listens but never answers: the kernel completes the handshake, nothing follows.
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
  ASSERT_EQ(::listen(fd, 4), 0);
  ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0);
  HttpFetcher once(FastOptions(1));
  const auto start = std::chrono::steady_clock::now();
  auto silent = once.FetchToMemory(Url("http://127.0.0.1:" + std::to_string(ntohs(addr.sin_port)) + "/x"), 100);
  const auto took = std::chrono::steady_clock::now() - start;
  ::close(fd);
  ASSERT_TRUE(silent.HasError());
  EXPECT_LT(took, std::chrono::seconds(10)) << "the low-speed limit ends a silent transfer";
}

TEST_F(HttpFetcherTest, ProgressErrorCancelsTheTransferAndLeavesNoFile) {
  HttpFetcher fetcher(FastOptions(3));
  const Url target = Url::FromFile((_dir / "out" / "big.bin").string());
  std::uint64_t seenTotal = 0;
  auto r = fetcher.FetchToFile(_nginx->GetUrl("/big.bin"), target, [&](std::uint64_t done, std::uint64_t total) -> Result<void> {
    seenTotal = std::max(seenTotal, total);
    if (done > 0) return IllegalStateError("stop here");
    return {};
  });
  ASSERT_TRUE(r.HasError());
  EXPECT_EQ(r.GetError().GetMessage(), "stop here") << "the delegate's error is the result";
  EXPECT_EQ(seenTotal, _big.size());
  EXPECT_EQ(OutCount(), 0u);
  EXPECT_EQ(_nginx->CountRequests("/big.bin", 1), 1u) << "a cancelled transfer is not retried";

  // A transfer on a job ends when the job is cancelled, whatever the delegate says.
  auto queue = JobQueue::Create("fetch test", 1);
  Result<std::uint64_t> onJob = std::uint64_t(0);
  auto job = queue->Enqueue([&]() -> Result<void> {
    onJob = fetcher.FetchToFile(_nginx->GetUrl("/big.bin"), target, [](std::uint64_t done, std::uint64_t) -> Result<void> {
      if (done > 0) GetCurrentJob().Cancel();
      return {};
    });
    return {};
  });
  ASSERT_TRUE(job.HasValue());
  (void)job->Wait();
  ASSERT_TRUE(onJob.HasError());
  EXPECT_TRUE(onJob.GetError().Is(errors::OperationCancelledError)) << onJob.GetError().ToString();
  EXPECT_EQ(OutCount(), 0u);
  EXPECT_EQ(_nginx->CountRequests("/big.bin", 2), 2u);
}
