#include "sweep/campaign.h"

#include "formats/file.h"
#include "sweep/variant.h"

#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace fixture {

using Json = nlohmann::json;

// A field that is missing here would be missing in the parts' files, and parts of different campaigns would merge.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(CampaignCall, scenarios, closure, document, processor, losses, loss, skips,
                                   foretells, boards, sample, seed, ways, most_states, near, exact)

namespace {

// To be changed with the form of the file: an old part is then refused by name instead of being misread.
constexpr const char *kPartFormat = "fixture sweep part 2";

// --- the document's tables

struct DocumentTable {
    const char *title;
    bool host, arm;
    unsigned losses;
    std::size_t sample;
    std::vector<std::string> scenarios; // none: all
    const char *loss = "plain";
    bool skips = false;
};

// All but images of megabytes, which take minutes a case.
const std::vector<std::string> kShort = {"nand-update",
                                         "dataflash-update",
                                         "nand-rescue",
                                         "dataflash-rescue",
                                         "nand-both",
                                         "dataflash-both",
                                         "nand-refused/sums",
                                         "dataflash-refused/sums",
                                         "parameters",
                                         "nand-factory-bad",
                                         "nand-worn",
                                         "nand-wrong-page",
                                         "dataflash-lost-program",
                                         "nand-no-room",
                                         "nand-edge/slot-0-2049",
                                         "nand-edge/slot-1-131072",
                                         "nand-edge/slot-1-262145",
                                         "dataflash-edge/slot-0-1023",
                                         "dataflash-edge/slot-1-1633",
                                         "nand-rescue-edge/2048",
                                         "nand-rescue-edge/131073",
                                         "dataflash-rescue-edge/1697",
                                         "holes/worn-record",
                                         "holes/no-slot-0",
                                         "hostile"};

// The others, and those with images that fill a slot.
const std::vector<std::string> kLong = {
    "nand-edge",         "dataflash-edge", "nand-rescue-edge", "dataflash-rescue-edge", "nand-refused",
    "dataflash-refused", "holes"};

// Updates and commits of every kind, on sound chips.
const std::vector<std::string> kSettled = {"nand-update", "dataflash-update", "nand-rescue", "dataflash-rescue",
                                           "nand-both",   "dataflash-both",   "parameters"};
const std::vector<std::string> kOneOfEach = {"nand-update/running-erased", "nand-update/erased-running"};

// The order in which the document states them.
const DocumentTable kTables[] = {
    {"One loss of power, on this machine's processor", true, false, 1, 0, {}},
    {"One loss of power at every operation, on the shipped ARM image",
     false,
     true,
     1,
     0,
     {"nand-update", "dataflash-update", "nand-rescue", "dataflash-rescue", "nand-both", "dataflash-both",
      "nand-refused/sums", "dataflash-refused/sums", "parameters", "nand-factory-bad", "nand-worn", "nand-no-room",
      "holes"}},
    {"Both processors compared: console text and final chips", true, true, 1, 70, kShort},
    {"Both processors compared, with images that fill a slot", true, true, 1, 6, kLong},
    {"Two losses of power, on this machine's processor", true, false, 2, 150, kShort},
    {"Two losses of power, on the shipped ARM image",
     false,
     true,
     2,
     200,
     {"nand-update", "dataflash-update", "nand-rescue", "parameters"}},
    {"Two losses of power at every pair of operations",
     true,
     false,
     2,
     0,
     {"nand-update/running-erased", "nand-update/erased-running", "parameters"}},
    {"One loss that leaves cells between two levels", true, false, 1, 0, kSettled, "unstable"},
    {"One loss that comes late: all reads right at first", true, false, 1, 0, kSettled, "late"},
    {"One loss that spoils a whole EEPROM page", true, false, 1, 0, {"parameters"}, "spoiled"},
    {"A brown-out: the chips stop before the processor", true, false, 1, 0, kSettled, "brownout"},
    {"Two losses, the first of which leaves cells between two levels", true, false, 2, 0, kOneOfEach, "unstable"},
    {"Two losses, the first of which comes late", true, false, 2, 0, kOneOfEach, "late"},
    {"Bits that flip by themselves", true, false, 1, 0, {"nand-rot", "dataflash-rot", "parameters-rot"}},
    {"One instruction left out on NAND, on the shipped ARM image",
     true,
     true,
     1,
     10'000,
     {"nand-update/running-erased", "nand-update/erased-running", "nand-rescue/good"},
     "plain",
     true},
    {"One instruction left out on DataFlash, on the shipped ARM image",
     true,
     true,
     1,
     2'000,
     {"dataflash-update/running-erased"},
     "plain",
     true},
};

// What a closure is for: boards on which nothing but the power is at fault, and those with blocks that are or go bad.
const std::vector<std::string> kClosed = {"nand-update",      "dataflash-update", "nand-rescue",
                                          "dataflash-rescue", "nand-both",        "dataflash-both",
                                          "parameters",       "nand-factory-bad", "nand-worn"};
// Small enough for a closure in which every byte counts.
const std::vector<std::string> kClosedExactly = {"nand-update", "nand-edge/slot-0-2049", "nand-edge/slot-1-2049",
                                                 "dataflash-edge/slot-0-1025", "dataflash-edge/slot-1-1633"};
const std::vector<std::string> kClosedOnBoth = {"nand-update", "dataflash-update"};

std::vector<Scenario> ScenariosOf(const std::vector<std::string> &names, const SweepFirmware &firmware) {
    return names.empty() ? AllScenarios(firmware) : FindScenarios(names, firmware);
}

std::vector<Stage> DocumentOf(const CampaignCall &call, const SweepFirmware &firmware) {
    const ClosureLimits limits{call.ways, call.most_states, call.near, false, call.seed};
    std::vector<Stage> stages = {
        {"Any number of losses, on this machine's processor",
         ClosurePlan{FindScenarios(kClosed, firmware), true, false, limits}},
        {"Any number of losses, on the shipped ARM image: the same states",
         ClosurePlan{FindScenarios(kClosedOnBoth, firmware), true, true, limits}},
        {"Any number of losses, every byte a state of its own: the same classes",
         ClosurePlan{FindScenarios(kClosedExactly, firmware), true, false, limits, true}},
    };
    for (const DocumentTable &table : kTables) {
        const std::size_t sample = std::min(table.sample - 1, call.sample - 1) + 1; // 0, which is all, is the largest
        stages.push_back({table.title, SweepPlan{.scenarios = ScenariosOf(table.scenarios, firmware),
                                                 .on_host = table.host,
                                                 .on_arm = table.arm,
                                                 .losses = table.losses,
                                                 .kinds = KindsOf(table.loss),
                                                 .skips = table.skips,
                                                 .sample = sample,
                                                 .seed = call.seed}});
    }
    return stages;
}

std::vector<Stage> StagesOf(const CampaignCall &call, const SweepFirmware &firmware) {
    if (call.document) return DocumentOf(call, firmware);
    // "both" is neither.
    const bool host = call.processor != "arm" || call.skips;
    const bool arm = call.processor != "host" || call.skips;
    if (call.closure)
        return {{"", ClosurePlan{FindScenarios(call.scenarios.empty() ? kClosed : call.scenarios, firmware),
                                 host,
                                 arm,
                                 {call.ways, call.most_states, call.near, false, call.seed},
                                 call.exact}}};
    SweepPlan plan{.scenarios = ScenariosOf(call.scenarios, firmware),
                   .on_host = host,
                   .on_arm = arm,
                   .losses = call.losses,
                   .kinds = KindsOf(call.loss),
                   .skips = call.skips,
                   .sample = call.sample,
                   .seed = call.seed,
                   .foretells = call.foretells};
    for (Scenario &scenario : plan.scenarios)
        // 0 leaves the scenario's own number.
        if (scenario.name == "hostile" && call.boards > 0) scenario.variants = HostileBoards(call.boards);
    return {{"", plan}};
}

// --- parts

// FNV-1a: tells builds apart; nobody attacks it.
std::uint64_t Hash(std::uint64_t hash, std::span<const std::uint8_t> bytes) {
    for (const std::uint8_t byte : bytes) hash = (hash ^ byte) * 0x100000001B3u;
    return hash;
}

std::string NameOf(const Shard &shard) { return fmt::format("part {} of {}", shard.number, shard.of); }

void CheckFits(const std::filesystem::path &file, const Part &part, const Part &first,
               const std::filesystem::path &first_file, const std::string &build) {
    // Parts of two builds would add up to a table that no program has ever counted.
    if (part.build != build)
        throw Refusal(file, "a part that build " + part.build + " made", "one of this build, " + build);
    if (Json(part.call) != Json(first.call))
        throw Refusal(file, "a part of another campaign: " + Json(part.call).dump(),
                      "one of " + first_file.string() + ": " + Json(first.call).dump());
    if (part.shard.of != first.shard.of)
        throw Refusal(file, NameOf(part.shard),
                      fmt::format("a part of {}, as {}", first.shard.of, first_file.string()));
}

} // namespace

