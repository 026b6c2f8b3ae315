// Banks as whole boots: what descriptor and manifest make of a bank, to the last character on the console.
#include "harness/bank_texts.h"
#include "harness/console_texts.h"
#include "tests/processors.h"

#include <cstring>
#include <fmt/format.h>
#include <map>
#include <regex>

namespace fixture {

namespace {

const std::string kBadDescriptor = "error processing project descriptor file\n";
const std::string kNoBank = kMissingBank;
const std::string kVersions = "Current bootlaoder is: 1.9.0\nBank bootloader is: ";
const std::string kSameVersion = kVersions + "1.9.0\n";
const std::string kApplication = "an application of some length, not a multiple of anything";
const std::string kBootloader = "another bootloader";

std::string Application(const std::string &path) { return ManifestLine(path, kApplication); }
const std::string kHeadings = ManifestLine("Path", "") + ManifestLine("----", "");
const std::string kBootRecord = ManifestLine("bin/boot2.bin", kBootloader);
const std::string kDemoRecord = Application("bin/demo.bin");

std::map<std::string, std::string> Files(const std::string &application, const std::string &bootloader = kBootloader) {
    return {{"bin/demo.bin", application}, {"bin/boot2.bin", bootloader}};
}

std::string Descriptor(const std::string &boot_version) {
    return "<?xml version=\"1.0\"?>\n<Project>\n" + DescriptorElement("MainApplication", {}) +
           DescriptorElement("SecondaryBootloader", {.base = "boot2", .version = boot_version}) + "</Project>\n";
}

struct Bank {
    std::string descriptor = Descriptor("1.9.0");
    std::string manifest = kHeadings + kDemoRecord + kBootRecord;
    std::map<std::string, std::string> files = Files(kApplication);

