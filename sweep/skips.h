// Leaving out one instruction of an update, as a dip of the supply can make a processor do.
//
// The run ends at its first reset, and the power with it: what follows is a boot like any other. The update is what the
// ARM image executes from its first operation on a chip to its last one. Every place of its code in that stretch is
// tried: the first time it is executed, the last time, and at times between them that the seed draws.
//
//   Sweeper arm(world, ProcessorKind::arm, firmware), host(world, ProcessorKind::host, firmware);
//   Skips skips(arm, world);
//   for (const Skip &skip : skips.choose(20'000, 1)) host.judge_astray(skips.leave_out(skip));
#pragma once

#include "sweep/case.h"
#include "sweep/workers.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fixture {

struct Skip {
    std::uint64_t number; // of the instructions of the first power-up, from 0
    std::uint32_t address;
};

class Skips {
public:
    // The sweeper is one of the ARM image, and outlives this.
    explicit Skips(Sweeper &sweeper, const World &world);

    // Places of code in the update.
    std::size_t places() const { return places_.size(); }
    // About `most` of all there are, in the order in which they come; 0: the first and the last time of each place.
    std::vector<Skip> choose(std::size_t most, std::uint64_t seed);
    // Where an instruction lies, by its number. Throws Refusal where it is none that can be left out.
    Skip find(std::uint64_t number);
    // What the chips hold after a power-up without it. A program that comes to no end loses its power.
    Chips leave_out(const Skip &skip);
    // The same for many, in their order, each in a process of its own from the operation before it on: what comes
    // before that is common to all. `judged` is called there, and what it returns is handed to `take`; of a process
    // that died, why.
    void leave_out_each(
        const std::vector<Skip> &skips, const std::function<std::string(const Skip &skip, const Chips &left)> &judged,
        const std::function<void(const Skip &skip, const std::string &text, const std::string &death)> &take);
    // Prepares such a power-up.
    void prepare(Machine &machine, const Skip &skip) const;

private:
    struct Run {
        CodeRun code{};
        std::uint64_t times = 0;
    };
    struct Place {
        std::uint64_t run; // its key
        std::uint32_t index;
    };
    struct Wanted {
        std::uint64_t time;
        std::uint32_t index;
    };
    using Runs = std::map<std::uint64_t, Run>;
    void look();
    std::vector<Skip> numbers(std::map<std::uint64_t, std::vector<Wanted>> wanted);

    Sweeper &sweeper_;
    const World &world_;
    Runs runs_; // by what KeyOf says
    std::vector<Place> places_;
    std::vector<std::uint64_t> marks_; // instructions at each operation
    Picoseconds usual_ = 0;            // what the power-up takes
};

} // namespace fixture
