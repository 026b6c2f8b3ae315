#include "formats/parameter_store.h"

#include "formats/refusal.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace fixture {

namespace {

// Addresses of the store, not of the chip.
constexpr unsigned kSectorAddress[2] = {0x000, 0x400};
constexpr unsigned kHeaderSize = 6;
constexpr unsigned kEndSize = 2;
constexpr unsigned kEndIdentifier = 0xFFF;
constexpr unsigned kSearchEnd = 0xFF; // Kept: where the bootloader's lookups stop, in place of 0xFFF
constexpr std::size_t kLongestData = 15;

// The chip's byte at a store address. 24LC16: the control byte is 1010, three block bits and the direction. The
// bootloader does not shift the block past the direction bit, so two blocks of the store share one of the chip.
unsigned ChipAddress(unsigned store_address) {
    const unsigned control = 0xA0 | store_address / 0x100;
    return (control >> 1 & 7) * 0x100 + store_address % 0x100;
}

unsigned Get16(const std::vector<std::uint8_t> &bytes, std::size_t at) { return bytes[at] * 0x100u + bytes[at + 1]; }

void Put16(std::vector<std::uint8_t> &bytes, std::size_t at, unsigned value) {
    bytes[at] = static_cast<std::uint8_t>(value >> 8);
    bytes[at + 1] = static_cast<std::uint8_t>(value);
}

std::vector<std::uint8_t> Fetch(const EepromBytes &chip, int sector, unsigned length) {
    std::vector<std::uint8_t> bytes(length);
    // Byte by byte: store addresses do not follow each other on the chip across a block's end.
    for (unsigned i = 0; i < length; ++i) bytes[i] = chip[ChipAddress(kSectorAddress[sector] + i)];
    return bytes;
}

// The checksum that makes the sum 0; the checksum itself counts as a number, not as bytes.
unsigned ChecksumOf(const std::vector<std::uint8_t> &image) {
    unsigned sum = 0;
    for (std::size_t i = 0; i < image.size(); ++i)
        if (i != 4 && i != 5) sum += image[i];
    return (0x10000 - sum) & 0xFFFF;
}

Refusal Refused(const std::string &found, const std::string &expected) {
    return Refusal("parameter store", found, expected, "no-room");
}

bool EndsSearch(const StoredParameter &parameter) { return parameter.identifier == kSearchEnd; }

void Warn(std::string &warning, const std::string &text) { warning += (warning.empty() ? "" : "; ") + text; }

std::vector<StoredParameter> Records(const std::vector<std::uint8_t> &image, std::string &warning) {
    std::vector<StoredParameter> parameters;
    std::size_t at = kHeaderSize;
    while (at + kEndSize <= image.size()) {
        const unsigned tag = Get16(image, at);
        if (tag >> 4 == kEndIdentifier) break;
        const std::size_t end = at + 2 + (tag & 0xF);
        // The length comes from the chip, and a good checksum does not make it fit.
        if (end > image.size()) break;
        parameters.push_back(
            {tag >> 4, {image.begin() + static_cast<long>(at) + 2, image.begin() + static_cast<long>(end)}});
        at = end;
    }
    // Lookups end with the image, but a change copies records up to the end marker and finds none.
    if (at + kEndSize != image.size() || Get16(image, at) != 0xFFFF)
        Warn(warning,
             fmt::format("no end marker where the records end, at byte {}: the bootloader cannot change it", at));
    if (std::any_of(parameters.begin(), parameters.end(), EndsSearch))
        Warn(warning, "the bootloader finds neither parameter 0xFF nor those after it");
    return parameters;
}

StoreSector ReadSector(const EepromBytes &chip, int number) {
    StoreSector sector;
    sector.chip_address = ChipAddress(kSectorAddress[number]);
    const std::vector<std::uint8_t> header = Fetch(chip, number, kHeaderSize);
    sector.word = Get16(header, 0);
    sector.length = Get16(header, 2);
    sector.checksum = Get16(header, 4);
    // The bootloader refuses these unread: its buffers hold 1,000 bytes, and nothing is shorter than header and end.
    if (sector.length < kHeaderSize + kEndSize || sector.length > kLongestImage) {
        sector.problem = fmt::format("length {} found, 8 to {} expected", sector.length, kLongestImage);
        return sector;
    }
    const std::vector<std::uint8_t> image = Fetch(chip, number, sector.length);
    const unsigned right = ChecksumOf(image);
    sector.good = right == sector.checksum;
    if (!sector.good) {
        sector.problem = fmt::format("checksum 0x{:04X} found, 0x{:04X} expected", sector.checksum, right);
        return sector;
    }
    sector.parameters = Records(image, sector.warning);
    if (sector.length > kLongestSafeImage)
        Warn(sector.warning, fmt::format("{} bytes: those from {} on lie over the sector's own start", sector.length,
                                         kLongestSafeImage));
    return sector;
}

// The larger word goes first, sector 0 if they are equal; a sector that is bad leaves it to the other one.
void Choose(StoreReport &report) {
    StoreSector(&sectors)[2] = report.sectors;
    if (sectors[0].empty() && sectors[1].empty()) {
        report.why = "both sectors are empty";
        return;
    }
    // An erased word counts as 0, or FFFF would win over every sector in use.
    const unsigned words[2] = {sectors[0].empty() ? 0 : sectors[0].word, sectors[1].empty() ? 0 : sectors[1].word};
    const int first = words[0] >= words[1] ? 0 : 1;
    const int other = 1 - first;
    if (sectors[first].good) {
        report.current = first;
        report.why = sectors[other].empty()         ? "the other sector is empty"
                     : words[first] == words[other] ? "the words are equal: sector 0 goes first"
                                                    : "its word is the larger";
        return;
    }
    if (sectors[other].good) report.current = other;
    // A commit carries the word over from the image that it read, and cleans the other sector.
    if (report.current && sectors[other].empty())
        Warn(sectors[other].warning, "its word says empty: the bootloader's next commit would lose all parameters");
    report.why = fmt::format("sector {} goes first, but is bad: {}", first, sectors[first].problem);
    if (!report.current) report.why += fmt::format("; sector {}: {}", other, sectors[other].problem);
}

void Apply(std::vector<StoredParameter> &parameters, const StoredParameter &change) {
    bool found = false;
    // All of several with one identifier are changed, as the bootloader does: a lookup must not find an old one.
    for (StoredParameter &parameter : parameters) {
        if (parameter.identifier != change.identifier) continue;
        parameter.data = change.data;
        found = true;
    }
    if (!found) parameters.push_back(change);
}

} // namespace

