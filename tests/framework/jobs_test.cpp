#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kelvo/job_queue.h"
#include "kelvo/timer.h"

using namespace kelvo;
using namespace std::chrono_literals;

namespace {

// A gate that jobs block on until the test opens it, and a latch the test waits on.
class Gate {
public:
  void Open() {
    {
      std::lock_guard guard(_lock);
      _open = true;
    }
    _cv.notify_all();
  }
  // Bounded so that a broken queue fails the test instead of hanging it.
  bool WaitOpen(std::chrono::milliseconds limit = 10s) {
    std::unique_lock guard(_lock);
    return _cv.wait_for(guard, limit, [&] { return _open; });
  }

private:
  std::mutex _lock;
  std::condition_variable _cv;
  bool _open = false;
};

// Enqueues a job that holds the queue's (single) worker until the returned gate opens.
JobRef Block(JobQueue& queue, Gate& started, Gate& release) {
  auto job = queue.Enqueue([&]() -> Result<void> {
    started.Open();
    release.WaitOpen();
    return {};
  });
  EXPECT_TRUE(job.HasValue());
  return job.HasValue() ? *job : JobRef();
}

} // namespace

TEST(JobQueue, ServiceQueueRunsOneAtATimeInOrder) {
  auto queue = JobQueue::GetServiceIoQueue();
  ASSERT_EQ(queue->GetThreadCount(), 1);
  std::vector<int> order;
  std::atomic<int> inside{0};
  std::atomic<int> maxInside{0};
  JobRef last;
  for (int i = 0; i < 200; ++i) {
    auto job = queue->Enqueue([&, i]() -> Result<void> {
      const int now = ++inside;
      maxInside = std::max(maxInside.load(), now);
      order.push_back(i);
      --inside;
      return {};
    });
    ASSERT_TRUE(job.HasValue());
    last = *job;
  }
  ASSERT_TRUE(last.Wait().HasValue());
  ASSERT_EQ(order.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(order[i], i);
  EXPECT_EQ(maxInside.load(), 1);
}

TEST(JobQueue, MainQueueUsesOneDedicatedThreadAndDefaultQueueRunsInParallel) {
  std::set<std::thread::id> ids;
  std::mutex idsLock;
  auto main = JobQueue::GetMainThreadQueue();
  std::vector<JobRef> jobs;
  for (int i = 0; i < 20; ++i) {
    auto job = main->Enqueue([&]() -> Result<void> {
      std::lock_guard guard(idsLock);
      ids.insert(std::this_thread::get_id());
      if (!JobQueue::GetMainThreadQueue()->IsWorkerThread()) return IllegalStateError("not on the main queue");
      return {};
    });
    ASSERT_TRUE(job.HasValue());
    jobs.push_back(*job);
  }
  for (auto& job : jobs) EXPECT_TRUE(job.Wait().HasValue());
  ASSERT_EQ(ids.size(), 1u);
  EXPECT_NE(*ids.begin(), std::this_thread::get_id());
  EXPECT_FALSE(main->IsWorkerThread());

  // Two jobs that each wait for the other can only both finish on two workers at once.
  auto queue = JobQueue::GetDefaultQueue();
  ASSERT_GE(queue->GetThreadCount(), 2);
  Gate a, b;
  auto first = queue->Enqueue([&]() -> Result<void> {
    a.Open();
    return b.WaitOpen() ? Result<void>() : IllegalStateError("peer never ran");
  });
  auto second = queue->Enqueue([&]() -> Result<void> {
    b.Open();
    return a.WaitOpen() ? Result<void>() : IllegalStateError("peer never ran");
  });
  ASSERT_TRUE(first.HasValue() && second.HasValue());
  EXPECT_TRUE(first->Wait().HasValue());
  EXPECT_TRUE(second->Wait().HasValue());
}

TEST(JobQueue, CancelBeforeStartNeverRunsAndWakesWaiters) {
  auto queue = JobQueue::Create("cancel", 1);
  Gate started, release;
  JobRef blocker = Block(*queue, started, release);
  ASSERT_TRUE(started.WaitOpen());
  std::atomic<bool> ran{false};
  auto job = queue->Enqueue([&]() -> Result<void> {
    ran = true;
    return {};
  });
  ASSERT_TRUE(job.HasValue());
  EXPECT_FALSE(job->IsFinished());
  job->Cancel();
  EXPECT_TRUE(job->IsCancelled());
  // The worker is still blocked, yet the cancelled job's waiters return at once.
  auto result = job->Wait();
  ASSERT_TRUE(result.HasError());
  EXPECT_TRUE(result.GetError().Is(errors::OperationCancelledError));
  EXPECT_TRUE(job->IsFinished());
  release.Open();
  EXPECT_TRUE(blocker.Wait().HasValue());
  ASSERT_TRUE(queue->WaitAll().HasValue());
  EXPECT_FALSE(ran.load());
}

TEST(JobQueue, RunningJobSeesCancelAndWaitReturnsItsResult) {
  EXPECT_FALSE(IsCurrentJobCancelled());
  EXPECT_FALSE(GetCurrentJob().IsValid());
  auto queue = JobQueue::Create("running", 1);
  Gate started;
  JobRef self;
  auto job = queue->Enqueue([&]() -> Result<void> {
    self = GetCurrentJob();
    started.Open();
    while (!IsCurrentJobCancelled()) std::this_thread::yield();
    return IoError("stopped on request");
  });
  ASSERT_TRUE(job.HasValue());
  ASSERT_TRUE(started.WaitOpen());
  EXPECT_FALSE(job->IsFinished());
  job->Cancel();
  auto result = job->Wait();
  ASSERT_TRUE(result.HasError());
  EXPECT_TRUE(result.GetError().Is(errors::io));
  EXPECT_EQ(result.GetError().GetMessage(), "stopped on request");
  EXPECT_TRUE(self == *job);
  // A second wait returns the same result.
  EXPECT_TRUE(job->Wait().GetError().Is(errors::io));
}

TEST(JobQueue, ErrorsAndExceptionsBecomeResults) {
  auto queue = JobQueue::Create("errors", 2);
  auto failing = queue->Enqueue([]() -> Result<void> { return FileFormatError("bad header in @", "x.png"); });
  auto throwing = queue->Enqueue([]() -> Result<void> { throw std::runtime_error("boom"); });
  ASSERT_TRUE(failing.HasValue() && throwing.HasValue());
  auto r1 = failing->Wait();
  ASSERT_TRUE(r1.HasError());
  EXPECT_TRUE(r1.GetError().Is(errors::fileformat));
  EXPECT_EQ(r1.GetError().GetMessage(), "bad header in x.png");
  auto r2 = throwing->Wait();
  ASSERT_TRUE(r2.HasError());
  EXPECT_TRUE(r2.GetError().Is(errors::unexpected));
  EXPECT_NE(r2.GetError().GetMessage().find("boom"), std::string::npos);

  EXPECT_TRUE(JobRef().Wait().HasError());
  EXPECT_TRUE(queue->Enqueue(nullptr).HasError());
  auto self = queue->Enqueue([]() -> Result<void> { return GetCurrentJob().Wait(); });
  ASSERT_TRUE(self.HasValue());
  EXPECT_TRUE(self->Wait().GetError().Is(errors::illegalstate));
}

TEST(JobQueue, WaitOnOwnSingleThreadQueueRunsInline) {
  auto queue = JobQueue::Create("inline", 1);
  std::thread::id outerThread, innerThread;
  auto outer = queue->Enqueue([&]() -> Result<void> {
    outerThread = std::this_thread::get_id();
    auto inner = queue->Enqueue([&]() -> Result<void> {
      innerThread = std::this_thread::get_id();
      return IoError("inner failed");
    });
    if (inner.HasError()) return inner.GetError();
    // The only worker is this one: waiting must run the job here.
    auto r = inner->Wait();
    if (r.HasError() && r.GetError().GetMessage() == "inner failed") return {};
    return UnexpectedError("inner job gave the wrong result");
  });
  ASSERT_TRUE(outer.HasValue());
  EXPECT_TRUE(outer->Wait().HasValue());
  EXPECT_EQ(outerThread, innerThread);
  EXPECT_TRUE(queue->WaitAll().HasValue());
  auto onWorker = queue->Enqueue([&]() -> Result<void> { return queue->WaitAll(); });
  ASSERT_TRUE(onWorker.HasValue());
  EXPECT_TRUE(onWorker->Wait().GetError().Is(errors::illegalstate));
}

TEST(JobQueue, CancelAllWaitAllAndShutdown) {
  auto queue = JobQueue::Create("shutdown", 1);
  Gate started, release;
  JobRef blocker = Block(*queue, started, release);
  ASSERT_TRUE(started.WaitOpen());
  std::atomic<int> ran{0};
  std::vector<JobRef> pending;
  for (int i = 0; i < 5; ++i) {
    auto job = queue->Enqueue([&]() -> Result<void> {
      ++ran;
      return {};
    });
    ASSERT_TRUE(job.HasValue());
    pending.push_back(*job);
  }
  queue->CancelAll();
  EXPECT_TRUE(blocker.IsCancelled());
  EXPECT_FALSE(blocker.IsFinished());
  for (auto& job : pending) EXPECT_TRUE(job.Wait().GetError().Is(errors::OperationCancelledError));
  // Jobs enqueued after CancelAll run normally.
  auto later = queue->Enqueue([&]() -> Result<void> {
    ++ran;
    return {};
  });
  ASSERT_TRUE(later.HasValue());
  release.Open();
  ASSERT_TRUE(queue->WaitAll().HasValue());
  EXPECT_TRUE(later->IsFinished());
  EXPECT_EQ(ran.load(), 1);

  // Shutdown cancels what is pending, waits for what runs, and refuses new work. The running
  // job ends only once Shutdown has flagged it.
  Gate started2;
  auto running = queue->Enqueue([&]() -> Result<void> {
    started2.Open();
    while (!IsCurrentJobCancelled()) std::this_thread::yield();
    return {};
  });
  ASSERT_TRUE(running.HasValue());
  ASSERT_TRUE(started2.WaitOpen());
  auto queued = queue->Enqueue([&]() -> Result<void> {
    ++ran;
    return {};
  });
  ASSERT_TRUE(queued.HasValue());
  queue->Shutdown();
  EXPECT_TRUE(running->IsFinished());
  EXPECT_TRUE(running->Wait().HasValue());
  EXPECT_TRUE(queued->Wait().GetError().Is(errors::OperationCancelledError));
  EXPECT_EQ(ran.load(), 1);
  auto refused = queue->Enqueue([]() -> Result<void> { return {}; });
  ASSERT_TRUE(refused.HasError());
  EXPECT_TRUE(refused.GetError().Is(errors::illegalstate));
  queue->Shutdown();
}

TEST(JobQueue, StandardQueuesShutDownAndComeBack) {
  auto before = JobQueue::GetServiceIoQueue();
  auto warm = before->Enqueue([]() -> Result<void> { return {}; });
  ASSERT_TRUE(warm.HasValue());
  JobQueue::ShutdownStandardQueues();
  JobQueue::ShutdownStandardQueues();
  EXPECT_TRUE(warm->IsFinished());
  EXPECT_TRUE(before->Enqueue([]() -> Result<void> { return {}; }).HasError());
  auto after = JobQueue::GetServiceIoQueue();
  EXPECT_NE(before, after);
  auto job = after->Enqueue([]() -> Result<void> { return {}; });
  ASSERT_TRUE(job.HasValue());
  EXPECT_TRUE(job->Wait().HasValue());
  // Shutting the queues down from one of their own jobs must not deadlock.
  auto fromMain = JobQueue::GetMainThreadQueue()->Enqueue([]() -> Result<void> {
    JobQueue::ShutdownStandardQueues();
    return {};
  });
  ASSERT_TRUE(fromMain.HasValue());
  EXPECT_TRUE(fromMain->Wait().HasValue());
  EXPECT_TRUE(JobQueue::GetMainThreadQueue()->Enqueue([]() -> Result<void> { return {}; }).HasValue());
}

TEST(Timer, FiresOnceInDeadlineOrderAndCancelPrevents) {
  std::mutex lock;
  std::condition_variable cv;
  std::vector<int> fired;
  auto record = [&](int n) {
    return [&, n] {
      {
        std::lock_guard guard(lock);
        fired.push_back(n);
      }
      cv.notify_all();
    };
  };
  auto late = Timer::Create(0.03, record(3));
  auto early = Timer::Create(0.005, record(1));
  auto cancelled = Timer::Create(0.01, record(2));
  auto dropped = Timer::Create(0.01, record(4));
  ASSERT_TRUE(late && early && cancelled && dropped);
  EXPECT_TRUE(cancelled->IsPending());
  EXPECT_TRUE(cancelled->Cancel());
  EXPECT_FALSE(cancelled->Cancel());
  EXPECT_FALSE(cancelled->IsPending());
  dropped.reset();
  {
    std::unique_lock guard(lock);
    ASSERT_TRUE(cv.wait_for(guard, 10s, [&] { return fired.size() >= 2; }));
  }
  // Cancel waits until the callbacks have returned, so the locals they use may go away after.
  EXPECT_FALSE(late->Cancel());
  EXPECT_FALSE(early->Cancel());
  EXPECT_FALSE(early->IsPending());
  // The last timer fired after every earlier deadline passed, so anything else would be in.
  std::lock_guard guard(lock);
  EXPECT_EQ(fired, (std::vector<int>{1, 3}));
}

TEST(Timer, CancelWaitsForRunningCallbackAndShutdownDropsPending) {
  Gate inside, release;
  std::atomic<bool> finished{false};
  auto running = Timer::Create(0, [&] {
    inside.Open();
    release.WaitOpen();
    finished = true;
  });
  ASSERT_TRUE(inside.WaitOpen());
  EXPECT_FALSE(running->IsPending());
  std::thread opener([&] { release.Open(); });
  EXPECT_FALSE(running->Cancel());
  EXPECT_TRUE(finished.load());
  opener.join();

  std::atomic<bool> ran{false};
  auto pending = Timer::Create(30, [&] { ran = true; });
  Timer::ShutdownTimers();
  Timer::ShutdownTimers();
  EXPECT_FALSE(pending->IsPending());
  // A new timer thread starts on demand.
  Gate fired;
  auto again = Timer::Create(0, [&] { fired.Open(); });
  EXPECT_TRUE(fired.WaitOpen());
  EXPECT_FALSE(again->Cancel());
  EXPECT_FALSE(ran.load());
}
