#include "formats/slots.h"

#include <algorithm>
#include <cstring>

namespace fixture {

namespace {

constexpr SlotTable kNandSlots{
    {{{"bootloader 0", 0x00040000, 0x1E0000}, {"bootloader 1", 0x00220000, 0x1E0000}}},
    {"rescue", 0x00400000, 0xC00000},
    {"version record", 0x00020000, 16},
};
constexpr SlotTable kDataflashSlots{
    {{{"bootloader 0", 0x00008000, 0x1FC000}, {"bootloader 1", 0x00204000, 0x200000}}},
    {"rescue", 0x00404000, 8192 * 1056 - 0x00404000 - 32}, // the check of an image reads 32 bytes behind it
    {"version record", 0x00007F00, 16},
};

constexpr std::uint32_t kSizeAt = sizeof kMakerText; // the size field of an image's header

std::uint32_t Little32(const std::uint8_t *bytes) {
    return bytes[0] | static_cast<std::uint32_t>(bytes[1]) << 8 | static_cast<std::uint32_t>(bytes[2]) << 16 |
           static_cast<std::uint32_t>(bytes[3]) << 24;
}

bool SizeFits(std::uint32_t size, std::uint32_t capacity) { return size >= kImageHeaderBytes && size <= capacity; }

} // namespace

const SlotTable &SlotsOf(Medium medium) { return medium == Medium::nand ? kNandSlots : kDataflashSlots; }

const char *NameOf(ImageVerdict verdict) {
    constexpr const char *kNames[] = {"erased", "no maker text", "bad size", "bad sums", "good"};
    return kNames[static_cast<unsigned>(verdict)];
}

ImageSums SumsOf(std::span<const std::uint8_t> body) {
    ImageSums sums;
    for (const std::uint8_t byte : body) {
        sums.sum1 += byte;
        sums.sum2 += sums.sum1;
    }
    return sums;
}

StoredImage JudgeImage(std::span<const std::uint8_t> bytes, std::uint32_t capacity) {
    StoredImage image;
    const std::span<const std::uint8_t> header = bytes.first(std::min<std::size_t>(bytes.size(), kImageHeaderBytes));
    image.bytes.assign(header.begin(), header.end());
    if (std::all_of(header.begin(), header.end(), [](std::uint8_t byte) { return byte == 0xFF; })) return image;
    image.verdict = ImageVerdict::bad_size;
    if (header.size() < kImageHeaderBytes) return image;
    image.size = Little32(&header[kSizeAt]);
    image.stored = {Little32(&header[kSizeAt + 4]), Little32(&header[kSizeAt + 8])};
    if (std::memcmp(header.data(), kMakerText, sizeof kMakerText) != 0) {
        image.verdict = ImageVerdict::no_maker;
        return image;
    }
    if (!SizeFits(image.size, capacity) || image.size > bytes.size()) return image;
    image.bytes.assign(bytes.begin(), bytes.begin() + image.size);
    image.computed = SumsOf(bytes.subspan(kImageHeaderBytes, image.size - kImageHeaderBytes));
    image.verdict = image.computed == image.stored ? ImageVerdict::good : ImageVerdict::bad_sums;
    return image;
}

StoredImage ReadSlot(const FlashReader &read, const Slot &slot) {
    const std::vector<std::uint8_t> header = read(slot.address, kImageHeaderBytes);
    const std::uint32_t size = Little32(&header[kSizeAt]);
    if (!SizeFits(size, slot.capacity)) return JudgeImage(header, slot.capacity);
    return JudgeImage(read(slot.address, size), slot.capacity);
}

std::optional<unsigned> ChooseBootloader(const FlashReader &read, const SlotTable &slots) {
    for (unsigned slot = 0; slot < slots.bootloader.size(); ++slot)
        if (ReadSlot(read, slots.bootloader[slot]).verdict == ImageVerdict::good) return slot;
    return std::nullopt;
}

} // namespace fixture