Campaign::Campaign(const CampaignCall &call, const SweepFirmware &firmware)
    : firmware_(firmware), stages_(StagesOf(call, firmware)), sweep_units_(stages_.size()),
      closure_units_(stages_.size()) {
    for (std::size_t n = 0; n < stages_.size(); ++n) {
        if (const auto *closure = std::get_if<ClosurePlan>(&stages_[n].plan))
            closure_units_[n] = UnitsOf(*closure);
        else
            sweep_units_[n] = UnitsOf(std::get<SweepPlan>(stages_[n].plan));
        const std::size_t count = sweep_units_[n].size() + closure_units_[n].size();
        // Numbered by the call alone, so that every machine gives a unit the same number. Units point into the plans of
        // stages_, which stay as they are from here on.
        for (std::size_t number = 0; number < count; ++number) units_.push_back({n, number});
    }
}

std::string Campaign::run_unit(const Unit &unit, JobNotes &notes) const {
    if (const auto *closure = std::get_if<ClosurePlan>(&stages_[unit.stage].plan))
        return ToText(RunUnit(*closure, closure_units_[unit.stage].at(unit.number), firmware_, notes));
    const auto &plan = std::get<SweepPlan>(stages_[unit.stage].plan);
    return ToText(SweepVariant(plan, sweep_units_[unit.stage].at(unit.number), firmware_, notes));
}

