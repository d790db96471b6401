#include <gtest/gtest.h>

#include <cstdlib>
#include <locale>

// NORV_TEST_LOCALE runs a suite as a desktop host runs: with that locale in force for C and C++
// (every Qt application sets the C one from the environment at start-up). A locale that is not
// installed stops the suite here.
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (const char* name = std::getenv("NORV_TEST_LOCALE")) {
        std::locale::global(std::locale(name));
    }
    return RUN_ALL_TESTS();
}
