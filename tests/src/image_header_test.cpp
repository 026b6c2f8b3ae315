// File sums, stored images and versions: the checks behind every launch and every write to raw flash.
#include "formats/slots.h"
#include "harness/nand_log.h"
#include "harness/noise.h"
#include "tests/processors.h"

#include <fmt/format.h>
#include <optional>

namespace fixture {

namespace {

constexpr std::uint32_t kLoadBuffer = 0x23000000;
constexpr std::uint32_t kRescueSlot = 0x404000; // of the DataFlash

struct Header {
    char maker[20];
    std::uint32_t size, sum1, sum2;
};

// Made the slow way, from the format's description.
std::string StoredImage(const std::string &body, std::optional<std::uint32_t> size = {}) {
    const auto whole = static_cast<std::uint32_t>(sizeof(Header) + body.size());
    Header header{"Orvalis Luminations", size.value_or(whole), 0x01234567, 0x89ABCDEF};
    for (const char c : body) {
        header.sum1 += static_cast<std::uint8_t>(c);
        header.sum2 += header.sum1;
    }
    return std::string(reinterpret_cast<const char *>(&header), sizeof header) + body;
}

std::string Text(const Bytes &bytes) { return {bytes.begin(), bytes.end()}; }
std::string Changed(std::string image, std::size_t at) { return image[at] ^= 0x20, image; }

class Images : public OnBoard {
protected:
    int ram_checksums(const std::string &image) { return call_with("Validate_RamChecksums", image); }
    void put(std::uint32_t address, const std::string &bytes, Medium medium = Medium::dataflash) {
        const auto *const data = reinterpret_cast<const std::uint8_t *>(bytes.data());
        if (medium == Medium::dataflash) return chips.dataflash.write(address, {data, bytes.size()});
        chips.nand.erase(address / kNandBlockBytes);
        chips.nand.write(address, {data, bytes.size()});
    }
    std::string kept(std::uint32_t address, std::size_t size, Medium medium) {
        const auto length = static_cast<std::uint32_t>(size);
        return Text(medium == Medium::nand ? chips.nand.read(address, length) : chips.dataflash.read(address, length));
    }
    void SetUp() override {
        call("NandFlash_if_Init");
        call("SDFlash_Init");
    }
};
BOTH_PROCESSORS(Images);

TEST_P(Images, AreTakenUpToTheLargestSizeAlone) {
    const auto reference = [&](const char *name) { return static_cast<const char *>(started.object(name)); };
    for (const auto &[name, size] : {std::pair{"TestApplicationData", 48u}, std::pair{"TestBootData", 41u}}) {
        EXPECT_EQ(ram_checksums(std::string(reference(name), size)), 0) << name;
        EXPECT_STREQ(reference(name), "Orvalis Luminations");
    }
    for (const std::uint32_t size : {0u, 31u, 32u, 0xFFFFE1u, 0x1000001u, 0xFFFFFFE0u, 0xFFFFFFFFu}) {
        const int result = size == 32 ? 0 : -1;
        const std::string image = StoredImage("", size);
        EXPECT_EQ(ram_checksums(image), result) << size;
        put(kRescueSlot, image);
        EXPECT_EQ(call("Validate_SDFlashImage", kRescueSlot), result) << size;
        EXPECT_EQ(started.console(), "") << size;
    }
    // What was read is less than what the size field claims, though it may lie in memory from before.
    const std::uint32_t image = started.scratch_text(StoredImage("left over"));
    EXPECT_EQ(call("Validate_LoadedImage", image, 40), -1);
    EXPECT_EQ(call("Validate_LoadedImage", image, 41), 0);
    std::string largest = StoredImage(std::string(0x1000000 - sizeof(Header), '\0'));
    for (const int result : {0, -1}) {
        std::memcpy(started.at(kLoadBuffer), largest.data(), largest.size());
        EXPECT_EQ(call("Validate_RamChecksums", kLoadBuffer), result);
        largest.back() = 1;
    }
}

TEST_P(Images, InSlotsAreCheckedByHeaderAndWhole) {
    const std::string good = StoredImage("body");
    // At last what is read and written on the NAND; the first look at a block reads its marks.
    const std::tuple<std::string, int, int, const char *> rows[] = {
        {StoredImage(Text(Noise(3000))), 0, 0, "r2.0-1 R2.0 R2.0 R2.0-1 R2.0 E2 P2.0 R2.0"},
        {Changed(good, good.size() - 1), 0, -1, "R2.0 R2.0 R2.0 R2.0 E2 P2.0 R2.0"},
        {Changed(good, 24), 0, -1, "R2.0 R2.0 R2.0 R2.0 E2 P2.0 R2.0"}, // the first sum
        {Changed(good, 31), 0, -1, "R2.0 R2.0 R2.0 R2.0 E2 P2.0 R2.0"}, // the second sum
        {Changed(good, 19), -1, 0, "R2.0 R2.0 R2.0 R2.0"},              // the maker's end
        {Changed(good, 0), -1, 0, "R2.0 R2.0 R2.0 R2.0"},               // its case
        {std::string(64, '\xFF'), -1, -1, "R2.0 R2.0 R2.0"},
        {std::string(64, '\0'), -1, -1, "R2.0 R2.0 R2.0"},
    };
    for (const Medium medium : {Medium::nand, Medium::dataflash})
        for (const auto &[content, header, whole, on_nand] : rows) {
            const std::string validate = medium == Medium::nand ? "Validate_NandFlash" : "Validate_SDFlash";
            const auto check = [&](const char *what, std::uint32_t at) { return call(validate + what, at); };
            const std::uint32_t slot = SlotsOf(medium).bootloader[0].address;
            put(slot, content, medium);
            NandLog log(started.board().bus);
            std::memset(started.at(kLoadBuffer), 0x5A, 4096);
            EXPECT_EQ(check("Header", slot), header);
            EXPECT_EQ(started.console(),
                      fmt::format("\t{} header at address 0x{:08x}\n", header ? "Invalid" : "Valid", slot));
            EXPECT_EQ(*started.at(kLoadBuffer), 0x5A) << "a header check leaves the load buffer alone";
            EXPECT_EQ(check("Image", slot), whole);
            EXPECT_EQ(check("InvalidateImage", slot), 0);
            EXPECT_EQ(log.operations(), medium == Medium::nand ? on_nand : "");
            started.board().bus.observer = nullptr;
            std::string after = content;
            if (header == 0) { // it is retired: on the NAND by a page of zeros
                std::memset(after.data(), 0, sizeof(Header));
                if (medium == Medium::nand)
                    after = std::string(kNandPageBytes, '\0') + std::string(kNandPageBytes, '\xFF');
            }
            EXPECT_EQ(kept(slot, after.size(), medium), after);
            EXPECT_EQ(started.console(), "");
        }
    EXPECT_EQ(call("Validate_NandFlashHeader", 0xA0000), -1);
    EXPECT_EQ(started.console(), "\tInvalid header at address 0x000a0000\n");
    const std::string unread = "\tAT91SAM926X_ReadDataflash : Failed with Error=1\n";
    // The check reads on after an image: one that ends with the chip has a header and cannot be checked.
    const auto last = static_cast<std::uint32_t>(chips.dataflash.bytes() - good.size());
    put(last, good);
    for (const auto &[routine, at] :
         {std::pair{"Validate_SDFlashImage", 0x0FFFFFF0u}, std::pair{"Validate_SDFlashInvalidateImage", 0x0FFFFFF0u},
          std::pair{"Validate_SDFlashImage", last}}) {
        EXPECT_EQ(call(routine, at), -1) << routine;
        EXPECT_EQ(started.console(), unread) << routine;
    }
    put(kRescueSlot, good);
    const auto size = static_cast<std::uint32_t>(good.size());
    const std::uint32_t dataflash = started.call("Medium_Of", 0);
    EXPECT_EQ(call("Validate_ImageWithin", dataflash, kRescueSlot, size), 0);
    EXPECT_EQ(call("Validate_ImageWithin", dataflash, kRescueSlot, size - 1), -1);
}

// The update path has shorter ways to the slots; nothing else calls these.
TEST_P(Images, AreCopiedToTheirSlots) {
    const std::string good = StoredImage("body");
    const auto size = static_cast<std::uint32_t>(good.size());
    for (const Medium medium : {Medium::nand, Medium::dataflash}) {
        const SlotTable &slots = SlotsOf(medium);
        const std::string to = medium == Medium::nand ? "_CopyImageToNandFlash" : "_CopyImageToSDFlash";
        const std::uint32_t image = started.scratch_text(good + std::string(2048, 'x'));
        for (const auto &[routine, slot] :
             {std::pair{"Boot" + to, slots.bootloader[1]}, {"Rescue" + to, slots.rescue}}) {
            EXPECT_EQ(call(routine, image, size), 0) << routine;
            EXPECT_EQ(kept(slot.address, good.size(), medium), good) << routine;
        }
    }
}

TEST_P(Images, FilesAreSummedInEveryLength) {
    const auto check = [&](const std::string &bytes, std::uint32_t off_by, std::uint32_t size) {
        volume.write("f", bytes);
        std::uint32_t sum = off_by;
        for (const char c : bytes) sum += static_cast<std::uint8_t>(c);
        return call("Validate_File", started.scratch_text("i:/vol0/f"), sum, size);
    };
    for (const std::size_t length : {0, 1, 3, 4, 15, 16, 17, 31, 511, 512, 513, 1040, 100'003}) {
        const auto size = static_cast<std::uint32_t>(length);
        EXPECT_EQ(check(Text(Noise(length)), 0, size), 0) << length;
        EXPECT_EQ(std::memcmp(started.at(kLoadBuffer), Text(Noise(length)).data(), length), 0) << length;
        EXPECT_EQ(check(std::string(length, '\xFF'), 0, size), 0) << length;
        EXPECT_EQ(check(std::string(length, '\xFF'), 0x10000, size), -1) << length;
        EXPECT_EQ(started.console(), "");
        EXPECT_EQ(check(Text(Noise(length)), 0, size + 1), -1);
        EXPECT_EQ(started.console(), fmt::format("filesize check {} != {}\n", length + 1, length));
    }
    const std::uint32_t missing = started.scratch_text("i:/vol0/none");
    EXPECT_EQ(call("Validate_File", missing), -1);
    EXPECT_EQ(started.console(), "");
    for (const std::string image : {"Boot", "Rescue"}) {
        call(image + "_SetPathFilename", missing);
        for (const auto &[routine, first] : {std::pair{"_LoadImageIntoMemory", missing}, {"_Store", 0u}}) {
            EXPECT_EQ(call(image + routine, first, kLoadBuffer), -1);
            EXPECT_EQ(started.console(),
                      "FileSize failed with errno=2\tFatal Error : unable to load bootloader into ram\n");
        }
    }
}

TEST_P(Images, FilesAreTakenUpToTheLoadBufferAndWhole) {
    const std::uint32_t file = started.scratch_text("i:/vol0/f");
    // The second one is negative to its reader; semihosting has no such file.
    for (const std::uint32_t size : {0x1000001u, 0x80000000u}) {
        if (size == 0x80000000 && GetParam() == Processor::arm) continue;
        std::filesystem::resize_file(volume.write("f", ""), size);
        EXPECT_EQ(call("Validate_File", file, 0, size), -1);
        EXPECT_EQ(call("Boot_LoadImageIntoMemory", file, kLoadBuffer), -1);
        EXPECT_EQ(started.console(), "");
    }
    // It shrinks after its size was asked for.
    const std::filesystem::path shrinking = volume.write("f", std::string(5000, '\0'));
    started.machine().observer = [&](EventKind, const std::string &, const std::string &what) {
        if (what.starts_with("close")) std::filesystem::resize_file(shrinking, 100);
    };
    EXPECT_EQ(call("Validate_File", file, 0, 5000), -1);
    started.machine().observer = nullptr;
}

TEST_P(Images, BanksNeedTheirTexts) {
    const std::tuple<const char *, std::string, std::string> rows[] = {
        {"Validate_BankContent", "i:/vol0/none/", ""},
        {"Validate_BankContent", std::string(256 - 15, 'x'), ""}, // with the manifest's name too long by one
        {"Validate_Bank", std::string(256 - 25, 'x'), "error processing project descriptor file\n"},
    };
    for (const auto &[routine, bank, printed] : rows) {
        EXPECT_EQ(call(routine, started.scratch_text(bank)), -1) << bank;
        EXPECT_EQ(started.console(), printed);
    }
}

TEST_P(Images, AreNewWhereTheirVersionTextDiffers) {
    const std::uint32_t record = started.scratch(16);
    call_with("Rescue_SetVersion", "1.0");
    for (const auto &[stored, result] : {std::pair{"2.0", 0}, {"1.0", -1}, {"Orvalis Luminations", -1}}) {
        put(SlotsOf(Medium::dataflash).record.address, std::string(stored) + '\0');
        EXPECT_EQ(call("Validate_IsNewRescueVersion", record, 0), result) << stored;
    }
    call_with("Boot_SetVersion", "1.9.0");
    EXPECT_EQ(call("Validate_IsNewBootVersion", 0), -1);
}

// Four bytes are summed at a time; here plain loops do it over the bytes: whatever the address, the length and the
// bytes, all of them 0xFF included, which fill the lanes as far as they can be filled.
using RunningSums = std::array<std::uint32_t, 2>;

class Sums : public OnBoard {
protected:
    void expect_right(std::uint32_t address, std::uint32_t length) {
        const std::uint8_t *const bytes = started.at(address);
        RunningSums plain{0x01234567, 0x89ABCDEF};
        store(sums_, plain);
        std::uint32_t total = 0;
        for (std::uint32_t i = 0; i < length; ++i) {
            total += bytes[i];
            plain[0] += bytes[i];
            plain[1] += plain[0];
        }
        EXPECT_EQ(started.call("Sums_Bytes", address, length), total) << length << " bytes at " << address % 4;
        started.call("Sums_Running", sums_, address, length);
        EXPECT_EQ(stored<RunningSums>(started.at(sums_)), plain) << length << " bytes at " << address % 4;
    }

    const std::uint32_t place_ = started.scratch(8192);
    const std::uint32_t sums_ = started.scratch(sizeof(RunningSums));
};
BOTH_PROCESSORS(Sums);

TEST_P(Sums, AreThoseOfThePlainLoop) {
    const auto noise = [](std::uint32_t i) { return static_cast<std::uint8_t>(i * 2654435761u >> 24); };
    const auto full = [](std::uint32_t) { return std::uint8_t{0xFF}; };
    const auto odd = [](std::uint32_t i) { return static_cast<std::uint8_t>(i % 2 ? 0xFF : 0); };
    for (std::uint8_t (*const pattern)(std::uint32_t) : {+noise, +full, +odd}) {
        for (std::uint32_t i = 0; i < 8192; ++i) started.at(place_)[i] = pattern(i);
        for (const std::uint32_t offset : {0, 1, 2, 3})
            for (const std::uint32_t length : {0, 1, 3, 4, 63, 64, 65, 127, 128, 1023, 1024, 1025, 1088, 8188})
                expect_right(place_ + offset, length);
    }
}

} // namespace

} // namespace fixture
