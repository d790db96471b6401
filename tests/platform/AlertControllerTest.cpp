#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/MainQueue.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace NorvAnalytic {
namespace {

TEST(AlertControllerTest, TapDismissesThenRunsTheHandlerOnTheMainQueueBeforeReturning) {
    auto alert = AlertController::alertControllerWithTitle("New Update Available!", std::nullopt,
                                                           AlertControllerStyle::Alert);
    std::vector<std::string> runs;  // written on the main queue, read after a tap returned
    alert->addAction(AlertAction::actionWithTitle(
        "Update", AlertActionStyle::Default, [&runs, shown = alert.get()](const AlertAction& a) {
            runs.push_back(a.title() + (MainQueue::main().isCurrent() ? " on queue" : "") +
                           (shown->isOnScreen() ? " on screen" : ""));
        }));
    alert->addAction(AlertAction::actionWithTitle("Cancel", AlertActionStyle::Cancel, nullptr));
    alert->setOnScreen(true);

    alert->tapActionAtIndex(2);
    EXPECT_TRUE(alert->isOnScreen());
    alert->tapActionAtIndex(1);
    EXPECT_FALSE(alert->isOnScreen());
    alert->setOnScreen(true);
    alert->tapActionAtIndex(0);
    EXPECT_FALSE(alert->isOnScreen());
    EXPECT_EQ(runs, std::vector<std::string>{"Update on queue"});
}

}  // namespace
}  // namespace NorvAnalytic
