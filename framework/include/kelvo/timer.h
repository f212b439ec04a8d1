#pragma once
// One-shot timers. All timers share one timer thread that sleeps on a condition variable until
// the earliest deadline; callbacks run on that thread, one at a time, in deadline order. Keep
// them short and hand longer work to a JobQueue.

#include <functional>
#include <memory>

namespace kelvo {

namespace detail {
struct TimerService;
}

class Timer {
public:
  // Calls fn once, on the timer thread, about delaySeconds from now (negative or NaN delays
  // count as 0). Destroying the last handle cancels the call. Returns null only when out of
  // memory; a timer that can't be scheduled (no timer thread) is returned as not pending. Any
  // thread, including a timer callback.
  static std::shared_ptr<Timer> Create(double delaySeconds, std::function<void()> fn);
  // For module end: drops every pending timer (none of them fires), waits for a running
  // callback and joins the timer thread. Safe to call more than once; the next Create starts a
  // new timer thread.
  static void ShutdownTimers();

  ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Returns true when the call was still pending, which then never happens. While the callback
  // is running on the timer thread, waits for it to return (unless called on the timer thread)
  // and returns false, so the caller may free what the callback uses. Any thread.
  bool Cancel();
  // True until the callback starts or the timer is cancelled. Any thread.
  bool IsPending() const;

private:
  friend struct detail::TimerService;
  enum class State { PENDING, RUNNING, DONE };
  explicit Timer(std::function<void()> fn) : _fn(std::move(fn)) {}

  // Both guarded by the timer service's lock.
  std::function<void()> _fn;
  State _state = State::PENDING;
};

} // namespace kelvo
