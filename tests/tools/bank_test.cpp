// fixture bank: what it builds, the bootloader itself reads back; what it refuses leaves nothing behind.
#include "formats/bank.h"
#include "formats/stored_image.h"
#include "harness/command.h"
#include "harness/started_board.h"
#include "harness/texts.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <set>

namespace fixture {

namespace fs = std::filesystem;

namespace {

const std::string kDemoProgram = "what the demo does";

class BankCommand : public testing::Test {
protected:
    BankCommand() {
        fs::create_directories(here.path() / "data");
        write("demo.bin", kDemoProgram);
        write("boot2.bin", "a bootloader's bytes");
        write("help.img", AsText(Wrap(Bytes(100, 'h'))));
    }
    std::string write(const std::string &name, const std::string &content) {
        return here.write("in/" + name, content).string();
    }
    std::string in(const std::string &name) const { return (here.path() / "in" / name).string(); }
    std::string out() const { return (here.path() / "data/app").string(); }

    // A call that is good but for these options; one without a value is left out.
    CommandResult build(std::map<std::string, std::string> options = {}) const {
        options.insert({{"--app", in("demo.bin")},
                        {"--app-version", "2.0"},
                        {"--bootloader", in("boot2.bin")},
                        {"--bootloader-version", "1.9.0"},
                        {"--rescue", in("help.img")},
                        {"--rescue-version", "7"}});
        std::vector<std::string> call = {"bank", "build", "--json", out()};
        for (const auto &[name, value] : options)
            if (!value.empty()) call.insert(call.end(), {name, value});
        return RunFixture(call);
    }
    // All texts of a report, as people would read them.
    static std::string report(const CommandResult &result) {
        std::string texts;
        const nlohmann::json json = result.json();
        for (const char *const kind : {"problems", "warnings"})
            for (const nlohmann::json &each : json.at(kind)) texts += each.at("text").get<std::string>() + "\n";
        return texts;
    }
    nlohmann::json check(int exit_status) const {
        const CommandResult result = RunFixture({"bank", "check", out(), "--json"});
        EXPECT_EQ(result.exit_status, exit_status) << result.output << result.error;
        return result.json();
    }
    BootResult run(Processor processor) const {
        return RunBoot({.processor = processor, .volume = here.path(), .board = {}, .prepare = {}, .inspect = {}});
    }
    // Everything in the output's directory, by name.
    std::set<std::string> left() const {
        std::set<std::string> names;
        for (const auto &entry : fs::recursive_directory_iterator(here.path() / "data"))
            if (entry.is_regular_file()) names.insert(entry.path().lexically_relative(here.path() / "data").string());
        return names;
    }

