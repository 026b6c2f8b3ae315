// Banks as whole boots: what descriptor and manifest make of a bank, to the last character on the console.
#include "bench.h"

#include <cstring>
#include <fmt/format.h>
#include <map>

using namespace fixture;

namespace {

const std::string kStart = "Secondary Bootloader ver 1.9.0 started...\n"
                           "************************************************************\n"
                           "* SVNInfo:                                                 *\n"
                           "*----------------------------------------------------------*\n"
                           "*   Revision:         319                                  *\n"
                           "*   Date:             2013/04/02 15:18:51                  *\n"
                           "*   Build Time:       2013/04/02 15:26:48                  *\n"
                           "*   Revision Range:   319                                  *\n"
                           "*   Mixed Revisions:  no                                   *\n"
                           "*   Modified:         no                                   *\n"
                           "*   URL:              https://code.orvalis.example/fir     *\n"
                           "*                     mware/fixture/secondary-bootload     *\n"
                           "*                     er/trunk/sources-of-the-tree/x/y     *\n"
                           "*                     /z                                   *\n"
                           "*                                                          *\n"
                           "************************************************************\n"
                           "\tInit NandFlash...\n"
                           "Boot pin reports: SD boot\n"
                           "\tInit LCD...\n"
                           "\tInit PJFS...\n"
                           "\tInit SDFlash...\n"
                           "\tFind valid bank...\n";
const std::string kNoBank = "FileSize failed with errno=2\tFatal Error : read file failed with errno=9"
                            "error processing project descriptor file\n";
const std::string kBadDescriptor = "error processing project descriptor file\n";
const std::string kSameVersion = "Current bootlaoder is: 1.9.0\nBank bootloader is: 1.9.0\n";
const std::string kFatal = "\tNo valid bank found...\n"
                           "\tStart rescue app...\n"
                           "\tFind valid rescue app...\n"
                           "\tFatal Error : No valid application or bootloader in the filesystem\n";
const std::string kApplication = "an application of some length, not a multiple of anything";
const std::string kBootloader = "another bootloader";

std::uint32_t Sum(const std::string &bytes) {
    std::uint32_t sum = 0;
    for (const char c : bytes) sum += static_cast<std::uint8_t>(c);
    return sum;
}

std::string Record(const std::string &path, const std::string &content, const char *line_end = "\r\n") {
    return fmt::format("{:9} | {:9} | {:<256}{}", content.size(), Sum(content), path, line_end);
}
std::string Application(const std::string &path) { return Record(path, kApplication); }
const std::string kHeadings = Record("Path", "") + Record("----", "");
const std::string kBootRecord = Record("bin/boot2.bin", kBootloader);

std::string Entry(const char *element, const char *base, const std::string &version, const char *extension = "bin") {
    return fmt::format("<{0}><BaseFileName>{1}</BaseFileName><BaseFileExtension>{2}</BaseFileExtension>"
                       "<Version>{3}</Version></{0}>\n",
                       element, base, extension, version);
}

struct Bank {
    std::string descriptor = "<?xml version=\"1.0\"?>\n<Project>\n" + Entry("MainApplication", "demo", "1.0") +
                             Entry("SecondaryBootloader", "boot2", "1.9.0") + "</Project>\n";
    std::string manifest = kHeadings + Application("bin/demo.bin") + kBootRecord;
    std::map<std::string, std::string> files = {{"bin/demo.bin", kApplication}, {"bin/boot2.bin", kBootloader}};

