#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <locale>

// NORV_TEST_LOCALE runs a suite as a desktop host runs: with that locale in force for C and C++
// (every Qt application sets the C one from the environment at start-up).
int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (const char* name = std::getenv("NORV_TEST_LOCALE")) {
        if (std::setlocale(LC_ALL, name) == nullptr) {
            std::fprintf(stderr, "NORV_TEST_LOCALE: locale %s is not installed\n", name);
            return 1;
        }
        std::locale::global(std::locale(name));
    }
    return RUN_ALL_TESTS();
}