    void write(const TemporaryDirectory &volume, const std::string &name) const {
        const std::filesystem::path bank = std::filesystem::path("data") / name;
        volume.write(bank / "ProjectDescriptorFile.xml", descriptor);
        volume.write(bank / "BankContent.txt", manifest);
        for (const auto &[path, content] : files) volume.write(bank / path, content);
    }
};

std::string FileFailed(const std::string &path, const std::string &content, std::optional<int> size = {}) {
    return fmt::format("\tValidate_File(i:/vol0/data/app/{}, {}, {}) Failed!!!", path, SumOf(content),
                       size.value_or(static_cast<int>(content.size())));
}
const std::string kLongest = "bin/" + std::string(226, 'x') + "demo.bin"; // with the bank's directory before it
const std::string kDemoFailed = FileFailed("bin/demo.bin", kApplication);

class Banks : public testing::TestWithParam<Processor> {
protected:
    // Boots, and compares everything the search for banks prints.
    RunReport boot(const TemporaryDirectory &volume, const std::string &search, Verdict verdict,
                   BootCase boot_case = {}) {
        boot_case.processor = GetParam();
        boot_case.volume = volume.path();
        const BootResult result = RunBoot(boot_case);
        const std::string fatal = std::string(kNoBankLaunched) + kNothingLaunched;
        std::string start = StartText(Medium::dataflash);
        if (boot_case.file_server_fails)
            start.insert(start.find("\tInit SDFlash"), "PJFS Server : PJFS_Server_Run Failed!!!\n");
        EXPECT_EQ(result.console, start + search + (verdict == Verdict::launched ? "" : fatal));
        EXPECT_EQ(result.report.verdict, verdict) << result.report.place;
        return result.report;
    }
};
BOTH_PROCESSORS(Banks);

std::string Changed(std::string content) { return content.back() ^= 1, content; }

Bank Described(const std::string &descriptor, const std::map<std::string, std::string> &files = Files(kApplication)) {
    return {.descriptor = descriptor, .files = files};
}
Bank Holding(const std::map<std::string, std::string> &files) { return {.files = files}; }
Bank Listed(const std::string &manifest) { return {.manifest = manifest}; }
// The usual manifest with other digits from the application's size on.
Bank Numbered(const std::string &digits) { return Listed(Bank{}.manifest.replace(2 * 282, digits.size(), digits)); }
// A manifest with these records of the application after the bootloader's.
Bank Listing(const std::string &path, const std::string &more = "") {
    return Listed(kHeadings + kBootRecord + Application(path) + more);
}
const std::string kRescueNamed = DescriptorElement("RescueApplication", {.base = "resc", .version = "2"});
const std::string kManifest = Listing("bin/demo.bin").manifest;

// One bank, wrong or unusual in one way; the other two are missing. It launches where it prints the versions alone.
const struct {
    const char *name;
    std::string printed;
    Bank bank;
} kBanks[] = {
    {"empty descriptor", kBadDescriptor, Described("")},
    {"rescue image named, none listed", kSameVersion, Described(kRescueNamed + Descriptor("1.9.0"))},
    {"bootloader of another version that is no image",
     kVersions + "1234567890123456\n\tBootloader image replace failed.\n" + kDemoFailed,
     Described(Descriptor("1234567890123456"), Files(Changed(kApplication)))},
    {"bootloader of another version, file check failing",
     kVersions + "1.8.0\n" + FileFailed("bin/boot2.bin", kBootloader) + kDemoFailed,
     Described(Descriptor("1.8.0"), Files(Changed(kApplication), Changed(kBootloader)))},

    {"listed size wrong", kSameVersion + "filesize check 57 != 3\n" + kDemoFailed, Holding(Files("abc"))},
    {"file missing", kSameVersion + kDemoFailed, Bank{.files = {{"bin/boot2.bin", kBootloader}}}},
    {"empty application", kSameVersion + FileFailed("bin/demo.bin", ""),
     Bank{.manifest = kHeadings + kBootRecord + ManifestLine("bin/demo.bin", ""), .files = Files("")}},
    {"negative size", kSameVersion + "filesize check -7 != 57\n" + FileFailed("bin/demo.bin", kApplication, -7),
     Numbered("       -7")},

    {"no manifest to speak of", "", Listed("")},
    {"one heading", "", Listed(kBootRecord)},
    {"headings alone", "", Listed(kHeadings)},
    {"no bootloader listed", "", Listed(kHeadings + kDemoRecord)},
    {"last line without its end", "", Listed(kManifest.substr(0, 4 * 282 - 2))},
    {"line feeds alone", "", Listed(std::regex_replace(kManifest, std::regex("\r\n"), "\n"))},
    {"the later record counts", kSameVersion, Listing("bin/demo2.bin", kDemoRecord)},
    {"leading zeros, text after the digits", kSameVersion, Numbered("000000057999")},
    {"separators before the path", kSameVersion, Listing(".\\.././/\\bin/demo.bin")},
    {"path of backslashes", "", Listing("\\bin\\demo.bin")},
    {"another directory", "", Listing("BIN/demo.bin")},
    {"256 separators reject the bank", "", Listing(std::string(256, '/'), kDemoRecord)},
    {"255 separators and a line end do not", kSameVersion, Listing(std::string(255, '.') + "\n", kDemoRecord)},
    {"a file that is none of the bootloader's", kSameVersion, Listing("bin/none.txt", kDemoRecord)},
    {"path of line ends", kSameVersion, Listing(std::string(256, '\n'), kDemoRecord)},
    {"blank path", kSameVersion, Listing("", kDemoRecord)},
    {"line end in the last byte", kSameVersion, Listing("bin/demo.bin" + std::string(243, ' ') + "\n")},
    {"line end before the padding", kSameVersion + FileFailed("bin/demo.bin\n", kApplication),
     Listing("bin/demo.bin\n")},
    {"path too long by one", kSameVersion, Listing("bin/demo.bin", Application(kLongest + "x"))},
    {"longest path", kSameVersion + FileFailed(kLongest, kApplication), Listing(kLongest)},
};

TEST_P(Banks, AreTakenAsTheirDescriptorFilesAndManifestSay) {
    for (const auto &row : kBanks) {
        SCOPED_TRACE(row.name);
        TemporaryDirectory volume;
        row.bank.write(volume, "app");
        const bool launches = row.printed == kSameVersion;
        boot(volume, launches ? kSameVersion : row.printed + kNoBank + kNoBank,
             launches ? Verdict::launched : Verdict::idle);
    }
}

TEST_P(Banks, AreTriedInTheirOrder) {
    TemporaryDirectory volume;
    for (const bool without_file_server : {false, true}) {
        BootCase boot_case;
        boot_case.file_server_fails = without_file_server;
        boot(volume, kNoBank + kNoBank + kNoBank, Verdict::idle, boot_case);
    }
    Bank{}.write(volume, "newapp");
    // What the first-stage loader finds: the file, the marker, and nothing else changed, all of it in memory proper.
    BootCase looked_at;
    looked_at.prepare = [](Machine &machine) {
        std::memset(machine.board().memory.memory().from(0x23FFFF00).data(), 0xA5, 256);
    };
    looked_at.inspect = [](Machine &machine) {
        const std::uint8_t *const left = machine.board().memory.memory().from(0x23000000).data();
        EXPECT_EQ(std::string(left, left + kApplication.size()), kApplication);
        EXPECT_EQ(std::string(left + 0xFFFF00 + 25, left + 0x1000000), std::string(231, '\xA5'));
    };
    boot(volume, kNoBank + kNoBank + kSameVersion, Verdict::launched, looked_at);
    Bank{}.write(volume, "oldapp");
    Bank{.files = Files(Changed(kApplication))}.write(volume, "app");
    const RunReport report = boot(volume, kSameVersion + kDemoFailed + kSameVersion, Verdict::launched);
    EXPECT_EQ(report.launched_bytes, kApplication.size());
    EXPECT_NE(report.launched.find("oldapp"), std::string::npos) << report.launched;
    EXPECT_EQ(report.resets, 1u);
}

} // namespace

} // namespace fixture
