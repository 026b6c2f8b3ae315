#include "at91sam9263_sw_i2c_eeprom.h"

#include "at91sam9263_sw_i2c.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr unsigned kChipSize = 0x800;
constexpr unsigned kBlockSize = 0x100;
constexpr unsigned kPageSize = 16;
constexpr unsigned kChipControl = 0xA0;
constexpr int kMaxFailures = 10000; // of one raw write: the chip answers again after some hundred

constexpr std::uint16_t kSectorAddress[2] = {0x000, 0x400};
constexpr std::uint16_t kNoSector = 0xFFFF;
constexpr std::uint16_t kEmptyWord = 0xFFFF;

constexpr int kMaxImage = 1000;
constexpr int kLengthAt = 2;
constexpr int kChecksumAt = 4;
constexpr int kHeaderSize = 6;
constexpr int kTagSize = 2;
constexpr int kEndMarkerSize = 2;
constexpr int kMinImage = kHeaderSize + kEndMarkerSize;
constexpr std::uint16_t kEndIdentifier = 0xFFF;

struct State {
    std::uint8_t images[2][kMaxImage];
    int current; // index of the current image; the other one is the work image
};
// Zero-filled images have length 0: a lookup before the start-up finds nothing.
constinit State state{};

// Apart from the images, whose zeros its start values would bring into the program's image.
struct Sectors {
    std::uint16_t current; // Kept: a debugger reads it, no routine does.
    std::uint16_t target;  // the next commit goes here
};
constinit Sectors sectors{kNoSector, kNoSector};

std::uint8_t *CurrentImage() { return state.images[state.current]; }
std::uint8_t *WorkImage() { return state.images[1 - state.current]; }
void SwapImages() { state.current = 1 - state.current; }
std::uint16_t TargetSector() { return sectors.target; }

std::uint16_t OtherSector(std::uint16_t sector) { return kSectorAddress[sector == kSectorAddress[0] ? 1 : 0]; }

void SetCurrentSector(std::uint16_t sector) {
    sectors.current = sector;
    sectors.target = OtherSector(sector);
}

void ResetState() {
    std::memset(state.images, 0xFF, sizeof state.images);
    state.current = 0;
    sectors = {kNoSector, kNoSector};
}

std::uint16_t Get16(const std::uint8_t *bytes) { return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]); }

void Put16(std::uint8_t *bytes, std::uint16_t value) {
    bytes[0] = static_cast<std::uint8_t>(value >> 8);
    bytes[1] = static_cast<std::uint8_t>(value);
}

int UsedLength(const std::uint8_t *image) { return Get16(image + kLengthAt); }

// Kept: the block number is not shifted past the direction bit; the bus clears or sets that.
std::uint8_t ControlByte(unsigned address) { return static_cast<std::uint8_t>(kChipControl | address / kBlockSize); }

} // namespace

int ReadEEprom_24LC16(std::uint16_t address, std::uint8_t *buffer, std::uint16_t *count) {
    const unsigned wanted = *count;
    if (address > kChipSize || address + wanted > kChipSize) return kStoreFailed;
    int result = kTwiOk;
    unsigned done = 0;
    while (done < wanted) {
        const unsigned at = address + done;
        auto piece = static_cast<std::uint16_t>(std::min(kBlockSize - at % kBlockSize, wanted - done));
        result = TWIReadSub1(ControlByte(at), static_cast<std::uint8_t>(at), buffer + done, &piece);
        if (piece == 0) { // no way on
            if (result == kTwiOk) result = kTwiStretchTimeout;
            break;
        }
        done += piece; // Kept: a piece that failed before its data is stepped over.
    }
    *count = static_cast<std::uint16_t>(done);
    return result;
}

namespace {

// Repeats at once while the chip does not answer, busy with the page before. `failures` counts over the whole transfer.
int WritePiece(unsigned at, const std::uint8_t *buffer, unsigned length, int &failures) {
    int result;
    do {
        auto count = static_cast<std::uint16_t>(length);
        result = TWIWriteSub1(ControlByte(at), static_cast<std::uint8_t>(at), buffer, &count);
        if (result != kTwiOk) ++failures;
    } while (result == kTwiNoAddressAck && failures < kMaxFailures);
    return result;
}

} // namespace

