// What every subcommand owes its caller, as one table of subcommand by condition: the exit status, a message that names
// the file, inputs and older outputs untouched, nothing left behind; and with --json one object of the published form.
#include "formats/bank.h"
#include "formats/parameter_store.h"
#include "formats/splash.h"
#include "formats/stored_image.h"
#include "formats/warning_ids.h"
#include "harness/command.h"
#include "harness/json_schema.h"
#include "harness/process.h"
#include "harness/source_tree.h"
#include "harness/started_board.h"
#include "harness/unprivileged.h"
#include "machine/chip_store.h"
#include "machine/raw_flash.h"
#include "tools/call_report.h"
#include "tools/demo_board.h"

#include <csignal>
#include <cstdlib>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fixture {

namespace fs = std::filesystem;
using testing::AllOf, testing::HasSubstr;
using Words = std::vector<std::string>;

namespace {

// A call in which "IN" is the file that a condition spoils and "OUT" the one that it keeps from being written.
struct Call {
    const char *words;
    const char *input;       // of the files that Workshop makes; null: none to spoil
    bool makes_chip = false; // where the input is missing
    bool needs_output() const { return std::string_view(words).find("OUT") != std::string_view::npos; }
};

const Call kCalls[] = {
    {"boot --host --nand IN --straps 12-13 --panel OUT", "nand"},
    {"boot --host --eeprom IN --panel OUT", "eeprom"},
    {"boot --host --dataflash IN --vcd OUT", "dataflash"},
    {"boot --firmware IN --panel-gif OUT", "elf"},
    {"boot --host --dataflash IN --trace OUT --trace-last 9", "dataflash"},
    {"boot --host --snapshot --dataflash IN --report OUT", "dataflash"},
    {"bank build DIR --app IN --app-version 1 --bootloader STORED --bootloader-version 1.9.0", "elf"},
    {"flash info --nand IN", "nand"},
    {"flash info --dataflash IN", "dataflash"},
    {"flash provision --medium nand --nand IN --bootloader STORED", "nand", true},
    {"flash provision --medium nand --nand OUT --bootloader IN", "elf"},
    {"flash convert IN OUT --medium dataflash --to raw", "dataflash"},
    {"flash extract bootloader0 --nand IN --out OUT", "nand"},
    {"flash write bootloader1 --nand IN --image STORED --out OUT", "nand"},
    {"flash write rescue --dataflash CHIP --image IN --out OUT", "elf"},
    {"flash erase rescue --nand IN", "nand", true},
    {"doctor --nand IN", "nand"},
    {"doctor --eeprom IN --fix NEW", "eeprom"},
    {"explain --straps 12-13 --nand IN --volume HERE", "nand"},
    {"diff --as dataflash IN CHIP", "dataflash"},
    {"image wrap IN OUT", "elf"},
    {"image info IN", "stored.img"},
    {"eeprom show IN", "eeprom"},
    {"eeprom set IN 9=01", "eeprom", true},
    {"splash encode IN OUT", "png"},
    {"splash decode IN OUT", "array"},
    {"sweep parameters/0-to-1 --closure --most-states 1 --jobs 1 --edges OUT", nullptr},
};

// Files that every call can work with, made once, and a directory to spoil copies of them in.
class Workshop {
public:
    Workshop() {
        NandContents nand;
        const Bytes image = Wrap(Bootloader().flat);
        StoreProvision(RawFlashOf(nand), {0, image, {}, ""});
        SaveChip(nand, good("nand"));
        At45Contents dataflash(*FindAt45Part(kDefaultAt45));
        StoreProvision(RawFlashOf(dataflash), {0, image, {}, ""});
        SaveChip(dataflash, good("dataflash"));
        EepromContents eeprom;
        UpdateStore(eeprom.bytes, {{8, {1}}});
        SaveChip(eeprom, good("eeprom"));
        fs::copy_file(FirmwareDirectory() / "bootloader.elf", good("elf"));
        WriteFile(good("stored.img"), image);
        const Picture picture(kSplashWidth, kSplashHeight);
        WritePng(good("png"), picture);
        WriteFile(good("array"), SplashSource(EncodeSplash(picture, "")));
        fs::create_directory(directory_.path() / "work");
        fs::permissions(directory_.path(), fs::perms(0755)); // so that Unprivileged gets as far as the files
    }
    fs::path good(const std::string &name) const { return directory_.path() / name; }
    fs::path work(const std::string &name) const { return directory_.path() / "work" / name; }
    // An empty directory to work in, with a fresh copy of what the call takes.
    void lay_out(const Call &call = {}) const {
        fs::remove_all(directory_.path() / "work");
        fs::create_directory(directory_.path() / "work");
        fs::permissions(directory_.path() / "work", fs::perms::all); // an input is to fail, not the outputs
        if (call.input) fs::copy_file(good(call.input), work("given.bin"));
    }
    Words words_of(const Call &call, bool json = true) const {
        const std::map<std::string, fs::path> places = {
            {"IN", work("given.bin")}, {"OUT", work("out")},        {"NEW", work("new")},          {"HERE", work("")},
            {"DIR", work("bank")},     {"CHIP", good("dataflash")}, {"STORED", good("stored.img")}};
        std::istringstream text(call.words);
        Words words{std::istream_iterator<std::string>(text), {}};
        for (std::string &word : words)
            if (places.contains(word)) word = places.at(word).string();
        if (json) words.emplace_back("--json");
        return words;
    }
    // Every file that is there, with its bytes; what is no file, by its name alone.
    std::map<std::string, Bytes> contents() const {
        std::map<std::string, Bytes> all;
        for (const fs::directory_entry &entry : fs::recursive_directory_iterator(directory_.path() / "work"))
            all[entry.path().string()] = entry.is_regular_file() ? ReadFile(entry.path(), 1u << 30) : Bytes{};
        return all;
    }

private:
    TemporaryDirectory directory_;
};

const Workshop &Shop() {
    static const Workshop shop;
    return shop;
}

// Of a bank with the demo application and the newer bootloader.
void BuildDemoBank(const fs::path &bank) {
    const std::string application = FirmwareDirectory() / "demo-application.bin";
    const CommandResult built =
        RunFixture({"bank", "build", bank.string(), "--app", application, "--app-version", "1", "--bootloader",
                    FirmwareDirectory() / "bootloader-1.9.1.bin", "--bootloader-version", "1.9.1"});
    ASSERT_EQ(built.exit_status, kGood) << built.error;
}

// The objects of a test, checked against the published schema all at once.
class Envelopes {
public:
    ~Envelopes() { EXPECT_EQ(SchemaErrors(objects_), ""); }
    void add(const CommandResult &result) {
        objects_.push_back(result.output);
        const nlohmann::json json = nlohmann::json::parse(result.output, nullptr, false);
        ASSERT_TRUE(json.is_object()) << result.output;
        EXPECT_EQ(json.value("exit_status", -1), result.exit_status);
        EXPECT_EQ(json.value("problems", nlohmann::json::array()).empty(), result.exit_status == 0) << result.output;
    }

private:
    std::vector<std::string> objects_;
};

// What is done to the input before the call, and what the call then says.
struct Condition {
    const char *name;
    void (*spoil)(const fs::path &file);
    int exit_status;
    const char *message;
    std::set<std::string> fine_for = {}; // inputs that stay good
};

constexpr const char *kDenied = "permission denied";                 // never to root
const std::set<std::string> kLosesNothing = {"array", "png", "elf"}; // with its last byte

const Condition kConditions[] = {
    {"missing", [](const fs::path &file) { fs::remove(file); }, kWrongCall, "no such file"},
    {"below a file", [](const fs::path &file) { fs::remove(file), fs::create_symlink(Shop().good("png") / "x", file); },
     kWrongCall, ""},
    {"directory", [](const fs::path &file) { fs::remove(file), fs::create_directory(file); }, kWrongCall,
     "a directory"},
    {"pipe", [](const fs::path &file) { fs::remove(file), mkfifo(file.c_str(), 0600); }, kWrongCall, "a pipe"},
    {"device", [](const fs::path &file) { fs::remove(file), fs::create_symlink("/dev/zero", file); }, kWrongCall,
     "a device"},
    {"unreadable", [](const fs::path &file) { fs::permissions(file, fs::perms::none); }, kWrongCall, kDenied},
    {"empty", [](const fs::path &file) { fs::resize_file(file, 0); }, kBad, ""},
    {"short", [](const fs::path &file) { fs::resize_file(file, fs::file_size(file) - 1); }, kBad, "", kLosesNothing},
    {"text", [](const fs::path &file) { WriteFile(file, std::string(2112 * 64, 'x')); }, kBad, "", {"elf"}},
    {"foreign", [](const fs::path &file) { WriteFile(file, "\177ELF\1\1\1" + std::string(57, '\0')); }, kBad, ""},
};

TEST(Contract, ABadInputGivesTheSameStatusEverywhereAndHarmsNothing) {
    Envelopes envelopes;
    for (const Call &call : kCalls)
        for (const Condition &condition : kConditions) {
            SCOPED_TRACE(fmt::format("{}: {}", call.words, condition.name));
            if (!call.input || condition.fine_for.contains(call.input)) continue;
            if (call.makes_chip && std::string_view(condition.name) == "missing") continue;
            Shop().lay_out(call);
            condition.spoil(Shop().work("given.bin"));
            if (call.needs_output()) WriteFile(Shop().work("out"), std::string("older"));
            const auto before = Shop().contents();
            for (const bool json : {false, true}) {
                std::optional<Unprivileged> unprivileged;
                if (condition.message == kDenied) unprivileged.emplace();
                const CommandResult result = RunFixture(Shop().words_of(call, json));
                unprivileged.reset();
                EXPECT_EQ(result.exit_status, condition.exit_status) << result.output << result.error;
                EXPECT_THAT(json ? result.output : result.error + result.output,
                            AllOf(HasSubstr(condition.message), HasSubstr("given.bin")));
                EXPECT_EQ(Shop().contents(), before);
                if (json) envelopes.add(result);
            }
        }
}

// Outputs that cannot come to be: nothing is changed, whatever the call would have done before it came to them.
TEST(Contract, AnOutputThatCannotBeWrittenChangesNothing) {
    const struct {
        const char *name;
        void (*prepare)(const fs::path &out);
    } conditions[] = {
        {"a full disk", [](const fs::path &out) { fs::create_symlink("/dev/full", out); }},
        {"a directory", [](const fs::path &out) { fs::create_directory(out); }},
        {"write-protected",
         [](const fs::path &out) { WriteFile(out, Bytes{1}), fs::permissions(out, fs::perms(0400)); }},
        {"no directory", [](const fs::path &out) { fs::create_symlink("none/out", out); }},
        {"a directory of somebody else's", [](const fs::path &out) { fs::create_symlink("/proc/1/out", out); }},
        {"a pipe without a reader", [](const fs::path &out) { mkfifo(out.c_str(), 0600); }},
    };
    Envelopes envelopes;
    for (const Call &call : kCalls)
        for (const auto &condition : conditions) {
            if (!call.needs_output()) continue;
            SCOPED_TRACE(fmt::format("{}: {}", call.words, condition.name));
            Shop().lay_out(call);
            condition.prepare(Shop().work("out"));
            const auto before = Shop().contents();
            const CommandResult result = RunFixture(Shop().words_of(call));
            const bool as_input = std::string_view(call.words).starts_with("flash provision"); // a chip, read first
            EXPECT_THAT(result.exit_status,
                        testing::AnyOf(kNotWritten, as_input ? kWrongCall : kNotWritten, as_input ? kBad : kNotWritten))
                << result.output;
            EXPECT_THAT(result.output, HasSubstr("out"));
            EXPECT_EQ(Shop().contents(), before);
            envelopes.add(result);
        }
}

TEST(Contract, GoodCallsReportInOneForm) {
    Envelopes envelopes;
    for (const Call &call : kCalls) {
        SCOPED_TRACE(call.words);
        Shop().lay_out(call);
        const Words words = Shop().words_of(call);
        const CommandResult result = RunFixture(words);
        const bool boots = words[0] == "boot" || words[0] == "explain"; // no bank: it ends without a launch
        EXPECT_EQ(result.exit_status, boots ? kBad : kGood) << result.output << result.error;
        envelopes.add(result);
    }
    const std::string nand = Shop().good("nand").string();
    // The last one's straps select the chip that is not there: nothing runs, and the times have no ratio.
    for (const Words &words : {Words{"sweep", "--list"},
                               {"flash", "info"},
                               {"flash", "nonsense"},
                               {"explain", "--straps", "12-13", "--nand", nand},
                               {"diff", "--as", "nand", nand, Shop().good("dataflash").string()},
                               {"flash", "verify", "--nand", nand, "--against", Shop().work("").string()},
                               {"bank", "check", Shop().work("").string()},
                               {"boot", "--timeline", "--nand", nand}}) {
        Words call = words;
        call.emplace_back("--json");
        envelopes.add(RunFixture(call));
    }
}

// A disk with room for a page, by a limit of this process.
TEST(Contract, ADemoBoardThatCannotBeMadeLeavesNothing) {
    const TemporaryDirectory directory;
    const char *const was = std::getenv("TMPDIR");
    const std::string before = was ? was : "/tmp";
    setenv("TMPDIR", directory.path().c_str(), 1);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit page{4096, limit.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &page);
    EXPECT_THROW(DemoBoard{}, Refusal);
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, handler);
    setenv("TMPDIR", before.c_str(), 1);
    EXPECT_TRUE(fs::is_empty(directory.path()));
}

