#include "sweep/workers.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fmt/format.h>
#include <memory>
#include <new>
#include <poll.h>
#include <span>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fixture {

namespace {

// No job has this number: a worker that dies with it was between two jobs.
constexpr std::size_t kNothing = SIZE_MAX;

// Memory that the workers share with their parent. A worker writes its own progress alone.
struct Progress {
    // The parent reads these while the worker writes. The name may tear; it is only for a person, or for a dead worker.
    std::atomic<std::uint64_t> cases{0}, boots{0};
    std::atomic<std::size_t> job{kNothing};
    char at[160] = "";
};

struct Shared {
    std::atomic<std::size_t> next{0};
    std::atomic<std::size_t> done{0};
};

class SharedMemory {
public:
    explicit SharedMemory(unsigned workers) : bytes_(sizeof(Shared) + workers * sizeof(Progress)) {
        // Mapped before the workers fork, so that all see the same pages.
        place_ = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (place_ == MAP_FAILED) throw std::runtime_error("no memory to share with workers");
        shared_ = new (place_) Shared;
        progress_ = {new (static_cast<char *>(place_) + sizeof(Shared)) Progress[workers], workers};
    }
    ~SharedMemory() { munmap(place_, bytes_); }
    SharedMemory(const SharedMemory &) = delete;
    SharedMemory &operator=(const SharedMemory &) = delete;
    Shared &shared() { return *shared_; }
    std::span<Progress> progress() { return progress_; }

private:
    std::size_t bytes_;
    void *place_;
    Shared *shared_;
    std::span<Progress> progress_;
};

// Of this process's own time, so that a busy machine ends no case. Its signal ends the process; 0 seconds: never.
void EndAfter(unsigned seconds) {
    const itimerval limit{{0, 0}, {static_cast<time_t>(seconds), 0}};
    setitimer(ITIMER_PROF, &limit, nullptr);
}

std::string NoEnd(unsigned seconds) { return fmt::format("no end after {} seconds of processor time", seconds); }

// Made before the signal comes: its handler can make nothing.
std::string limit_message;

extern "C" void TellTheCase(int) {
    [[maybe_unused]] const ssize_t told = write(STDERR_FILENO, limit_message.data(), limit_message.size());
    // Not this one again: files are cleared away where a process has used up its time.
    std::raise(SIGXCPU);
}

class Notes : public JobNotes {
public:
    Notes(Progress &progress, unsigned case_seconds) : progress_(progress), case_seconds_(case_seconds) {}
    void at(const std::string &name, std::uint64_t boots) override {
        preparing(name);
        ++progress_.cases;
        progress_.boots += boots - std::min(boots, counted_);
        // A job gives its running total; what the parent reads is the sum over all jobs of this worker.
        counted_ = boots;
    }
    void preparing(const std::string &name) override {
        const std::size_t length = std::min(name.size(), sizeof progress_.at - 1);
        std::memcpy(progress_.at, name.data(), length);
        progress_.at[length] = 0;
        EndAfter(case_seconds_);
    }
    void begin() { counted_ = 0; }

private:
    Progress &progress_;
    const unsigned case_seconds_;
    std::uint64_t counted_ = 0;
};

void Write(int pipe, const std::string &text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(pipe, text.data() + done, text.size() - done);
        // The parent is gone: nobody waits for the rest. _exit, since the parent's buffers and files are not ours to
        // flush.
        if (count < 0 && errno != EINTR) _exit(1);
        if (count > 0) done += static_cast<std::size_t>(count);
    }
}

void Work(SharedMemory &memory, Progress &progress, const JobPlan &plan,
          const std::function<std::string(std::size_t, JobNotes &)> &work, int pipe) {
    Notes notes(progress, plan.case_seconds);
    // Whoever is free takes the next job. Results depend on the job's number alone, so it does not matter who.
    for (std::size_t n; (n = memory.shared().next++) < plan.count;) {
        // Noted before the work begins, so that the parent knows what a dead worker was at.
        progress.job = n;
        notes.begin();
        notes.preparing("");
        Write(pipe, fmt::format("{} {}\n", n, work(n, notes)));
        progress.job = kNothing;
        ++memory.shared().done;
    }
}

struct Worker {
    pid_t process = -1;
    int pipe = -1;
    std::string unread;
};

Worker Start(const std::function<void(int pipe)> &work) {
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("no pipe for a worker");
    Worker worker;
    worker.process = fork();
    if (worker.process < 0) throw std::runtime_error("no worker can be started");
    if (worker.process == 0) {
        close(ends[0]);
        work(ends[1]);
        // Not exit(): a forked test program would run its own ending a second time.
        _exit(0);
    }
    // The parent's copy of the writing end; the pipe would never report the worker's death otherwise.
    close(ends[1]);
    worker.pipe = ends[0];
    return worker;
}

