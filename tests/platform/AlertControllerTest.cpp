#include <NorvAnalytic/AlertController.h>
#include <NorvAnalytic/MainQueue.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/TestViewController.h"

namespace NorvAnalytic {
namespace {

using Testing::TestViewController;

struct HandlerRun {
    std::string actionTitle;
    bool onMainQueue = false;
    bool alertOnScreen = true;
};

std::shared_ptr<AlertController> updateAlert(std::vector<HandlerRun>& runs) {
    auto alert = AlertController::alertControllerWithTitle("New Update Available!", std::nullopt,
                                                           AlertControllerStyle::Alert);
    auto record = [&runs,
                   weakAlert = std::weak_ptr<AlertController>(alert)](const AlertAction& action) {
        runs.push_back(
            {action.title(), MainQueue::main().isCurrent(), weakAlert.lock()->isOnScreen()});
    };
    alert->addAction(AlertAction::actionWithTitle("Update", AlertActionStyle::Default, record));
    alert->addAction(AlertAction::actionWithTitle("Cancel", AlertActionStyle::Cancel, nullptr));
    return alert;
}

TEST(AlertControllerTest, TapDismissesThenRunsTheHandlerOnTheMainQueueBeforeReturning) {
    std::vector<HandlerRun> runs;
    auto alert = updateAlert(runs);
    auto screen = TestViewController::plain();
    screen->presentViewController(alert, true, nullptr);
    ASSERT_TRUE(alert->isOnScreen());
    ASSERT_TRUE(screen->presentedViewController());

    ASSERT_FALSE(MainQueue::main().isCurrent());
    alert->tapActionAtIndex(0);

    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].actionTitle, "Update");
    EXPECT_TRUE(runs[0].onMainQueue);
    EXPECT_FALSE(runs[0].alertOnScreen);
    EXPECT_FALSE(alert->isOnScreen());
    EXPECT_EQ(screen->presentedViewController(), nullptr);
}

TEST(AlertControllerTest, TapOnTheMainQueueRunsInline) {
    std::vector<HandlerRun> runs;
    auto alert = updateAlert(runs);
    alert->setOnScreen(true);

    MainQueue::main().sync([&] {
        alert->tapActionAtIndex(0);
        EXPECT_EQ(runs.size(), 1U);
    });
    EXPECT_FALSE(alert->isOnScreen());
}

TEST(AlertControllerTest, ActionWithoutHandlerOnlyDismissesAndOutOfRangeDoesNothing) {
    std::vector<HandlerRun> runs;
    auto alert = updateAlert(runs);
    alert->setOnScreen(true);

    alert->tapActionAtIndex(2);
    alert->tapActionAtIndex(static_cast<std::size_t>(-1));
    EXPECT_TRUE(alert->isOnScreen());
    EXPECT_TRUE(runs.empty());

    alert->tapActionAtIndex(1);
    EXPECT_FALSE(alert->isOnScreen());
    EXPECT_TRUE(runs.empty());
}

TEST(AlertControllerTest, HandlerMayPresentTheNextAlertFromTheSameScreen) {
    auto screen = TestViewController::plain();
    auto next = AlertController::alertControllerWithTitle("Next", std::nullopt,
                                                          AlertControllerStyle::Alert);
    auto first = AlertController::alertControllerWithTitle("First", std::nullopt,
                                                           AlertControllerStyle::Alert);
    first->addAction(AlertAction::actionWithTitle(
        "Update", AlertActionStyle::Default,
        [&](const AlertAction&) { screen->presentViewController(next, true, nullptr); }));
    screen->presentViewController(first, true, nullptr);

    first->tapActionAtIndex(0);

    EXPECT_FALSE(first->isOnScreen());
    EXPECT_TRUE(next->isOnScreen());
    auto shown = std::dynamic_pointer_cast<TestViewController>(screen->presentedViewController());
    ASSERT_TRUE(shown);
    EXPECT_EQ(shown->alert(), next);
    EXPECT_EQ(screen->presentedAlerts(),
              (std::vector<std::shared_ptr<AlertController>>{first, next}));
}

}  // namespace
}  // namespace NorvAnalytic
