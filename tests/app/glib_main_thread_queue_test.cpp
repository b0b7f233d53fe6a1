#include "app/glib_main_thread_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

namespace qor {
namespace {

// Each thread's tasks run on the main loop in the order it posted them; a task's own post
// runs after the tasks already waiting; a queue that has gone still runs what it was given.
TEST(GLibMainThreadQueueTest, RunsTasksOnTheMainLoopInPostingOrder) {
  GLibMainThreadQueue queue;
  const auto mainThread = std::this_thread::get_id();
  std::vector<int> order;  // touched on the main thread only: -1 for a task run elsewhere
  std::atomic<int> ran{0};
  const auto note = [&](int code) {
    order.push_back(std::this_thread::get_id() == mainThread ? code : -1), ++ran;
  };
  std::vector<std::jthread> posters;
  for (int t = 0; t < 3; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) queue.post([&, t, i] { note(t * 1000 + i); });
    });
  }
  posters.clear();  // joins them
  queue.post([&] { queue.post([&] { note(5002); }), note(5000); });
  queue.post([&] { note(5001); });
  GLibMainThreadQueue().post([&] { ++ran; });
  EXPECT_EQ(ran, 0) << "nothing runs before the main loop does";
  for (int turns = 0; ran < 904 && turns < 1000000; ++turns) g_main_context_iteration(nullptr, 0);
  ASSERT_EQ(ran, 904);
  int next[] = {0, 1000, 2000};
  for (int i = 0; i < 900; ++i) ASSERT_EQ(order[i], next[std::clamp(order[i], 0, 2999) / 1000]++);
  EXPECT_EQ(std::vector(order.end() - 3, order.end()), (std::vector{5000, 5001, 5002}));
}

}  // namespace
}  // namespace qor
