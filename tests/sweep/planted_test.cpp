// The sweep's own test: each mistake in planted/ is found by the case that stands beside it here, and the bootloader
// without it passes that case.
#include "harness/source_tree.h"
#include "sweep/scenarios.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <string>
#include <string_view>

namespace fixture {

namespace {

struct Plant {
    const char *name;
    const char *found_by;
    Outcome outcome;
};

void PrintTo(const Plant &plant, std::ostream *out) { *out << plant.found_by << ": " << NameOf(plant.outcome); }

constexpr Plant kPlants[] = {
    {"cleans_the_good_sector_first", "parameters/0-to-1:1t", Outcome::wrong_parameters},
    {"commits_in_place", "parameters/0-to-1:1t", Outcome::wrong_parameters},
    {"console_without_a_wait", "nand-update/running-erased", Outcome::violation},
    {"drives_the_data_line_high", "nand-update/running-erased", Outcome::violation},
    {"image_stays_in_the_cache", "nand-update/running-erased", Outcome::wrong_launch},
    {"latches_behind_the_cache", "nand-update/running-erased", Outcome::violation},
    {"launches_before_updating", "nand-update/running-erased", Outcome::wrong_bootloader},
    {"marker_stays_in_the_cache", "nand-update/running-erased", Outcome::reset_loop},
    {"memory_is_not_cleared", "nand-update/running-erased", Outcome::hang},
    {"nand_cycle_of_ten_ns", "nand-update/running-erased", Outcome::violation},
    {"no_bound_of_the_chip", "nand-no-room/no-block", Outcome::outside},
    {"no_bound_of_the_slot", "nand-refused/too-long", Outcome::outside},
    {"no_bound_on_the_length", "nand-no-room/endless", Outcome::fault},
    {"no_mark_on_bad_blocks", "nand-worn/erase-first", Outcome::wrong_bootloader},
    {"no_verify_of_pages", "nand-wrong-page/always-5", Outcome::wrong_bootloader},
    {"no_wait_for_the_erase", "dataflash-lost-program/5", Outcome::violation},
    {"panel_without_pins", "nand-update/running-erased", Outcome::violation},
    {"reads_bad_blocks", "nand-worn/erase-first", Outcome::wrong_bootloader},
    {"reads_undefined_status_bits", "dataflash-update/running-erased", Outcome::wrong_bootloader},
    {"record_before_image", "nand-rescue/good:20t", Outcome::wrong_rescue},
    {"rescue_at_the_chips_end", "dataflash-refused/rescue-at-end", Outcome::outside},
    {"rescue_not_verified", "dataflash-rescue/lost-program", Outcome::wrong_rescue},
    {"retires_before_verifying", "dataflash-lost-program/5", Outcome::no_bootloader},
    {"retires_before_writing", "nand-update/running-erased:10t", Outcome::no_bootloader},
    {"retires_the_new_slot", "nand-update/running-erased", Outcome::reset_loop},
    {"spi_clock_too_fast", "nand-update/running-erased", Outcome::violation},
    {"stores_a_damaged_image", "nand-refused/sums", Outcome::outside},
    {"stores_the_rescue_at_every_start", "nand-rescue/good", Outcome::restless},
    {"takes_status_as_a_whole", "nand-update/running-erased", Outcome::outside},
    {"takes_the_sdram_off_the_bus", "nand-update/running-erased", Outcome::violation},
    {"trusts_two_headers", "nand-update/running-broken:10t", Outcome::no_bootloader},
    {"verifies_the_header_alone", "dataflash-lost-program/5", Outcome::no_bootloader},
    {"writes_a_byte_of_a_register", "nand-update/running-erased", Outcome::violation},
    {"writes_from_the_load_buffer", "nand-update/running-broken", Outcome::wrong_bootloader},
    {"writes_over_the_good_slot", "nand-update/running-erased:10t", Outcome::no_bootloader},
};

// The one case that looks at every block of the chip: emulated, it takes as long as all others together.
constexpr std::string_view kWholeChip = "nand-no-room/no-block";

void Expect(Outcome outcome, const char *found_by, const std::filesystem::path &builds,
            ProcessorKind processor = ProcessorKind::arm) {
    const Judgement judgement = RunCase(ParseCase(found_by).value(), processor, SweepFirmware(builds));
    EXPECT_STREQ(NameOf(judgement.outcome), NameOf(outcome)) << builds << ": " << judgement.detail;
}

} // namespace

class Planted : public testing::TestWithParam<Plant> {};

TEST_P(Planted, MistakeIsFound) {
    Expect(GetParam().outcome, GetParam().found_by, FirmwareDirectory() / "planted" / GetParam().name);
}
INSTANTIATE_TEST_SUITE_P(, Planted, testing::ValuesIn(kPlants), [](const auto &plant) { return plant.param.name; });

// The number after these tests' names says how many mistakes there are.
class AllPlanted : public testing::TestWithParam<std::size_t> {};

TEST_P(AllPlanted, CasesPassWithoutThem) {
    std::set<std::string_view> cases;
    for (const Plant &plant : kPlants)
        if (cases.insert(plant.found_by).second)
            Expect(Outcome::good, plant.found_by, FirmwareDirectory() / "fixed",
                   plant.found_by == kWholeChip ? ProcessorKind::host : ProcessorKind::arm);
}

TEST_P(AllPlanted, MistakesAreTried) {
    std::set<std::string> tried;
    for (const Plant &plant : kPlants) tried.insert(plant.name);
    std::set<std::string> planted;
    for (const auto &entry : std::filesystem::directory_iterator(SourceFile("tests/planted")))
        planted.insert(entry.path().stem().string());
    EXPECT_EQ(tried, planted);
}
INSTANTIATE_TEST_SUITE_P(, AllPlanted, testing::Values(std::size(kPlants)), testing::PrintToStringParamName());

} // namespace fixture
