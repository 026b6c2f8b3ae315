// Workers that die or never end: what is told of them, and that the others' results are all there.
#include "sweep/workers.h"

#include <csignal>
#include <cstdlib>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

namespace fixture {

TEST(Workers, AreEndedWhereTheyDoNotEnd) {
    for (const unsigned workers : {1u, 3u}) {
        std::vector<std::string> results(6);
        const JobPlan plan{.count = results.size(),
                           .workers = workers,
                           .case_seconds = 1,
                           .died = [](std::size_t n, const std::string &at, const std::string &reason) {
                               return fmt::format("{} at {}: {}", n, at, reason);
                           }};
        const auto work = [](std::size_t n, JobNotes &notes) {
            notes.at("early", 0);
            notes.at(fmt::format("case {}", n), 0);
            for (volatile bool endless = n == 1; endless;) {
            }
            if (n == 2) std::_Exit(7);
            if (n == 4) kill(getpid(), SIGKILL);
            return fmt::format("{} is done", n);
        };
        RunJobs(plan, work, [&](std::size_t n, const std::string &text) { results[n] = text; });
        EXPECT_EQ(results,
                  (std::vector<std::string>{"0 is done", "1 at case 1: no end after 1 seconds of processor time",
                                            "2 at case 2: status 7", "3 is done", "4 at case 4: Killed", "5 is done"}));
    }
}

TEST(Workers, ACaseByItselfIsEndedToo) {
    const auto loop = [] {
        const CaseLimit limit("a/b:1t", 1);
        for (volatile bool endless = true; endless;) {
        }
    };
    EXPECT_EXIT(loop(), testing::KilledBySignal(SIGXCPU),
                "^fixture: a/b:1t: no end after 1 seconds of processor time\n$");
}

} // namespace fixture
