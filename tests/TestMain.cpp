#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    // Death tests fork a process that has worker threads: re-execute instead. Under a user-mode
    // emulator the binary cannot re-execute itself, and GTEST_DEATH_TEST_STYLE=fast says so.
    if (std::getenv("GTEST_DEATH_TEST_STYLE") == nullptr) GTEST_FLAG_SET(death_test_style, "threadsafe");
    return RUN_ALL_TESTS();
}
