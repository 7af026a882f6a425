// fail-each-op.h: fails every file operation of a scenario in turn. The scenario runs once
// to count the operations that pass through the fault file system, then once per operation
// with that one failing; after each failure the test checks that nothing was lost, and a
// run without faults must then reach the goal. Used on the commit, patch and receive paths.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>

#include "support/fault-fs.h"

namespace tbtest {

struct FaultScenario {
    // Sets up a fresh start with the real file system; nothing here is counted.
    std::function<void()> prepare;
    // The path under test, run with the fault file system installed. Its result, negative
    // when it reports a failure.
    std::function<int()> act;
    // After an act that met its fault, with the real file system back: checks that nothing
    // was lost, given what act returned.
    std::function<void(int result)> after_fault;
    // The next run, without faults, after any act: recovers and checks the goal was reached.
    std::function<void()> recover;
};

// Runs `scenario` cleanly to count the operations of act (N), then N more times, the i-th
// time failing operation i with `err`. Returns N.
inline int FailEachOperation(const FaultScenario& scenario, int err = EIO) {
    FaultFileSystem faults;
    auto run = [&](int nth, int& result) {
        scenario.prepare();
        ScopedFileSystem use(faults);
        const int before = faults.TotalCalls();
        const int failed = faults.Failed();
        if (nth > 0) faults.FailNthOfAll(nth, err);
        result = scenario.act();
        faults.HealAll();
        if (nth > 0) {
            EXPECT_EQ(faults.Failed() - failed, 1) << "the fault was never reached";
        }
        return faults.TotalCalls() - before;
    };
    int result = 0;
    const int count = run(0, result);
    EXPECT_GE(result, 0) << "the scenario fails without any fault";
    scenario.recover();
    for (int nth = 1; nth <= count && !::testing::Test::HasFatalFailure(); ++nth) {
        SCOPED_TRACE("failing operation " + std::to_string(nth) + " of " + std::to_string(count));
        run(nth, result);
        scenario.after_fault(result);
        scenario.recover();
    }
    std::printf("[ fail-each ] %d file operations, each failed once in turn\n", count);
    return count;
}

}  // namespace tbtest
