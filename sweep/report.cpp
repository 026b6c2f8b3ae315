#include "sweep/report.h"

#include "formats/file.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace fixture {

namespace {

double Rate(const Tally &tally, double seconds) { return seconds > 0 ? static_cast<double>(tally.boots) / seconds : 0; }

std::uint64_t Good(const Tally &tally) {
    const auto good = tally.outcomes.find(NameOf(Outcome::good));
    return good == tally.outcomes.end() ? 0 : good->second;
}

// What fell through the layout's holes: not good, and no finding.
std::uint64_t InHoles(const Tally &tally) {
    std::uint64_t count = 0;
    for (const auto &[hole, what] : tally.holes)
        for (const auto &[outcome, times] : what)
            if (outcome != NameOf(Outcome::good) && outcome != "seen") count += times;
    return count;
}

const char *ProcessorOf(const SweepPlan &plan) {
    return plan.on_host && plan.on_arm ? "both" : plan.on_host ? "host" : "arm";
}

void PrintFindings(const Tally &tally) {
    std::map<std::string, std::vector<const Finding *>> grouped;
    for (const Finding &finding : tally.findings) grouped[finding.outcome].push_back(&finding);
    for (const auto &[outcome, findings] : grouped) {
        fmt::print("\n{}\n", outcome);
        for (const Finding *finding : findings)
            fmt::print("  {} {}{}{}\n", finding->id, finding->processor, finding->detail.empty() ? "" : ": ",
                       finding->detail);
    }
    if (tally.found > tally.findings.size()) fmt::print("  ... {} in all\n", tally.found);
}

} // namespace

void PrintSweep(const SweepPlan &plan, const SweepResult &result) {
    constexpr const char *kRow = "{:<24} {:>8} {:>10} {:>9} {:>9} {:>9} {:>9} {:>8} {:>8}\n";
    fmt::print(kRow, "scenario", "variants", "operations", "cuts", "cases", "boots", "good", "in holes", "findings");
    const auto row = [&](const std::string &name, const Tally &tally) {
        fmt::print(kRow, name, tally.variants, tally.operations, tally.cuts, tally.cases, tally.boots, Good(tally),
                   InHoles(tally), tally.found);
    };
    for (std::size_t n = 0; n < plan.scenarios.size(); n++) row(plan.scenarios[n].name, result.scenarios[n]);
    if (plan.scenarios.size() > 1) row("all", result.all);
    for (const auto &[hole, what] : result.all.holes) {
        fmt::print("\nhole: {}\n", hole);
        for (const auto &[outcome, count] : what) fmt::print("  {:>8} {}\n", count, outcome);
    }
    PrintFindings(result.all);
    fmt::print("\n{} on {}, {:.0f} s, {:.0f} cold boots a second; {} cuts made again by cutting the power",
               plan.losses == 1 ? "one loss of power" : "two losses of power", ProcessorOf(plan), result.seconds,
               Rate(result.all, result.seconds), result.all.checked);
    if (result.all.foretold) fmt::print("; {} boots as explain foretells them", result.all.foretold);
    if (result.all.compared) fmt::print("; {} cases the same on both processors", result.all.compared);
    fmt::print("\n");
}

std::string SweepJson(const SweepPlan &plan, const SweepResult &result) {
    using nlohmann::ordered_json;
    const auto row = [](const Tally &tally) {
        ordered_json json{
            {"variants", tally.variants}, {"operations", tally.operations}, {"cuts", tally.cuts},
            {"cases", tally.cases},       {"boots", tally.boots},           {"checked", tally.checked},
            {"compared", tally.compared}, {"foretold", tally.foretold},     {"outcomes", tally.outcomes},
            {"holes", tally.holes},       {"found", tally.found},           {"findings", ordered_json::array()}};
        for (const Finding &finding : tally.findings)
            json["findings"].push_back({{"id", finding.id},
                                        {"processor", finding.processor},
                                        {"outcome", finding.outcome},
                                        {"detail", finding.detail}});
        return json;
    };
    ordered_json json{{"processor", ProcessorOf(plan)}, {"losses", plan.losses},
                      {"sample", plan.sample},          {"seed", plan.seed},
                      {"seconds", result.seconds},      {"scenarios", ordered_json::object()},
                      {"all", row(result.all)}};
    for (std::size_t n = 0; n < plan.scenarios.size(); n++)
        json["scenarios"][plan.scenarios[n].name] = row(result.scenarios[n]);
    return json.dump(2, ' ', true, nlohmann::json::error_handler_t::replace);
}

// --- the document

