// Handing out pieces of work to threads.
#include "model/team.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "model/threads.h"

namespace qwen35 {
namespace {

using orbtest::ThreadCount;

// How often each piece of one job ran. Plain integers: a piece belongs to one thread, and forEach()
// returns after all of them.
std::vector<int> runsOf(Team& team, size_t pieces) {
  std::vector<int> runs(pieces, 0);
  team.forEach(pieces, [&](size_t piece, size_t) { ++runs[piece]; });
  return runs;
}

class TeamTest : public testing::TestWithParam<int> {
 protected:
  const ThreadCount threads_{GetParam()};
  Team team_;
};
INSTANTIATE_TEST_SUITE_P(Threads, TeamTest, testing::Values(1, 2, 3, 7, 100),
                         testing::PrintToStringParamName());

TEST_P(TeamTest, RunsEveryPieceOnceOutsideOfARun) {
  for (const size_t pieces : {0, 1, 2, 3, 6, 7, 8, 63, 64, 65, 1000}) {
    EXPECT_EQ(runsOf(team_, pieces), std::vector<int>(pieces, 1));
  }
}

TEST_P(TeamTest, RunsEveryPieceOfManyJobsOnceInsideOfARun) {
  size_t wrong = 0;
  team_.run([&] {
    for (size_t job = 0; job < 3000; ++job) {
      const size_t pieces = job * 7919 % 61;
      if (runsOf(team_, pieces) != std::vector<int>(pieces, 1)) ++wrong;
    }
  });
  EXPECT_EQ(wrong, 0u);
}

TEST_P(TeamTest, AJobSeesWhatTheOneBeforeItWrote) {
  std::vector<int> values(500, 0);
  team_.run([&] {
    for (int job = 0; job < 200; ++job) {
      // Shifted by one, so that neighbours are mostly written by the same thread, some by another.
      std::vector<int> next(values.size());
      team_.forEach(values.size(),
                    [&](size_t i, size_t) { next[i] = values[(i + 1) % values.size()] + 1; });
      values = next;
    }
  });
  EXPECT_EQ(values, std::vector<int>(500, 200));
}

TEST_P(TeamTest, TheNumberOfTheThreadIsItsOwnWhileAJobRuns) {
  // Plain counters, one a thread: lost counts would mean that two threads had the same number.
  std::vector<int> counts(Team::kMaxThreads, 0);
  team_.run([&] {
    for (int job = 0; job < 200; ++job) {
      team_.forEach(50, [&](size_t, size_t thread) { ++counts.at(thread); });
    }
  });
  int sum = 0;
  for (size_t t = 0; t < counts.size(); ++t) {
    sum += counts[t];
    if (t >= static_cast<size_t>(GetParam())) {
      EXPECT_EQ(counts[t], 0) << t;
    }
  }
  EXPECT_EQ(sum, 200 * 50);
}

TEST_P(TeamTest, WaitsForASlowPiece) {
  team_.run([&] {
    for (const size_t slow : {0, 3, 7}) {
      std::vector<int> runs(8, 0);
      team_.forEach(8, [&](size_t piece, size_t) {
        if (piece == slow) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ++runs[piece];
      });
      EXPECT_EQ(runs, std::vector<int>(8, 1)) << slow;
    }
  });
}

TEST_P(TeamTest, ALongSerialStepBetweenJobsIsHarmless) {
  team_.run([&] {
    for (int i = 0; i < 3; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));  // the others fall asleep
      EXPECT_EQ(runsOf(team_, 20), std::vector<int>(20, 1));
    }
  });
}

TEST_P(TeamTest, ARunInsideOfARunJustCallsItsBody) {
  int calls = 0;
  team_.run([&] {
    team_.run([&] {
      ++calls;
      EXPECT_EQ(runsOf(team_, 30), std::vector<int>(30, 1));
    });
    EXPECT_EQ(runsOf(team_, 30), std::vector<int>(30, 1));
  });
  EXPECT_EQ(calls, 1);
}

TEST_P(TeamTest, TheBodyOfARunStaysOnItsThread) {
  const std::thread::id self = std::this_thread::get_id();
  std::thread::id inside;
  team_.run([&] { inside = std::this_thread::get_id(); });
  EXPECT_EQ(inside, self);
}

TEST_P(TeamTest, WhatTheBodyThrowsLeavesTheRunAndTheTeamGoesOn) {
  EXPECT_THROW(team_.run([&] {
    (void)runsOf(team_, 10);
    throw std::runtime_error("out of memory");
  }),
               std::runtime_error);
  EXPECT_EQ(runsOf(team_, 50), std::vector<int>(50, 1));
  team_.run([&] { EXPECT_EQ(runsOf(team_, 50), std::vector<int>(50, 1)); });
}

TEST_P(TeamTest, TheNumberOfThreadsMayChangeBetweenRuns) {
  for (const int threads : {1, 4, 2, 5, 1}) {
    const ThreadCount scope(threads);
    EXPECT_EQ(runsOf(team_, 50), std::vector<int>(50, 1)) << threads;
    team_.run([&] { EXPECT_EQ(runsOf(team_, 50), std::vector<int>(50, 1)) << threads; });
  }
}

TEST(TeamsTest, TwoTeamsWorkAtTheSameTime) {
  const auto work = [](size_t& wrong) {
    const ThreadCount threads(2);
    Team team;
    for (int round = 0; round < 20; ++round) {
      team.run([&] {
        for (int job = 0; job < 100; ++job) {
          if (runsOf(team, 40) != std::vector<int>(40, 1)) ++wrong;
        }
      });
    }
  };
  size_t wrongA = 0;
  size_t wrongB = 0;
  std::thread other([&] { work(wrongA); });
  work(wrongB);
  other.join();
  EXPECT_EQ(wrongA, 0u);
  EXPECT_EQ(wrongB, 0u);
}

}  // namespace
}  // namespace qwen35