int WriteEEprom_24LC16(std::uint16_t address, const std::uint8_t *buffer, std::uint16_t *count) {
    const unsigned wanted = *count;
    if (address > kChipSize || wanted > kChipSize) return kStoreFailed;
    int result = kTwiOk;
    int failures = 0;
    unsigned done = 0;
    while (done < wanted) {
        const unsigned at = address + done;
        const unsigned piece = std::min(kPageSize - at % kPageSize, wanted - done);
        result = WritePiece(at, buffer + done, piece, failures);
        if (result != kTwiOk) break;
        done += piece;
    }
    *count = static_cast<std::uint16_t>(done);
    return result;
}

std::uint16_t generateChkSum(const std::uint8_t *image) {
    const int length = std::min(UsedLength(image), kMaxImage);
    unsigned sum = 0;
    for (int i = 0; i < length; ++i) sum += image[i];
    return static_cast<std::uint16_t>(0x10000 - sum);
}

int checkChkSum(std::uint8_t *image) {
    const std::uint16_t stored = Get16(image + kChecksumAt);
    Put16(image + kChecksumAt, 0);
    const std::uint16_t right = generateChkSum(image);
    Put16(image + kChecksumAt, stored);
    return stored == right ? 0 : 1;
}

void decodeParam(const std::uint8_t *tag, std::uint16_t *identifier, std::uint16_t *length) {
    *identifier = static_cast<std::uint16_t>(tag[0] << 4 | tag[1] >> 4);
    *length = tag[1] & 0xF;
}

void encodeParam(std::uint8_t *tag, std::uint16_t identifier, std::uint16_t length) {
    tag[0] = static_cast<std::uint8_t>(identifier >> 4);
    tag[1] = static_cast<std::uint8_t>((identifier & 0xF) << 4 | (length & 0xF));
}

int readEEpromParameter(std::uint16_t identifier, std::uint8_t *buffer, std::uint16_t *length) {
    const std::uint8_t *image = CurrentImage();
    const int used = UsedLength(image);
    if (used > kMaxImage || identifier == kEndIdentifier) return kStoreFailed;
    for (int at = kHeaderSize; at + kTagSize <= used;) {
        std::uint16_t found;
        std::uint16_t size;
        decodeParam(image + at, &found, &size);
        at += kTagSize;
        // Kept: 0xFF ends the search, not the end marker's 0xFFF; that one runs into the end of the image.
        if (found == 0xFF || at + size > used) break;
        if (found == identifier) {
            std::memcpy(buffer, image + at, size);
            *length = size;
            return 0;
        }
        at += size;
    }
    return kStoreFailed;
}

int readNetParameter(std::uint16_t identifier, std::uint8_t *buffer, std::uint16_t *length) {
    return readEEpromParameter(identifier, buffer, length) != 0 ? 1 : 0;
}

namespace {

struct Record {
    std::uint16_t identifier;
    std::uint16_t length;
    const std::uint8_t *data;
};

// Appends a record at `end`, which moves on. Leaves room for the end marker; false where there is none.
bool AppendRecord(std::uint8_t *image, int &end, const Record &record) {
    if (end + kTagSize + record.length + kEndMarkerSize > kMaxImage) return false;
    encodeParam(image + end, record.identifier, record.length);
    end += kTagSize;
    if (record.length > 0) std::memcpy(image + end, record.data, record.length);
    end += record.length;
    return true;
}

// Copies the current image's records to the work image with `changed` in its place, or after them all.
int CopyRecords(const Record &changed, int &end) {
    const std::uint8_t *image = CurrentImage();
    const int used = UsedLength(image);
    bool replaced = false;
    for (int at = kHeaderSize;;) {
        if (at + kTagSize > used) return kStoreFailed;
        Record record;
        decodeParam(image + at, &record.identifier, &record.length);
        if (record.identifier == kEndIdentifier) break;
        record.data = image + at + kTagSize;
        at += kTagSize + record.length;
        if (at > used) return kStoreFailed;
        const bool same = record.identifier == changed.identifier;
        replaced |= same;
        if (!AppendRecord(WorkImage(), end, same ? changed : record)) return kStoreNoRoom;
    }
    return replaced || AppendRecord(WorkImage(), end, changed) ? 0 : kStoreNoRoom;
}

// Makes the work image, whose records end at `end`, the current one.
void AdoptWorkImage(int end) {
    Put16(WorkImage() + end, 0xFFFF);
    SwapImages();
    std::uint8_t *image = CurrentImage();
    Put16(image + kLengthAt, static_cast<std::uint16_t>(end + kEndMarkerSize));
    Put16(image + kChecksumAt, 0);
    Put16(image + kChecksumAt, generateChkSum(image));
}

} // namespace