namespace {

struct Stage {
    const char *title;
    bool host, arm;
    unsigned losses;
    std::size_t sample;
    std::vector<std::string> scenarios; // none: all
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

// The order in which the document states them.
const Stage kCampaign[] = {
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
};

std::string Extent(std::size_t sample) {
    if (sample == 0)
        return "Every cut; of images that fill a slot, of each lost DataFlash program and of hostile boards a seeded "
               "sample, with all cuts of the first and the last two operations.";
    return fmt::format("A seeded sample: about {} cuts of each scenario, beside its uncut runs.", sample);
}

std::string Table(const SweepPlan &plan, const SweepResult &result) {
    std::string text =
        "| scenario | what is swept | variants | operations | cuts visited | cases | cold boots | good | in "
        "named holes | findings |\n|---|---|--:|--:|--:|--:|--:|--:|--:|--:|\n";
    const auto row = [&](const std::string &name, const char *summary, const Tally &t) {
        text += fmt::format("| {} | {} | {} | {} | {} | {} | {} | {} | {} | {} |\n", name, summary, t.variants,
                            t.operations, t.cuts, t.cases, t.boots, Good(t), InHoles(t), t.found);
    };
    for (std::size_t n = 0; n < plan.scenarios.size(); n++)
        row("`" + plan.scenarios[n].name + "`", plan.scenarios[n].summary, result.scenarios[n]);
    row("**all**", "", result.all);
    return text;
}

std::string HoleTable(const Tally &tally) {
    std::string text = "| hole | what came of it | cases |\n|---|---|--:|\n";
    for (const auto &[hole, what] : tally.holes)
        for (const auto &[outcome, count] : what) text += fmt::format("| {} | {} | {} |\n", hole, outcome, count);
    return text;
}

std::uint64_t Outside(const Tally &tally, Outcome outcome) {
    const auto count = [&](const std::map<std::string, std::uint64_t> &counts) {
        const auto found = counts.find(NameOf(outcome));
        return found == counts.end() ? 0 : found->second;
    };
    std::uint64_t outside = count(tally.outcomes);
    for (const auto &[hole, what] : tally.holes) outside -= count(what);
    return outside;
}

std::string Figures(const Tally &all) {
    return fmt::format(
        "\n## In all\n\n{} cases, {} cold boots. Outside the named holes: {} bricks, {} boards that lost a "
        "parameter, {} findings of any kind.\n",
        all.cases, all.boots, Outside(all, Outcome::no_bootloader) + Outside(all, Outcome::no_launch),
        Outside(all, Outcome::wrong_parameters), all.found);
}

// Of the plain row, on each processor alone.
std::string Speed(unsigned jobs, std::uint64_t seed, std::size_t most, const SweepFirmware &firmware) {
    const auto rate = [&](bool on_arm) {
        const SweepPlan plan{FindScenarios({"nand-update"}, firmware), !on_arm, on_arm, 1, jobs, most, seed};
        const SweepResult result = RunSweep(plan, firmware, {});
        return Rate(result.all, result.seconds);
    };
    return fmt::format(
        "\n## Speed\n\nCold boots a second of `nand-update` alone, with {} worker processes on the machine "
        "of this run, every boot counted: {:.0f} on its own processor, {:.1f} on the shipped ARM image.\n",
        jobs, rate(false), rate(true));
}

constexpr const char *kIntroduction = R"(# What a loss of power can do to a board

Every number below was counted by the command that wrote this document:

