// A campaign: tables to be counted, made of independent units, which any number of machines can share.
//
// Campaign(call, firmware).run({.number = 2, .of = 8}, jobs, progress) gives the texts of the units of part 2.
//
// A part is a file with the call, the build, and what came of its units. All parts of one campaign together give what
// one run of all units gives: WritePart writes one, MergeParts reads all of them, results() makes the tables.
#pragma once

#include "sweep/report.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace fixture {

// What is asked for. Everything that decides a result stands here, and nothing else.
struct CampaignCall {
    std::vector<std::string> scenarios; // none: all, or those that a closure is for
    bool closure = false;
    bool document = false; // all tables of the reliability document; the others then count for nothing
    std::string processor = "host";
    unsigned losses = 1;
    std::string loss = "plain"; // what a loss leaves: KindsOf()
    bool skips = false;
    bool foretells = false;
    unsigned boards = 0; // of the scenario hostile; 0: as many as it has
    std::size_t sample = 0;
    std::uint64_t seed = 1;
    unsigned ways = 3;
    std::size_t most_states = 0;
    unsigned near = 0;
    bool exact = false;
};

struct Shard {
    std::size_t number = 1; // from 1
    std::size_t of = 1;
};

using UnitTexts = std::map<std::size_t, std::string>; // by the unit's number

class Campaign {
public:
    // Throws std::runtime_error for an unknown scenario.
    Campaign(const CampaignCall &call, const SweepFirmware &firmware);
    // The units point into the stages of this very campaign.
    Campaign(const Campaign &) = delete;
    Campaign &operator=(const Campaign &) = delete;

    const std::vector<Stage> &stages() const { return stages_; }
    std::size_t units() const { return units_.size(); }

    // Runs every `of`th unit, from `number` on. Nothing of the texts but seconds and kilobytes depends on the machine.
    UnitTexts run(const Shard &shard, unsigned jobs, const std::function<void(const JobProgress &)> &progress) const;
    // By stage. Throws std::runtime_error where a unit is missing.
    std::vector<TableResult> results(const UnitTexts &texts) const;

private:
    struct Unit {
        std::size_t stage;
        std::size_t number; // in its stage
    };
    std::string run_unit(const Unit &unit, JobNotes &notes) const;
    std::string death_of(const Unit &unit, const std::string &at, const std::string &reason) const;

    const SweepFirmware &firmware_;
    std::vector<Stage> stages_;
    std::vector<std::vector<SweepUnit>> sweep_units_; // by stage
    std::vector<std::vector<ClosureUnit>> closure_units_;
    std::vector<Unit> units_;
};

std::uint64_t FindingsOf(const std::vector<TableResult> &results);

struct Part {
    CampaignCall call;
    std::string build;
    Shard shard;
    UnitTexts units;
};

// A text that differs where this program or the bootloader's builds do.
std::string BuildOf(const SweepFirmware &firmware);

void WritePart(const std::filesystem::path &file, const Part &part);
// Throws Refusal where the file is no part.
Part ReadPart(const std::filesystem::path &file);
// All parts of one campaign as one. Throws Refusal with the name of the file that is of another build or another call,
// or that is there twice, and with the numbers that are missing.
Part MergeParts(const std::vector<std::filesystem::path> &files, const std::string &build);

} // namespace fixture
