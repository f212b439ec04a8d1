#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "kelvo/lock.h"

using namespace kelvo;

TEST(OnceGuard, FailedRunReturnsToIdleAndTheNextRunSucceeds) {
  OnceGuard once;
  int calls = 0;
  auto first = once.Run([&]() -> Result<void> {
    ++calls;
    return IoError("not yet");
  });
  ASSERT_TRUE(first.HasError());
  EXPECT_TRUE(first.GetError().Is(errors::io));
  EXPECT_FALSE(once.IsDone());
  EXPECT_TRUE(once.Run([&]() -> Result<void> {
                    ++calls;
                    return {};
                  })
                  .HasValue());
  EXPECT_TRUE(once.IsDone());
  EXPECT_TRUE(once.Run([&]() -> Result<void> {
                    ++calls;
                    return IoError("must not run");
                  })
                  .HasValue());
  EXPECT_EQ(calls, 2);
}

TEST(OnceGuard, ConcurrentCallersRunTheFunctionOnce) {
  constexpr int kThreads = 8;
  OnceGuard once;
  std::atomic<int> arrived{0};
  std::atomic<int> calls{0};
  std::atomic<int> succeeded{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      ++arrived;
      auto r = once.Run([&]() -> Result<void> {
        ++calls;
        // Hold the guard until every caller has arrived, so the others find it running.
        while (arrived.load() < kThreads) std::this_thread::yield();
        return {};
      });
      if (r.HasValue()) ++succeeded;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(calls.load(), 1);
  EXPECT_EQ(succeeded.load(), kThreads);
}

TEST(OnceGuard, CallersWaitingOnAFailedRunRetry) {
  constexpr int kThreads = 4;
  OnceGuard once;
  std::atomic<int> arrived{0};
  std::atomic<int> calls{0};
  std::atomic<int> failed{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      ++arrived;
      auto r = once.Run([&]() -> Result<void> {
        // The first run waits for everyone, then fails; a later caller's run succeeds.
        if (calls.fetch_add(1) == 0) {
          while (arrived.load() < kThreads) std::this_thread::yield();
          return IoError("first attempt fails");
        }
        return {};
      });
      if (r.HasError()) ++failed;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(calls.load(), 2);
  EXPECT_EQ(failed.load(), 1);
  EXPECT_TRUE(once.IsDone());
}

TEST(Locks, SpinLockAndReadWriteLockExcludeWriters) {
  SpinLock spin;
  ARWLock rw;
  long spinCounter = 0;
  long rwCounter = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < 5000; ++n) {
        {
          std::lock_guard guard(spin);
          ++spinCounter;
        }
        {
          WriteLocker guard(rw);
          ++rwCounter;
        }
        ReadLocker reader(rw);
        EXPECT_GE(rwCounter, 1);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(spinCounter, 20000);
  EXPECT_EQ(rwCounter, 20000);
  EXPECT_TRUE(spin.try_lock());
  EXPECT_FALSE(spin.try_lock());
  spin.unlock();
}
