#include "kelvo/timer.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <mutex>
#include <queue>
#include <thread>
#include <vector>

#include "kelvo/log.h"

namespace kelvo {

namespace {
using Clock = std::chrono::steady_clock;
thread_local bool t_onTimerThread = false;
} // namespace

namespace detail {

// The shared timer thread and its deadline heap. Each started thread carries the generation it
// was started in and exits once ShutdownTimers moves the generation on.
struct TimerService {
  struct Entry {
    Clock::time_point when;
    std::uint64_t sequence;
    std::weak_ptr<Timer> timer;
  };
  // Earliest deadline first; equal deadlines in creation order.
  struct Later {
    bool operator()(const Entry& a, const Entry& b) const {
      return a.when != b.when ? a.when > b.when : a.sequence > b.sequence;
    }
  };

  std::mutex lock;
  std::condition_variable wake;
  std::condition_variable finished;
  std::priority_queue<Entry, std::vector<Entry>, Later> heap;
  std::uint64_t nextSequence = 0;
  std::uint64_t generation = 0;
  std::thread thread;

  static TimerService& Get();
  static void Loop(TimerService* service, std::uint64_t generation);
};

namespace {
struct TimerExitGuard {
  ~TimerExitGuard() { Timer::ShutdownTimers(); }
};
} // namespace

TimerService& TimerService::Get() {
  // Never destroyed, so timers released late in process exit still find it.
  static TimerService* service = new TimerService();
  static TimerExitGuard guard;
  return *service;
}

void TimerService::Loop(TimerService* s, std::uint64_t generation) {
  t_onTimerThread = true;
  ::pthread_setname_np(::pthread_self(), "timer");
  std::unique_lock guard(s->lock);
  while (s->generation == generation) {
    if (s->heap.empty()) {
      s->wake.wait(guard);
      continue;
    }
    const auto when = s->heap.top().when;
    if (Clock::now() < when) {
      s->wake.wait_until(guard, when);
      continue;
    }
    std::shared_ptr<Timer> timer = s->heap.top().timer.lock();
    s->heap.pop();
    std::function<void()> fn;
    if (timer && timer->_state == Timer::State::PENDING) {
      timer->_state = Timer::State::RUNNING;
      fn = std::move(timer->_fn);
    }
    // Neither the callback nor the release of the last handle (which cancels) may run locked.
    guard.unlock();
    if (fn) {
      try {
        fn();
      } catch (const std::exception& e) {
        CriticalOutput("A timer callback threw: @", e.what());
      } catch (...) {
        CriticalOutput("A timer callback threw an unknown exception.");
      }
      fn = nullptr;
      guard.lock();
      timer->_state = Timer::State::DONE;
      guard.unlock();
      s->finished.notify_all();
    }
    timer.reset();
    guard.lock();
  }
}

} // namespace detail

using detail::TimerService;

std::shared_ptr<Timer> Timer::Create(double delaySeconds, std::function<void()> fn) {
  try {
    std::shared_ptr<Timer> timer(new Timer(std::move(fn)));
    auto& s = TimerService::Get();
    std::lock_guard guard(s.lock);
    if (!timer->_fn) {
      timer->_state = State::DONE;
      return timer;
    }
    // Clamp so that the deadline can't overflow the clock.
    const double delay = std::isnan(delaySeconds) ? 0.0 : std::clamp(delaySeconds, 0.0, 1e9);
    const auto when = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(delay));
    if (!s.thread.joinable()) {
      try {
        s.thread = std::thread(TimerService::Loop, &s, s.generation);
      } catch (const std::exception& e) {
        CriticalOutput("Can't start the timer thread: @", e.what());
        timer->_state = State::DONE;
        return timer;
      }
    }
    s.heap.push({when, s.nextSequence++, timer});
    s.wake.notify_one();
    return timer;
  } catch (const std::exception& e) {
    CriticalOutput("Can't create a timer: @", e.what());
    return nullptr;
  }
}

void Timer::ShutdownTimers() {
  auto& s = TimerService::Get();
  std::thread thread;
  decltype(s.heap) heap;
  {
    std::lock_guard guard(s.lock);
    ++s.generation;
    thread = std::move(s.thread);
    heap.swap(s.heap);
  }
  s.wake.notify_all();
  if (thread.joinable()) {
    if (thread.get_id() == std::this_thread::get_id())
      thread.detach();
    else
      thread.join();
  }
  // The taken timers are in no heap any more, so none can fire; settle them one by one, and
  // release callbacks and handles unlocked (the last handle's release takes the lock).
  for (; !heap.empty(); heap.pop()) {
    auto timer = heap.top().timer.lock();
    if (!timer) continue;
    std::function<void()> dropped;
    std::lock_guard guard(s.lock);
    if (timer->_state == State::PENDING) {
      timer->_state = State::DONE;
      dropped = std::move(timer->_fn);
    }
  }
}

Timer::~Timer() { Cancel(); }

bool Timer::Cancel() {
  auto& s = TimerService::Get();
  std::function<void()> dropped;
  std::unique_lock guard(s.lock);
  if (_state == State::PENDING) {
    _state = State::DONE;
    dropped = std::move(_fn);
    guard.unlock();
    return true;
  }
  if (_state == State::RUNNING && !t_onTimerThread)
    s.finished.wait(guard, [&] { return _state != State::RUNNING; });
  return false;
}

bool Timer::IsPending() const {
  auto& s = TimerService::Get();
  std::lock_guard guard(s.lock);
  return _state == State::PENDING;
}

} // namespace kelvo
