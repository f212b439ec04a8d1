#include "kelvo/background_progress.h"

#include <algorithm>
#include <atomic>
#include <deque>

namespace kelvo {

namespace {

struct Master {
  std::mutex lock;
  std::deque<BackgroundEntryRef> entries;
  std::size_t finishedLimit = 32;
  std::atomic<std::uint64_t> nextSerial{1};
  Observable<BackgroundEntryRef> changed{Id("ObservableBackgroundEntryChanged")};
};

Master& GetMaster() {
  // Never destroyed: entries may finish during static destruction of other units.
  static Master* master = new Master();
  return *master;
}

// Drops the oldest finished entries beyond the limit. REQUIRES: master.lock is held.
void TrimLocked(Master& master) {
  std::size_t finished = 0;
  for (const auto& e : master.entries)
    if (e->GetState() != BACKGROUNDPROGRESSSTATE::ACTIVE) ++finished;
  for (auto it = master.entries.begin(); it != master.entries.end() && finished > master.finishedLimit;) {
    if ((*it)->GetState() != BACKGROUNDPROGRESSSTATE::ACTIVE) {
      it = master.entries.erase(it);
      --finished;
    } else {
      ++it;
    }
  }
}

int Severity(BACKGROUNDPROGRESSSTATE s) {
  switch (s) {
    case BACKGROUNDPROGRESSSTATE::ERROR: return 2;
    case BACKGROUNDPROGRESSSTATE::WARNING: return 1;
    default: return 0;
  }
}

} // namespace

std::string ToString(BACKGROUNDPROGRESSSTATE state) {
  switch (state) {
    case BACKGROUNDPROGRESSSTATE::ACTIVE: return "ACTIVE";
    case BACKGROUNDPROGRESSSTATE::SUCCEEDED: return "SUCCEEDED";
    case BACKGROUNDPROGRESSSTATE::CANCELED: return "CANCELED";
    case BACKGROUNDPROGRESSSTATE::WARNING: return "WARNING";
    case BACKGROUNDPROGRESSSTATE::ERROR: return "ERROR";
  }
  return "UNKNOWN";
}

std::size_t BackgroundEntry::AddJob(std::string name, double weight) {
  std::size_t index;
  {
    std::lock_guard guard(_lock);
    index = _jobs.size();
    _jobs.push_back(Job{std::move(name), weight > 0.0 ? weight : 1.0, 0.0});
  }
  Changed();
  return index;
}

void BackgroundEntry::SetJobProgress(std::size_t job, double progress) {
  {
    std::lock_guard guard(_lock);
    if (job >= _jobs.size()) return;
    _jobs[job].progress = std::clamp(progress, 0.0, 1.0);
    _progressSet = false;
  }
  Changed();
}

void BackgroundEntry::SetProgress(double progress) {
  {
    std::lock_guard guard(_lock);
    _progress = progress == kBackgroundProgressUnknown ? progress : std::clamp(progress, 0.0, 1.0);
    _progressSet = true;
  }
  Changed();
}

double BackgroundEntry::GetProgress() const {
  std::lock_guard guard(_lock);
  if (_progressSet) return _progress;
  double total = 0.0, done = 0.0;
  for (const Job& j : _jobs) {
    total += j.weight;
    done += j.weight * j.progress;
  }
  return total > 0.0 ? done / total : kBackgroundProgressUnknown;
}

void BackgroundEntry::SetDetails(std::string details) {
  {
    std::lock_guard guard(_lock);
    _details = std::move(details);
  }
  Changed();
}

std::string BackgroundEntry::GetDetails() const {
  std::lock_guard guard(_lock);
  return _details;
}

void BackgroundEntry::SetCancelDelegate(CancelDelegate cancel) {
  std::lock_guard guard(_lock);
  _cancel = std::move(cancel);
}

void BackgroundEntry::Cancel() {
  CancelDelegate cancel;
  {
    std::lock_guard guard(_lock);
    if (_cancelled) return;
    _cancelled = true;
    cancel = std::move(_cancel);
    _cancel = nullptr;
  }
  // Outside the lock: the delegate may wait for work that reports to this entry.
  if (cancel) cancel();
  Changed();
}

bool BackgroundEntry::IsCancelled() const {
  std::lock_guard guard(_lock);
  return _cancelled;
}

void BackgroundEntry::AddMessage(BACKGROUNDPROGRESSSTATE state, std::string text) {
  {
    std::lock_guard guard(_lock);
    _messages.push_back(BackgroundProgressMessage{state, std::move(text)});
  }
  Changed();
}

std::vector<BackgroundProgressMessage> BackgroundEntry::GetMessages() const {
  std::lock_guard guard(_lock);
  return _messages;
}

void BackgroundEntry::Finish() { FinishWith(BACKGROUNDPROGRESSSTATE::SUCCEEDED, false); }

void BackgroundEntry::FinishCanceled() { FinishWith(BACKGROUNDPROGRESSSTATE::CANCELED, true); }

void BackgroundEntry::FinishWith(BACKGROUNDPROGRESSSTATE state, bool forceCanceled) {
  {
    std::lock_guard guard(_lock);
    if (_state != BACKGROUNDPROGRESSSTATE::ACTIVE) return;
    if (forceCanceled || _cancelled) {
      state = BACKGROUNDPROGRESSSTATE::CANCELED;
    } else {
      for (const auto& m : _messages)
        if (Severity(m.state) > Severity(state)) state = m.state;
    }
    _state = state;
    _cancel = nullptr;
  }
  {
    Master& master = GetMaster();
    std::lock_guard guard(master.lock);
    TrimLocked(master);
  }
  Changed();
}

BACKGROUNDPROGRESSSTATE BackgroundEntry::GetState() const {
  std::lock_guard guard(_lock);
  return _state;
}

void BackgroundEntry::Changed() { GetMaster().changed.Notify(shared_from_this()); }

BackgroundEntryRef BackgroundProgress::AddActiveEntry(std::string name) {
  Master& master = GetMaster();
  BackgroundEntryRef entry(new BackgroundEntry(std::move(name), master.nextSerial++));
  {
    std::lock_guard guard(master.lock);
    master.entries.push_back(entry);
  }
  master.changed.Notify(entry);
  return entry;
}

std::vector<BackgroundEntryRef> BackgroundProgress::GetEntries() {
  Master& master = GetMaster();
  std::lock_guard guard(master.lock);
  return {master.entries.begin(), master.entries.end()};
}

void BackgroundProgress::ClearFinished() {
  Master& master = GetMaster();
  std::lock_guard guard(master.lock);
  std::erase_if(master.entries, [](const BackgroundEntryRef& e) { return e->GetState() != BACKGROUNDPROGRESSSTATE::ACTIVE; });
}

void BackgroundProgress::SetFinishedLimit(std::size_t limit) {
  Master& master = GetMaster();
  std::lock_guard guard(master.lock);
  master.finishedLimit = limit;
  TrimLocked(master);
}

Observable<BackgroundEntryRef>& BackgroundProgress::ObservableEntryChanged() { return GetMaster().changed; }

} // namespace kelvo
