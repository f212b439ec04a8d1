#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "kelvo/observable.h"

using namespace kelvo;

TEST(Observable, ObserverRemovingItselfDuringNotifyDoesNotDeadlock) {
  Observable<int, std::string> changed("changed");
  int selfCalls = 0;
  int otherCalls = 0;
  Observable<int, std::string>::Token self = 0;
  self = changed.AddObserver([&](const int& n, const std::string& s) {
    ++selfCalls;
    EXPECT_EQ(n, 1);
    EXPECT_EQ(s, "one");
    EXPECT_TRUE(changed.RemoveObserver(self));
  });
  changed.AddObserver([&](const int&, const std::string&) { ++otherCalls; });
  changed.Notify(1, "one");
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(otherCalls, 1);
  EXPECT_EQ(changed.GetObserverCount(), 1u);
  changed.Notify(2, "two");
  EXPECT_EQ(selfCalls, 1);
  EXPECT_EQ(otherCalls, 2);
  EXPECT_FALSE(changed.RemoveObserver(self));
}

TEST(Observable, ObserversAddedDuringNotifyRunFromTheNextNotify) {
  Observable<int> event;
  std::vector<int> seen;
  bool added = false;
  event.AddObserver([&](const int& n) {
    seen.push_back(n);
    if (!added) {
      added = true;
      event.AddObserver([&](const int& m) { seen.push_back(100 + m); });
      // Nested notification with an observer list that changed under it.
      if (n == 1) event.Notify(2);
    }
  });
  event.Notify(1);
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 102}));
  seen.clear();
  event.Notify(3);
  EXPECT_EQ(seen.size(), 2u);
}

TEST(Observable, ConcurrentNotifyAndChanges) {
  Observable<int> event;
  std::atomic<long> sum{0};
  event.AddObserver([&](const int& n) { sum += n; });
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        auto token = event.AddObserver([](const int&) {});
        event.Notify(1);
        EXPECT_TRUE(event.RemoveObserver(token));
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(sum.load(), 6000);
  EXPECT_EQ(event.GetObserverCount(), 1u);
}
