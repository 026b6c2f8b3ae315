// The debugger's port, as GDB itself finds it, and as nobody should use it.
#include "formats/file.h"
#include "harness/source_tree.h"
#include "harness/started_board.h"
#include "machine/debugger.h"
#include "machine/events.h"

#include <arpa/inet.h>
#include <cstdio>
#include <fmt/format.h>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace fixture {

namespace {

using testing::HasSubstr;

struct Debugged {
    RunReport report;
    std::string said;    // by the other side
    std::string notices; // by the debugger's port
};

// A board without files, which finds nothing to launch, with somebody at its debugger's port.
Debugged Debug(const std::function<std::string(std::uint16_t port)> &other_side,
               Debugger::StopOn on = Debugger::StopOn::entry, const std::function<void(Machine &)> &prepare = {}) {
    Chips chips;
    RunOptions options;
    options.known = &TestFirmware();
    options.firmware = &Bootloader();
    options.sightings = true;
    options.keep_going = false;
    Machine machine(chips, options);
    if (prepare) prepare(machine);
    Debugged result;
    Debugger debugger(machine, 0, on);
    debugger.notice = [&](const std::string &text) { result.notices += text + "\n"; };
    auto other = std::async(std::launch::async, other_side, debugger.port());
    result.report = machine.run();
    debugger.finished(result.report);
    result.said = other.get();
    return result;
}

std::string Output(const std::string &command) {
    std::FILE *const program = popen(command.c_str(), "r");
    std::string text;
    char part[4096];
    for (std::size_t count; (count = std::fread(part, 1, sizeof part, program)) > 0;) text.append(part, count);
    pclose(program);
    return text;
}

// The command, built beside this test.
std::filesystem::path FixtureProgram() {
    return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "fixture";
}

std::string Gdb(std::uint16_t port, const std::string &commands) {
    const TemporaryDirectory here;
    const auto script = here.write("commands", fmt::format("set pagination off\nset confirm off\nfile {}\n"
                                                           "target remote 127.0.0.1:{}\n{}",
                                                           Bootloader().file.string(), port, commands));
    return Output(fmt::format("gdb-multiarch -nx -batch -x {} 2>&1", script.string()));
}

Debugged DebugWithGdb(const std::string &commands, Debugger::StopOn on = Debugger::StopOn::entry,
                      const std::function<void(Machine &)> &prepare = {}) {
    return Debug([&](std::uint16_t port) { return Gdb(port, commands); }, on, prepare);
}

// The same run with nobody looking.
RunReport Undisturbed() { return RunBoot({}).report; }

void ExpectUndisturbed(const RunReport &report) {
    const RunReport plain = Undisturbed();
    EXPECT_EQ(report.verdict, plain.verdict);
    EXPECT_EQ(report.time, plain.time);
    EXPECT_EQ(report.instructions, plain.instructions);
}

TEST(Debugger, StopsStepsAndLooksWithoutCost) {
    const Debugged run = DebugWithGdb("print/x $pc\n"
                                      "break main\ncontinue\nbacktrace 1\n"
                                      "stepi\nstepi\nnext\nprint/x $cpsr & 0x1f\n"
                                      "x/2xw 0x20100000\n"
                                      "print/x *(unsigned *)0xFFFFF43C\n"
                                      "delete\n"
                                      "awatch *(unsigned *)0xFFFFFE00\n" // nothing is there: never hit
                                      "awatch *(unsigned *)0xFFFFEE1C\n" // DBGU.THR
                                      "continue\nbacktrace 2\n"
                                      "monitor time\nmonitor where\nmonitor chips\nmonitor nonsense\n"
                                      "delete\ncontinue\n");
    EXPECT_THAT(run.said, HasSubstr("$1 = 0x20100000"));
    EXPECT_THAT(run.said, HasSubstr("Breakpoint 1, "));
    EXPECT_THAT(run.said, HasSubstr("#0  main"));
    EXPECT_THAT(run.said, HasSubstr("$2 = 0x13")) << "supervisor mode";
    EXPECT_THAT(run.said, HasSubstr("access (read/write) watchpoint 3: *(unsigned *)0xFFFFEE1C"));
    EXPECT_THAT(run.said, HasSubstr("CONSOLE_Put"));
    EXPECT_THAT(run.said, HasSubstr("ms of virtual time, "));
    EXPECT_THAT(run.said, HasSubstr("DataFlash: AT45"));
    EXPECT_THAT(run.said, HasSubstr("monitor commands:"));
    EXPECT_THAT(run.said, HasSubstr("exited with code 01"));
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

TEST(Debugger, CutsThePowerAndResets) {
    const Debugged cut = DebugWithGdb("monitor cut-power sideways\nmonitor reset\nstepi\nprint/x $pc\nkill\n");
    EXPECT_THAT(cut.said, HasSubstr("cut-power before, torn or after"));
    EXPECT_THAT(cut.said, HasSubstr("$1 = 0x20100000")) << "the first stage starts the bootloader again";
    EXPECT_EQ(cut.report.verdict, Verdict::power_lost);
    EXPECT_EQ(cut.report.resets, 1u);
}

int Connect(std::uint16_t port) {
    const int peer = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(connect(peer, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    return peer;
}

TEST(Debugger, ThatVanishesLeavesTheRunToItself) {
    for (const std::string bytes : {"", "$g#67", "$vCont;c#a8", "garbage\x03$Z0#00$X20100000,ffffffff:#00-"}) {
        const Debugged run = Debug([&](std::uint16_t port) {
            const int peer = Connect(port);
            EXPECT_EQ(write(peer, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
            close(peer);
            return std::string();
        });
        EXPECT_THAT(run.notices, HasSubstr("the debugger has gone; the run goes on")) << bytes;
        ExpectUndisturbed(run.report);
    }
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
    const Bytes bytes = ReadFile(SourceFile("docs/debugging.md"), 1 << 20);
    const std::string text(bytes.begin(), bytes.end());
    std::size_t begin = 0;
    for (unsigned n = 0; n <= number; ++n) begin = text.find("```gdb\n", begin) + 7;
    return text.substr(begin, text.find("```", begin) - begin);
}

TEST(Recipes, OnTheBoard) {
    const std::string recipe = Recipe(0);
    const std::string commands = recipe.substr(recipe.find("break main")); // Gdb() connects
    const Debugged run = DebugWithGdb(commands);
    EXPECT_THAT(run.said, HasSubstr("#0  main"));
    EXPECT_THAT(run.said, HasSubstr("CONSOLE_Put"));
    EXPECT_THAT(run.said, HasSubstr("exited with code 01"));
}

TEST(Recipes, Natively) {
    const TemporaryDirectory here;
    std::string commands = Recipe(1);
    const std::string program = "build/host/fixture";
    commands.replace(commands.find(program), program.size(), FixtureProgram().string());
    const auto script = here.write("commands", "set pagination off\nset confirm off\n" + commands);
    const std::string said = Output(fmt::format("gdb -nx -batch -x {} 2>&1 </dev/null", script.string()));
    EXPECT_THAT(said, HasSubstr("Breakpoint 1, main ()"));
    EXPECT_THAT(said, HasSubstr("StageEnd::exited, bootloader_main()")); // where `finish` comes back to
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

} // namespace

} // namespace fixture
