// Interlocked helpers under contention from several threads, and Sleep with
// its yield, its 32-bit wrap and its bounded "infinite" value.
#include <algorithm>
#include <chrono>
#include <climits>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "ambit/portable.h"
#include "gtest/gtest.h"
#include "support/forked_child.h"
#include "support/handshake.h"

namespace {

constexpr int kThreads = 4;

// Runs `work(index)` on kThreads threads that all start together: each
// reports ready, then waits (bounded) for the common start signal.
void RunTogether(const std::function<void(int)>& work) {
  std::promise<void> start;
  std::shared_future<void> go = start.get_future().share();
  std::vector<Handshake> ready(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      ready[t].Signal();
      if (go.wait_for(std::chrono::seconds(10)) != std::future_status::ready) return;
      work(t);
    });
  for (int t = 0; t < kThreads; ++t) EXPECT_TRUE(ready[t].WaitFor(5000)) << "thread " << t;
  start.set_value();
  for (auto& thread : threads) thread.join();
}

TEST(InterlockedTest, IncrementAndDecrementReturnTheNewValue) {
  long volatile value = 5;
  EXPECT_EQ(6, CPortable::InterlockedIncrement(&value));
  EXPECT_EQ(6, value);
  EXPECT_EQ(5, CPortable::InterlockedDecrement(&value));
  EXPECT_EQ(4, CPortable::InterlockedDecrement(&value));
  EXPECT_EQ(4, value);
  value = 0;
  EXPECT_EQ(-1, CPortable::InterlockedDecrement(&value));
}

TEST(InterlockedTest, IncrementWrapsAtTheLimitOfLong) {
  long volatile value = LONG_MAX;
  EXPECT_EQ(LONG_MIN, CPortable::InterlockedIncrement(&value));
  EXPECT_EQ(LONG_MAX, CPortable::InterlockedDecrement(&value));
}

TEST(InterlockedTest, ExchangeReturnsTheOldValueAndStoresTheNew) {
  long value = 7;
  EXPECT_EQ(7, CPortable::InterlockedExchange(&value, -3));
  EXPECT_EQ(-3, value);
  EXPECT_EQ(-3, CPortable::InterlockedExchange(&value, -3));
  EXPECT_EQ(-3, value);
}

TEST(InterlockedTest, CompareExchangeSwapsOnlyOnAMatch) {
  long volatile value = 10;
  EXPECT_EQ(10, CPortable::InterlockedCompareExchange(&value, 20, 10));
  EXPECT_EQ(20, value);
  EXPECT_EQ(20, CPortable::InterlockedCompareExchange(&value, 30, 10));
  EXPECT_EQ(20, value);
  EXPECT_EQ(20, CPortable::InterlockedCompareExchange(&value, 20, 20));
  EXPECT_EQ(20, value);
}

TEST(InterlockedContentionTest, EveryIncrementReturnsADistinctNewValue) {
  constexpr int kEach = 50000;
  long volatile counter = 0;
  std::vector<std::vector<long>> seen(kThreads);
  RunTogether([&](int t) {
    seen[t].reserve(kEach);
    for (int i = 0; i < kEach; ++i) seen[t].push_back(CPortable::InterlockedIncrement(&counter));
  });
  EXPECT_EQ(kThreads * kEach, counter);
  std::vector<long> all;
  for (auto& s : seen) all.insert(all.end(), s.begin(), s.end());
  std::sort(all.begin(), all.end());
  ASSERT_EQ(static_cast<size_t>(kThreads * kEach), all.size());
  for (size_t i = 0; i < all.size(); ++i)
    ASSERT_EQ(static_cast<long>(i + 1), all[i]) << "values returned twice or skipped";
}

TEST(InterlockedContentionTest, ConcurrentIncrementsAndDecrementsCancelExactly) {
  constexpr int kEach = 100000;
  long volatile counter = 1000;
  RunTogether([&](int t) {
    for (int i = 0; i < kEach; ++i) {
      if (t % 2 == 0)
        CPortable::InterlockedIncrement(&counter);
      else
        CPortable::InterlockedDecrement(&counter);
    }
  });
  EXPECT_EQ(1000, counter);
}

TEST(InterlockedContentionTest, CompareExchangeLoopsCountExactly) {
  constexpr int kEach = 20000;
  long volatile counter = 0;
  RunTogether([&](int) {
    for (int i = 0; i < kEach; ++i) {
      long old;
      do old = CPortable::InterlockedCompareExchange(&counter, 0, LONG_MIN);  // a read
      while (CPortable::InterlockedCompareExchange(&counter, old + 1, old) != old);
    }
  });
  EXPECT_EQ(kThreads * kEach, counter);
}