int WriteEEpromParameter(std::uint16_t identifier, const std::uint8_t *data, std::uint16_t length) {
    if (UsedLength(CurrentImage()) + length >= kMaxImage) return kStoreNoRoom;
    if (length > kMaxParameterLength || identifier >= kEndIdentifier) return kStoreFailed;
    std::memcpy(WorkImage(), CurrentImage(), kHeaderSize);
    int end = kHeaderSize;
    const int result = CopyRecords({identifier, length, data}, end);
    if (result == 0) AdoptWorkImage(end);
    return result;
}

int CommitBuffer(void) {
    const int used = UsedLength(CurrentImage());
    if (used > kMaxImage) return kStoreFailed;
    const std::uint16_t target = TargetSector();
    auto count = static_cast<std::uint16_t>(used);
    const int result = WriteEEprom_24LC16(target, CurrentImage(), &count);
    if (result != 0) return result;
    SetCurrentSector(target);
    cleanSector(TargetSector()); // until this is done either sector is good: its result does not matter
    return 0;
}

int ReadAndCheckSector(std::uint16_t address, std::uint16_t length) {
    if (length < kMinImage || length > kMaxImage) return kStoreFailed;
    std::uint16_t count = length;
    const int result = ReadEEprom_24LC16(address, CurrentImage(), &count);
    return result != 0 ? result : checkChkSum(CurrentImage());
}

int cleanSector(std::uint16_t address) {
    const std::uint8_t blank[kHeaderSize] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    std::uint16_t count = sizeof blank;
    return WriteEEprom_24LC16(address, blank, &count);
}

namespace {

struct SectorHeader {
    std::uint16_t word; // 0 = empty
    std::uint16_t length;
};

int ReadHeader(std::uint16_t address, SectorHeader &header) {
    std::uint8_t bytes[kHeaderSize];
    std::uint16_t count = sizeof bytes;
    const int result = ReadEEprom_24LC16(address, bytes, &count);
    if (result != 0) return result;
    const std::uint16_t word = Get16(bytes);
    header = {word == kEmptyWord ? std::uint16_t{0} : word, Get16(bytes + kLengthAt)};
    return 0;
}

int ReadHeaders(SectorHeader (&headers)[2]) {
    for (int sector = 0; sector < 2; ++sector) {
        const int result = ReadHeader(kSectorAddress[sector], headers[sector]);
        if (result != 0) return result;
    }
    return 0;
}

void BlankCurrentImage() { std::memset(CurrentImage(), 0xFF, kMaxImage); }

// Tries the sectors in the order `first`, the other. `loaded` becomes the one that passed.
int LoadEither(const SectorHeader (&headers)[2], int first, int &loaded) {
    int result = kStoreFailed;
    for (const int sector : {first, 1 - first}) {
        result = ReadAndCheckSector(kSectorAddress[sector], headers[sector].length);
        if (result != 0) continue;
        loaded = sector;
        return 0;
    }
    BlankCurrentImage(); // what was read into it is no image
    return result;
}

} // namespace

int IdentifyValidSector(void) {
    SectorHeader headers[2];
    int result = ReadHeaders(headers);
    if (result != 0) return result;
    if (headers[0].word == 0 && headers[1].word == 0) {
        BlankCurrentImage();
        return kStoreEmpty;
    }
    int loaded = 0;
    result = LoadEither(headers, headers[0].word >= headers[1].word ? 0 : 1, loaded);
    if (result != 0) return result;
    SetCurrentSector(kSectorAddress[loaded]);
    if (headers[1 - loaded].word != 0) cleanSector(TargetSector());
    return 0;
}

int InitEEpromParameters(void) {
    ResetState();
    IdentifyValidSector();
    return 0;
}
