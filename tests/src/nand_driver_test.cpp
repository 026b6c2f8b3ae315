// The NAND driver against its chip: what goes over the bus, what ends up in the chip, what is printed.
#include "harness/nand_log.h"
#include "harness/noise.h"
#include "tests/processors.h"

#include <cstring>
#include <fmt/format.h>
#include <numeric>

namespace fixture {

namespace {

using Fault = NandFault;

constexpr std::uint32_t kBlock = kNandBlockBytes;
constexpr std::uint32_t kPage = kNandPageBytes;

// A board with a NAND chip, and a log of what the last call did to it. Violations fail the test.
struct Raw {
    explicit Raw(Processor processor, const char *part = kDefaultNand)
        : chips{.eeprom = {}, .nand = NandContents(FindNandPart(part))}, started(processor, chips, {}) {}
    ~Raw() {
        for (const JournalEntry &entry : started.board().journal.violations())
            ADD_FAILURE() << entry.where << ": " << entry.what;
    }

    template <typename... Arguments> int call(const char *routine, Arguments... arguments) {
        log.clear();
        return static_cast<int>(started.call(routine, arguments...));
    }
    int init() { return call("NandFlash_if_Init"); }
    Bytes read(std::uint32_t address, std::uint32_t length) {
        std::memset(started.at(kBuffer), 0x77, length + 1);
        EXPECT_EQ(call("NandFlash_if_Read", address, kBuffer, length), 0);
        EXPECT_EQ(started.at(kBuffer)[length], 0x77) << "written past the buffer";
        return Bytes(started.at(kBuffer), started.at(kBuffer) + length);
    }
    void write(std::uint32_t address, const Bytes &source, std::int32_t length) {
        std::copy(source.begin(), source.end(), started.at(kBuffer));
        EXPECT_EQ(call("NandFlash_if_Write", address, kBuffer, length), 0);
    }
    // The geometry record of the chip, for the routines that take one.
    std::uint32_t geometry() {
        const std::uint32_t wide = chips.nand.part()->wide;
        const std::uint32_t fields[] = {2048,     64,        2112,    64,        131072, 4096, 135168, 2048,
                                        1u << 17, 276824064, 8388608, 285212672, 11,     wide, 0};
        const std::uint32_t address = started.scratch(sizeof fields);
        std::memcpy(started.at(address), fields, sizeof fields);
        return address;
    }
    std::string operations() { return log.operations(); }
    const std::string &accesses() const { return log.accesses(); }