StoreReport ReadStore(const EepromBytes &chip) {
    StoreReport report;
    for (int sector = 0; sector < 2; ++sector) report.sectors[sector] = ReadSector(chip, sector);
    Choose(report);
    return report;
}

// Walks the records as the bootloader's lookups do, which the end marker does not stop.
std::array<std::uint32_t, 4> NetworkOf(const EepromBytes &chip) {
    std::array<std::uint32_t, 4> network{};
    const StoreReport report = ReadStore(chip);
    if (!report.current) return network;
    const std::vector<std::uint8_t> image = Fetch(chip, *report.current, report.sectors[*report.current].length);
    std::array<bool, 4> found{};
    for (std::size_t at = kHeaderSize; at + 2 <= image.size();) {
        const unsigned tag = Get16(image, at);
        const std::size_t data = at + 2;
        at = data + (tag & 0xF);
        if (tag >> 4 == kSearchEnd || at > image.size()) break;
        for (std::size_t n = 0; n < network.size(); ++n) {
            // The first of several is the one that a lookup returns.
            if (tag >> 4 != kNetworkParameters[n].identifier || found[n]) continue;
            found[n] = true;
            if (at - data == 4) network[n] = Get16(image, data) << 16 | Get16(image, data + 2);
        }
    }
    return network;
}

std::string Hex(const StoredParameter &parameter) {
    std::string text;
    for (const std::uint8_t byte : parameter.data) text += fmt::format("{:02X}", byte);
    return text;
}

