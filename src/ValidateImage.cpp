#include "Validate.h"

#include "Medium.h"
#include "StoredImage.h"
#include "Sums.h"

#include <cstdio>
#include <cstring>

constexpr char OLramWrapper_StringToken[20] = "Orvalis Luminations";

constexpr std::uint8_t TestApplicationData[48] = {
    'O', 'r', 'v', 'a', 'l',  'i',  's',  ' ',  'L',  'u',  'm',  'i',  'n', 'a', 't', 'i', 'o', 'n', 's', 0, // maker
    48,  0,   0,   0,   0xBB, 0x4B, 0x23, 0x01, 0x3B, 0x5B, 0xE0, 0x9B, // size, sums
    'a', 'p', 'p', 'l', 'i',  'c',  'a',  't',  'i',  'o',  'n',  ' ',  'f', 'i', 'l', 'e',
};
constexpr std::uint8_t TestBootData[41] = {
    'O', 'r', 'v', 'a', 'l',  'i',  's',  ' ',  'L',  'u',  'm',  'i',  'n', 'a', 't', 'i', 'o', 'n', 's', 0, // maker
    41,  0,   0,   0,   0xDB, 0x48, 0x23, 0x01, 0xE9, 0x4F, 0xE9, 0x93, // size, sums
    'b', 'o', 'o', 't', ' ',  'f',  'i',  'l',  'e',
};
static_assert(SumBody(TestApplicationData + kHeaderSize, 16) == RunningSums{0x01234BBB, 0x9BE05B3B});
static_assert(SumBody(TestBootData + kHeaderSize, 9) == RunningSums{0x012348DB, 0x93E94FE9});
static_assert(SumBody(nullptr, 0) == RunningSums{0x01234567, 0x89ABCDEF});

namespace {

StoredImageHeader HeaderOf(const void *image) {
    StoredImageHeader header;
    std::memcpy(&header, image, sizeof header);
    return header;
}

bool SizeIsUsable(std::uint32_t size) { return size >= kHeaderSize && size <= kLoadBufferSize; }

bool HasMaker(const StoredImageHeader &header) {
    return std::strncmp(header.maker, OLramWrapper_StringToken, sizeof header.maker) == 0;
}

// The buffer is cleared first, so that a read that delivers nothing finds no image of old.
int ReadHeader(const Medium &medium, std::uint32_t address, StoredImageHeader &header) {
    header = {};
    return medium.read(address, &header, sizeof header) == 0 ? 0 : -1;
}

} // namespace

int Validate_Header(const Medium &medium, std::uint32_t address) {
    StoredImageHeader header;
    if (ReadHeader(medium, address, header) != 0) {
        std::printf("\t%s read header failed\n", medium.name);
        return -1;
    }
    const bool valid = HasMaker(header);
    std::printf("\t%s header at address 0x%08x\n", valid ? "Valid" : "Invalid", static_cast<unsigned>(address));
    return valid ? 0 : -1;
}

// One continuous read: bad blocks inside the slot are skipped as they were when it was written.
int Validate_ImageWithin(const Medium &medium, std::uint32_t address, std::uint32_t largest) {
    StoredImageHeader header;
    if (ReadHeader(medium, address, header) != 0) return -1;
    const std::uint32_t size = header.size;
    if (!SizeIsUsable(size) || size > largest || size > kLoadBufferSize - kCheckOverrun) return -1;
    std::memset(image_load_buf, 0, kHeaderSize);
    if (medium.read(address, image_load_buf, size + kCheckOverrun) != 0) return -1;
    return Validate_LoadedImage(image_load_buf, size);
}

int Validate_Image(const Medium &medium, std::uint32_t address) {
    return Validate_ImageWithin(medium, address, kLoadBufferSize);
}

int Validate_InvalidateImage(const Medium &medium, std::uint32_t address) {
    constexpr StoredImageHeader kNoHeader = {};
    StoredImageHeader header;
    if (ReadHeader(medium, address, header) != 0) return -1;
    if (!HasMaker(header)) return 0;
    return medium.write_short(address, &kNoHeader, sizeof kNoHeader) == 0 ? 0 : -1;
}

int Validate_SDFlashHeader(std::uint32_t address) { return Validate_Header(sdFlashMedium, address); }
int Validate_NandFlashHeader(std::uint32_t address) { return Validate_Header(nandMedium, address); }
int Validate_SDFlashImage(std::uint32_t address) { return Validate_Image(sdFlashMedium, address); }
int Validate_NandFlashImage(std::uint32_t address) { return Validate_Image(nandMedium, address); }
int Validate_SDFlashInvalidateImage(std::uint32_t address) { return Validate_InvalidateImage(sdFlashMedium, address); }
int Validate_NandFlashInvalidateImage(std::uint32_t address) { return Validate_InvalidateImage(nandMedium, address); }

int Validate_RamChecksums(const void *image) {
    const StoredImageHeader header = HeaderOf(image);
    if (!SizeIsUsable(header.size)) return -1;
    const std::uint8_t *const body = static_cast<const std::uint8_t *>(image) + kHeaderSize;
    RunningSums sums;
    Sums_Running(&sums, body, header.size - kHeaderSize);
    return sums == RunningSums{header.sum1, header.sum2} ? 0 : -1;
}

int Validate_LoadedImage(const void *image, std::uint32_t loaded) {
    if (Validate_ImageSize(image) > loaded) return -1;
    return Validate_RamChecksums(image);
}

std::uint32_t Validate_ImageSize(const void *image) { return HeaderOf(image).size; }

int Validate_HasMaker(const void *image) { return HasMaker(HeaderOf(image)) ? 1 : 0; }
