// fixture image: headers put on and looked at; ELF files laid out flat.
#include "formats/stored_image.h"
#include "harness/command.h"
#include "harness/small_executable.h"
#include "harness/started_board.h"
#include "harness/texts.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace fixture {

namespace {

// With its code as two parts that lie apart in memory, the higher one first in the file.
struct TwoPartExecutable : SmallExecutable {
    TwoPartExecutable() {
        const std::uint32_t at = segments[0].p_offset;
        code = {'h', 'i', 'g', 'h', 'l', 'o', 'w', '.'};
        header.e_phnum = 2;
        segments[0] = {PT_LOAD, at, kBase + 6, kBase + 6, 4, 4, PF_R, 4};
        segments[1] = {PT_LOAD, at + 4, kBase, kBase, 4, 4, PF_R | PF_X, 4};
    }
    std::string text() const { return {bytes().begin(), bytes().end()}; }
};

class ImageCommand : public testing::Test {
protected:
    CommandResult wrap(const std::string &content) {
        std::filesystem::remove(out);
        return RunFixture({"image", "wrap", here.write("in", content), out});
    }
    nlohmann::json info(const std::string &content, int exit_status) {
        const CommandResult result = RunFixture({"image", "info", "--json", here.write("in", content)});
        EXPECT_EQ(result.exit_status, exit_status) << result.output << result.error;
        return result.json();
    }

    TemporaryDirectory here;
    std::filesystem::path out = here.path() / "out";
};

TEST_F(ImageCommand, WrapsLikeTheReferenceImages) {
    const std::string maker = std::string("Orvalis Luminations") + '\0';
    const auto wrapped = [&](const std::string &content) {
        EXPECT_EQ(wrap(content).exit_status, 0);
        return AsText(ReadFile(out, 100));
    };
    EXPECT_EQ(wrapped("application file"),
              maker + std::string("\x30\0\0\0\xBB\x4B\x23\x01\x3B\x5B\xE0\x9B", 12) + "application file");
    EXPECT_EQ(wrapped("boot file"),
              maker + std::string("\x29\0\0\0\xDB\x48\x23\x01\xE9\x4F\xE9\x93", 12) + "boot file");
    EXPECT_EQ(wrapped(TwoPartExecutable().text()).substr(32), std::string("low.\0\0high", 10));
}

TEST_F(ImageCommand, RefusesWhatIsNoImage) {
    TwoPartExecutable entry, apart;
    entry.header.e_entry += 4;
    apart.segments[0].p_paddr = 0xF0000000;
    const std::pair<std::string, const char *> rows[] = {
        {AsText(Wrap(Bytes(5))), "carries a stored image header already"},
        {std::string(kLargestStoredImage - 31, 'x'), "16777153 bytes; expected at most 16777152"},
        {entry.text(), "entry at 0x20100004; expected it at the image's first byte, 0x20100000"},
        {apart.text(), "too far apart"},
    };
    for (const auto &[content, message] : rows) {
        const CommandResult result = wrap(content);
        EXPECT_EQ(result.exit_status, 1) << message;
        EXPECT_NE(result.error.find(message), std::string::npos) << result.error;
        EXPECT_FALSE(std::filesystem::exists(out)) << message;
    }
}

TEST_F(ImageCommand, SaysWhatIsWrongWithAnImage) {
    const std::string good = AsText(Wrap(Bytes(100, 'b')));
    const auto with = [&](std::size_t offset, const std::string &bytes) {
        return std::string(good).replace(offset, bytes.size(), bytes);
    };
    // With the fields that are not valid.
    const std::pair<std::string, std::string> rows[] = {
        {good, ""},
        {good + "more", ""},
        {with(8, "l"), "maker "},
        {with(19, "s"), "maker "},
        {with(20, std::string("\x20\0\0\0", 4)), "sum1 sum2 "},
        {with(20, std::string("\x1F\0\0\0", 4)), "size sum1 sum2 "},
        {with(20, "\xFF\xFF\xFF\xFF"), "size sum1 sum2 "},
        {good.substr(0, 131), "size sum1 sum2 "},
        {with(24, "x"), "sum1 "},
        {with(31, "x"), "sum2 "},
        {with(50, "c"), "sum1 sum2 "},
        {good.substr(0, 31), "header "},
        {"", "header maker "},
        {std::string(64, '\xFF'), "maker size sum1 sum2 "},
    };
    for (const auto &[content, expected] : rows) {
        const nlohmann::json report = info(content, expected.empty() ? 0 : 1);
        std::string invalid;
        for (const auto &[name, field] : report["fields"].items()) {
            if (!field["valid"]) invalid += name + " ";
            EXPECT_EQ(field["valid"], !field.contains("expected"));
        }
        EXPECT_EQ(invalid, expected) << report.dump(1);
    }
    EXPECT_EQ(info(good + "more", 0)["trailing"], 4);
    const nlohmann::json large = info(AsText(Wrap(Bytes(0x1E0000 - 31))), 0);
    ASSERT_EQ(large["warnings"].size(), 1u);
    EXPECT_EQ(large["warnings"][0]["id"], "fits-no-slot");
    EXPECT_EQ(large["warnings"][0]["found"], "NAND: bootloader: 1966081 bytes fit neither slot; the update is refused");
    std::string fits;
    for (const nlohmann::json &slot : large["slots"]) fits += slot["fits"] ? "+" : "-";
    EXPECT_EQ(fits, "--++++") << large.dump(1);
}

} // namespace

} // namespace fixture