// --allow refuses what is not in the list, and the document is where a user looks for what is.
TEST(Contract, EveryWarningIsInTheDocument) {
    const Bytes document = ReadFile(SourceFile("docs/json.md"), 1u << 20);
    for (const std::string_view id : kWarningIds)
        EXPECT_THAT(std::string(document.begin(), document.end()), HasSubstr(fmt::format("\n| `{}` |", id)));
}

// Calls that make no sense, options without effect, and numbers that are none: refused in plain words, with nothing
// done. What the option parser finds is told in our words too; every kind of its sentences has a row.
TEST(Contract, CallsThatMakeNoSenseAreRefused) {
    const std::string nand = Shop().good("nand").string();
    const Bytes before = ReadFile(nand, 1u << 30);
    const struct {
        Words words;
        std::string message; // after "fixture: ", or from the command's name on
    } rows[] = {
        {{}, "fixture: no subcommand; expected boot, bank, describe, diff, doctor,"},
        {{"flash"}, "fixture flash: no subcommand; expected provision, info,"},
        {{"flash", "nonsense"}, "fixture flash: \"nonsense\" means nothing here; expected provision, info,"},
        {{"bot"}, "fixture: \"bot\" means nothing here; did you mean \"boot\"?"},
        {{"bank", "chek", "x"}, "fixture bank: \"chek\" means nothing here; did you mean \"check\"?"},
        {{"bank", "check", "x", "--nnad=y"},
         "fixture bank check: \"--nnad=y\" means nothing here; did you mean \"--nand\"?"},
        {{"boot", "--frobnicate"}, "fixture boot: \"--frobnicate\" means nothing here; see fixture boot --help"},
        {{"boot", "--replay", "parameters/0-to-1", "--nand", nand}, nand + ": exists already; expected a new file"},
        {{"boot", "--strap", "none"}, "fixture boot: \"--strap\" means nothing here; did you mean \"--straps\"?"},
        {{"image", "wrap", "x"}, "fixture image wrap: OUT is missing; see fixture image wrap --help"},
        {{"boot", "--nand"}, "--nand: no value after it"},
        {{"boot", "--straps", "12-13", "--straps", "none"}, "--straps: given more than once"},
        {{"boot", "--host=maybe"}, "--host: \"maybe\" is no value for it"},
        {{"boot", "--straps", "13"}, "--straps: \"13\"; expected 12-13, 14-18, both or none"},
        {{"boot", "--power-up", "1"}, "--power-up: has no effect alone; expected --replay as well"},
        {{"boot", "--vcd-signals", "SDA"}, "--vcd-signals: has no effect alone; expected --vcd as well"},
        {{"boot", "--trace-last", "3"}, "--trace-last: has no effect alone; expected --trace as well"},
        {{"boot", "--trace", "x", "--trace-kind", "nothing"}, "--trace-kind: no kind of event \"nothing\""},
        {{"boot", "--trace", "-", "--json"}, ""},
        {{"boot", "--gdb-on", "hang"}, "--gdb-on: has no effect alone"},
        {{"boot", "--gdb", "65536"}, "--gdb: \"65536\"; expected a whole number, 0 to 65535"},
        {{"boot", "--create"}, "--create: has no effect without a chip file"},
        {{"boot", "--snapshot"}, "--snapshot: has no effect without a chip file"},
        {{"boot", "--panel-wiring", "rgb"}, "--panel-wiring: has no effect where no panel is shown"},
        {{"boot", "--volume", nand + "-none"}, ""},
        {{"boot", "--nand", nand, "--dataflash", nand}, ""},
        {{"boot", "--nand", nand, "--snapshot", "--create"}, "--snapshot: cannot be combined with --create"},
        {{"boot", "--replay", "nand-update/running-erased", "--straps", "12-13"},
         "--straps: cannot be combined with --replay"},
        {{"boot", "--replay", "nonsense"}, "nonsense: no case; expected SCENARIO/VARIANT:CUTS"},
        {{"boot", "--watchdog", "nan"}, "--watchdog: \"nan\"; expected a number, 0.001 to 1000"},
        {{"boot", "--watchdog", "-1"}, "--watchdog: \"-1\""},
        {{"boot", "--max-resets", "0"}, "--max-resets: \"0\"; expected a whole number, 1 to 1000000"},
        {{"boot", "--max-resets", "4294967297"}, "--max-resets: "},
        {{"sweep"}, "fixture sweep: no scenario; expected names of some, or --all"},
        {{"sweep", "nonsense"}, "nonsense: no such scenario; expected one of `fixture sweep --list`"},
        {{"sweep", "holes", "--near", "2"}, "--near: has no effect alone; expected --closure as well"},
        {{"sweep", "holes", "--list"}, "--list: names every scenario"},
        {{"sweep", "holes", "--shard", "3/2", "--out", "x"}, "--shard: 3/2; expected K/N"},
        {{"sweep", "holes", "--out", "x"}, "--out: has no effect alone"},
        {{"sweep", "--all", "--seed", ""}, "--seed: \"\"; expected a whole number"},
        {{"sweep", "--all", "--seed", "99999999999999999999"}, "--seed: "},
        {{"sweep", "--all", "--jobs", "1e3"}, "--jobs: \"1e3\"; expected a whole number, 1 to 256"},
        {{"bank", "check", Shop().work("").string(), "--running", "1.9.1"}, "--running: has no effect on one bank"},
        {{"explain"}, "fixture explain: no chip; expected --nand or --dataflash"},
        {{"doctor"}, "fixture doctor: no chip; expected --nand, --dataflash or --eeprom"},
        {{"flash", "write", "rescue", "--nand", nand}, "fixture flash write: no image; expected --image"},
        {{"flash", "write", "record", "--nand", nand, "--image", "x"}, "--image: has no effect on the record"},
        {{"flash", "erase", "rescue"}, "fixture flash erase: no chip; expected one of --nand and"},
        {{"flash", "provision", "--medium", "nand", "--nand", nand, "--bootloader", "x", "--slot", "2"}, "--slot: "},
        {{"image", "info", nand, "--allow", "anything"}, "--allow: no such warning as \"anything\""},
        {{"diff", nand, Shop().work("").string()}, ""},
        {{"describe", "bash", "--into", "."}, "--into: has no effect on bash; expected man"},
    };
    for (const auto &[words, message] : rows) {
        SCOPED_TRACE(fmt::format("{}", fmt::join(words, " ")));
        const CommandResult result = RunFixture(words);
        EXPECT_EQ(result.exit_status, kWrongCall) << result.error;
        if (std::find(words.begin(), words.end(), "--json") != words.end()) continue; // told as an object
        EXPECT_THAT(result.error, testing::StartsWith((message.starts_with("fixture") ? "" : "fixture: ") + message));
        EXPECT_EQ(result.output, "");
    }
    EXPECT_EQ(ReadFile(nand, 1u << 30), before);
}

