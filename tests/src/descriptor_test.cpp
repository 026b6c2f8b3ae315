// The project descriptor at the limits of its texts, on both processors.
#include "harness/bank_texts.h"
#include "tests/processors.h"

namespace fixture {

namespace {

using Texts = DescriptorTexts;

std::string Application(const Texts &texts) { return DescriptorElement("MainApplication", texts); }
const std::string kBoot = DescriptorElement("SecondaryBootloader", {"loader", ".img", "1.9.1"});
const std::string kRescue = DescriptorElement("RescueApplication", {"help", "bin", "7"});

class Descriptor : public OnBoard {
protected:
    int parse(const std::string &path) {
        call_with("PrjDsc_SetPathFilename", path);
        return call("PrjDsc_Parse");
    }
    int parse_text(const std::string &text) {
        volume.write("d.xml", text);
        return parse("i:/vol0/d.xml");
    }
    int type(const std::string &path) { return call_with("PrjDsc_GetFileType", path); }
    std::string version(int of) { return given(call("PrjDsc_GetVersion", of)); }
};
BOTH_PROCESSORS(Descriptor);

TEST_P(Descriptor, TypesFilesByWhatStandsInTheirPaths) {
    EXPECT_EQ(type("anything"), 4) << "before the first parse";
    ASSERT_EQ(parse_text("<?xml version=\"1.0\"?>\n<P>" + Application({}) + "<Q>" + kBoot + kRescue + "</Q></P>"), 0);
    const std::pair<const char *, int> rows[] = {
        {"i:/vol0/data/app/bin/demo.bin", 2},      {"i:/vol0/data/app/bin/loader.img", 0},
        {"i:/vol0/data/app/bin/help.bin", 1},      {"i:/vol0/data/app/bin/Demo.bin", 4},
        {"i:/vol0/data/app/bin/demo.img", 4},      {"i:/vol0/data/app/bin/demo_loader.img", 0},
        {"i:/vol0/data/app/bin/help_demo.bin", 1}, {"i:/vol0/data/help/bin/x.bin", 1},
        {"i:/vol0/data/app/bin/demo.bin.old", 2},  {"", 4},
    };
    for (const auto &[path, expected] : rows) EXPECT_EQ(type(path), expected) << path;
    EXPECT_EQ(version(0) + " " + version(1) + " " + version(2), "1.9.1 7 1.0");
    EXPECT_EQ(parse_text("<P>" + Application({}) + kBoot + "</P>"), 0);
    EXPECT_EQ(type("help.bin"), 4) << "nothing is left of the last descriptor";
    EXPECT_EQ(version(1), "");
    EXPECT_EQ(started.console(), "");
}

TEST_P(Descriptor, TakesTextsUpToTheirLimits) {
    const std::string names = "<BaseFileName>demo</BaseFileName><BaseFileExtension/></MainApplication>";
    const std::string dots = "." + std::string(15, 'e');
    // The last text is typed as application where the parse is good.
    const std::tuple<const char *, std::string, int, std::string> rows[] = {
        {"base name 256", Application({.base = std::string(256, 'b')}), 0, std::string(256, 'b') + ".bin"},
        {"base name 257", Application({.base = std::string(257, 'b')}), -1, ""},
        {"empty base name", Application({.base = ""}), 0, "x.bin"},
        {"extension 16", Application({.extension = std::string(16, 'e')}), 0, "demo." + std::string(16, 'e')},
        {"extension 16 with dot", Application({.extension = dots}), 0, "demo" + dots},
        {"extension 17", Application({.extension = "." + std::string(16, 'e')}), -1, ""},
        {"empty extension", Application({.extension = ""}), 0, "demo."},
        {"version 16", Application({.version = std::string(16, 'v')}), 0, "demo.bin"},
        {"version 17", Application({.version = std::string(17, 'v')}), -1, ""},
        {"<Version/>", "<MainApplication><Version/>" + names, 0, "demo."},
        {"no version", "<MainApplication>" + names, -1, ""},
        {"two, the first counts", Application({.base = "first"}) + Application({}), 0, "first.bin"},
        {"a longer name before", DescriptorElement("MainApplicationOld", {.base = "old"}) + Application({}), 0,
         "old.bin"},
        {"none", "", -1, ""},
    };
    for (const auto &[name, application, result, matching] : rows) {
        EXPECT_EQ(parse_text("<P>" + kBoot + application + "</P>"), result) << name;
        EXPECT_TRUE(result != 0 || type("i:/vol0/" + matching) == 2) << name;
        EXPECT_EQ(type("i:/vol0/loader.img"), 0) << name << ": the bootloader's entry stands in any case";
        EXPECT_EQ(started.console(), "") << name;
    }
    EXPECT_EQ(parse_text("<P>" + Application({}) + "</P>"), -1) << "no bootloader";
}

TEST_P(Descriptor, SaysWhyItCannotBeRead) {
    const std::string missing = "FileSize failed with errno=2\tFatal Error : read file failed with errno=9";
    EXPECT_EQ(parse("i:/vol0/no.xml"), -1);
    EXPECT_EQ(started.console(), missing);
    const std::string far = std::string(200, 'd') + "/" + std::string(60, 'f');
    volume.write(far, "<P>" + Application({}) + kBoot + "</P>");
    EXPECT_EQ(parse("i:/vol0/" + far), -1) << "cut at 256 characters";
    EXPECT_EQ(started.console(), missing);
    volume.write("large.xml", std::string(5 << 20, ' '));
    EXPECT_EQ(parse("i:/vol0/large.xml"), -1);
    EXPECT_EQ(started.console(), "\tFatal Error : read file failed with errno=12") << "larger than the heap";
    EXPECT_EQ(parse_text(""), -1);
    EXPECT_EQ(parse_text("<P>" + Application({}) + kBoot), -1) << "never closed";
    EXPECT_EQ(started.console(), "");
}

} // namespace

} // namespace fixture