// Takes what a worker has written; false at its end.
bool Read(Worker &worker, const std::function<void(std::size_t, const std::string &)> &take) {
    char buffer[65536];
    const ssize_t count = read(worker.pipe, buffer, sizeof buffer);
    // The end of the pipe is the end of the worker, in whatever way it came.
    if (count <= 0) return false;
    // A pipe keeps no message boundaries: a line may come in pieces, or several at once.
    worker.unread.append(buffer, static_cast<std::size_t>(count));
    for (std::size_t end; (end = worker.unread.find('\n')) != std::string::npos; worker.unread.erase(0, end + 1)) {
        std::size_t digits = 0;
        const std::size_t n = std::stoul(worker.unread, &digits);
        take(n, worker.unread.substr(digits + 1, end - digits - 1));
    }
    return true;
}

std::string ReasonOf(int status, unsigned case_seconds) {
    if (!WIFSIGNALED(status)) return fmt::format("status {}", WEXITSTATUS(status));
    if (WTERMSIG(status) == SIGPROF) return NoEnd(case_seconds);
    return strsignal(WTERMSIG(status));
}

} // namespace

ForkedCopy::ForkedCopy(unsigned seconds) : seconds_(seconds) {
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("no pipe for a copy of the process");
    process_ = fork();
    if (process_ < 0) throw std::runtime_error("no copy of the process can be made");
    close(ends[process_ != 0]);
    pipe_ = ends[process_ == 0];
    if (process_ != 0) return;
    // A copy's end is told by whoever waits for it.
    std::signal(SIGPROF, SIG_DFL);
    EndAfter(seconds_);
}

void ForkedCopy::finish(const std::string &text) {
    Write(pipe_, text);
    _exit(0);
}

std::pair<std::string, std::string> ForkedCopy::wait() {
    std::string text;
    char buffer[4096];
    for (ssize_t count; (count = read(pipe_, buffer, sizeof buffer)) != 0;) {
        if (count < 0 && errno != EINTR) break;
        if (count > 0) text.append(buffer, static_cast<std::size_t>(count));
    }
    close(pipe_);
    int status = 0;
    waitpid(process_, &status, 0);
    return {text, status == 0 ? "" : ReasonOf(status, seconds_)};
}

CaseLimit::CaseLimit(const std::string &name, unsigned seconds) {
    limit_message = fmt::format("fixture: {}: {}\n", name, NoEnd(seconds));
    std::signal(SIGPROF, TellTheCase);
    EndAfter(seconds);
}

CaseLimit::~CaseLimit() {
    EndAfter(0);
    std::signal(SIGPROF, SIG_DFL);
}

double ProcessorSeconds() {
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    rusage copies{}; // those that have ended
    getrusage(RUSAGE_CHILDREN, &copies);
    const auto seconds = [](const auto &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9 + seconds(copies.ru_utime) +
           seconds(copies.ru_stime);
}

double RunJobs(const JobPlan &plan, const std::function<std::string(std::size_t, JobNotes &)> &work,
               const std::function<void(std::size_t, const std::string &)> &take) {
    const auto start = std::chrono::steady_clock::now();
    assert(plan.workers > 0 && "without a worker no job is ever done, and the result looks complete");
    SharedMemory memory(plan.workers);
    std::vector<Worker> workers;
    const auto launch = [&](unsigned n) {
        return Start([&, n](int pipe) { Work(memory, memory.progress()[n], plan, work, pipe); });
    };
    for (unsigned n = 0; n < plan.workers; ++n) workers.push_back(launch(n));
    // The job that a dead worker was at is given up, and another worker takes its place.
    const auto finish = [&](unsigned n) {
        Progress &progress = memory.progress()[n];
        close(workers[n].pipe);
        workers[n].pipe = -1;
        int status = 0;
        waitpid(workers[n].process, &status, 0);
        // Between two jobs nothing is lost. Within one, its findings are: say so, and go on with the others.
        if (status == 0 || progress.job == kNothing) return false;
        const std::string reason = ReasonOf(status, plan.case_seconds);
        if (plan.died) take(progress.job, plan.died(progress.job, progress.at, reason));
        // Counted as done, or the progress would never reach its end.
        ++memory.shared().done;
        progress.job = kNothing;
        workers[n] = launch(n);
        return true;
    };
    JobProgress now{plan.count, 0, 0, 0, 0};
    std::vector<pollfd> waiting(plan.workers);
    for (std::size_t open = workers.size(); open > 0;) {
        for (unsigned n = 0; n < plan.workers; ++n) waiting[n] = {workers[n].pipe, POLLIN, 0};
        constexpr int kTick = 200; // ms
        // Returns without news too, so that the progress goes on during a long job. The pipe of a finished worker is
        // -1, which poll passes over.
        poll(waiting.data(), waiting.size(), kTick);
        for (unsigned n = 0; n < plan.workers; ++n)
            if (waiting[n].revents && !Read(workers[n], take) && !finish(n)) --open;
        now.jobs_done = memory.shared().done;
        now.cases = now.boots = 0;
        for (const Progress &progress : memory.progress()) {
            now.cases += progress.cases;
            now.boots += progress.boots;
        }
        now.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (plan.progress) plan.progress(now);
    }
    return now.seconds;
}

} // namespace fixture