// Every reason for a boot without a launch that lies in the call or its files, and what the last line says to try.
TEST(Contract, ABootWithoutALaunchSaysWhatToTry) {
    Shop().lay_out();
    const std::string nand = Shop().good("nand").string(), work = Shop().work("").string();
    const auto chip_with = [](const char *name, const Bytes &image) {
        NandContents chip;
        RawFlashOf(chip).write(SlotsOf(Medium::nand).bootloader[0].address, image);
        SaveChip(chip, Shop().work(name));
        return Shop().work(name).string();
    };
    const std::string blank = chip_with("blank", {}), body = chip_with("body", Wrap(Bytes(64, 0)));
    const std::string header = chip_with("header", Wrap(Bytes{}));
    // ldr r0, =PIOA_PDSR; again: ldr r1, [r0]; b again
    const std::uint32_t polls[] = {0xE59F0004, 0xE5901000, 0xEAFFFFFD, 0xFFFFF23C};
    const auto *const program = reinterpret_cast<const std::uint8_t *>(polls);
    WriteFile(Shop().work("polls"), std::span(program, sizeof polls));
    BuildDemoBank(Shop().work("data"));
    const std::string volume = Shop().work("volume").string(), one_level_off = volume + "/data";
    fs::create_directories(one_level_off + "/app");
    const struct {
        Words words;
        std::string hint;
    } rows[] = {
        {{"--nand", nand}, "no file of it was given; the NAND has one: try --straps 12-13"},
        {{"--nand", nand, "--straps", "12-13"}, "there is no volume; give the directory that holds data/"},
        {{"--nand", nand, "--straps", "12-13", "--volume", Shop().good("").string()}, "holds no data/"},
        {{"--volume", one_level_off}, "holds no data/, but " + volume + " does"},
        {{"--volume", one_level_off + "/app"}, "holds no data/, but " + volume + " does"},
        {{"--nand", nand, "--straps", "12-13", "--volume", volume}, "no bank launches; see `fixture bank check"},
        {{"--nand", blank, "--straps", "12-13"}, "no good bootloader; store one with `fixture flash provision`"},
        {{"--nand", blank + "-new", "--straps", "12-13", "--create"}, "store one with `fixture flash provision`"},
        {{"--nand", body, "--straps", "12-13", "--host"}, "no native build stands for; try without --host"},
        {{"--nand", body, "--straps", "12-13"}, "the image in the slot is no build known here"},
        {{"--nand", header, "--straps", "12-13"}, "the slot holds a header and no bootloader after it"},
        {{"--host", "--watchdog", "0.001"}, "the watchdog ends every start; try a longer --watchdog"},
        {{"--firmware", Shop().work("polls").string()}, "the clock of PIOA is off"},
    };
    for (const auto &[words, hint] : rows) {
        SCOPED_TRACE(fmt::format("{}", fmt::join(words, " ")));
        Words call = words;
        call.insert(call.begin(), "boot");
        const CommandResult result = RunFixture(call);
        EXPECT_NE(result.exit_status, kGood);
        const std::string told = result.error.substr(0, result.error.find_last_not_of('\n') + 1);
        EXPECT_THAT(told.substr(told.rfind('\n') + 1), HasSubstr(hint)) << result.error;
    }
    fs::rename(Shop().work("data"), one_level_off + "/app");
    const CommandResult loop = RunFixture({"boot", "--host", "--volume", volume});
    EXPECT_THAT(loop.error, HasSubstr("no chip file was given, so every start is the same bootloader again"));
}

