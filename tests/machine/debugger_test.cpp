// The debugger's port, as GDB itself finds it, and as nobody should use it.
#include "formats/file.h"
#include "formats/slot_store.h"
#include "formats/stored_image.h"
#include "harness/bank_files.h"
#include "harness/builds.h"
#include "harness/process.h"
#include "harness/small_target.h"
#include "harness/source_tree.h"
#include "harness/started_board.h"
#include "harness/texts.h"
#include "machine/debugger.h"
#include "machine/events.h"
#include "machine/raw_flash.h"

#include <arpa/inet.h>
#include <chrono>
#include <fmt/format.h>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace fixture {

namespace {

using testing::AllOf, testing::HasSubstr;

struct Debugged {
    RunReport report;
    std::string said;    // by the other side
    std::string notices; // by the debugger's port
};

int Connect(std::uint16_t port) {
    const int peer = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(peer, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    return peer;
}

// The other side of a debugger's port, as a thread of its own: it begins when the run waits for it, not before. A
// debugger that comes earlier stops the run wherever it is then, and once it has gone again nobody meets the run where
// it does wait. Should that happen all the same, the run is let go, and the test fails instead of standing for ever.
class OtherSide {
public:
    OtherSide(std::uint16_t port, std::function<std::string(std::uint16_t port)> acts)
        : said_(std::async(std::launch::async, [this, port, acts = std::move(acts)] {
              if (waits_.get_future().wait_for(kLongest) != std::future_status::ready) return std::string();
              std::string said = acts(port);
              std::future<void> ended = ended_.get_future();
              for (int tries = 0; tries < 8 && ended.wait_for(kLongest / 8) != std::future_status::ready; ++tries) {
                  ADD_FAILURE() << "the run still waits, and its debugger has gone; it said:\n" << said;
                  close(Connect(port));
              }
              return said;
          })) {}
    void the_run_waits() {
        if (!std::exchange(has_waited_, true)) waits_.set_value();
    }
    std::string the_run_has_ended() {
        ended_.set_value();
        return said_.get();
    }

private:
    static constexpr std::chrono::seconds kLongest{80};
    bool has_waited_ = false;
    std::promise<void> waits_, ended_;
    std::future<std::string> said_;
};

using Side = std::function<std::string(std::uint16_t port)>;
using Prepare = std::function<void(Machine &)>;

// Runs a board with somebody at its debugger's port.
Debugged DebugRun(Chips &chips, RunOptions options, const Side &other_side, Debugger::StopOn on,
                  const Prepare &prepare) {
    options.known = &TestFirmware();
    options.sightings = true;
    options.keep_going = false;
    Machine machine(chips, options);
    if (prepare) prepare(machine);
    Debugged result;
    Debugger debugger(machine, 0, on);
    OtherSide other(debugger.port(), other_side);
    debugger.notice = [&](const std::string &text) {
        result.notices += text + "\n";
        if (text.find("waiting for a debugger") != std::string::npos) other.the_run_waits();
    };
    result.report = machine.run();
    debugger.finished(result.report);
    result.said = other.the_run_has_ended();
    return result;
}

// A board without files, which finds nothing to launch.
Debugged Debug(const Side &other_side, Debugger::StopOn on = Debugger::StopOn::entry, const Prepare &prepare = {}) {
    Chips chips;
    RunOptions options;
    options.firmware = &Bootloader();
    return DebugRun(chips, options, other_side, on, prepare);
}

// The command, built beside this test.
std::filesystem::path FixtureProgram() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "fixture";
}

// GDB with a script. `file`: what it gets its symbols from; empty: from the board.
std::string Gdb(std::uint16_t port, const std::string &commands, const std::filesystem::path &file) {
    const TemporaryDirectory here;
    const auto script =
        here.write("commands", fmt::format("set pagination off\nset confirm off\n{}\n"
                                           "target remote 127.0.0.1:{}\n{}",
                                           file.empty() ? "" : "file " + file.string(), port, commands));
    return Output(fmt::format("timeout 60 gdb-multiarch -nx -batch -x {} 2>&1 </dev/null", script.string()));
}

Debugged DebugWithGdb(const std::string &commands, Debugger::StopOn on = Debugger::StopOn::entry,
                      const std::function<void(Machine &)> &prepare = {}) {
    return Debug([&](std::uint16_t port) { return Gdb(port, commands, Bootloader().file); }, on, prepare);
}

// The same run with nobody looking.
void ExpectUndisturbed(const RunReport &report) {
    const RunReport plain = RunBoot({}).report;
    EXPECT_EQ(report.verdict, plain.verdict);
    EXPECT_EQ(report.time, plain.time);
    EXPECT_EQ(report.instructions, plain.instructions);
}

TEST(Debugger, StopsStepsAndLooksWithoutCost) {
    const Debugged run =
        DebugWithGdb("print/x $pc\nbreak main\ncontinue\nbacktrace 1\n"
                     "stepi\nstepi\nnext\nprint/x $cpsr & 0x1f\n"
                     "x/2xw 0x20100000\nprint/x *(unsigned *)0xFFFFF43C\ndelete\n"
                     "awatch *(unsigned *)0xFFFFFE00\n" // nothing is there: never hit
                     "awatch *(unsigned *)0xFFFFEE1C\n" // DBGU.THR
                     "continue\nbacktrace 2\nmonitor time\nmonitor where\nmonitor chips\nmonitor nonsense\n"
                     "delete\ncontinue\n");
    for (const char *const told :
         {"$1 = 0x20100000", "Breakpoint 1, ", "#0  main", "$2 = 0x13", // supervisor mode
          "access (read/write) watchpoint 3: *(unsigned *)0xFFFFEE1C", "CONSOLE_Put", "ms of virtual time, ",
          "DataFlash: AT45", "monitor commands:", "exited with code 01"})
        EXPECT_THAT(run.said, HasSubstr(told));
    ExpectUndisturbed(run.report);
}

// What goes wrong inside a register write is looked at there: GDB's own unwinder and ours see the same calls.
TEST(Debugger, StopsInsideARegisterWrite) {
    std::vector<std::string> ours;
    const auto prepare = [&](Machine &machine) {
        machine.board().bus.observer = [&machine, &ours, done = false](const BusAccess &made) mutable {
            if (done || !made.is_write || machine.board().bus.name_of(made.address) != "SPI0.TDR") return;
            done = true;
            ours = machine.call_chain();
            machine.board().journal.violation("SPI0", "planted");
        };
    };
    const Debugged run = DebugWithGdb("backtrace\nprint/x $pc\nmonitor where\nprint *(int *)0x10000000\n",
                                      Debugger::StopOn::violation, prepare);
    EXPECT_THAT(run.notices, HasSubstr("violation: SPI0: planted; waiting for a debugger"));
    EXPECT_THAT(run.said, HasSubstr("Cannot access memory at address 0x10000000"));
    ASSERT_GE(ours.size(), 3u);
    std::size_t at = 0;
    for (const std::string &place : ours) {
        const std::string routine = place.substr(0, place.find('+'));
        at = run.said.find(routine + " (", at);
        EXPECT_NE(at, std::string::npos) << routine << " is not where GDB sees it:\n" << run.said;
    }
    EXPECT_EQ(run.report.verdict, Verdict::violation);
    ASSERT_TRUE(run.report.sighting);
    EXPECT_EQ(run.report.sighting->chain, ours);
}

// Symbols come over the line and change with what runs: an update puts another build in charge, then a bank's
// application. Breakpoints move along.
TEST(Debugger, HandsOverTheSymbolsOfWhatRuns) {
    const Firmware application = ReadFirmware(FirmwareDirectory() / "demo-application");
    Chips chips;
    const TemporaryDirectory here;
    StoreProvision(RawFlashOf(chips.nand), {0, Wrap(Bootloader("1.9.0").flat), {}, ""});
    const std::vector<BankFile> files = {
        {FileRole::application, "application.bin", "2.0", application.flat},
        {FileRole::bootloader, "bootloader.bin", "1.9.1", Wrap(Bootloader("1.9.1").flat)}};
    WriteBank(here.path() / "data/app", files);
    RunOptions options;
    options.slots = true;
    options.volume = here.path();
    options.board.straps.pins_12_13 = true;
    options.programs = std::span(&application, 1);
    const Chips before = chips;
    const auto gdb = [](std::uint16_t port) {
        return Gdb(port,
                   "break main\ncontinue\nmonitor where\n" // of 1.9.0
                   "continue\nmonitor where\n"             // of 1.9.1, after the reset
                   "break *0x23000000\ncontinue\ninfo symbol $pc\nstepi\ndelete\ncontinue\n",
                   "");
    };
    const Debugged run = DebugRun(chips, options, gdb, Debugger::StopOn::entry, {});
    std::size_t at = 0;
    for (const std::string next :
         {"Breakpoint 1, main", "bootloader.elf\n", "executing new program: ", "bootloader-1.9.1.elf\n",
          "Breakpoint 1, main", "bootloader-1.9.1.elf\n", "executing new program: ", "demo-application\n",
          "Breakpoint 2, ", "_start in section .text", "exited normally"}) {
        at = run.said.find(next, at);
        ASSERT_NE(at, std::string::npos) << "no \"" << next << "\" in its place:\n" << run.said;
    }
    Chips again = before;
    options.known = &TestFirmware();
    Machine plain(again, options);
    const RunReport undisturbed = plain.run();
    EXPECT_EQ(run.report.verdict, Verdict::launched);
    EXPECT_EQ(run.report.time, undisturbed.time);
    EXPECT_EQ(run.report.instructions, undisturbed.instructions);
    EXPECT_EQ(chips.nand, again.nand);
}

// The other side by hand, packet by packet.
class Client {
public:
    explicit Client(std::uint16_t port) : peer_(Connect(port)) {
        const timeval longest{60, 0};
        setsockopt(peer_, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
    }
    ~Client() { close(peer_); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    void send(const std::string &bytes) const {
        EXPECT_EQ(write(peer_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // The next packet; empty when the line is closed, or nothing comes for a minute.
    std::string next() {
        for (;;) {
            while (const auto item = reader_.next())
                if (item->kind == GdbPacketReader::Kind::packet) return item->data;
            char bytes[4096];
            const ssize_t count = read(peer_, bytes, sizeof bytes);
            if (count <= 0) return {};
            reader_.feed({bytes, static_cast<std::size_t>(count)});
        }
    }
    std::string ask(const std::string &packet) {
        send(FrameGdbPacket(packet));
        return next();
    }
    std::string monitor(const std::string &command) {
        return FromHex(ask("qRcmd," + ToHex(command))).value_or("no text");
    }

private:
    int peer_;
    GdbPacketReader reader_;
};

TEST(Debugger, CutsThePowerWhereItIsAsked) {
    const World world = MakeWorld({.slots = {SlotState::running, SlotState::broken}}, FixedBuilds());
    RunOptions options;
    options.slots = true;
    options.volume = *world.volume;
    options.board = world.board;
    options.run_launched = false;
    std::vector<NandContents> left;
    for (const auto &[name, moment] :
         {std::pair{"before", CutMoment::before}, {"torn", CutMoment::torn}, {"after", CutMoment::after}}) {
        SCOPED_TRACE(name);
        Chips chips = world.chips, expected = world.chips;
        const auto cut = [name = name](std::uint16_t port) {
            Client client(port);
            const std::string heard = client.monitor(std::string("cut-power ") + name);
            client.send(FrameGdbPacket("vCont;c"));
            client.next();
            return heard + client.next();
        };
        const Debugged run = DebugRun(chips, options, cut, Debugger::StopOn::entry, {});
        EXPECT_THAT(run.said, HasSubstr("the next operation that changes a chip"));
        EXPECT_EQ(run.report.verdict, Verdict::power_lost);
        BootCase same;
        same.volume = *world.volume;
        same.board = world.board;
        same.chips = &expected;
        same.from_slots = true;
        same.prepare = [moment = moment](Machine &machine) { machine.board().supply.plan(PowerCut{0, moment, 1}); };
        RunBoot(same);
        EXPECT_EQ(chips.nand, expected.nand);
        EXPECT_EQ(chips.eeprom, expected.eeprom);
        left.push_back(chips.nand);
    }
    EXPECT_EQ(left[0], world.chips.nand);
    EXPECT_FALSE(left[1] == left[0] || left[2] == left[0] || left[1] == left[2]);
}

// What a debugger does to a run, and what the run makes of it.
TEST(Debugger, IsHeardWhileTheBoardRuns) {
    constexpr const char *kGone = "the debugger has gone; the run goes on";
    const std::string go = FrameGdbPacket("vCont;c"), reset = FrameGdbPacket("qRcmd," + ToHex("reset"));
    const struct {
        const char *name;
        std::vector<std::string> sent; // each with the packet that answers it, as far as it goes
        std::vector<std::string> answers;
        const char *notice;
    } rows[] = {
        {"Ctrl-C", {go, "\x03", go}, {"T02thread:1;", "O", "W01"}, "waiting for a debugger"},
        {"Ctrl-C in one breath with the command", {go + "\x03", go}, {"T02", "O", "W01"}, ""},
        {"detach", {FrameGdbPacket("D")}, {"OK"}, "the debugger has let go; the run goes on"},
        {"a wrong sum, and again", {"$?#00", FrameGdbPacket("?"), go}, {"T05thread:1;", "O", "W01"}, ""},
        {"away at once", {}, {}, kGone},
        {"away without an answer", {"$g#67"}, {}, kGone},
        {"away without a stop", {go}, {}, kGone},
        {"rubbish, and away", {"garbage\x03$Z0#00$X20100000,ffffffff:#00-"}, {}, kGone},
        {"a reset, and away", {reset, FrameGdbPacket("s")}, {ToHex("the processor is reset")}, "the debugger has gone"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const Debugged run = Debug([&](std::uint16_t port) {
            Client client(port);
            for (const std::string &bytes : row.sent) client.send(bytes);
            for (const std::string &answer : row.answers) EXPECT_EQ(client.next().substr(0, answer.size()), answer);
            return std::string();
        });
        EXPECT_THAT(run.notices, HasSubstr(row.notice));
        if (run.report.resets == 0) ExpectUndisturbed(run.report);
    }
}

TEST(Debugger, CutsThePowerAndResets) {
    const Debugged cut = DebugWithGdb("monitor cut-power sideways\nmonitor reset\nstepi\nprint/x $pc\nkill\n");
    EXPECT_THAT(cut.said, HasSubstr("cut-power before, torn or after"));
    EXPECT_THAT(cut.said, HasSubstr("$1 = 0x20100000")) << "the first stage starts the bootloader again";
    EXPECT_EQ(cut.report.verdict, Verdict::power_lost);
    EXPECT_EQ(cut.report.resets, 1u);
}

// The command as it is typed: a case of a sweep, which ends as it does with nobody looking.
TEST(Debugger, LooksAtACaseOfASweep) {
    constexpr const char *kCase = "nand-update/running-erased:12t";
    Process plain({"boot", "--replay", kCase});
    EXPECT_EQ(plain.wait(), 0);
    Process looked_at({"boot", "--replay", kCase, "--gdb", "0"});
    const std::string waiting = "target remote :";
    std::size_t at = std::string::npos;
    for (unsigned tries = 0; tries < 1200 && at == std::string::npos; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        at = looked_at.text().find(waiting);
    }
    ASSERT_NE(at, std::string::npos);
    const int port = std::stoi(looked_at.text().substr(at + waiting.size()));
    const std::string said = Gdb(static_cast<std::uint16_t>(port), "break NandFlash_if_Read\ncontinue\ndetach\n", "");
    EXPECT_THAT(said, HasSubstr("Breakpoint 1, NandFlash_if_Read"));
    EXPECT_EQ(looked_at.wait(), 0);
    const std::string text = looked_at.text();
    EXPECT_EQ(text.substr(text.find("launched ")), plain.text().substr(plain.text().find("launched ")));
}

TEST(Debugger, PortInUseIsRefused) {
    Chips chips;
    RunOptions options;
    options.firmware = &Bootloader();
    Machine machine(chips, options);
    const Debugger first(machine, 0, Debugger::StopOn::entry);
    EXPECT_THROW(Debugger(machine, first.port(), Debugger::StopOn::entry), std::runtime_error);
}

// What docs/debugging.md says to type, typed.
std::string Recipe(unsigned number) {
    const std::string text = AsText(ReadFile(SourceFile("docs/debugging.md"), 1 << 20));
    std::size_t begin = 0;
    for (unsigned n = 0; n <= number; ++n) begin = text.find("```gdb\n", begin) + 7;
    return text.substr(begin, text.find("```", begin) - begin);
}

TEST(Recipes, OnTheBoard) {
    const std::string recipe = Recipe(0);
    const std::string commands = recipe.substr(recipe.find("break main")); // Gdb() connects
    const Debugged run = Debug([&](std::uint16_t port) { return Gdb(port, commands, ""); });
    EXPECT_THAT(run.said, AllOf(HasSubstr("#0  main"), HasSubstr("CONSOLE_Put"), HasSubstr("exited with code 01")));
}

TEST(Recipes, Natively) {
    const TemporaryDirectory here;
    std::string commands = Recipe(1);
    const std::string program = "build/host/fixture";
    commands.replace(commands.find(program), program.size(), FixtureProgram().string());
    const auto script = here.write("commands", "set pagination off\nset confirm off\n" + commands);
    const std::string said = Output(fmt::format("timeout 120 gdb -nx -batch -x {} 2>&1 </dev/null", script.string()));
    EXPECT_THAT(said, HasSubstr("Breakpoint 1, main ()"));
    EXPECT_THAT(said, HasSubstr("StageEnd::exited, bootloader_main()")); // where `finish` comes back to
    EXPECT_THAT(said, HasSubstr("Value returned is"));
}

// The framing by hand: sums, escapes, pieces, rubbish.
TEST(GdbPackets, Framing) {
    EXPECT_EQ(FrameGdbPacket("a}#$*"), "$a}]}\x03}\x04}\x0A#c3");
    GdbPacketReader reader;
    reader.feed("+junk$g#6");
    EXPECT_FALSE(reader.next());
    reader.feed("7\x03-$g#68$" + std::string(2 * kGdbPacketMost, 'a') + "#00$?#3f");
    std::string seen;
    while (const auto item = reader.next())
        seen += static_cast<char>('0' + static_cast<int>(item->kind)) + item->data + ' ';
    EXPECT_EQ(seen, "0g 2 3 1 1 0? ");
}

// Stops are bounded, and a debugger that has set all it may still takes them away again.
TEST(GdbPackets, StopsAreBoundedAndCanAllBeTakenAway) {
    SmallTarget target;
    GdbSession session(target);
    const auto stop = [&](char command, unsigned n) {
        return session.handle(fmt::format("{}0,{:x},4", command, 4 * n)).reply;
    };
    unsigned set = 0;
    while (set < 100'000 && stop('Z', set) == "OK") ++set;
    EXPECT_LT(set, 100'000u);
    for (unsigned n = 0; n < set; ++n) ASSERT_EQ(stop('z', n), "OK") << n;
    EXPECT_FALSE(session.breaks_at(0));
    EXPECT_EQ(stop('Z', set), "OK");
}

} // namespace

} // namespace fixture