    fixture sweep --all --report {} --jobs {} --seed {}{}

A boot that changes a chip is cut at every one of its operations (NAND page program and block erase, DataFlash program,
erase and page program with erase, EEPROM page write): before it, torn in the middle of it, and after it. From there the board is
started cold up to four times. A case is good where the first stage always finds a good bootloader, an image is launched
within those boots, the bootloader and the launched image are then byte for byte those of the uncut run, rescue image and
version record are both the new ones (or both the old ones), the parameters are all old or all new, no other flash was changed
at any moment, and nothing was done that the datasheets forbid. An update that is refused has changed no byte.

Two kinds of boards are held to something else. Where a worn block takes no mark and keeps an update out (`nand-worn/grown`),
a cut may leave what passes for a mark and let it in: old or new bootloader is good then. Of a hostile board nothing is
expected but that its boots end, break no rule of its chips and leave a bootloader where its chips are sound.

The power is cut by snapshots: one clean run gives the chips before, within and after each operation, and a cut costs the boots
that follow it. With one loss, some cuts of every variant that has any are made again by really cutting the power; the chips were the same each time,
or it would be a finding. Chips from which a board was started before are counted and not started again.
)";

constexpr const char *kHoles = R"(
## What can still go wrong

The layout of the flash and the way its drivers skip bad blocks leave holes that no software of the board closes. The sweeps
above count what falls through them. Given a board's chips, `fixture flash info`, `fixture image info` and `fixture bank
build` warn of those that lie in its bad blocks and in the sizes of its images.

- **Bad blocks inside a slot push an image into what follows.** A slot has no spare blocks. An image that fills its slot, in
  a slot with a bad block, ends in the next slot: the copy of the bootloader there, or the rescue image, is lost.
- **Block 1 wears out.** The version record of the rescue image is the only content of block 1. When that block cannot be
  erased any more, the record is written to the next one, which is the first of bootloader slot 0.
- **Slots share DataFlash pages.** A page is rewritten as a whole, so a cut while slot 1's first page is written can take the
  last bytes of slot 0, and one while slot 0's last page is written can take the header in slot 1; slot 1's
  last page likewise holds the header of the rescue image. It matters for images that fill their slot to the last page.
- **An image that fits DataFlash slot 1 alone.** Slot 1 is the larger one. Where the power goes after such an image was written
  and before the old copy in slot 0 is retired, the old one stays in use: there is no room for the new one in slot 0.
- **A rescue block that cannot even be marked bad.** Where neither an erase nor a program of a block works, it keeps
  looking good, and what is stored behind it is not found again: there is no rescue image then. In a bootloader slot the
  update is given up and the old bootloader stays in use, unless a cut leaves what passes for a mark.
- **The neighbours in a rewritten DataFlash page.** The bytes before slot 0 and around the version record share pages with
  them and can be lost to the same cut.
- **A parameter commit torn over records that add up to the same.** The store's checksum is the sum of its bytes, and
  the page with the header is written first. Where what an older commit left behind that page happens to have the same sum as
  what was to be written, the mixture passes for good, and in sector 0 it goes first. Two addresses that trade places do it.
- **A sound parameter sector that calls itself empty.** Its first word is 0 or FFFF. Beside a bad sector it is used all the
  same, and a commit carries the word over: then both sectors call themselves empty, and the next start finds no parameters.
  The board makes no such word itself, and `fixture eeprom` neither; its `show` warns of one. No sweep counts this.
- **A bank whose version text is not its bootloader's.** The board compares texts: it stores that bootloader, starts it, finds
  another version again, and so on at every start. `fixture bank build` warns where it knows the image.
- **A rescue image cut half-way.** There is one rescue slot. From the cut on no rescue image is there, until a later boot
  with the same bank has written it again.

Wires have a hole of their own. The two-wire bus has no defence against a data line that is held low for a while in the
address byte of an EEPROM read: it makes a write of it, and the EEPROM keeps what the line shows then.
)";

} // namespace

int WriteReliability(const std::filesystem::path &file, unsigned jobs, std::uint64_t seed, std::size_t most,
                     const SweepFirmware &firmware, const std::function<void(const SweepProgress &)> &progress) {
    std::string text = fmt::format(kIntroduction, (file.is_relative() ? file : file.filename()).string(), jobs, seed,
                                   most == 0 ? "" : fmt::format(" --sample {}", most));
    const std::string speed = Speed(jobs, seed, most, firmware);
    Tally all;
    for (const Stage &stage : kCampaign) {
        const std::size_t sample = std::min(stage.sample - 1, most - 1) + 1; // 0, which is all, is the largest
        SweepPlan plan{stage.scenarios.empty() ? AllScenarios(firmware) : FindScenarios(stage.scenarios, firmware),
                       stage.host,
                       stage.arm,
                       stage.losses,
                       jobs,
                       sample,
                       seed};
        const SweepResult result = RunSweep(plan, firmware, progress);
        PrintSweep(plan, result);
        all.add(result.all);
        text += fmt::format(
            "\n## {}\n\n{}\n\n{}\n{} worker processes, {:.0f} s, {:.0f} cold boots a second, every boot counted. {} "
            "cuts made again by cutting the power.",
            stage.title, Extent(sample), Table(plan, result), jobs, result.seconds, Rate(result.all, result.seconds),
            result.all.checked);
        if (result.all.compared) text += fmt::format(" {} cases compared on both processors.", result.all.compared);
        text += "\n\n" + HoleTable(result.all);
        const std::size_t done = static_cast<std::size_t>(&stage - kCampaign) + 1;
        const std::string missing = done == std::size(kCampaign) ? ""
                                                                 : fmt::format("\n**Not complete:** {} of {} sweeps.\n",
                                                                               done, std::size(kCampaign));
        WriteFile(file, text + missing + Figures(all) + speed + kHoles); // again after every sweep: they take long
    }
    return all.found == 0 ? 0 : 1;
}

} // namespace fixture
