#pragma once

#include <map>
#include <string>

// What is settled once per process (limits, the log) needs a new process for each try. A test runs
// itself again in a child and sees there that it is the child:
//
//     TEST(Limit, IsTakenFromTheSettings) {
//         if (InChildProcess()) {
//             EXPECT_EQ(...);
//             return;
//         }
//         const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_...", "1"}});
//         EXPECT_TRUE(child.passed) << child.output;
//     }

struct ChildOutcome_t {
    bool passed;              // the child's expectations held and it ended normally
    std::string output;       // what it printed, the test's own words included
    std::string errorOutput;  // what it wrote to the error output
};

bool InChildProcess();

// Runs the current test alone in a new process that has `environment`, ours, and of the
// DISKSTREAM_ variables none but those of `environment`.
ChildOutcome_t RunThisTestInChild(const std::map<std::string, std::string>& environment);