    TemporaryDirectory here;
};

TEST_F(BankCommand, BuildsWhatTheBootloaderLaunches) {
    const CommandResult built = build({{"--extra", write("notes.txt", "")}});
    ASSERT_EQ(built.exit_status, 0) << built.error;
    EXPECT_EQ(left(),
              (std::set<std::string>{"app/BankContent.txt", "app/ProjectDescriptorFile.xml", "app/bin/boot2.bin",
                                     "app/bin/demo.bin", "app/bin/help.img", "app/bin/notes.txt"}));
    EXPECT_EQ(ReadFile(out() + "/bin/boot2.bin", 1000), Wrap(ReadFile(in("boot2.bin"), 1000)));
    EXPECT_EQ(ReadFile(out() + "/bin/help.img", 1000), ReadFile(in("help.img"), 1000)) << "wrapped before";
    const Bytes manifest = ReadFile(out() + "/BankContent.txt", 10000);
    EXPECT_EQ(manifest.size(), 6u * 282);
    EXPECT_EQ(AsText(manifest).substr(2 * 282, 24 + 12),
              fmt::format("{:9} | {:9} | bin/demo.bin", kDemoProgram.size(), ByteSum(ReadFile(in("demo.bin"), 1000))));

    for (const Processor processor : {Processor::arm, Processor::host}) {
        const BootResult boot = run(processor);
        EXPECT_EQ(boot.report.verdict, Verdict::launched) << boot.console;
        EXPECT_EQ(boot.report.launched_bytes, kDemoProgram.size());
        EXPECT_NE(boot.console.find("Bank bootloader is: 1.9.0\n"), std::string::npos) << boot.console;
    }
    const nlohmann::json report = check(0);
    EXPECT_EQ(report["actions"].size(), 3u) << report;
    EXPECT_EQ(report["records"][3]["role"], "other");

    ASSERT_EQ(
        build({{"--app", write("third.bin", "3")}, {"--app-version", "3"}, {"--rescue", ""}, {"--rescue-version", ""}})
            .exit_status,
        0);
    EXPECT_EQ(left().size(), 4u) << "a bank takes the place of an older one, with nothing left of that";
}

TEST_F(BankCommand, RefusesWhatCannotWork) {
    const struct {
        const char *option;
        std::string value;
        const char *message;
    } rows[] = {
        {"--app", write("empty.bin", ""), "0 bytes; expected 1 to 16776960"},
        {"--app", write("large.bin", std::string(0xFFFF01, '\0')), "16776961 bytes; expected 1 to 16776960"},
        {"--app", write("heavy.bin", std::string(4000000, '\xFF')), "byte-sum 1020000000; expected at most 999999999"},
        {"--app", write("app.bin", "x"), "base name \"app\" occurs in \"i:/vol0/data/app/bin/\""},
        {"--app", write("boot.bin", "x"), "base name \"boot\" occurs in \"bin/boot2.bin\""},
        {"--app", write("noextension", "x"), "extension of 0 characters; expected 1 to 16"},
        {"--app", write("x.12345678901234567", "x"), "extension of 17 characters; expected 1 to 16"},
        {"--app", write("a<b.bin", "x"), "byte 0x3C in its name"},
        {"--app", write("caf\xC3\xA9.bin", "x"), "byte 0xC3 in its name"},
        {"--app", write("x.bin ", "x"), "its name ends in a blank"},
        {"--app", write(std::string(228, 'n') + ".bin", "x"),
         "its path in the bank has 236 characters; expected at most 235"},
        {"--app", write("elf.bin", "\177ELF, but no more"), "expected an ELF executable for the ARM"},
        {"--app-version", "12345678901234567", "has 17 characters; expected 1 to 16"},
        {"--app-version", "1>2", "byte 0x3E in its version"},
        {"--bootloader", write("none.bin", ""), "no bytes to load"},
        {"--bootloader", write("broken.bin", AsText(Wrap(Bytes(9, 'b'))).replace(40, 1, "X")), "sum1"},
        {"--bootloader", write("slot.bin", std::string(0x200000 - 31, 'b')), "2097153 bytes; expected at most 2097152"},
        {"--rescue", write("cut.img", AsText(Wrap(Bytes(99, 'h'))).substr(0, 50)), "size 131"},
        {"--extra", write("demo.bin.txt", ""), "base name \"demo\" occurs in \"bin/demo.bin.txt\""},
    };
    for (const auto &row : rows) {
        const CommandResult result = build({{row.option, row.value}});
        EXPECT_EQ(result.exit_status, 1) << row.value.substr(0, 300);
        EXPECT_NE(report(result).find(row.message), std::string::npos) << result.output;
        EXPECT_EQ(left(), std::set<std::string>{}) << result.output;
    }
    const auto told = [&](const std::map<std::string, std::string> &options, const char *text) {
        const CommandResult result = build(options);
        EXPECT_NE(report(result).find(text), std::string::npos) << result.output << result.error;
    };
    told({{"--bootloader", write("large.img", std::string(0x1FC000 - 31, 'b'))}},
         "large.img: on DataFlash: bootloader 1: 2080769 bytes fit here alone");
    const std::string other = (FirmwareDirectory() / "bootloader.bin").string();
    told({{"--bootloader", other}, {"--bootloader-version", "2.0.0"}}, "is version 1.9.0, not 2.0.0");
    EXPECT_EQ(report(build({{"--bootloader", other}})), "");
    for (const char *option : {"--app-version", "--rescue-version"}) EXPECT_EQ(build({{option, ""}}).exit_status, 2);
    fs::remove_all(out());
    here.write("data/app/precious.txt", "not a bank");
    EXPECT_EQ(build().exit_status, kNotWritten) << "what is no bank is not replaced";
    EXPECT_EQ(left(), std::set<std::string>{"app/precious.txt"});
}

TEST_F(BankCommand, TellsWhatIsWrongWithABank) {
    const char *const descriptor = "ProjectDescriptorFile.xml", *const manifest = "BankContent.txt";
    const struct {
        const char *name;
        const char *file; // of the bank
        std::function<void(std::string &)> change;
        const char *told; // somewhere in the report
        bool launches;
    } rows[] = {
        {"listed size", "bin/demo.bin", [](auto &s) { s += "x"; }, "19 bytes found, 18 listed", false},
        {"listed sum", "bin/demo.bin", [](auto &s) { s[0] ^= 1; }, " listed", false},
        {"image", "bin/boot2.bin", [](auto &s) { std::swap(s[40], s[41]); }, "sum2", true},
        {"descriptor", descriptor, [](auto &s) { s.insert(s.find("2.0"), 16, '0'); },
         "<Version> in <MainApplication> has 19 bytes; expected at most 16", false},
        {"no element", descriptor, [](auto &s) { s.resize(60); }, "no whole XML", false},
        {"line end", manifest, [](auto &s) { s.erase(3 * 282 - 2, 1); }, "offset 844", false},
        {"headings", manifest, [](auto &s) { s.resize(500); }, "the two 282-byte heading records", false},
        {"short line", manifest, [](auto &s) { s.resize(5 * 282 - 2); }, "280 bytes after the last", true},
        {"no bootloader", manifest, [](auto &s) { s.erase(3 * 282, 282); }, "no record for the bootloader", false},
        {"path", manifest, [](auto &s) { s.replace(4 * 282 + 24, 256, 256, '.'); }, "nothing but", false},
        {"way out", manifest, [](auto &s) { s.replace(4 * 282 + 24, 25, "bin/../../../in/help.img "); }, "no such file",
         true},
        {"way out and in again", manifest, [](auto &s) { s.replace(2 * 282 + 24, 20, "bin/../bin/demo.bin "); },
         "no such file", false},
    };
    for (const auto &row : rows) {
        ASSERT_EQ(build().exit_status, 0);
        check(0);
        std::string text = AsText(ReadFile(out() + "/" + row.file, 100000));
        row.change(text);
        here.write(std::string("data/app/") + row.file, text);
        const nlohmann::json report = check(1);
        EXPECT_NE(report.dump().find(nlohmann::json(row.told).dump().substr(1, std::strlen(row.told))),
                  std::string::npos)
            << row.name << report.dump(1);
        EXPECT_EQ(report["launches"], row.launches) << row.name;
        const BootResult boot = run(Processor::host);
        EXPECT_EQ(boot.report.launched == "i:/vol0/data/app/bin/demo.bin", row.launches) << row.name << boot.console;
    }
    EXPECT_EQ(RunFixture({"bank", "check", in("none")}).exit_status, 2);
}

} // namespace

} // namespace fixture