TEST(InterlockedContentionTest, ExchangeHandsEveryStoredValueBackExactlyOnce) {
  constexpr int kEach = 20000;
  long slot = 0;
  std::vector<std::vector<long>> returned(kThreads);
  RunTogether([&](int t) {
    returned[t].reserve(kEach);
    for (int i = 0; i < kEach; ++i)
      returned[t].push_back(CPortable::InterlockedExchange(&slot, t * kEach + i + 1));
  });
  // Each value stored is either returned to exactly one caller or still in
  // the slot; the initial 0 is returned once.
  std::vector<long> all{slot};
  for (auto& r : returned) all.insert(all.end(), r.begin(), r.end());
  std::sort(all.begin(), all.end());
  ASSERT_EQ(static_cast<size_t>(kThreads * kEach + 1), all.size());
  for (size_t i = 0; i < all.size(); ++i)
    ASSERT_EQ(static_cast<long>(i), all[i]) << "a value was lost or duplicated";
}

TEST(InterlockedContentionTest, CompareExchangeAndExchangeExcludeEachOther) {
  // A spin lock taken with CompareExchange and released with Exchange
  // guards a plain counter; the count is exact only if the two operations
  // never interleave with each other.
  constexpr int kEach = 20000;
  long volatile lock = 0;
  long plain = 0;
  RunTogether([&](int) {
    for (int i = 0; i < kEach; ++i) {
      while (CPortable::InterlockedCompareExchange(&lock, 1, 0) != 0) std::this_thread::yield();
      plain = plain + 1;
      EXPECT_EQ(1, CPortable::InterlockedExchange(const_cast<long*>(&lock), 0));
    }
  });
  EXPECT_EQ(kThreads * kEach, plain);
  EXPECT_EQ(0, lock);
}

// Sleep

using Clock = std::chrono::steady_clock;

long long MicrosecondsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
}

TEST(SleepTest, ZeroReturnsAtOnce) {
  const auto start = Clock::now();
  CPortable::Sleep(0);
  EXPECT_LT(MicrosecondsSince(start), 200000);
  const auto loop = Clock::now();
  for (int i = 0; i < 100; ++i) CPortable::Sleep(0);
  EXPECT_LT(MicrosecondsSince(loop), 2000000);
}

TEST(SleepTest, SleepsAtLeastTheGivenMilliseconds) {
  auto start = Clock::now();
  CPortable::Sleep(20);
  EXPECT_GE(MicrosecondsSince(start), 20000);
  start = Clock::now();
  CPortable::Sleep(1);
  EXPECT_GE(MicrosecondsSince(start), 1000);
}

TEST(SleepTest, MillisecondsAbove4294967WrapInThirtyTwoBits) {
  // 4294968 * 1000 is 4294968000, which is 704 in 32 bits: the sleep lasts
  // 704 microseconds. It runs in a child so that a sleep that does not
  // wrap (about 50 days) is killed instead of hanging the suite.
  ForkedChild child([] {
    const auto start = Clock::now();
    CPortable::Sleep(4294968);
    const long long us = MicrosecondsSince(start);
    if (us < 704) return 2;       // did not sleep the wrapped 704 us
    if (us >= 1000000) return 3;  // not "quickly"
    return 0;
  });
  ASSERT_TRUE(child.Started());
  EXPECT_EQ(0, child.Join(5000)) << "-1: still asleep after 5 s";
}

// Values whose microseconds stay huge: the child is still asleep after
// 200 ms and is killed. All-ones is not endless but 0xFFFFFFFF us (about
// 71.6 minutes); 4294967 is the largest value that does not wrap.
void ExpectStillAsleepAfter200Ms(unsigned long ms) {
  Handshake sleeping;
  ForkedChild child([&] {
    sleeping.Signal();
    CPortable::Sleep(ms);
    return 0;
  });
  ASSERT_TRUE(child.Started());
  ASSERT_TRUE(sleeping.WaitFor(5000)) << "child never started";
  EXPECT_EQ(-1, child.Join(200)) << "Sleep(" << ms << ") returned within 200 ms";
}

TEST(SleepTest, AllOnesSleepsLongRatherThanReturning) {
  ExpectStillAsleepAfter200Ms(0xFFFFFFFFUL);
}

TEST(SleepTest, LargestValueThatDoesNotWrapSleepsLong) {
  ExpectStillAsleepAfter200Ms(4294967UL);
}

}  // namespace
