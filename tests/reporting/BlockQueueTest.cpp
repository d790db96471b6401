#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>

#include "reporting/BlockQueue.h"

namespace NorvAnalytic {
namespace {

// Runs of pushes and pops that cross block boundaries, empty the queue in the middle of a
// block and at its end, and leave values in it at destruction (the sanitizer builds see a
// value lost or destroyed twice). A deque says what must come out.
TEST(BlockQueue, KeepsOrderAcrossBlocksAndReusedBlocks) {
    struct Run {
        int pushes, pops;
    };
    for (const std::vector<Run>& runs : std::vector<std::vector<Run>>{
             {{1, 1}, {1, 1}},
             {{5000, 4999}, {3, 4}, {70'000, 10'000}},
             // A block holds 8,192 pointers: full, drained but one, then reused as the spare.
             {{8192, 8191}, {1, 1}, {8193, 100}, {0, 8000}},
         }) {
        BlockQueue<std::unique_ptr<std::string>> queue;
        std::deque<std::string> model;
        int next = 0;
        for (const Run run : runs) {
            for (int push = 0; push < run.pushes; ++push, ++next) {
                queue.push_back(std::make_unique<std::string>(std::to_string(next)));
                model.push_back(std::to_string(next));
            }
            for (int pop = 0; pop < run.pops; ++pop) {
                ASSERT_EQ(*queue.front(), model.front());
                queue.pop_front();
                model.pop_front();
            }
            ASSERT_EQ(queue.size(), model.size());
        }
    }
}

}  // namespace
}  // namespace NorvAnalytic