const char *NameOfParameter(unsigned identifier) {
    for (const NetworkParameter &parameter : kNetworkParameters)
        if (parameter.identifier == identifier) return parameter.name;
    return "";
}

std::optional<unsigned> FindParameter(std::string_view name) {
    for (const NetworkParameter &parameter : kNetworkParameters)
        if (parameter.name == name) return parameter.identifier;
    return std::nullopt;
}

std::string AddressText(std::uint32_t address) {
    return fmt::format("{}.{}.{}.{}", address >> 24, address >> 16 & 0xFF, address >> 8 & 0xFF, address & 0xFF);
}

std::optional<std::uint32_t> ParseAddress(std::string_view text) {
    std::uint32_t address = 0;
    for (int n = 0; n < 4; ++n) {
        unsigned number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc() || number > 0xFF) return std::nullopt;
        address = address << 8 | number;
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        if (n == 3) break;
        if (!text.starts_with('.')) return std::nullopt;
        text.remove_prefix(1);
    }
    return text.empty() ? std::optional(address) : std::nullopt;
}

std::vector<std::uint8_t> MakeStoreImage(unsigned word, const std::vector<StoredParameter> &parameters) {
    std::vector<std::uint8_t> image(kHeaderSize);
    for (const StoredParameter &parameter : parameters) {
        // 0xFFF would read as the end marker, and four bits hold the length.
        if (parameter.identifier >= kEndIdentifier || parameter.data.size() > kLongestData)
            throw Refused(fmt::format("parameter 0x{:X} of {} bytes", parameter.identifier, parameter.data.size()),
                          "up to 0xFFE, and 15 bytes");
        image.resize(image.size() + 2);
        Put16(image, image.size() - 2, parameter.identifier << 4 | static_cast<unsigned>(parameter.data.size()));
        image.insert(image.end(), parameter.data.begin(), parameter.data.end());
    }
    image.insert(image.end(), {0xFF, 0xFF});
    if (image.size() > kLongestImage)
        throw Refused(fmt::format("an image of {} bytes", image.size()), fmt::format("at most {}", kLongestImage));
    Put16(image, 0, word);
    Put16(image, 2, static_cast<unsigned>(image.size()));
    // Last, since it covers the word and the length.
    Put16(image, 4, ChecksumOf(image));
    return image;
}

void PlaceStoreImage(EepromBytes &chip, int sector, const std::vector<std::uint8_t> &image) {
    for (unsigned i = 0; i < image.size() && i < kLongestImage; ++i)
        chip[ChipAddress(kSectorAddress[sector] + i)] = image[i];
}

void UpdateStore(EepromBytes &chip, const std::vector<StoredParameter> &changes) {
    const StoreReport before = ReadStore(chip);
    const bool blank = before.sectors[0].empty() && before.sectors[1].empty();
    if (!before.current && !blank)
        throw Refused(fmt::format("neither sector is good: {}", before.why), "a good one, or a chip filled with FF");
    std::vector<StoredParameter> parameters;
    if (before.current) parameters = before.sectors[*before.current].parameters;
    for (const StoredParameter &change : changes) Apply(parameters, change);

    // A sound sector that calls itself empty is current beside a bad one; its word would make all of the store empty.
    const bool worded = before.current && !before.sectors[*before.current].empty();
    const unsigned word = worded ? before.sectors[*before.current].word : 1;
    const std::vector<std::uint8_t> image = MakeStoreImage(word, parameters);
    if (image.size() > kLongestSafeImage)
        throw Refused(fmt::format("the image would have {} bytes, and those from {} on lie over the sector's own start",
                                  image.size(), kLongestSafeImage),
                      fmt::format("at most {}", kLongestSafeImage));
    const int target = before.current ? 1 - *before.current : 0;
    PlaceStoreImage(chip, target, image);
    PlaceStoreImage(chip, 1 - target, std::vector<std::uint8_t>(kHeaderSize, 0xFF));
}

} // namespace fixture
