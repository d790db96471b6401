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

// Byte runs longer than a block, cut elsewhere when taken out, some only dropped: what comes
// out is what went in, in order.
TEST(BlockQueue, CarriesByteRunsAcrossBlocks) {
    constexpr std::size_t kBlock = 64 * 1024;
    struct Step {
        std::size_t append, pop;
        bool keep;
    };
    BlockQueue<char> queue;
    std::string model;
    std::size_t next = 0;
    for (const Step step :
         {Step{10, 3, true}, Step{kBlock - 7, kBlock, true},
          Step{3 * kBlock + 5, kBlock + 1, false}, Step{0, kBlock, true}, Step{1, 5, true}}) {
        std::string run(step.append, '\0');
        for (char& byte : run) {
            byte = static_cast<char>('a' + next++ % 26);
        }
        queue.append(run);
        model += run;
        std::string out;
        out.reserve(step.pop);
        queue.popFront(step.pop, step.keep ? &out : nullptr);
        EXPECT_EQ(out, step.keep ? model.substr(0, step.pop) : "");
        model.erase(0, step.pop);
        ASSERT_EQ(queue.size(), model.size());
    }
}

}  // namespace
}  // namespace NorvAnalytic