TEST(Contract, TextFromFilesCannotDriveATerminal) {
    Shop().lay_out();
    const std::string name = Shop().work("\x1b[31mred\xff\n.bin").string();
    WriteFile(name, Wrap(Bytes(9, 1)));
    std::string descriptor = "<a><MainApplication><BaseFileName>\x1b]0;x\x07</BaseFileName></MainApplication></a>";
    WriteFile(Shop().work("ProjectDescriptorFile.xml"), descriptor);
    for (const Words &words : {Words{"image", "info", name},
                               {"image", "info", name + "x"},
                               {"bank", "check", Shop().work("").string()},
                               {"boot", "--firmware", name + "x"}}) {
        const CommandResult result = RunFixture(words);
        const std::string text = result.output + result.error;
        for (const char c : text) ASSERT_TRUE(c == '\n' || (c >= 0x20 && c < 0x7F)) << text;
        EXPECT_THAT(text, words[0] == "bank" ? HasSubstr("ProjectDescriptorFile.xml")
                                             : HasSubstr("\\x1B[31mred\\xFF\\x0A.bin"));
    }
}

// --- boards' chips

TEST(Contract, ABootKeepsAChipFilesShapeAndWritesOnlyWhatChanged) {
    Shop().lay_out();
    const std::string file = Shop().work("chip").string(), link = Shop().work("link").string();
    fs::create_directories(Shop().work("data"));
    BuildDemoBank(Shop().work("data/app"));
    const auto boot = [&](const std::string &chip, const char *option = "--json") {
        return RunFixture({"boot", option, "--dataflash", chip, "--volume", Shop().work("").string()}).exit_status;
    };
    fs::copy_file(Shop().good("dataflash"), file);
    const Bytes before = ReadFile(file, 1u << 30);
    fs::permissions(file, fs::perms::owner_read);
    EXPECT_EQ(boot(file), kNotWritten) << "it would be changed";
    EXPECT_EQ(boot(file, "--snapshot"), kGood);
    EXPECT_EQ(ReadFile(file, 1u << 30), before) << "a snapshot leaves it";
    fs::permissions(file, fs::perms(0640));
    fs::create_symlink("chip", link);
    EXPECT_EQ(boot(link), kGood);
    EXPECT_TRUE(fs::is_symlink(link)) << "the link's target is written";
    EXPECT_EQ(fs::status(file).permissions(), fs::perms(0640)) << "the mode stays";
    const Bytes after = ReadFile(file, 1u << 30);
    EXPECT_NE(after, before) << "the update was stored";
    EXPECT_EQ(after.size(), before.size());
    const auto written = fs::last_write_time(file);
    EXPECT_EQ(boot(file), kGood);
    EXPECT_EQ(fs::last_write_time(file), written) << "nothing changed, nothing is written";
    EXPECT_EQ(boot(file + "-typo"), kWrongCall);
    EXPECT_FALSE(fs::exists(file + "-typo"));
    EXPECT_EQ(RunFixture({"boot", "--eeprom", file + "-new", "--nand", file + "-nand", "--create"}).exit_status, kBad)
        << "new files may share a directory";
    EXPECT_EQ(fs::file_size(file + "-new"), 2048u);
}

