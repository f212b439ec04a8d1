#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include "kelvo/background_progress.h"

using namespace kelvo;

namespace {

bool Listed(const BackgroundEntryRef& entry) {
  auto entries = BackgroundProgress::GetEntries();
  return std::find(entries.begin(), entries.end(), entry) != entries.end();
}

} // namespace

TEST(BackgroundProgress, WeightedJobsAndDirectProgress) {
  auto entry = BackgroundProgress::AddActiveEntry("weights");
  EXPECT_EQ(entry->GetProgress(), kBackgroundProgressUnknown);
  const auto small = entry->AddJob("small", 1.0);
  const auto large = entry->AddJob("large", 3.0);
  entry->SetJobProgress(large, 1.0);
  EXPECT_DOUBLE_EQ(entry->GetProgress(), 0.75);
  entry->SetJobProgress(small, 0.5);
  EXPECT_DOUBLE_EQ(entry->GetProgress(), 0.875);
  entry->SetJobProgress(small, 7.0); // clamped
  EXPECT_DOUBLE_EQ(entry->GetProgress(), 1.0);
  entry->SetJobProgress(99, 0.1); // unknown job: ignored
  entry->SetProgress(kBackgroundProgressUnknown);
  EXPECT_EQ(entry->GetProgress(), kBackgroundProgressUnknown);
  entry->SetProgress(0.25);
  EXPECT_DOUBLE_EQ(entry->GetProgress(), 0.25);
  entry->Finish();
}

TEST(BackgroundProgress, EndStateFollowsMessagesAndCancel) {
  std::atomic<int> notified{0};
  auto token = BackgroundProgress::ObservableEntryChanged().AddObserver([&](const BackgroundEntryRef&) { ++notified; });

  auto ok = BackgroundProgress::AddActiveEntry("ok");
  EXPECT_TRUE(Listed(ok));
  EXPECT_EQ(ok->GetState(), BACKGROUNDPROGRESSSTATE::ACTIVE);
  ok->Finish();
  EXPECT_EQ(ok->GetState(), BACKGROUNDPROGRESSSTATE::SUCCEEDED);

  auto warned = BackgroundProgress::AddActiveEntry("warned");
  warned->AddMessage(BACKGROUNDPROGRESSSTATE::WARNING, "'a' overwrites 'b'.");
  warned->Finish();
  EXPECT_EQ(warned->GetState(), BACKGROUNDPROGRESSSTATE::WARNING);

  auto failed = BackgroundProgress::AddActiveEntry("failed");
  failed->AddMessage(BACKGROUNDPROGRESSSTATE::ERROR, "broken");
  failed->AddMessage(BACKGROUNDPROGRESSSTATE::WARNING, "later warning");
  failed->Finish();
  EXPECT_EQ(failed->GetState(), BACKGROUNDPROGRESSSTATE::ERROR);
  ASSERT_EQ(failed->GetMessages().size(), 2u);
  EXPECT_EQ(failed->GetMessages()[0].text, "broken");
  // Finishing again changes nothing.
  failed->FinishCanceled();
  EXPECT_EQ(failed->GetState(), BACKGROUNDPROGRESSSTATE::ERROR);

  int cancels = 0;
  auto cancelled = BackgroundProgress::AddActiveEntry("cancelled");
  cancelled->SetCancelDelegate([&] { ++cancels; });
  cancelled->AddMessage(BACKGROUNDPROGRESSSTATE::ERROR, "also broken");
  cancelled->Cancel();
  cancelled->Cancel();
  EXPECT_EQ(cancels, 1);
  EXPECT_TRUE(cancelled->IsCancelled());
  cancelled->Finish();
  EXPECT_EQ(cancelled->GetState(), BACKGROUNDPROGRESSSTATE::CANCELED);

  EXPECT_GE(notified.load(), 10);
  BackgroundProgress::ObservableEntryChanged().RemoveObserver(token);
}

TEST(BackgroundProgress, FinishedEntriesAreTrimmedActiveOnesStay) {
  BackgroundProgress::ClearFinished();
  BackgroundProgress::SetFinishedLimit(2);
  auto active = BackgroundProgress::AddActiveEntry("still running");
  std::vector<BackgroundEntryRef> done;
  for (int i = 0; i < 5; ++i) {
    done.push_back(BackgroundProgress::AddActiveEntry("done " + std::to_string(i)));
    done.back()->Finish();
  }
  EXPECT_TRUE(Listed(active));
  EXPECT_FALSE(Listed(done[0]));
  EXPECT_FALSE(Listed(done[2]));
  EXPECT_TRUE(Listed(done[3]));
  EXPECT_TRUE(Listed(done[4]));
  BackgroundProgress::ClearFinished();
  EXPECT_FALSE(Listed(done[4]));
  EXPECT_TRUE(Listed(active));
  active->Finish();
  BackgroundProgress::SetFinishedLimit(32);
}
