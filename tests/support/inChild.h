// Bodies run in a forked child.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace support {

// Runs `body` in a forked child, which has to come to its end there without a failed expectation. One that hangs is
// ended by the alarm.
template <class Body>
void expectInChild(Body body) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(30);
        body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "wait status of the child";
}

}  // namespace support
