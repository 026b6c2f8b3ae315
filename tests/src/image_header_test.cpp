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
constexpr std::uint32_t kRescueSlot = 0x404000; // of the DataFlash, as are the following
constexpr std::uint32_t kVersionRecord = 0x7F00;

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

std::string NoiseText(std::size_t length) {
    const Bytes bytes = Noise(length);
    return {bytes.begin(), bytes.end()};
}

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
        const Bytes bytes =
            medium == Medium::nand ? chips.nand.read(address, length) : chips.dataflash.read(address, length);
        return {bytes.begin(), bytes.end()};
    }
    void SetUp() override {
        call("NandFlash_if_Init");
        call("SDFlash_Init");
    }
};
BOTH_PROCESSORS(Images);

TEST_P(Images, HaveSumsOverTheBodyAlone) {
    for (const std::size_t length : {0, 1, 7, 8, 9, 15, 16, 17, 1000}) {
        std::string image = StoredImage(NoiseText(length));
        EXPECT_EQ(ram_checksums(image), 0) << length;
        image[3] ^= 1;
        EXPECT_EQ(ram_checksums(image), 0) << "another maker";
        for (const std::size_t at : {std::size_t{24}, std::size_t{31}, image.size() - 1}) {
            std::string changed = image;
            changed[at] ^= 0x10;
            EXPECT_EQ(ram_checksums(changed), -1) << length << " changed at " << at;
        }
    }
    const auto reference = [&](const char *name) { return static_cast<const char *>(started.object(name)); };
    EXPECT_EQ(ram_checksums({reference("TestApplicationData"), 48}), 0);
    EXPECT_EQ(ram_checksums({reference("TestBootData"), 41}), 0);
    EXPECT_STREQ(reference("TestApplicationData"), "Orvalis Luminations");
    EXPECT_STREQ(reference("TestBootData"), "Orvalis Luminations");
}

TEST_P(Images, AreTakenUpToTheLargestSizeAlone) {
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
    std::string unterminated = good, other_case = good, broken = good;
    unterminated[19] = 's';
    other_case[0] = 'o';
    broken.back() ^= 1;
    // At last what is read and written on the NAND; the first look at a block reads its marks.
    const std::tuple<std::string, int, int, const char *> rows[] = {
        {StoredImage(NoiseText(3000)), 0, 0, "r2.0-1 R2.0 R2.0 R2.0-1 R2.0 E2 P2.0 R2.0"},
        {broken, 0, -1, "R2.0 R2.0 R2.0 R2.0 E2 P2.0 R2.0"},
        {unterminated, -1, 0, "R2.0 R2.0 R2.0 R2.0"},
        {other_case, -1, 0, "R2.0 R2.0 R2.0 R2.0"},
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
    EXPECT_EQ(call("Validate_SDFlashHeader", 0x0FFFFFF0), -1);
    EXPECT_EQ(started.console(), unread + "\tSDFlash read header failed\n");
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
        EXPECT_EQ(check(NoiseText(length), 0, size), 0) << length;
        EXPECT_EQ(std::memcmp(started.at(kLoadBuffer), NoiseText(length).data(), length), 0) << length;
        EXPECT_EQ(check(std::string(length, '\xFF'), 0, size), 0) << length;
        EXPECT_EQ(check(std::string(length, '\xFF'), 0x10000, size), -1) << length;
        EXPECT_EQ(started.console(), "");
        EXPECT_EQ(check(NoiseText(length), 0, size + 1), -1);
        EXPECT_EQ(started.console(), fmt::format("filesize check {} != {}\n", length + 1, length));
    }
    const std::uint32_t missing = started.scratch_text("i:/vol0/none");
    EXPECT_EQ(call("Validate_File", missing), -1);
    EXPECT_EQ(started.console(), "");
    for (const char *load : {"Boot_LoadImageIntoMemory", "Rescue_LoadImageIntoMemory"}) {
        EXPECT_EQ(call(load, missing, kLoadBuffer), -1);
        EXPECT_EQ(started.console(),
                  "FileSize failed with errno=2\tFatal Error : unable to load bootloader into ram\n");
    }
    for (const std::string image : {"Boot", "Rescue"}) {
        call(image + "_SetPathFilename", missing);
        EXPECT_EQ(call(image + "_Store", image == "Boot" ? 0 : missing), -1);
        EXPECT_EQ(started.console(),
                  "FileSize failed with errno=2\tFatal Error : unable to load bootloader into ram\n");
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
    const std::tuple<std::string, std::string, bool> rows[] = {
        {std::string(16, '\xFF'), "1.0", true},
        {"1.0", "1.0", false},
        {"1.0.1", "1.0", true},
        {"2.0", "1.0", true},
        {"", "", false},
        {"1234567890123456", "1234567890123456", false},
        {"1234567890123456", "1234567890123457", true},
        {"1234567890123456", "123456789012345", true},
        {"Orvalis Luminati", "1.0", false}, // a bootloader lies where the record should be
        {"Orvalis Luminat", "1.0", true},
    };
    const std::uint32_t record = started.scratch(16);
    const auto padded = [](std::string text) { return text.resize(16), text; };
    for (const auto &[stored, in_bank, is_new] : rows) {
        put(kVersionRecord, padded(stored));
        call("Rescue_SetVersion", started.scratch_text(in_bank));
        EXPECT_EQ(call("Validate_IsNewRescueVersion", record, 0), is_new ? 0 : -1) << stored;
        const std::string given(started.at(record), started.at(record) + 16);
        EXPECT_TRUE(!is_new || given == padded(in_bank)) << stored << ' ' << given;

        call("Boot_SetVersion", started.scratch_text(in_bank));
        EXPECT_EQ(call("Validate_IsNewBootVersion", 0), 0);
        EXPECT_EQ(started.console(), fmt::format("Current bootlaoder is: 1.9.0\nBank bootloader is: {}\n", in_bank));
    }
    call("Boot_SetVersion", started.scratch_text("1.9.0"));
    EXPECT_EQ(call("Validate_IsNewBootVersion", 0), -1);
}

} // namespace

} // namespace fixture