    void write(const TemporaryDirectory &volume, const std::string &name) const {
        const std::filesystem::path bank = std::filesystem::path("data") / name;
        volume.write(bank / "ProjectDescriptorFile.xml", descriptor);
        volume.write(bank / "BankContent.txt", manifest);
        for (const auto &[path, content] : files) volume.write(bank / path, content);
    }
};

std::string FileFailed(std::size_t size, std::uint32_t sum, const std::string &path = "bin/demo.bin") {
    return fmt::format("\tValidate_File(i:/vol0/data/app/{}, {}, {}) Failed!!!", path, static_cast<int>(sum),
                       static_cast<int>(size));
}

class Banks : public testing::TestWithParam<Processor> {
protected:
    // Boots, and compares everything the search for banks prints.
    RunReport boot(const TemporaryDirectory &volume, const std::string &search, Verdict verdict,
                   BootCase boot_case = {}) {
        boot_case.processor = GetParam();
        boot_case.volume = volume.path();
        const BootResult result = RunBoot(boot_case);
        EXPECT_EQ(result.console, kStart + search + (verdict == Verdict::launched ? "" : kFatal));
        EXPECT_EQ(result.report.verdict, verdict) << result.report.place;
        return result.report;
    }
};
BOTH_PROCESSORS(Banks);

// One bank, changed in one way; the other two are missing. An empty `printed` means that it launches.
struct Row {
    const char *name;
    std::string printed;
    std::function<void(Bank &)> change;
};

const std::string kLaunches;

std::string Descriptor(const std::string &version, const std::string &boot_version, const char *extension = "bin") {
    return "<P>" + Entry("MainApplication", "demo", version, extension) +
           Entry("SecondaryBootloader", "boot2", boot_version) + "</P>";
}

const Row kDescriptors[] = {
    {"empty", kBadDescriptor, [](Bank &bank) { bank.descriptor = ""; }},
    {"text without elements", kBadDescriptor, [](Bank &bank) { bank.descriptor = "no XML at all"; }},
    {"without a bootloader", kBadDescriptor,
     [](Bank &bank) { bank.descriptor = "<P>" + Entry("MainApplication", "demo", "1") + "</P>"; }},
    {"version of 16 characters", kLaunches,
     [](Bank &bank) { bank.descriptor = Descriptor("1234567890123456", "1.9.0"); }},
    {"version of 17 characters", kBadDescriptor,
     [](Bank &bank) { bank.descriptor = Descriptor("12345678901234567", "1.9.0"); }},
    {"extension with its dot", kLaunches, [](Bank &bank) { bank.descriptor = Descriptor("1", "1.9.0", ".bin"); }},
    {"rescue image named, none listed", kLaunches,
     [](Bank &bank) { bank.descriptor = Entry("RescueApplication", "resc", "2") + bank.descriptor; }},
    {"bootloader of another version that is no image",
     "Current bootlaoder is: 1.9.0\nBank bootloader is: 1234567890123456\n\tBootloader image replace failed.\n" +
         FileFailed(kApplication.size(), Sum(kApplication)),
     [](Bank &bank) {
         bank.descriptor = Descriptor("1", "1234567890123456");
         bank.files["bin/demo.bin"].back() ^= 1;
     }},
    {"bootloader of another version, file check failing",
     "Current bootlaoder is: 1.9.0\nBank bootloader is: 1.8.0\n" +
         FileFailed(kBootloader.size(), Sum(kBootloader), "bin/boot2.bin") +
         FileFailed(kApplication.size(), Sum(kApplication)),
     [](Bank &bank) {
         bank.descriptor = Descriptor("1", "1.8.0");
         bank.files["bin/boot2.bin"].back() ^= 1;
         bank.files["bin/demo.bin"].back() ^= 1;
     }},
};

void PutNumber(std::string &record, std::size_t column, const std::string &digits) {
    record.replace(column, digits.size(), digits);
}

const Row kFiles[] = {
    {"listed size wrong",
     kSameVersion + fmt::format("filesize check {} != 3\n", kApplication.size()) +
         FileFailed(kApplication.size(), Sum(kApplication)),
     [](Bank &bank) { bank.files["bin/demo.bin"] = "abc"; }},
    {"a byte changed", kSameVersion + FileFailed(kApplication.size(), Sum(kApplication)),
     [](Bank &bank) { bank.files["bin/demo.bin"].back() ^= 1; }},
    {"file missing", kSameVersion + FileFailed(kApplication.size(), Sum(kApplication)),
     [](Bank &bank) { bank.files.erase("bin/demo.bin"); }},
    {"empty application", kSameVersion + FileFailed(0, 0),
     [](Bank &bank) {
         bank.files["bin/demo.bin"] = "";
         bank.manifest = kHeadings + Record("bin/demo.bin", "") + kBootRecord;
     }},
    {"negative size",
     kSameVersion + fmt::format("filesize check -7 != {}\n", kApplication.size()) +
         FileFailed(static_cast<std::size_t>(-7), Sum(kApplication)),
     [](Bank &bank) { PutNumber(bank.manifest, 2 * 282, "       -7"); }},
};

const Row kManifests[] = {
    {"no manifest to speak of", "\n", [](Bank &bank) { bank.manifest = ""; }},
    {"one heading", "\n", [](Bank &bank) { bank.manifest = kBootRecord; }},
    {"headings alone", "\n", [](Bank &bank) { bank.manifest = kHeadings; }},
    {"no bootloader listed", "\n", [](Bank &bank) { bank.manifest = kHeadings + Application("bin/demo.bin"); }},
    {"last line without its end", "\n",
     [](Bank &bank) {
         bank.manifest = (kHeadings + kBootRecord + Application("bin/demo.bin")).substr(0, 4 * 282 - 2);
     }},
    {"line feeds alone", "\n",
     [](Bank &bank) {
         bank.manifest = Record("Path", "", "\n") + Record("----", "", "\n") +
                         Record("bin/boot2.bin", kBootloader, "\n") + Record("bin/demo.bin", kApplication, "\n");
     }},
    {"the later record counts", kLaunches,
     [](Bank &bank) { bank.manifest = kHeadings + Record("bin/demo2.bin", "zz") + bank.manifest.substr(2 * 282); }},
    {"leading zeros, text behind the digits", kLaunches,
     [](Bank &bank) { PutNumber(bank.manifest, 2 * 282, "000000057999"); }},
    {"separators before the path", kLaunches,
     [](Bank &bank) { bank.manifest = kHeadings + kBootRecord + Application(".\\.././/\\bin/demo.bin"); }},
    {"path of backslashes", "\n",
     [](Bank &bank) { bank.manifest = kHeadings + kBootRecord + Application("\\bin\\demo.bin"); }},
    {"another directory", "\n",
     [](Bank &bank) { bank.manifest = kHeadings + kBootRecord + Application("BIN/demo.bin"); }},
    {"256 separators reject the bank", "\n",
     [](Bank &bank) {
         bank.manifest = kHeadings + kBootRecord + Application(std::string(256, '/')) + Application("bin/demo.bin");
     }},
    {"255 separators and a line end do not", kLaunches,
     [](Bank &bank) { bank.manifest.insert(2 * 282, Application(std::string(255, '.') + "\n")); }},
    {"blank path", kLaunches, [](Bank &bank) { bank.manifest.insert(2 * 282, Application("")); }},
    {"line end in the last byte", kLaunches,
     [](Bank &bank) {
         bank.manifest = kHeadings + kBootRecord + Application("bin/demo.bin" + std::string(243, ' ') + "\n");
     }},
    {"line end before the padding", kSameVersion + FileFailed(kApplication.size(), Sum(kApplication), "bin/demo.bin\n"),
     [](Bank &bank) { bank.manifest = kHeadings + kBootRecord + Application("bin/demo.bin\n"); }},
    {"path a character too long with its directory", kLaunches,
     [](Bank &bank) { bank.manifest += Application("bin/" + std::string(227, 'x') + "demo.bin"); }},
    {"longest path",
     kSameVersion + FileFailed(kApplication.size(), Sum(kApplication), "bin/" + std::string(226, 'x') + "demo.bin"),
     [](Bank &bank) { bank.manifest += Application("bin/" + std::string(226, 'x') + "demo.bin"); }},
};

template <std::size_t N>
void BootEach(const Row (&rows)[N],
              const std::function<void(const Row &, const std::string &, const TemporaryDirectory &)> &boot) {
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        TemporaryDirectory volume;
        Bank bank;
        row.change(bank);
        bank.write(volume, "app");
        const std::string quiet = row.printed == "\n" ? "" : row.printed;
        boot(row, row.printed.empty() ? kSameVersion : quiet + kNoBank + kNoBank, volume);
    }
}