TEST(Contract, LayoutsAreRecognisedFromSizeAndContent) {
    NandContents nand;
    StoreProvision(RawFlashOf(nand), {0, Wrap(Bytes(600'000, 0x5A)), {}, ""});
    const ChipShape shape = ShapeOf(nand);
    const auto page = [&](std::uint32_t row) { return std::span<const std::uint8_t>(nand.page(row)); };
    for (const ChipLayout layout : {ChipLayout::raw, ChipLayout::data_only})
        for (const std::uint64_t pages : {std::uint64_t{2112}, std::uint64_t{2048 * 33 / 32}, std::uint64_t{640}}) {
            const ChipFileLayout made{layout, pages * (layout == ChipLayout::raw ? shape.whole : shape.data)};
            const Bytes bytes = ChipBytes(made, shape, 0, page);
            EXPECT_EQ(bytes.size(), made.bytes);
            EXPECT_EQ(RecogniseChip("chip", bytes, shape).layout, layout) << pages;
        }
    nand.make_factory_bad(9);
    EXPECT_THROW(ChipBytesOf(nand, {ChipLayout::data_only, 0}), Refusal) << "no place for the mark";
    EXPECT_EQ(Ranges(std::vector<std::uint32_t>{1, 5, 6, 9, 10, 11}), "1, 5, 6, 9 to 11");
    for (unsigned block = 100; block < 140; ++block) nand.make_factory_bad(block);
    EXPECT_THAT(ExamineFlash(RawFlashOf(nand)).warnings.at(0).text(), HasSubstr("is the file in another layout?"));
}

// --- as processes of their own

TEST(Processes, AStreamThatTakesNothingIsToldByTheStatus) {
    const std::string eeprom = Shop().good("eeprom").string();
    for (const StreamTo to : {StreamTo::closed, StreamTo::full}) {
        for (const Words &words : {Words{"eeprom", "show", eeprom}, {"eeprom", "show", eeprom, "--json"}, {"--help"}}) {
            Process told(words, to);
            EXPECT_EQ(told.wait(), kStreamFailed);
            EXPECT_EQ(told.text(), "fixture: standard output: cannot be written\n");
        }
        Process silent({"eeprom", "show", eeprom + "x"}, StreamTo::file, to);
        EXPECT_EQ(silent.wait(), kStreamFailed) << "the error could not be told";
    }
}

TEST(Processes, TwoAtOnceOnOneChipLoseNothing) {
    Shop().lay_out();
    const std::string file = Shop().work("eeprom").string();
    std::list<Process> processes;
    for (unsigned id = 0; id < 8; ++id) processes.emplace_back(Words{"eeprom", "set", file, fmt::format("{}=AB", id)});
    for (Process &process : processes) EXPECT_EQ(process.wait(), 0) << process.text();
    EepromContents chip;
    LoadChip(chip, file);
    const StoreReport store = ReadStore(chip.bytes);
    ASSERT_TRUE(store.current);
    EXPECT_EQ(store.sectors[*store.current].parameters.size(), 8u);
}

// Killed at any moment: the chip is the old one or the new one, whole, and nothing lies beside it.
TEST(Processes, KilledAtAnyMomentLeaveOneWholeFile) {
    Shop().lay_out();
    const std::string file = Shop().work("nand").string();
    fs::copy_file(Shop().good("dataflash"), file);
    const Bytes old = ReadFile(file, 1u << 30);
    At45Contents chip(*FindAt45Part(kDefaultAt45));
    LoadChip(chip, file);
    StoreProvision(RawFlashOf(chip), {1, ReadFile(Shop().good("stored.img"), 1u << 30), {}, ""});
    const Bytes provisioned = ChipBytesOf(chip);
    for (unsigned moment = 0; moment < 12; ++moment) {
        WriteFile(file, old);
        Process process({"flash", "provision", "--medium", "dataflash", "--dataflash", file, "--slot", "1",
                         "--bootloader", Shop().good("stored.img").string()});
        usleep(moment * 25'000);
        process.send(moment % 2 ? SIGTERM : SIGKILL);
        process.wait();
        const Bytes left = ReadFile(file, 1u << 30);
        EXPECT_TRUE(left == old || left == provisioned) << moment;
        EXPECT_EQ(Shop().contents().size(), 1u) << moment;
    }
}

} // namespace

} // namespace fixture
