#include "sweep/run.h"

#include "sweep/variant.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fixture {

using nlohmann::json;

NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Finding, id, processor, outcome, detail)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Tally, variants, operations, cuts, cases, boots, checked, compared, foretold,
                                   outcomes, holes, found, findings)

namespace {

// What a worker tells while it works, in memory that it shares with its parent.
struct Board {
    std::atomic<std::uint64_t> units, cases, boots;
    char at[160]; // the case that it is at
};

struct Unit {
    std::size_t scenario;
    const Variant *variant;
    bool shared; // its cuts are dealt out to all workers; else it is one worker's own
};

// The variants of a scenario, or where fewer cases are asked for than there are variants, so many of them.
std::vector<const Variant *> VariantsOf(const SweepPlan &plan, const Scenario &scenario) {
    std::vector<const Variant *> all, some;
    for (const Variant &variant : scenario.variants) all.push_back(&variant);
    if (plan.sample == 0 || plan.sample >= all.size()) return all;
    Random random(plan.seed);
    std::sample(all.begin(), all.end(), std::back_inserter(some), plan.sample, random);
    return some;
}

// Where a scenario has variants enough to keep every worker busy, each variant is one worker's.
std::vector<Unit> UnitsOf(const SweepPlan &plan) {
    std::vector<Unit> units;
    for (std::size_t n = 0; n < plan.scenarios.size(); n++) {
        const std::vector<const Variant *> variants = VariantsOf(plan, plan.scenarios[n]);
        for (const Variant *variant : variants) units.push_back({n, variant, variants.size() < 8 * plan.jobs});
    }
    return units;
}

void Write(int pipe, const std::string &text) {
    for (std::size_t done = 0; done < text.size();) {
        const ssize_t count = write(pipe, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR) _exit(1);
        if (count > 0) done += static_cast<std::size_t>(count);
    }
}

void Work(const SweepPlan &plan, const SweepFirmware &firmware, const std::vector<Unit> &units, unsigned number,
          Board &board, int pipe) {
    std::uint64_t boots_before = 0;
    const std::function<void(const std::string &, std::uint64_t)> at = [&](const std::string &id, std::uint64_t boots) {
        const std::size_t length = std::min(id.size(), sizeof board.at - 1);
        std::memcpy(board.at, id.data(), length);
        board.at[length] = 0;
        board.cases++;
        board.boots = boots_before + boots;
    };
    for (std::size_t n = 0; n < units.size(); n++) {
        const Unit &unit = units[n];
        if (!unit.shared && n % plan.jobs != number) continue;
        const Share share = unit.shared ? Share{number, plan.jobs} : Share{};
        const Tally tally = SweepVariant(plan, plan.scenarios[unit.scenario], *unit.variant, share, firmware, at);
        boots_before += tally.boots;
        board.boots = boots_before;
        board.units++;
        const json line = {{"scenario", unit.scenario}, {"tally", tally}};
        Write(pipe, line.dump(-1, ' ', true, json::error_handler_t::replace) + "\n");
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
        _exit(0);
    }
    close(ends[1]);
    worker.pipe = ends[0];
    return worker;
}

// Takes what a worker has written; false at its end.
bool Read(Worker &worker, SweepResult &result) {
    char buffer[65536];
    const ssize_t count = read(worker.pipe, buffer, sizeof buffer);
    if (count <= 0) return false;
    worker.unread.append(buffer, static_cast<std::size_t>(count));
    for (std::size_t end; (end = worker.unread.find('\n')) != std::string::npos; worker.unread.erase(0, end + 1)) {
        const json line = json::parse(worker.unread.substr(0, end));
        result.scenarios.at(line.at("scenario")).add(line.at("tally").get<Tally>());
    }
    return true;
}

void Finish(Worker &worker, const Board &board, SweepResult &result) {
    close(worker.pipe);
    worker.pipe = -1;
    int status = 0;
    waitpid(worker.process, &status, 0);
    if (status == 0) return;
    Tally died;
    died.found = 1;
    died.findings.push_back({board.at, "", "the process that ran it died",
                             WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : fmt::format("status {}", status)});
    result.scenarios.front().add(died);
}

class Boards {
public:
    explicit Boards(unsigned count) : count_(count) {
        void *place = mmap(nullptr, count * sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (place == MAP_FAILED) throw std::runtime_error("no memory to share with workers");
        boards_ = static_cast<Board *>(place);
    }
    ~Boards() { munmap(boards_, count_ * sizeof(Board)); }
    Boards(const Boards &) = delete;
    Boards &operator=(const Boards &) = delete;
    Board &operator[](unsigned number) { return boards_[number]; }

private:
    unsigned count_;
    Board *boards_;
};

} // namespace

void Tally::add(const Tally &other) {
    constexpr std::size_t kMost = 40;
    variants += other.variants;
    operations += other.operations;
    cuts += other.cuts;
    cases += other.cases;
    boots += other.boots;
    checked += other.checked;
    compared += other.compared;
    foretold += other.foretold;
    found += other.found;
    for (const auto &[outcome, count] : other.outcomes) outcomes[outcome] += count;
    for (const auto &[hole, what] : other.holes)
        for (const auto &[outcome, count] : what) holes[hole][outcome] += count;
    for (const Finding &finding : other.findings)
        if (findings.size() < kMost) findings.push_back(finding);
}

SweepResult RunSweep(const SweepPlan &plan, const SweepFirmware &firmware,
                     const std::function<void(const SweepProgress &)> &progress) {
    const auto begin = std::chrono::steady_clock::now();
    const std::vector<Unit> units = UnitsOf(plan);
    SweepResult result;
    result.scenarios.resize(plan.scenarios.size());
    Boards boards(plan.jobs);
    std::vector<Worker> workers;
    for (unsigned n = 0; n < plan.jobs; n++)
        workers.push_back(Start([&](int pipe) { Work(plan, firmware, units, n, boards[n], pipe); }));

    SweepProgress now{};
    for (const Unit &unit : units) now.units += unit.shared ? plan.jobs : 1;
    std::vector<pollfd> waiting(plan.jobs);
    for (std::size_t open = workers.size(); open > 0;) {
        for (unsigned n = 0; n < plan.jobs; n++) waiting[n] = {workers[n].pipe, POLLIN, 0};
        constexpr int kTick = 200; // ms
        poll(waiting.data(), waiting.size(), kTick);
        for (unsigned n = 0; n < plan.jobs; n++) {
            if (!waiting[n].revents || Read(workers[n], result)) continue;
            Finish(workers[n], boards[n], result);
            open--;
        }
        now.units_done = now.cases = now.boots = 0;
        for (unsigned n = 0; n < plan.jobs; n++) {
            now.units_done += boards[n].units;
            now.cases += boards[n].cases;
            now.boots += boards[n].boots;
        }
        result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        now.seconds = result.seconds;
        if (progress) progress(now);
    }
    for (const Tally &tally : result.scenarios) result.all.add(tally);
    return result;
}

} // namespace fixture