TEST_P(Banks, AreTakenAsTheirDescriptorFilesAndManifestSay) {
    const auto boot_row = [this](const Row &row, const std::string &search, const TemporaryDirectory &volume) {
        boot(volume, search, row.printed.empty() ? Verdict::launched : Verdict::idle);
    };
    BootEach(kDescriptors, boot_row);
    BootEach(kFiles, boot_row);
    BootEach(kManifests, boot_row);
}

TEST_P(Banks, AreTriedInTheirOrder) {
    TemporaryDirectory volume;
    boot(volume, kNoBank + kNoBank + kNoBank, Verdict::idle);
    Bank broken;
    broken.files["bin/demo.bin"].back() ^= 1;
    Bank{}.write(volume, "newapp");
    boot(volume, kNoBank + kNoBank + kSameVersion, Verdict::launched);
    Bank{}.write(volume, "oldapp");
    broken.write(volume, "app");
    const RunReport report = boot(
        volume, kSameVersion + FileFailed(kApplication.size(), Sum(kApplication)) + kSameVersion, Verdict::launched);
    EXPECT_EQ(report.launched_bytes, kApplication.size());
    EXPECT_NE(report.launched.find("oldapp"), std::string::npos) << report.launched;
    EXPECT_EQ(report.resets, 1u);
}

