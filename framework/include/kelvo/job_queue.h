#pragma once
// Job queues: named pools of worker threads that run jobs (functions returning Result<void>) in
// the order they were enqueued, and handles to wait for or cancel a job.
//
// Three standard queues exist, each made on first use:
//  - the main thread queue: this module has no host main loop to borrow, so the queue owns one
//    dedicated thread and that thread is "the main thread" of the process for the module. Work
//    that must not run concurrently with other main thread work goes here.
//  - the service I/O queue: exactly one worker; jobs run one at a time, in enqueue order.
//  - the default queue: std::thread::hardware_concurrency() workers, at least 2.
//
// Cancellation is cooperative: a job that has not started never runs once cancelled; a running
// job sees the flag through IsCurrentJobCancelled() and decides itself when to stop.

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kelvo/result.h"

namespace kelvo {

namespace detail {
struct JobState;
struct JobQueueCore;
} // namespace detail

// A shared handle to one enqueued job. Copies refer to the same job. A default-constructed
// handle refers to no job. All operations may be called from any thread.
class JobRef {
public:
  JobRef() = default;

  bool IsValid() const { return _state != nullptr; }
  explicit operator bool() const { return IsValid(); }

  // Blocks until the job has finished, or was cancelled before it started. Returns the job's
  // result, an OperationCancelledError when it was cancelled before it started, or a nullptr
  // error for an empty handle. Called on a worker of the queue that holds the job while the job
  // has not started, it runs the job inline on the calling thread instead of deadlocking.
  Result<void> Wait() const;
  // Sets the cancel flag. A job that has not started yet never runs (waiters wake at once with
  // an OperationCancelledError); a running job keeps running and sees IsCurrentJobCancelled().
  void Cancel() const;
  bool IsCancelled() const;
  // True once the job has run to its end, or was cancelled before it started.
  bool IsFinished() const;

  friend bool operator==(const JobRef& a, const JobRef& b) { return a._state == b._state; }

private:
  friend class JobQueue;
  friend JobRef GetCurrentJob();
  explicit JobRef(std::shared_ptr<detail::JobState> state) : _state(std::move(state)) {}
  std::shared_ptr<detail::JobState> _state;
};

class JobQueue {
public:
  using Job = std::function<Result<void>()>;

  // The standard queues (see the top of this file), made on first use and again on the next
  // use after ShutdownStandardQueues. Never null. Thread safe.
  static std::shared_ptr<JobQueue> GetMainThreadQueue();
  static std::shared_ptr<JobQueue> GetServiceIoQueue();
  static std::shared_ptr<JobQueue> GetDefaultQueue();
  // A private queue with threads workers (at least 1). Workers that the system can't start
  // are logged; a queue left with none refuses every Enqueue. Never null.
  static std::shared_ptr<JobQueue> Create(std::string name, int threads);
  // For module end: cancels the pending jobs of the standard queues, waits for the running
  // ones and joins their workers. Safe to call more than once; later accessor calls make new
  // queues. Handles to the old queues stay valid but refuse new jobs.
  static void ShutdownStandardQueues();

  // Shuts down (see Shutdown).
  ~JobQueue();
  JobQueue(const JobQueue&) = delete;
  JobQueue& operator=(const JobQueue&) = delete;

  const std::string& GetName() const { return _name; }
  // The number of worker threads that were started.
  int GetThreadCount() const { return _threadCount; }
  // True when the calling thread is one of this queue's workers.
  bool IsWorkerThread() const;

  // Queues job behind those already enqueued and returns its handle. Fails with an illegal
  // state error once the queue is shut down or when it has no worker. A job that throws
  // finishes with an unexpected error. Any thread, including this queue's workers.
  Result<JobRef> Enqueue(Job job);
  // Cancels every job of the queue: pending ones never run, running ones see the flag.
  // Jobs enqueued afterwards are not affected. Any thread.
  void CancelAll();
  // Blocks until the queue holds no job that is pending or running. Fails with an illegal state
  // error when called on one of this queue's workers (it would wait for itself).
  Result<void> WaitAll();
  // Cancels all jobs, refuses new ones, waits for the running jobs and joins the workers.
  // Safe to call more than once and from any thread; on one of this queue's own workers that
  // worker is detached instead of joined and exits after its current job.
  void Shutdown();

private:
  JobQueue(std::string name, int threads);
  void StopAndJoin(bool destroying);

  std::string _name;
  int _threadCount = 0;
  std::shared_ptr<detail::JobQueueCore> _core;
  std::mutex _threadsLock;
  std::vector<std::thread> _threads;
};

// True when the calling thread runs a job whose cancel flag is set; false outside a job.
bool IsCurrentJobCancelled();
// The job the calling thread runs; an empty handle outside a job.
JobRef GetCurrentJob();

} // namespace kelvo
