#pragma once
// The master background progress: the list of long operations that run in the background, each an
// entry with a name, weighted jobs, a progress value, a details text, a cancel delegate and the
// messages it collected. A finished entry has an end state: SUCCEEDED, CANCELED, WARNING or ERROR.
// Entries are kept in memory (the finished ones up to a limit) and every change is announced
// through an observable, so that a host can show them. Safe for concurrent use by multiple threads.

#include <cfloat>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "kelvo/id.h"
#include "kelvo/observable.h"

namespace kelvo {

enum class BACKGROUNDPROGRESSSTATE : std::int32_t {
  ACTIVE = 0, // still running
  SUCCEEDED = 1,
  CANCELED = 2,
  WARNING = 3,
  ERROR = 4,
};
std::string ToString(BACKGROUNDPROGRESSSTATE state);

// The progress value that means "unknown" (shown as an indeterminate bar).
inline constexpr double kBackgroundProgressUnknown = DBL_MAX;

struct BackgroundProgressMessage {
  BACKGROUNDPROGRESSSTATE state = BACKGROUNDPROGRESSSTATE::SUCCEEDED;
  std::string text;
};

class BackgroundEntry;
using BackgroundEntryRef = std::shared_ptr<BackgroundEntry>;

class BackgroundEntry : public std::enable_shared_from_this<BackgroundEntry> {
public:
  using CancelDelegate = std::function<void()>;

  const std::string& GetName() const { return _name; }
  std::uint64_t GetSerial() const { return _serial; }

  // Adds a part of the work that counts with weight (> 0) in the entry's progress; returns its
  // index for SetJobProgress.
  std::size_t AddJob(std::string name, double weight);
  // The progress of one job, 0..1 (clamped).
  void SetJobProgress(std::size_t job, double progress);
  // Sets the entry's progress directly (0..1, or kBackgroundProgressUnknown); it stands until the
  // next SetJobProgress.
  void SetProgress(double progress);
  // The directly set value, else the weighted mean of the jobs, else unknown.
  double GetProgress() const;

  void SetDetails(std::string details);
  std::string GetDetails() const;

  void SetCancelDelegate(CancelDelegate cancel);
  // Calls the cancel delegate (once) and marks the entry as cancelled.
  void Cancel();
  bool IsCancelled() const;

  // Adds a message; WARNING and ERROR messages decide the end state.
  void AddMessage(BACKGROUNDPROGRESSSTATE state, std::string text);
  std::vector<BackgroundProgressMessage> GetMessages() const;

  // Ends the entry. The end state is CANCELED for a cancelled entry, else the worst state among
  // the messages (ERROR before WARNING), else SUCCEEDED. A second call does nothing.
  void Finish();
  // Ends the entry as cancelled, whatever it collected.
  void FinishCanceled();
  // ACTIVE until Finish.
  BACKGROUNDPROGRESSSTATE GetState() const;

private:
  friend class BackgroundProgress;
  BackgroundEntry(std::string name, std::uint64_t serial) : _name(std::move(name)), _serial(serial) {}
  void Changed();
  void FinishWith(BACKGROUNDPROGRESSSTATE state, bool forceCanceled);

  struct Job {
    std::string name;
    double weight = 1.0;
    double progress = 0.0;
  };

  const std::string _name;
  const std::uint64_t _serial;
  mutable std::mutex _lock;
  std::vector<Job> _jobs;
  double _progress = kBackgroundProgressUnknown;
  bool _progressSet = false;
  std::string _details;
  CancelDelegate _cancel;
  bool _cancelled = false;
  std::vector<BackgroundProgressMessage> _messages;
  BACKGROUNDPROGRESSSTATE _state = BACKGROUNDPROGRESSSTATE::ACTIVE;
};

class BackgroundProgress {
public:
  // Adds an active entry to the master list.
  static BackgroundEntryRef AddActiveEntry(std::string name);
  // The active entries and the most recent finished ones, oldest first.
  static std::vector<BackgroundEntryRef> GetEntries();
  // Removes the finished entries from the list.
  static void ClearFinished();
  // How many finished entries the list keeps (the oldest go first); 32 by default.
  static void SetFinishedLimit(std::size_t limit);
  // Called, on the changing thread with no lock held, whenever an entry was added, changed or
  // finished.
  static Observable<BackgroundEntryRef>& ObservableEntryChanged();
};

} // namespace kelvo
