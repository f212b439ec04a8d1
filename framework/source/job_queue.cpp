#include "kelvo/job_queue.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <new>
#include <unordered_set>
#include <utility>

#include "kelvo/log.h"

namespace kelvo {

namespace detail {

enum class JobPhase { PENDING, RUNNING, DONE };

// One job. The function is touched only by the thread that moves the phase out of PENDING (by
// starting or cancelling the job), under `lock`.
struct JobState {
  JobQueue::Job fn;
  std::weak_ptr<JobQueueCore> core;
  // Identity of the owning queue, compared with the calling worker's queue for inline runs.
  const JobQueueCore* coreId = nullptr;
  std::atomic<bool> cancelled{false};
  std::mutex lock;
  std::condition_variable done;
  JobPhase phase = JobPhase::PENDING;
  Result<void> result;
};

// The part of a queue its workers share. `live` holds every job not yet DONE, so CancelAll and
// WaitAll see running and pending jobs alike.
struct JobQueueCore {
  std::mutex lock;
  std::condition_variable work;
  std::condition_variable idle;
  std::deque<std::shared_ptr<JobState>> pending;
  std::unordered_set<std::shared_ptr<JobState>> live;
  bool stopping = false;
};

} // namespace detail

namespace {

using detail::JobPhase;
using detail::JobQueueCore;
using detail::JobState;

thread_local const JobQueueCore* t_workerCore = nullptr;
thread_local std::shared_ptr<JobState> t_currentJob;

// Wakes the waiters of a job that just became DONE and drops it from its queue's live set.
void NotifyDone(const std::shared_ptr<JobState>& job) {
  job->done.notify_all();
  if (auto core = job->core.lock()) {
    std::lock_guard guard(core->lock);
    core->live.erase(job);
    if (core->live.empty()) core->idle.notify_all();
  }
}

// Moves a pending, not cancelled job to RUNNING and hands its function to the caller, who must
// then call Run. False when another thread started or cancelled it first.
bool TryStart(JobState& job, JobQueue::Job& fn) {
  std::lock_guard guard(job.lock);
  if (job.phase != JobPhase::PENDING || job.cancelled.load()) return false;
  job.phase = JobPhase::RUNNING;
  fn = std::move(job.fn);
  return true;
}

void Run(const std::shared_ptr<JobState>& job, JobQueue::Job fn) {
  auto previous = std::exchange(t_currentJob, job);
  Result<void> result;
  try {
    result = fn();
  } catch (const std::exception& e) {
    result = UnexpectedError("A job threw: @", e.what());
  } catch (...) {
    result = UnexpectedError("A job threw an unknown exception.");
  }
  // Release what the job captured before anyone waiting for it wakes up.
  fn = nullptr;
  t_currentJob = std::move(previous);
  {
    std::lock_guard guard(job->lock);
    job->result = std::move(result);
    job->phase = JobPhase::DONE;
  }
  NotifyDone(job);
}

void WorkerLoop(std::shared_ptr<JobQueueCore> core, std::string name) {
  t_workerCore = core.get();
  ::pthread_setname_np(::pthread_self(), name.substr(0, 15).c_str());
  for (;;) {
    std::shared_ptr<JobState> job;
    bool stopping = false;
    {
      std::unique_lock guard(core->lock);
      core->work.wait(guard, [&] { return core->stopping || !core->pending.empty(); });
      if (core->pending.empty()) break;
      job = std::move(core->pending.front());
      core->pending.pop_front();
      stopping = core->stopping;
    }
    // Once stopping, queued jobs are left for Shutdown to cancel and never start.
    JobQueue::Job fn;
    if (!stopping && TryStart(*job, fn)) Run(job, std::move(fn));
  }
  t_workerCore = nullptr;
}

std::vector<std::shared_ptr<JobState>> SnapshotLive(JobQueueCore& core, bool stop) {
  std::lock_guard guard(core.lock);
  if (stop) core.stopping = true;
  return {core.live.begin(), core.live.end()};
}

// The standard queues. Never destroyed, so a late caller still finds a valid (empty) table;
// an exit-time guard shuts the queues down before the process ends.
struct StandardQueues {
  std::mutex lock;
  std::shared_ptr<JobQueue> main;
  std::shared_ptr<JobQueue> serviceIo;
  std::shared_ptr<JobQueue> defaultQueue;
};

struct StandardQueuesExitGuard {
  ~StandardQueuesExitGuard() { JobQueue::ShutdownStandardQueues(); }
};

StandardQueues& Standard() {
  static StandardQueues* table = new StandardQueues();
  static StandardQueuesExitGuard guard;
  return *table;
}

std::shared_ptr<JobQueue> GetOrCreate(std::shared_ptr<JobQueue> StandardQueues::*member, const char* name,
                                      int threads) {
  auto& table = Standard();
  std::lock_guard guard(table.lock);
  auto& queue = table.*member;
  if (!queue) queue = JobQueue::Create(name, threads);
  return queue;
}

} // namespace

// ---- JobRef --------------------------------------------------------------------------------------

Result<void> JobRef::Wait() const {
  if (!_state) return NullptrError("Wait on an empty job handle.");
  if (t_currentJob == _state) return IllegalStateError("A job can't wait for itself.");
  // On a worker of the job's own queue the job might sit behind the caller forever; run it here.
  if (t_workerCore != nullptr && t_workerCore == _state->coreId) {
    JobQueue::Job fn;
    if (TryStart(*_state, fn)) Run(_state, std::move(fn));
  }
  std::unique_lock guard(_state->lock);
  _state->done.wait(guard, [&] { return _state->phase == JobPhase::DONE; });
  return _state->result;
}

void JobRef::Cancel() const {
  if (!_state) return;
  _state->cancelled.store(true);
  JobQueue::Job dropped;
  {
    std::lock_guard guard(_state->lock);
    if (_state->phase != JobPhase::PENDING) return;
    dropped = std::move(_state->fn);
    _state->result = OperationCancelledError();
    _state->phase = JobPhase::DONE;
  }
  dropped = nullptr;
  NotifyDone(_state);
}

bool JobRef::IsCancelled() const { return _state && _state->cancelled.load(); }

bool JobRef::IsFinished() const {
  if (!_state) return false;
  std::lock_guard guard(_state->lock);
  return _state->phase == JobPhase::DONE;
}

bool IsCurrentJobCancelled() { return t_currentJob && t_currentJob->cancelled.load(); }

JobRef GetCurrentJob() { return JobRef(t_currentJob); }

// ---- JobQueue ------------------------------------------------------------------------------------

JobQueue::JobQueue(std::string name, int threads)
    : _name(std::move(name)), _core(std::make_shared<JobQueueCore>()) {
  for (int i = 0; i < std::max(threads, 1); ++i) {
    try {
      _threads.emplace_back(WorkerLoop, _core, _name);
    } catch (const std::exception& e) {
      CriticalOutput("Can't start worker @ of job queue @: @", i, _name, e.what());
      break;
    }
  }
  _threadCount = static_cast<int>(_threads.size());
}

JobQueue::~JobQueue() { StopAndJoin(true); }

std::shared_ptr<JobQueue> JobQueue::Create(std::string name, int threads) {
  return std::shared_ptr<JobQueue>(new JobQueue(std::move(name), threads));
}

std::shared_ptr<JobQueue> JobQueue::GetMainThreadQueue() { return GetOrCreate(&StandardQueues::main, "main", 1); }

std::shared_ptr<JobQueue> JobQueue::GetServiceIoQueue() {
  return GetOrCreate(&StandardQueues::serviceIo, "serviceio", 1);
}

std::shared_ptr<JobQueue> JobQueue::GetDefaultQueue() {
  const int threads = std::max(2, static_cast<int>(std::thread::hardware_concurrency()));
  return GetOrCreate(&StandardQueues::defaultQueue, "default", threads);
}

void JobQueue::ShutdownStandardQueues() {
  std::shared_ptr<JobQueue> queues[3];
  {
    auto& table = Standard();
    std::lock_guard guard(table.lock);
    queues[0] = std::move(table.defaultQueue);
    queues[1] = std::move(table.serviceIo);
    queues[2] = std::move(table.main);
  }
  for (auto& queue : queues)
    if (queue) queue->Shutdown();
}

bool JobQueue::IsWorkerThread() const { return t_workerCore == _core.get(); }

Result<JobRef> JobQueue::Enqueue(Job job) {
  if (!job) return IllegalArgumentError("An empty job for queue @.", _name);
  try {
    auto state = std::make_shared<JobState>();
    state->fn = std::move(job);
    state->core = _core;
    state->coreId = _core.get();
    {
      std::lock_guard guard(_core->lock);
      if (_core->stopping) return IllegalStateError("Job queue @ is shut down.", _name);
      if (_threadCount == 0) return IllegalStateError("Job queue @ has no worker thread.", _name);
      _core->live.insert(state);
      try {
        _core->pending.push_back(state);
      } catch (...) {
        _core->live.erase(state);
        throw;
      }
    }
    _core->work.notify_one();
    return JobRef(std::move(state));
  } catch (const std::bad_alloc&) {
    return Error(errors::outofmemory, FormatString("Out of memory enqueueing a job on @.", _name));
  }
}

void JobQueue::CancelAll() {
  try {
    for (auto& job : SnapshotLive(*_core, false)) JobRef(job).Cancel();
  } catch (const std::exception& e) {
    CriticalOutput("Can't cancel the jobs of queue @: @", _name, e.what());
  }
}

Result<void> JobQueue::WaitAll() {
  if (IsWorkerThread()) return IllegalStateError("WaitAll on a worker of job queue @.", _name);
  std::unique_lock guard(_core->lock);
  _core->idle.wait(guard, [&] { return _core->live.empty(); });
  return {};
}

void JobQueue::Shutdown() { StopAndJoin(false); }

void JobQueue::StopAndJoin(bool destroying) {
  try {
    for (auto& job : SnapshotLive(*_core, true)) JobRef(job).Cancel();
  } catch (const std::exception& e) {
    CriticalOutput("Can't cancel the jobs of queue @: @", _name, e.what());
  }
  _core->work.notify_all();
  // A worker shutting down its own queue must not block on a thread that is joining it. The
  // destructor has no concurrent caller and must leave no joinable thread behind.
  std::unique_lock guard(_threadsLock, std::defer_lock);
  if (IsWorkerThread() && !destroying) {
    if (!guard.try_lock()) return;
  } else {
    guard.lock();
  }
  for (auto& thread : _threads) {
    if (!thread.joinable()) continue;
    if (thread.get_id() == std::this_thread::get_id())
      thread.detach();
    else
      thread.join();
  }
  _threads.clear();
}

} // namespace kelvo
