// Work in many processes: jobs by number, each done by whichever worker is free, with a text that comes of it.
//
// RunJobs calls the work with a number and hands its text on with the same number.
//
// What comes of a job depends on its number alone, so the results are the same for any number of workers. A job whose
// process dies, or whose case takes too long, gives what `died` makes of it, and the others go on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace fixture {

// What a worker tells while it works.
class JobNotes {
public:
    virtual ~JobNotes() = default;
    // The case that is begun, by name, and the boots that the job has made so far.
    virtual void at(const std::string &name, std::uint64_t boots) = 0;
    // Work before the first case, by the name that it is to be known by.
    virtual void preparing(const std::string &) {}
};

struct JobProgress {
    std::uint64_t jobs, jobs_done, cases, boots;
    double seconds;
};

// A program that loops natively and touches no register stops for nobody: its process is ended after so many seconds of
// processor time. Cases take seconds.
inline constexpr unsigned kCaseSeconds = 600;

struct JobPlan {
    std::size_t count;
    unsigned workers = 1;
    unsigned case_seconds = kCaseSeconds;
    std::function<std::string(std::size_t n, const std::string &at, const std::string &reason)> died = {};
    std::function<void(const JobProgress &)> progress = {}; // called now and then
};

// Returns the seconds that it took. Throws std::runtime_error where no worker can be started.
double RunJobs(const JobPlan &plan, const std::function<std::string(std::size_t n, JobNotes &notes)> &work,
               const std::function<void(std::size_t n, const std::string &text)> &take);

// A copy of this process that works on from here, and hands a text back:
//
//   ForkedCopy copy;
//   if (copy.is_copy()) copy.finish("done");    never returns
//   const auto [text, death] = copy.wait();     of a copy that died: why
//
// It has so many seconds of processor time.
class ForkedCopy {
public:
    explicit ForkedCopy(unsigned seconds = 60);
    ForkedCopy(const ForkedCopy &) = delete;
    ForkedCopy &operator=(const ForkedCopy &) = delete;
    bool is_copy() const { return process_ == 0; }
    [[noreturn]] void finish(const std::string &text);
    std::pair<std::string, std::string> wait();

private:
    int process_ = -1;
    int pipe_ = -1;
    unsigned seconds_;
};

// Ends this process where one case takes too long in it, and names the case on standard error. Unfinished files go, as
// with any signal that ends a process. One at a time; destruction lifts it.
//
//   const CaseLimit limit("nand-update/running-erased:12t");
class CaseLimit {
public:
    explicit CaseLimit(const std::string &name, unsigned seconds = kCaseSeconds);
    ~CaseLimit();
    CaseLimit(const CaseLimit &) = delete;
    CaseLimit &operator=(const CaseLimit &) = delete;
};

// Of this process so far, and of its copies that have ended. Two processes on one core do not take twice as many.
double ProcessorSeconds();

} // namespace fixture