std::string Campaign::death_of(const Unit &unit, const std::string &at, const std::string &reason) const {
    const bool closure = std::holds_alternative<ClosurePlan>(stages_[unit.stage].plan);
    return closure ? ToText(ClosureDeathOf(at, reason)) : ToText(DeathOf(at, reason));
}

UnitTexts Campaign::run(const Shard &shard, unsigned jobs,
                        const std::function<void(const JobProgress &)> &progress) const {
    std::vector<std::size_t> mine;
    // Every nth unit, not a run of them: neighbours cost alike, and so every part takes about as long.
    for (std::size_t n = shard.number - 1; n < units_.size(); n += shard.of) mine.push_back(n);
    UnitTexts texts;
    RunJobs(
        {.count = mine.size(),
         .workers = jobs,
         .died = [&](std::size_t n, const std::string &at,
                     const std::string &reason) { return death_of(units_[mine[n]], at, reason); },
         .progress = progress},
        [&](std::size_t n, JobNotes &notes) { return run_unit(units_[mine[n]], notes); },
        [&](std::size_t n, const std::string &text) { texts[mine[n]] = text; });
    return texts;
}

std::vector<TableResult> Campaign::results(const UnitTexts &texts) const {
    std::vector<std::vector<std::string>> by_stage(stages_.size());
    for (std::size_t n = 0; n < units_.size(); ++n) {
        const auto found = texts.find(n);
        // A table with a hole would look like a good one.
        if (found == texts.end()) throw std::runtime_error(fmt::format("unit {} of {} is missing", n, units_.size()));
        by_stage[units_[n].stage].push_back(found->second);
    }
    std::vector<TableResult> results;
    for (std::size_t n = 0; n < stages_.size(); ++n) {
        if (std::holds_alternative<ClosurePlan>(stages_[n].plan)) {
            std::vector<ClosureTally> tallies;
            std::transform(by_stage[n].begin(), by_stage[n].end(), std::back_inserter(tallies), ClosureTallyFrom);
            CompareUnits(closure_units_[n], tallies);
            results.emplace_back(std::move(tallies));
        } else {
            std::vector<Tally> tallies;
            std::transform(by_stage[n].begin(), by_stage[n].end(), std::back_inserter(tallies), TallyFrom);
            results.emplace_back(Collect(std::get<SweepPlan>(stages_[n].plan), sweep_units_[n], tallies));
        }
    }
    return results;
}

