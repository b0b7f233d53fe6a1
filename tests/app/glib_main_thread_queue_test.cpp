#include "app/glib_main_thread_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace qor {
namespace {

// Runs the default main context until `done` or a generous deadline.
bool iterateUntil(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    g_main_context_iteration(nullptr, false);
    std::this_thread::yield();
  }
  return true;
}

TEST(GLibMainThreadQueueTest, RunsEveryTaskOnTheMainLoopInPostingOrder) {
  auto queue = std::make_shared<GLibMainThreadQueue>();
  const auto mainThread = std::this_thread::get_id();
  constexpr int threads = 4;
  constexpr int perThread = 500;
  std::vector<std::vector<int>> seen(threads);  // touched only on the main thread
  std::atomic<int> ran{0};
  std::atomic<bool> wrongThread{false};

  std::vector<std::thread> posters;
  for (int t = 0; t < threads; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < perThread; ++i) {
        queue->post([&, t, i] {
          if (std::this_thread::get_id() != mainThread) wrongThread = true;
          seen[t].push_back(i);
          ++ran;
        });
      }
    });
  }
  for (auto& poster : posters) poster.join();
  EXPECT_EQ(ran, 0) << "nothing runs before the main loop does";

  ASSERT_TRUE(iterateUntil([&] { return ran == threads * perThread; }));
  EXPECT_FALSE(wrongThread);
  for (int t = 0; t < threads; ++t) {
    ASSERT_EQ(seen[t].size(), std::size_t(perThread));
    for (int i = 0; i < perThread; ++i) ASSERT_EQ(seen[t][i], i) << "thread " << t;
  }
}

TEST(GLibMainThreadQueueTest, TaskPostedByATaskRunsAfterThoseAlreadyWaiting) {
  GLibMainThreadQueue queue;
  std::vector<std::string> order;
  queue.post([&] {
    order.push_back("first");
    queue.post([&] { order.push_back("posted by first"); });
    EXPECT_EQ(order.size(), 1u) << "post never runs the task before returning";
  });
  queue.post([&] { order.push_back("second"); });
  ASSERT_TRUE(iterateUntil([&] { return order.size() == 3; }));
  EXPECT_EQ(order, (std::vector<std::string>{"first", "second", "posted by first"}));

  // An idle queue wakes again for the next post.
  queue.post([&] { order.push_back("later"); });
  ASSERT_TRUE(iterateUntil([&] { return order.size() == 4; }));
}

TEST(GLibMainThreadQueueTest, TasksPostedBeforeTheQueueGoesAwayStillRun) {
  std::atomic<int> ran{0};
  {
    GLibMainThreadQueue queue;
    queue.post([&] { ++ran; });
    queue.post([&] { ++ran; });
  }
  ASSERT_TRUE(iterateUntil([&] { return ran == 2; }));
}

}  // namespace
}  // namespace qor
