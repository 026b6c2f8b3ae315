#include "sweep/skips.h"

#include <algorithm>
#include <fmt/format.h>
#include <set>
#include <stdexcept>
#include <unordered_map>

namespace fixture {

namespace {

// A run is known by where it begins and how long it is: a jump into its middle makes another one.
std::uint64_t KeyOf(const CodeRun &run) { return std::uint64_t{run.address} << 32 | run.bytes; }

// In the 16-bit set a branch with link is two instructions that only work together.
bool IsSecondHalf(const Memory &memory, const CodeRun &run, std::uint32_t index) {
    if (!run.thumb || index == 0) return false;
    const std::span<const std::uint8_t> before = memory.at(run.address + 2 * (index - 1), 2);
    return !before.empty() && before[1] >> 3 == 0x1E;
}

} // namespace

Skips::Skips(Sweeper &sweeper, const World &world) : sweeper_(sweeper), world_(world) { look(); }

void Skips::look() {
    std::unordered_map<std::uint64_t, Run> pending; // since the last operation: of the update if another one follows
    Chips chips = world_.chips;
    const auto prepare = [&](Machine &machine) {
        machine.arm().watch_runs([&, &memory = machine.board().memory.memory()](const CodeRun &run) {
            if (marks_.empty()) return;
            Run &one = pending[KeyOf(run)];
            one.code = run;
            ++one.times;
            if (one.times > 1 || runs_.contains(KeyOf(run))) return;
            for (std::uint32_t index = 0; index < run.bytes / run.bytes_each(); ++index)
                if (!IsSecondHalf(memory, run, index)) places_.push_back({KeyOf(run), index});
        });
        machine.board().supply.interceptor = [&](std::uint64_t, const ChipOperation &,
                                                 const std::function<void()> &whole, const auto &) {
            marks_.push_back(machine.instructions());
            for (const auto &[key, run] : pending) {
                runs_[key].code = run.code;
                runs_[key].times += run.times;
            }
            pending.clear();
            whole();
        };
    };
    usual_ = sweeper_.first_start(chips, prepare, {}).time;
    std::erase_if(places_, [&](const Place &place) { return !runs_.contains(place.run); });
    std::sort(places_.begin(), places_.end(),
              [](const Place &a, const Place &b) { return std::tie(a.run, a.index) < std::tie(b.run, b.index); });
    const auto same = [](const Place &a, const Place &b) { return a.run == b.run && a.index == b.index; };
    // What was met, dropped after the last operation but one, and met again was noted twice.
    places_.erase(std::unique(places_.begin(), places_.end(), same), places_.end());
    if (places_.empty()) throw std::runtime_error("no operation on a chip, so no update to disturb");
}

std::vector<Skip> Skips::choose(std::size_t most, std::uint64_t seed) {
    std::set<std::pair<std::size_t, std::uint64_t>> chosen; // a place and one of its times
    Random random(seed);
    const auto times = [&](std::size_t place) { return runs_.at(places_[place].run).times; };
    for (std::size_t n = 0; n < places_.size() && (most == 0 || most >= 2 * places_.size()); ++n)
        chosen.insert({{n, 0}, {n, times(n) - 1}});
    std::uint64_t all = 0;
    for (std::size_t n = 0; n < places_.size(); ++n) all += times(n);
    while (chosen.size() < std::min<std::uint64_t>(most, all)) {
        const std::size_t place = random() % places_.size();
        chosen.insert({place, random() % times(place)});
    }
    std::map<std::uint64_t, std::vector<Wanted>> wanted;
    for (const auto &[place, time] : chosen) wanted[places_[place].run].push_back({time, places_[place].index});
    return numbers(std::move(wanted));
}

// A second run of the same board executes the same instructions.
std::vector<Skip> Skips::numbers(std::map<std::uint64_t, std::vector<Wanted>> wanted) {
    struct Left {
        std::vector<Wanted> wanted; // the next one last
        std::uint64_t met = 0;
    };
    std::unordered_map<std::uint64_t, Left> left;
    for (auto &[key, list] : wanted) {
        std::sort(list.begin(), list.end(), [](const Wanted &a, const Wanted &b) { return a.time > b.time; });
        left[key].wanted = std::move(list);
    }
    std::vector<Skip> skips;
    Chips chips = world_.chips;
    const auto prepare = [&](Machine &machine) {
        machine.arm().watch_runs([&](const CodeRun &run) {
            // The run in which the first operation was made had been entered before it.
            if (machine.instructions() < marks_.front()) return;
            const auto found = left.find(KeyOf(run));
            if (found == left.end()) return;
            std::vector<Wanted> &next = found->second.wanted;
            for (; !next.empty() && next.back().time == found->second.met; next.pop_back())
                skips.push_back(
                    {machine.instructions() + next.back().index, run.address + next.back().index * run.bytes_each()});
            ++found->second.met;
        });
    };
    sweeper_.first_start(chips, prepare, {});
    std::sort(skips.begin(), skips.end(), [](const Skip &a, const Skip &b) { return a.number < b.number; });
    return skips;
}

Skip Skips::find(std::uint64_t number) {
    std::optional<Skip> found;
    Chips chips = world_.chips;
    const auto prepare = [&](Machine &machine) {
        machine.arm().watch_runs([&](const CodeRun &run) {
            const std::uint64_t index = number - machine.instructions();
            if (found || number < machine.instructions() || index >= run.bytes / run.bytes_each()) return;
            found = {number, run.address + static_cast<std::uint32_t>(index) * run.bytes_each()};
        });
    };
    sweeper_.first_start(chips, prepare, {});
    if (found) return *found;
    throw Refusal(Fault::call, {"no-such-case", fmt::format("instruction {}", number), "is none that can be left out",
                                "one that a sweep names"});
}

void Skips::prepare(Machine &machine, const Skip &skip) const {
    // Instructions without an access. A whole start has twice as many, and looks at the board all the time.
    constexpr std::uint64_t kSilence = 3'000'000;
    machine.arm().leave_out(skip.number, skip.address);
    machine.arm().set_silence_limit(kSilence);
    PowerSupply &supply = machine.board().supply;
    machine.board().clock.at(usual_ + usual_ / 2, [&supply] { supply.fail(); });
}

Chips Skips::leave_out(const Skip &skip) {
    Chips chips = world_.chips;
    bool done = false;
    const auto note = [&](Machine &machine) { done = machine.arm().left_out(); };
    sweeper_.first_start(
        chips, [&](Machine &machine) { prepare(machine, skip); }, note);
    // A case that leaves nothing out would pass for ever.
    if (!done) throw std::runtime_error(fmt::format("instruction {} was not left out", skip.number));
    return chips;
}

// The board stands at an operation, within the emulator: a copy of this process goes on from there.
void Skips::leave_out_each(const std::vector<Skip> &skips,
                           const std::function<std::string(const Skip &, const Chips &)> &judged,
                           const std::function<void(const Skip &, const std::string &, const std::string &)> &take) {
    Chips chips = world_.chips;
    std::size_t next = 0;
    const Skip *mine = nullptr; // in a copy
    std::optional<ForkedCopy> copy;
    const auto hand_over = [&] { copy->finish(judged(*mine, chips)); };
    const auto prepare_each = [&](Machine &machine) {
        machine.board().supply.interceptor = [&](std::uint64_t index, const ChipOperation &,
                                                 const std::function<void()> &whole, const auto &) {
            // Up to the next operation; the last one has the rest.
            const std::uint64_t end = index + 1 < marks_.size() ? marks_[index + 1] : UINT64_MAX;
            for (; !mine && next < skips.size() && skips[next].number < end; ++next) {
                copy.emplace();
                if (copy->is_copy()) {
                    mine = &skips[next];
                    prepare(machine, *mine);
                    break;
                }
                const auto [text, death] = copy->wait();
                take(skips[next], text, death);
            }
            if (mine || next < skips.size()) return whole();
            machine.board().supply.fail(); // all copies have gone on
        };
    };
    const auto note = [&](Machine &machine) {
        if (mine && !machine.arm().left_out()) throw std::logic_error("an instruction was not left out");
    };
    try {
        sweeper_.first_start(chips, prepare_each, note);
    } catch (const std::logic_error &) {
        throw; // in a copy this ends it, and its case is named
    } catch (const std::runtime_error &) {
        if (!mine) throw; // in a copy: one more way for a program to go astray
    }
    if (mine) hand_over();
}

} // namespace fixture