std::uint64_t FindingsOf(const std::vector<TableResult> &results) {
    std::uint64_t found = 0;
    for (const TableResult &result : results) {
        if (const auto *sweep = std::get_if<SweepResult>(&result)) found += sweep->all.found;
        if (const auto *closures = std::get_if<std::vector<ClosureTally>>(&result))
            for (const ClosureTally &tally : *closures) found += tally.found;
    }
    return found;
}

std::string BuildOf(const SweepFirmware &firmware) {
    std::ifstream program("/proc/self/exe", std::ios::binary);
    // The program itself and the images: either may change what comes of a unit.
    const Bytes bytes{std::istreambuf_iterator<char>(program), {}};
    if (bytes.empty()) throw std::runtime_error("/proc/self/exe: cannot be read");
    std::uint64_t hash = Hash(0xCBF29CE484222325u, bytes);
    for (const Firmware &build : firmware.known.all()) hash = Hash(hash, build.flat);
    return fmt::format("{:016x}", hash);
}

void WritePart(const std::filesystem::path &file, const Part &part) {
    Json units = Json::array();
    // Parsed, so that the file is one JSON document, and other tools need not unpack strings.
    for (const auto &[number, text] : part.units) units.push_back({{"unit", number}, {"result", Json::parse(text)}});
    const Json whole = {{"format", kPartFormat},     {"build", part.build}, {"call", part.call},
                        {"part", part.shard.number}, {"of", part.shard.of}, {"units", units}};
    WriteFile(file, whole.dump(1) + "\n");
}

Part ReadPart(const std::filesystem::path &file) {
    // Any file may be named on the command line, so what is read of it is bounded.
    constexpr std::uintmax_t kMost = std::uintmax_t{1} << 30;
    const Bytes bytes = ReadFile(file, kMost);
    try {
        const Json whole = Json::parse(bytes.begin(), bytes.end());
        if (whole.at("format") != kPartFormat) throw Refusal(file, "another format", kPartFormat);
        Part part{whole.at("call").get<CampaignCall>(), whole.at("build"), {whole.at("part"), whole.at("of")}, {}};
        // Kept as text: a unit's result is read by whoever knows its kind.
        for (const Json &unit : whole.at("units")) part.units[unit.at("unit")] = unit.at("result").dump();
        if (part.shard.number < 1 || part.shard.number > part.shard.of)
            throw Refusal(file, NameOf(part.shard), "a number from 1 to that of all parts");
        return part;
    } catch (const Json::exception &) {
        throw Refusal(file, "no JSON, or of another form", "a part of a campaign");
    }
}

Part MergeParts(const std::vector<std::filesystem::path> &files, const std::string &build) {
    Part whole;
    std::map<std::size_t, std::filesystem::path> seen;
    for (const std::filesystem::path &file : files) {
        Part part = ReadPart(file);
        // The first part says what campaign this is; all others are held against it.
        if (seen.empty()) whole = {part.call, part.build, part.shard, {}};
        CheckFits(file, part, whole, files.front(), build);
        const auto [other, is_new] = seen.try_emplace(part.shard.number, file);
        // Counted twice, it would pass for more boards.
        if (!is_new) throw Refusal(file, NameOf(part.shard), "it once; " + other->second.string() + " is it, too");
        // Parts never share a unit: their numbers differ, and each takes every nth one.
        whole.units.merge(part.units);
    }
    std::vector<std::size_t> missing;
    for (std::size_t n = 1; n <= whole.shard.of; ++n)
        if (!seen.contains(n)) missing.push_back(n);
    if (!missing.empty() || files.empty())
        throw Refusal("campaign", fmt::format("part {} of {} is missing", fmt::join(missing, ", "), whole.shard.of),
                      "every part");
    whole.shard = {};
    return whole;
}

} // namespace fixture
