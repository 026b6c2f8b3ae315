// What ails a board's raw flash and its parameter store, what has led to it, and what mends it.
//
//   const std::vector<ReferenceImage> references{};           known builds, and what banks carry
//   const FlashDiagnosis found = DiagnoseFlash(RawFlashOf(chips.nand), references);
//   for (const Repair &repair : found.repairs) repair.apply(RawFlashOf(chips.nand));
//
// A slot without a good image is compared with every reference. The order in which an update erases and programs tells
// how far it came. Tests compare the answer with the cuts of a sweep.
#pragma once

#include "formats/bank.h"
#include "formats/flash_report.h"
#include "formats/parameter_store.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace fixture {

// A good stored image that a slot may have held.
struct ReferenceImage {
    std::string name; // for people: "build 1.9.1", "the rescue image of data/app"
    FileRole role;    // bootloader or rescue
    Bytes image;      // header and all
    std::string version;
    std::string file; // on this machine, as a word that a shell takes
};

enum class SlotCondition : std::uint8_t {
    erased,  // nothing there
    good,    // a good image
    retired, // a bootloader whose header an update has cleared
    cut,     // an image that was being written, or erased, when the power went
    damaged, // an image with pages that no cut explains
    unknown, // something else, or an image that no reference fits
};
const char *NameOf(SlotCondition condition);

struct PageDamage {
    std::uint32_t page;    // of the image, from 0
    std::uint32_t address; // on the chip, in data bytes
    std::uint32_t unit;    // NAND: its block; DataFlash: its page of the chip
    std::string text;
};

struct SlotDiagnosis {
    Slot slot;
    SlotCondition condition = SlotCondition::unknown;
    std::string holds; // in words
    std::optional<std::size_t> reference;
    std::uint32_t pages = 0;               // of the image
    std::optional<std::uint32_t> cut_page; // the first one that is not as it should be
    std::vector<PageDamage> damages;       // the first kMostDamages of them
    std::size_t damaged_pages = 0;
};
inline constexpr std::size_t kMostDamages = 16;

// One slot or one sector is written; everything else stays.
struct Repair {
    std::string id;
    std::string place;
    std::string text;
    std::string command; // of `fixture`, without the chip's file
    std::function<void(const RawFlash &)> apply;
};

struct FlashDiagnosis {
    Medium medium;
    std::vector<std::uint32_t> bad_blocks;
    std::vector<SlotDiagnosis> slots; // bootloader 0, bootloader 1, rescue
    std::string record;               // version text of the rescue image; empty: none
    std::optional<unsigned> running;  // the bootloader slot that the first stage starts
    std::vector<std::string> history;
    std::vector<Repair> repairs;

    bool healthy() const { return running.has_value() && repairs.empty(); }
};

FlashDiagnosis DiagnoseFlash(const RawFlash &flash, const std::vector<ReferenceImage> &references);

struct StoreDiagnosis {
    StoreReport store;
    std::string history;
    std::optional<int> clean; // the sector whose header a repair clears, as the bootloader's next start does
    bool healthy() const { return store.current.has_value() && !clean; }
};
StoreDiagnosis DiagnoseStore(const EepromBytes &chip);
void CleanSector(EepromBytes &chip, int sector);

} // namespace fixture
