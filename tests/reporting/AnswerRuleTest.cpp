#include <gtest/gtest.h>

#include "events/AnswerRule.h"

namespace NorvAnalytic {
namespace {

TEST(AnswerRule, OnlyRefusedFirstSendsAreKeptAndOnlySteeringOrLoggedAnswersAreRead) {
    struct Keep {
        long status;
        bool isSavedEvent, kept;
    };
    for (const Keep row : {Keep{200, false, false}, Keep{500, false, true}, Keep{0, false, true},
                           Keep{201, false, true}, Keep{500, true, false}}) {
        EXPECT_EQ(AnswerRule::keeps(row.status, row.isSavedEvent), row.kept) << row.status;
    }
    struct Read {
        Text typeId;
        std::int64_t logLevel;
        bool isEnabled, read;
    };
    for (const Read& row : {Read{"2", 0, false, true}, Read{"7", 0, true, false},
                            Read{"7", 1, true, true}, Read{"7", 3, true, true},
                            Read{"7", 4, true, false}, Read{"7", 2, false, false},
                            Read{std::nullopt, 1, true, true}}) {
        EXPECT_EQ(AnswerRule::reads(row.typeId, row.logLevel, row.isEnabled), row.read)
            << row.typeId.value_or("nil") << " " << row.logLevel;
    }
}

}  // namespace
}  // namespace NorvAnalytic
