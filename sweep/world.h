// What a sweep starts from: a board with its chips and files, what may be wrong with it, and what has to come of it.
//
//   Situation setup;                                  a plain update of the bootloader on NAND
//   setup.slots = {SlotState::broken, SlotState::running};
//   const World world = MakeWorld(setup, firmware);
//
// Firmware comes from the builds that stand behind images: 1.9.0 runs, 1.9.1 is its update.
#pragma once

#include "fixture/board.h"
#include "formats/file.h"
#include "formats/parameter_store.h"
#include "formats/slots.h"
#include "formats/stored_image.h"
#include "machine/firmware.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace fixture {

enum class SlotState : std::uint8_t {
    erased,
    retired, // an image whose header was zeroed
    broken,  // a good header before a damaged body
    endless, // a header that says more than any chip holds
    running, // the bootloader that the board has
    updated, // the one that the bank carries
};

enum class RescueState : std::uint8_t { none, broken, good };

// The parameter store: which sector is current, and whether the first power-up changes and commits parameters.
struct ParameterSetup {
    int sector = 0;
    bool commits = false;
    std::vector<std::uint8_t> more = {};     // beside the network's four, at most 15 bytes; set anew by the commit
    std::vector<std::uint32_t> remains = {}; // the network that a commit of before left in the other sector
};

// A bit that flipped by itself: in the data or in the mark of the medium's page at an address, or in the EEPROM.
struct Rot {
    enum class Place : std::uint8_t { data, mark, eeprom };
    Place place = Place::data;
    std::uint32_t address = 0;
};

// What becomes of the images that the bank carries.
enum class Fate : std::uint8_t {
    stored,
    may_fail, // a block takes no mark and keeps a bootloader out, unless a cut leaves what passes for a mark
    fails,    // there is no room for them on the chip: all stays in use as it was
    refused,  // nothing at all is written
};

struct Situation {
    Medium medium = Medium::nand;
    const char *part = nullptr; // of the DataFlash; null: the usual one
    std::array<SlotState, 2> slots = {SlotState::running, SlotState::erased};
    bool new_bootloader = true;      // the bank carries an update
    std::uint32_t running_bytes = 0; // stored image, header and all; 0: as built; else padded or, if that is too
    std::uint32_t update_bytes = 0;  // short for the build, a stand-in for it
    RescueState rescue = RescueState::good;
    bool new_rescue = false;
    std::uint32_t rescue_bytes = 150'000; // of the rescue images, header and all
    bool damaged = false;                 // the bank's images have sums that do not fit
    bool banks_fight = false; // data/app has the update with a broken application, data/oldapp the running bootloader
    ParameterSetup parameters = {};
    std::vector<std::uint32_t> bad_blocks = {}; // from the factory
    std::vector<NandFault> nand_faults = {};
    std::vector<At45Fault> dataflash_faults = {};
    std::optional<Rot> rot = {};
    Fate fate = Fate::stored;
    bool watches_slots = true; // false: the slots and the record may change all, whatever the bank carries
    std::optional<std::uint64_t> hostile = {}; // none of the above: a hostile board, by its seed
};

// The builds, and stand-ins for them that images too short for a build are known by.
struct SweepFirmware {
    KnownFirmware known;
    explicit SweepFirmware(const std::filesystem::path &directory);
    const Firmware &version(int build) const; // 1.9.`build`
};

struct ByteRange {
    std::uint32_t begin;
    std::uint32_t end;
};

// What has to hold when all is done.
struct Expected {
    Bytes bootloader;                        // the image that the first stage starts
    Bytes rescue;                            // empty: none that is good
    Bytes record;                            // the 16 bytes of the version record
    Bytes application;                       // what is launched
    std::array<std::uint32_t, 4> network{};  // parameters 9 to 12
    std::vector<StoredParameter> parameters; // all that are stored
};

// Whether two version records have one text: the bootloader looks no further than its end.
bool SaysTheSame(const Bytes &record, const Bytes &other);

struct World {
    bool hostile = false; // nothing is expected of it but that every boot ends
    Medium medium;
    Chips chips;
    std::shared_ptr<const std::filesystem::path> volume; // removed with the last copy
    BoardOptions board;
    bool may_stay = false;    // the old bootloader stays, unless a cut lets the new one in
    bool tries_again = false; // there is no room for what the bank carries: every boot tries
    bool commits = false;
    std::vector<std::uint8_t> more; // what a commit sets beside the network parameters
    std::vector<ByteRange> touched; // what the medium's updates may change
    Expected before;
    Expected after;
};

World MakeWorld(const Situation &setup, const SweepFirmware &firmware);

// The parameter that holds ParameterSetup::more. The bootloader itself never reads it: it only has to survive.
inline constexpr std::uint16_t kMoreParameter = 0x20;
// The network parameters that a commit sets.
inline constexpr std::array<std::uint32_t, 4> kNewNetwork = {0x0A010015, 0xFFFF0000, 0x0A010011, 0x0A010012};

// A directory of this process that goes when nobody needs it any more.
std::shared_ptr<const std::filesystem::path> TemporaryVolume();

} // namespace fixture