    Chips chips;
    NandContents &nand = chips.nand;
    StartedBoard started;
    NandLog log{started.board().bus};
    static constexpr std::uint32_t kBuffer = 0x21800000;
};

class NandDriver : public testing::TestWithParam<Processor> {};
BOTH_PROCESSORS(NandDriver);

TEST_P(NandDriver, IdentifiesThePartsAndSetsUpItsBus) {
    const std::string common =
        "MATRIX.EBI0_CSA? MATRIX.EBI0_CSA=1000A SMC0.SETUP3=1010101 SMC0.PULSE3=3030303 SMC0.CYCLE3=50005 "
        "SMC0.MODE3=21003 PMC.PCER=4 PMC.PCER=10 PIOA.IFDR=400000 PIOA.IDR=400000 PIOA.PUER=400000 PIOA.ODR=400000 "
        "PIOA.PER=400000 PIOD.MDDR=8000 PIOD.IDR=8000 PIOD.PUDR=8000 [ PIOD.OER=8000 PIOD.PER=8000 [ c90 a00 r8x2 ]";
    EXPECT_EQ(NandParts().size(), 7u) << "the six that the driver knows, and one more";
    for (const NandPart &part : NandParts()) {
        Raw raw(GetParam(), part.name);
        const bool known = std::string(part.name) != "unknown";
        EXPECT_EQ(raw.init(), known) << part.name;
        EXPECT_EQ(raw.accesses(), common + (known && !part.wide ? " SMC0.MODE3? SMC0.MODE3=20003" : ""));
        EXPECT_EQ(raw.init(), known) << "again, from where the first left the bus";
        EXPECT_EQ(raw.started.console(), "");
        EXPECT_EQ(raw.read(kNandBytes - kBlock, kBlock + 1), Bytes(kBlock + 1, 0xFF)) << part.name;
        EXPECT_EQ(raw.operations(), known ? "r2047.0-1 R2047.0-63" : "") << part.name;
        if (known) continue;
        raw.write(0, Bytes(10, 1), 10);
        EXPECT_EQ(raw.accesses(), "") << "without a chip nothing is asked or written";
    }
}

TEST_P(NandDriver, SpeaksToTheChipInItsWidth) {
    const std::string erase = "[ c60 aC0 a80 a00 cD0 R R c70 R r8x1 ]";
    const std::tuple<const char *, const char *, const char *, const char *> rows[] = {
        {"K9F2G08U0M", "[ c00 a00 a08 aC0 a80 a00 c30 R R r8x64 ] [ c00 a00 a08 aC1 a80 a00 c30 R R r8x64 ]",
         "[ c00 a00 a00 aC0 a80 a00 c30 R R r8x2048 ]", "[ c80 a00 a00 aC0 a80 a00 w8x2048 c10 R R ]"},
        {"MT29F2G16AAB", "[ c00 a00 a04 aC0 a80 a00 c30 R R r16x32 ] [ c00 a00 a04 aC1 a80 a00 c30 R R r16x32 ]",
         "[ c00 a00 a00 aC0 a80 a00 c30 R R r16x1024 ]", "[ c80 a00 a00 aC0 a80 a00 w16x1024 c10 R R ]"}};
    constexpr std::uint32_t kAt = 515; // block
    for (const auto &[part, check, read, write] : rows) {
        for (const unsigned shift : {0u, 1u, 2u, 3u}) { // buffers of any alignment
            Raw raw(GetParam(), part);
            ASSERT_EQ(raw.init(), 1);
            const std::uint32_t chip = raw.geometry();
            const Bytes page = Noise(kPage, shift);
            raw.nand.write(kAt * kBlock, page);
            EXPECT_EQ(raw.call("CheckBlock", chip, kAt), 1);
            EXPECT_EQ(raw.accesses(), check);
            EXPECT_EQ(raw.call("CheckBlock", chip, kAt), 1);
            EXPECT_EQ(raw.accesses(), "") << "the verdict is remembered";
            EXPECT_EQ(raw.call("AT91F_NandRead", chip, kAt, 0, 99, raw.kBuffer + shift), 1);
            EXPECT_EQ(raw.accesses(), read);
            EXPECT_EQ(std::memcmp(raw.started.at(raw.kBuffer + shift), page.data(), kPage), 0);
            EXPECT_EQ(raw.call("AT91F_NandEraseBlock", chip, kAt * kBlock + 5), 1);
            EXPECT_EQ(raw.accesses(), erase);
            EXPECT_EQ(raw.call("NandFlash_Write", kAt * kBlock, raw.kBuffer + shift, 1), 0);
            EXPECT_EQ(raw.accesses(), erase + " " + write + " " + read);
            EXPECT_EQ(raw.nand.read(kAt * kBlock, kPage), page);
            for (const std::uint32_t beyond : {kNandBlocks, 32768u, 0xFFFFFFFEu}) {
                EXPECT_EQ(raw.call("CheckBlock", chip, beyond), 0);
                EXPECT_EQ(raw.call("AT91F_NandRead", chip, beyond, 0, 0, raw.kBuffer), 0);
                EXPECT_EQ(raw.call("AT91F_NandEraseBlock", chip, std::max(beyond, kNandBytes)), 0);
                EXPECT_EQ(raw.accesses(), "") << "nothing is asked of blocks that the chip does not have";
            }
        }
    }
}

TEST_P(NandDriver, WritesBlockByBlock) {
    const std::uint32_t at = 2 * kBlock, page5 = at + 5 * kPage;
    const std::string marked3 = "Block 00060000 is marked as bad...\n",
                      marked2047 = "Block 0FFE0000 is marked as bad...\n",
                      retired2 = "Block 00040000 is bad, marking it...\n";
    const std::string retires2 = "r2.0 p2.0 r2.0 p2.0 ", try2 = "E2 P2.0 R2.0 ";
    const auto erase = [](unsigned times) { return Fault{Fault::erase_fails, 2, {}, 0, times}; };
    const auto wrong = [](std::uint32_t page, unsigned skip, std::uint32_t column) {
        return Fault{Fault::wrong_bits, 2, page, skip, 1, column, 0x80};
    };
    const Fault program{Fault::program_fails, 2, 1}, flip{Fault::flipped, 2, 0, 1};
    const Fault stuck{Fault::stuck_low, 2, 0, 1, Fault::kForever, 0, 0xFF};
    using Blocks = std::vector<std::uint32_t>;
    const std::tuple<Blocks, std::vector<Fault>, std::uint32_t, std::int32_t, std::string, std::string> rows[] = {
        {{}, {}, at, 0, "", ""},
        {{}, {}, at, -5, "", ""},
        {{}, {}, at, 16, "r2.0-1 E2 P2.0 R2.0", ""},
        {{}, {}, at, kPage + 1, "r2.0-1 E2 P2.0-1 R2.0-1", ""},
        {{}, {}, at, 2 * kBlock, "r2.0-1 E2 P2.0-63 R2.0-63 r3.0-1 E3 P3.0-63 R3.0-63", ""},
        {{}, {}, page5, kPage, "r2.0-1 E2 P2.5 R2.5", ""},
        {{}, {}, page5 + 100, 3000, "r2.0-1 E2 P2.5-6 R2.5-6", ""},
        {{}, {wrong(6, 0, 100)}, page5 + 100, 3000, "r2.0-1 E2 P2.5-6 R2.5-6 E2 P2.5-6 R2.5-6", ""},
        {{}, {wrong(6, 0, 99)}, page5 + 100, 3000, "r2.0-1 E2 P2.5-6 R2.5-6", ""},        // before the data
        {{}, {}, 3 * kBlock - 1, 3, "r2.0-1 E2 P2.63 R2.63 r3.0-1 E3 P3.0-1 R3.0-1", ""}, // a byte a page
        {{3}, {}, at, kBlock + 1, "r2.0-1 E2 P2.0-63 R2.0-63 r3.0 r4.0-1 E4 P4.0 R4.0", marked3},
        {{}, {erase(2)}, at, 1, "r2.0-1 E2 E2 E2 P2.0 R2.0", ""},
        {{3}, {erase(3)}, at, 1, "r2.0-1 E2 E2 E2 " + retires2 + "r3.0 r4.0-1 E4 P4.0 R4.0", retired2 + marked3},
        {{}, {program}, at, 3 * kPage, "r2.0-1 E2 P2.0-2 R2.0-1 E2 P2.0-2 R2.0-2", ""},
        {{}, {wrong(1, 1, 2047), flip}, at, kPage + 1, "r2.0-1 E2 P2.0-1 R2.0 E2 P2.0-1 R2.0-1 E2 P2.0-1 R2.0-1", ""},
        {{}, {stuck}, at, 1, "r2.0-1 " + try2 + try2 + try2 + retires2 + "r3.0-1 E3 P3.0 R3.0", retired2},
        {{2047}, {}, 2046 * kBlock, 2 * kBlock, "r2046.0-1 E2046 P2046.0-63 R2046.0-63 r2047.0", marked2047},
        {{}, {}, kNandBytes, 1, "", ""}, // on the wire this would be block 0
        {{}, {}, 0xFFFFFFFF, 1, "", ""},
    };
    const Bytes source = Noise(3 * kBlock, 7);
    for (const auto &[bad, faults, address, length, operations, console] : rows) {
        Raw raw(GetParam(), length % 3 == 1 ? "MT29F2G16AAB" : "MT29F2G08ABD");
        for (const std::uint32_t block : bad) raw.nand.make_factory_bad(block);
        raw.nand.faults = faults;
        ASSERT_EQ(raw.init(), 1);
        raw.write(address, source, length);
        EXPECT_EQ(raw.operations(), operations);
        EXPECT_EQ(raw.started.console(), console);
        if (address != at || length <= 0) continue;
        const Bytes written = raw.read(at, static_cast<std::uint32_t>(length));
        EXPECT_EQ(written, Bytes(source.begin(), source.begin() + length)) << operations;
    }
}

TEST_P(NandDriver, RetiresABlockInItsFirstPageAlone) {
    for (const char *part : {"K9F2G08U0M", "MT29F2G16AAB"}) {
        Raw raw(GetParam(), part);
        raw.nand.faults = {{Fault::erase_fails, 5, {}, 0, 3}};
        NandContents::Page old = raw.nand.page(0);
        std::iota(old.begin() + kPage + 1, old.end(), std::uint8_t{0x80});
        raw.nand.set_page(5 * kNandPagesPerBlock, old);
        ASSERT_EQ(raw.init(), 1);
        raw.write(5 * kBlock, Bytes(kPage, 0x42), 1);
        const NandContents::Page &page = raw.nand.page(5 * kNandPagesPerBlock);
        EXPECT_EQ(page[kPage], 0x00);
        for (std::uint32_t n = 0; n < kNandRawPageBytes; ++n)
            EXPECT_TRUE(n == kPage || (old[n] & ~page[n]) == 0) << "the other bytes are as the erase left them: " << n;
        EXPECT_TRUE(raw.nand.erased(5 * kNandPagesPerBlock + 1));
    }
}

TEST_P(NandDriver, ReadsSkipBadBlocksAndEndWithTheChip) {
    const std::uint32_t at = 2 * kBlock;
    const std::string bad2 = "Bad block at address 00040000\n", bad3 = "Bad block at address 00060000\n";
    using Blocks = std::vector<std::uint32_t>; // those that are bad, and those that the bytes come from
    const std::tuple<Blocks, std::uint32_t, std::uint32_t, Blocks, const char *, std::string> rows[] = {
        {{}, at, 0, {}, "", ""},
        {{}, at + 5000, 3, {2}, "r2.0-1 R2.0", ""},
        {{}, at, kBlock + kPage + 1, {2, 3}, "r2.0-1 R2.0-63 r3.0-1 R3.0-1", ""},
        {{3}, at, kBlock + 1, {2, 4}, "r2.0-1 R2.0-63 r3.0 r4.0-1 R4.0", bad3},
        {{2, 3}, at, 1, {4}, "r2.0 r3.0 r4.0-1 R4.0", bad2 + bad3},
        {{}, 2047 * kBlock, kBlock + 5, {2047}, "r2047.0-1 R2047.0-63", ""},
        {{2047}, 2047 * kBlock, 5, {}, "r2047.0", "Bad block at address 0FFE0000\n"},
        {{}, kNandBytes, 5, {}, "", ""},
        {{}, 0xFFFFFFFF, 5, {}, "", ""},
    };
    for (const auto &[bad, address, length, blocks, operations, console] : rows) {
        Raw raw(GetParam());
        Bytes expected;
        for (const std::uint32_t block : blocks) {
            const Bytes data = Noise(kBlock, block);
            raw.nand.write(block * kBlock, data);
            expected.insert(expected.end(), data.begin(), data.end());
        }
        expected.resize(length, 0xFF);
        for (const std::uint32_t block : bad) raw.nand.make_factory_bad(block);
        ASSERT_EQ(raw.init(), 1);
        EXPECT_EQ(raw.read(address, length), expected) << address;
        EXPECT_EQ(raw.operations(), operations);
        EXPECT_EQ(raw.started.console(), console);
    }
}

TEST_P(NandDriver, TheMarkerIsOneByteOfPagesZeroAndOne) {
    const std::tuple<const char *, std::uint32_t, std::uint32_t, std::uint8_t, bool> rows[] = {
        {"K9F2G08U0M", 0, 2048, 0xFE, false},   {"K9F2G08U0M", 1, 2048, 0x00, false},
        {"K9F2G08U0M", 2, 2048, 0x00, true},    {"K9F2G08U0M", 0, 2049, 0x00, true},
        {"MT29F2G16AAB", 1, 2048, 0x00, false}, {"MT29F2G16AAB", 0, 2049, 0x00, true}};
    for (const auto &[part, page, column, value, good] : rows) {
        Raw raw(GetParam(), part);
        raw.nand.edit(4 * kNandPagesPerBlock + page).bytes[column] = value;
        ASSERT_EQ(raw.init(), 1);
        EXPECT_EQ(raw.call("CheckBlock", raw.geometry(), 4), good) << column;
    }
}

} // namespace

} // namespace fixture
