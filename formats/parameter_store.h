// The parameter store on a 24LC16, as the bootloader finds and writes it, for looking at chips and preparing them.
//
// Two sectors, each with an image: sequence word, used length, checksum (16 bits each, big-endian), records of a 2-byte
// tag (12-bit identifier, 4-bit data length) and data, end marker FF FF. Word FFFF: empty.
//
// The bootloader puts the number of a 256-byte block into the chip's control byte unshifted. So sector 1, at store
// address 0x400, lies at byte 0x200 of the chip, and an image's bytes from 256 on lie over its first ones: images of
// more than 256 bytes do not survive.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

struct StoredParameter {
    unsigned identifier;            // 0 to 0xFFE
    std::vector<std::uint8_t> data; // at most 15 bytes
    bool operator==(const StoredParameter &) const = default;
};

// Its data as people read and set them: C0A80102.
std::string Hex(const StoredParameter &parameter);

struct StoreSector {
    unsigned chip_address = 0;
    unsigned word = 0xFFFF;
    unsigned length = 0xFFFF;
    unsigned checksum = 0xFFFF;
    bool good = false;
    std::string problem; // of one that is neither good nor empty
    std::string warning;
    std::vector<StoredParameter> parameters; // of a good one
    bool empty() const { return word == 0xFFFF || word == 0; }
};

struct StoreReport {
    StoreSector sectors[2];
    std::optional<int> current; // the sector that the bootloader uses
    std::string why;
};

// The parameters that the board's start-up reads, and what it takes them for: 4 bytes each, an address with its first
// number in the first byte.
struct NetworkParameter {
    unsigned identifier;
    const char *name;
};
inline constexpr std::array<NetworkParameter, 4> kNetworkParameters = {
    {{9, "address"}, {10, "mask"}, {11, "gateway"}, {12, "name-server"}}};
const char *NameOfParameter(unsigned identifier); // empty: it has none
std::optional<unsigned> FindParameter(std::string_view name);

inline constexpr unsigned kLongestImage = 1000;
inline constexpr unsigned kLongestSafeImage = 256;

using EepromBytes = std::array<std::uint8_t, 2048>; // a 24LC16

StoreReport ReadStore(const EepromBytes &chip);

// The network settings that the board starts with, in the order of kNetworkParameters. One that is not found, or has
// another length, is 0.
std::array<std::uint32_t, 4> NetworkOf(const EepromBytes &chip);

// "10.0.0.5", and back; nothing for a text that is no such address.
std::string AddressText(std::uint32_t address);
std::optional<std::uint32_t> ParseAddress(std::string_view text);

// An image with its checksum. Throws Refusal for what no image can hold.
std::vector<std::uint8_t> MakeStoreImage(unsigned word, const std::vector<StoredParameter> &parameters);
// Writes an image where the bootloader reads it. `image` has at most 1,000 bytes.
void PlaceStoreImage(EepromBytes &chip, int sector, const std::vector<std::uint8_t> &image);

// Sets parameters, each in its place or after the others, and writes as a commit does: into the sector that is not
// current, whose header is then cleaned. A chip with two empty sectors gets sector 0 with word 1. Throws
// Refusal, with the chip unchanged, if there is no room, if the image would be longer than 256 bytes, or if
// there is something in the sectors but nothing good.
void UpdateStore(EepromBytes &chip, const std::vector<StoredParameter> &changes);

} // namespace fixture
