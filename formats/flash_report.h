// What a board's raw flash holds, slot by slot, and what can still go wrong with it; and the writing of it.
//
// The layout has holes that no software of the board can close: slots that lose room to bad blocks, a version record
// whose only block wears out, slots that share a DataFlash page. A report names those that concern the chip at hand.
#pragma once

#include "formats/file.h"
#include "formats/refusal.h"
#include "formats/slots.h"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

// One chip's data bytes, whichever medium it is. Refers to the chip's contents, which outlive it.
struct RawFlash {
    Medium medium;
    std::string part;
    std::uint32_t bytes;
    std::uint32_t unit;                    // what is rewritten as a whole: a block or a page
    std::vector<std::uint32_t> bad_blocks; // NAND only
    FlashReader read;
    // Writes from a byte address on, as the bootloader would: a NAND block is erased first and bad blocks are skipped;
    // on a DataFlash the rest of a page stays. `bytes` fits.
    std::function<void(std::uint32_t address, std::span<const std::uint8_t> bytes)> write;
    // NAND: blocks of the slots with spare bytes that are neither erased nor a bad block's mark.
    std::vector<std::uint32_t> spare_in_use = {};

    bool is_bad(std::uint32_t block) const;
};

// A check reads this much after an image; a DataFlash refuses to read beyond its end.
inline constexpr std::uint32_t kReadAfter = 32;

// A version record that reads so is none: it is the beginning of an image, read after a bad block.
inline constexpr std::string_view kNoRecord = "Orvalis Luminati";

// Where the file system's part of the NAND begins: the raw slots lie in the blocks before it.
inline constexpr std::uint32_t kFileSystemBlock = 128;

// The NAND block that holds the version record and nothing else.
inline constexpr std::uint32_t kRecordBlock = 1;

// Bootloader 0, bootloader 1 and rescue, the last as long as this chip lets it be.
std::array<Slot, 3> SlotsOn(const RawFlash &flash);

// The largest image that stays inside a slot: less than its capacity where blocks are bad or the chip ends before.
std::uint32_t RoomIn(const RawFlash &flash, const Slot &slot);

// The same for the rescue slot: on a DataFlash nothing lies after it, so it may reach to the end of this chip.
std::uint32_t RescueRoomOn(const RawFlash &flash);

struct SlotReport {
    Slot slot;
    std::uint32_t room;
    StoredImage image;
};

struct FlashReport {
    Medium medium;
    std::string part;
    std::vector<std::uint32_t> bad_blocks;
    std::vector<SlotReport> slots;       // bootloader 0, bootloader 1, rescue
    std::string record;                  // version of the stored rescue image, byte for byte; empty: none
    std::optional<unsigned> first_stage; // the bootloader slot that the first stage starts
    Problems warnings;
};
FlashReport ExamineFlash(const RawFlash &flash);

// Of a board with one good bootloader, not two: that this copy is all it has.
Problems WarningsOfOneCopy(const FlashReport &report);

// What an image of `bytes` bytes, header and all, would meet on a chip when an update stores it: which slots it does
// not fit, where bad blocks push it on, what it shares a page with. A rescue image's version, where it is known, tells
// whether it replaces another one.
Problems WarningsOfBootloader(const RawFlash &flash, std::uint32_t bytes);
Problems WarningsOfRescue(const RawFlash &flash, std::uint32_t bytes, const std::string &version = "");

struct Provision {
    unsigned slot = 0;
    Bytes bootloader; // stored images, header and all
    Bytes rescue;     // empty: none
    std::string rescue_version;
};

// Stores what production stores. The other bootloader slot is erased, so that the first stage takes this one. Throws
// Refusal, with nothing written, where something does not fit or would not be found again.
void StoreProvision(const RawFlash &flash, const Provision &provision);

} // namespace fixture