// What the first-stage loader finds: the file, the marker, and nothing else changed, all of it in memory proper.
TEST_P(Banks, LeaveTheirApplicationForTheNextStage) {
    TemporaryDirectory volume;
    Bank{}.write(volume, "app");
    BootCase boot_case;
    boot_case.prepare = [](Machine &machine) {
        std::memset(machine.board().memory.memory().from(0x23FFFF00).data(), 0xA5, 256);
    };
    std::string buffer, area;
    boot_case.inspect = [&](Machine &machine) {
        const auto bytes = [&](std::uint32_t address, std::size_t length) {
            return std::string(reinterpret_cast<const char *>(machine.board().memory.memory().from(address).data()),
                               length);
        };
        buffer = bytes(0x23000000, kApplication.size());
        area = bytes(0x23FFFF00, 256);
    };
    boot(volume, kSameVersion, Verdict::launched, boot_case);
    EXPECT_EQ(buffer, kApplication);
    EXPECT_EQ(area.substr(25), std::string(231, '\xA5'));
}

TEST_P(Banks, AreNotLaunchedWhereTheFlushIsLeftOut) {
    TemporaryDirectory volume;
    Bank{}.write(volume, "app");
    BootCase boot_case;
    boot_case.processor = GetParam();
    boot_case.volume = volume.path();
    boot_case.most_resets = 2;
    boot_case.prepare = [](Machine &machine) { machine.board().cache.ignores_flushes = true; };
    EXPECT_EQ(RunBoot(boot_case).report.verdict, Verdict::reset_loop);
}

TEST_P(Banks, CannotBeFoundWithoutTheFileServer) {
    TemporaryDirectory volume;
    BootCase boot_case;
    boot_case.processor = GetParam();
    boot_case.volume = volume.path();
    boot_case.file_server_fails = true;
    const BootResult result = RunBoot(boot_case);
    std::string start = kStart;
    start.insert(start.find("\tInit SDFlash"), "PJFS Server : PJFS_Server_Run Failed!!!\n");
    EXPECT_EQ(result.console, start + kNoBank + kNoBank + kNoBank + kFatal);
    EXPECT_EQ(result.report.verdict, Verdict::idle);
}

} // namespace
