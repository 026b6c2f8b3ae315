#include "machine/debugger.h"

#include "formats/file.h"
#include "formats/refusal.h"
#include "machine/raw_flash.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace fixture {

namespace {

// Instructions between looks at the line: each is a system call, and Ctrl-C has to feel immediate.
constexpr std::uint32_t kLookEvery = 16384;

// Signals as GDB numbers them.
enum : unsigned { signal_interrupt = 2, signal_trap = 5, signal_abort = 6, signal_fault = 11, signal_time = 24 };

struct RegisterWindow {
    std::uint32_t base, size;
};
constexpr RegisterWindow kWindows[] = {{0x00700000, 0x1000}, {0x40000000, 0x800000}, {0xFFF78000, 0x88000}};

constexpr const char *kMonitorHelp = "monitor commands:\n"
                                     "  time        virtual time, instructions, resets so far\n"
                                     "  where       place and calls, with the symbols of the build that runs\n"
                                     "  chips       what the board's chips hold\n"
                                     "  cut-power before|torn|after   at the next operation that changes a chip\n"
                                     "  reset       reset the processor when the run goes on\n";

// What stands for an image that no ELF is known for: no symbols are better than those of the program before it.
constexpr const char *kUnknownProgram = "/unknown-image.elf";

// An ELF header and nothing more.
std::string EmptyElf() {
    std::string header(52, '\0');
    header.replace(0, 7,
                   "\x7F"
                   "ELF\1\1\1"); // 32 bits, little-endian
    header[16] = 2;              // executable
    header[18] = 40;             // for the ARM
    header[20] = 1;
    header[39] = 5;  // of today's binary interface
    header[40] = 52; // sizes: of this header, of a segment's, of a section's
    header[42] = 32;
    header[46] = 40;
    return header;
}

int Listen(std::uint16_t port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // The port of a run that has just ended is still closing: the next run of the same call may have it all the same.
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK); // nobody else's debugger
    if (listener >= 0 && bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
        listen(listener, 1) == 0)
        return listener;
    const int error = errno;
    if (listener >= 0) close(listener);
    throw Refusal(Fault::output,
                  {"port-taken", fmt::format("port {}", port), std::strerror(error), "one that is free"});
}

std::uint16_t PortOf(int listener) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
    return ntohs(address.sin_port);
}

bool HasInput(int file) {
    pollfd entry{file, POLLIN, 0};
    return poll(&entry, 1, 0) > 0;
}

} // namespace

Debugger::Debugger(Machine &machine, std::uint16_t port, StopOn on) : machine_(machine), on_(on) {
    listener_ = Listen(port);
    port_ = PortOf(listener_);
    machine_.arm().attach(this);
    machine_.troubled = [this](Trouble what, const std::string &text) { trouble(what, text); };
    looked_on_before_ = machine_.board().bus.observer;
    machine_.board().bus.observer = [this](const BusAccess &made) {
        if (looked_on_before_) looked_on_before_(made);
        before_access(made.address, made.bytes, made.is_write);
    };
}

Debugger::~Debugger() {
    machine_.arm().attach(nullptr);
    machine_.troubled = nullptr;
    machine_.board().bus.observer = looked_on_before_;
    if (peer_ >= 0) close(peer_);
    close(listener_);
}

void Debugger::say(const std::string &text) const {
    if (notice) notice(text);
}

// ---------------------------------------------------------------------------------------------------------------------
// When the run stands still

void Debugger::before_instruction(std::uint32_t pc) {
    if (!has_stopped_ && on_ == StopOn::entry) return stop_here(signal_trap, "", "at the entry");
    if (peer_ >= 0 && machine_.running() != told_of_) return tell_of_program(pc);
    if (peer_ >= 0 && (stepping_ || session_.breaks_at(pc))) return stop_here(signal_trap, "", "");
    if (until_look_-- == 0) {
        until_look_ = kLookEvery;
        look_for_interrupt();
    }
}

// Another build, or the application, is about to make its first step. The debugger loads its symbols, puts its
// breakpoints where they are in it, and goes on by itself.
void Debugger::tell_of_program(std::uint32_t pc) {
    told_of_ = machine_.running();
    if (session_.follows_programs()) stop_here(signal_trap, session_.new_program(), "");
    if (peer_ >= 0 && session_.breaks_at(pc)) stop_here(signal_trap, "", "");
}

void Debugger::before_access(std::uint32_t address, unsigned bytes, bool is_write) {
    if (peer_ < 0 || talking_ || !session_.watches()) return; // most runs have no watchpoint: the way out comes first
    const std::string why = session_.watched(address, bytes, is_write);
    if (!why.empty()) stop_here(signal_trap, why, "");
}

// The first stop is the one that was asked for; after it, everything that ends a run badly stops it.
void Debugger::trouble(Trouble trouble, const std::string &what) {
    static constexpr struct {
        StopOn on;
        unsigned signal;
        const char *name;
    } kTroubles[] = {{StopOn::violation, signal_abort, "violation"},
                     {StopOn::hang, signal_time, "hang"},
                     {StopOn::fault, signal_fault, "fault"},
                     {StopOn::reset, signal_trap, "reset"}};
    const auto &kind = kTroubles[static_cast<std::size_t>(trouble)];
    const bool asked = kind.on == on_;
    if (!asked && (peer_ < 0 || trouble == Trouble::reset)) return;
    stop_here(kind.signal, "", fmt::format("{}: {}", kind.name, what));
}

// A debugger may come, press Ctrl-C or go at any time while the board runs.
void Debugger::look_for_interrupt() {
    if (peer_ < 0) {
        accept_debugger(false);
        if (peer_ >= 0) stop_here(signal_interrupt, "", "");
        return;
    }
    if (HasInput(peer_)) {
        char bytes[256];
        const ssize_t count = recv(peer_, bytes, sizeof bytes, MSG_DONTWAIT);
        if (count <= 0) return hang_up("the debugger has gone; the run goes on");
        reader_.feed({bytes, static_cast<std::size_t>(count)});
    }
    // Also without new bytes: an interrupt may have come in one piece with the command before it.
    while (const auto item = reader_.next())
        if (item->kind == GdbPacketReader::Kind::interrupt) return stop_here(signal_interrupt, "", "");
}

void Debugger::stop_here(unsigned signal, const std::string &why, const std::string &explanation) {
    if (talking_) return; // what the debugger itself makes the board do stops nothing
    talking_ = true;
    stepping_ = false;
    const std::string stop = session_.stopped(signal, why);
    if (peer_ < 0) {
        say(fmt::format("{}; waiting for a debugger: target remote :{}", explanation, port_));
        accept_debugger(true); // asks for the reason itself
    } else {
        if (!explanation.empty()) send("O" + ToHex(explanation + "\n"));
        send(stop);
    }
    has_stopped_ = true;
    converse();
    talking_ = false;
}

// ---------------------------------------------------------------------------------------------------------------------
// The line

void Debugger::accept_debugger(bool wait) {
    if (!wait && !HasInput(listener_)) return;
    do peer_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    while (peer_ < 0 && errno == EINTR);
    if (peer_ < 0) return;
    // A step is a small packet either way. Held back to be sent with more, each would cost tens of milliseconds.
    const int on = 1;
    setsockopt(peer_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    reader_ = {};
    session_.forget();
    told_of_ = machine_.running(); // it asks for the program itself
}

void Debugger::hang_up(const std::string &why) {
    if (peer_ >= 0) close(peer_);
    peer_ = -1;
    stepping_ = false;
    session_.forget();
    if (!why.empty()) say(why);
}

void Debugger::send(const std::string &data) {
    last_sent_ = FrameGdbPacket(data);
    std::string_view rest = last_sent_;
    while (!rest.empty() && peer_ >= 0) {
        // Without the signal: a debugger that has gone ends the conversation, not this process.
        const ssize_t count = ::send(peer_, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return hang_up("the debugger has gone; the run goes on");
        rest.remove_prefix(static_cast<std::size_t>(count));
    }
}

// The next command; nothing once the debugger has gone.
std::optional<std::string> Debugger::receive() {
    for (;;) {
        while (const auto item = reader_.next()) {
            const bool acknowledge = session_.acknowledges() && item->kind != GdbPacketReader::Kind::interrupt;
            const bool whole = item->kind == GdbPacketReader::Kind::packet;
            if (item->kind == GdbPacketReader::Kind::resend) {
                ::send(peer_, last_sent_.data(), last_sent_.size(), MSG_NOSIGNAL);
                continue;
            }
            if (acknowledge) ::send(peer_, whole ? "+" : "-", 1, MSG_NOSIGNAL);
            if (whole) return item->data;
        }
        char bytes[4096];
        const ssize_t count = recv(peer_, bytes, sizeof bytes, 0);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return std::nullopt;
        reader_.feed({bytes, static_cast<std::size_t>(count)});
    }
}

void Debugger::converse() {
    while (peer_ >= 0) {
        const std::optional<std::string> packet = receive();
        if (!packet) return hang_up("the debugger has gone; the run goes on");
        const GdbSession::Answer answer = session_.handle(*packet);
        if (answer.replies) send(answer.reply);
        if (answer.then != GdbSession::Then::wait) return act(answer);
    }
}

void Debugger::act(const GdbSession::Answer &answer) {
    switch (answer.then) {
    case GdbSession::Then::step: stepping_ = true; return;
    case GdbSession::Then::detach: return hang_up("the debugger has let go; the run goes on");
    case GdbSession::Then::kill: hang_up(""); return machine_.stop({StageEnd::power_lost, 0, "killed by the debugger"});
    default: return;
    }
}

void Debugger::finished(const RunReport &report) {
    if (peer_ < 0) return;
    talking_ = true;
    send("O" + ToHex(fmt::format("the run has ended: {}\n", VerdictName(report.verdict))));
    send(fmt::format("W{:02x}", report.exit_status()));
    if (peer_ >= 0) receive(); // the debugger hangs up first, or asks for what there is no more
    hang_up("");
}

// ---------------------------------------------------------------------------------------------------------------------
// What the debugger looks at

std::array<std::uint32_t, 17> Debugger::registers() { return machine_.arm().registers(); }

void Debugger::set_register(unsigned number, std::uint32_t value) { machine_.arm().set_register(number, value); }

std::optional<std::string> Debugger::read(std::uint32_t address, std::uint32_t bytes) {
    Board &board = machine_.board();
    const std::span<const std::uint8_t> plain = board.memory.memory().at(address, bytes);
    // Registers are peeked at a word at a time: a read of the processor's would take a character or clear a status.
    if (!plain.empty() || bytes == 0) return std::string(plain.begin(), plain.end());
    std::string text;
    for (std::uint32_t at = address; text.size() < bytes; ++at) {
        const std::optional<std::uint32_t> word = board.bus.peek(at & ~3u);
        if (!word) return std::nullopt;
        text += static_cast<char>(*word >> 8 * (at & 3));
    }
    return text;
}

bool Debugger::write(std::uint32_t address, std::string_view bytes) {
    const std::span data(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size());
    if (machine_.arm().write_memory(address, data)) return true;
    // A register takes one access. Lengths come from whoever sent the packet.
    if (bytes.size() > 4 || !std::has_single_bit(bytes.size()) || address % bytes.size() != 0) return false;
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data(), bytes.size());
    return machine_.board().bus.poke(address, static_cast<unsigned>(bytes.size()), value);
}

// GDB leaves alone what the map does not name, so a wild pointer on the stack ends its unwinding and no more.
std::string Debugger::memory_map() {
    std::string xml =
        "<?xml version=\"1.0\"?><!DOCTYPE memory-map PUBLIC \"+//IDN gnu.org//DTD GDB Memory Map V1.0//EN\""
        " \"http://sourceware.org/gdb/gdb-memory-map.dtd\"><memory-map>";
    const auto add = [&xml](std::uint32_t base, std::size_t size) {
        xml += fmt::format("<memory type=\"ram\" start=\"0x{:x}\" length=\"0x{:x}\"/>", base, size);
    };
    for (const MemoryRegion &region : machine_.board().memory.memory().regions()) add(region.base, region.bytes.size());
    for (const RegisterWindow &window : kWindows) add(window.base, window.size);
    return xml + "</memory-map>";
}

std::string Debugger::program() {
    const Firmware *build = machine_.running();
    return build && build->elf ? std::filesystem::absolute(build->file).string() : kUnknownProgram;
}

// A debugger reads the file of what runs and no other one of this machine.
std::optional<std::string> Debugger::file(const std::string &path) {
    if (path != program()) return std::nullopt;
    if (path == kUnknownProgram) return EmptyElf();
    try {
        const Bytes bytes = ReadFile(path, kLargestElf);
        return std::string(bytes.begin(), bytes.end());
    } catch (const std::runtime_error &) { // it has gone since it was loaded
        return std::nullopt;
    }
}

std::string Debugger::monitor(const std::string &command) {
    if (command == "time") return show_time();
    if (command == "where") return show_where();
    if (command == "chips") return show_chips();
    if (command.starts_with("cut-power")) return cut_power(command.substr(std::strlen("cut-power")));
    if (command != "reset") return kMonitorHelp;
    // The same way as a reset by the controller, so that the first stage and the count of resets see it.
    machine_.stop({StageEnd::reset, 0, "debugger"});
    return "the processor is reset when the run goes on\n";
}

std::string Debugger::show_time() const {
    return fmt::format("{:.6f} ms of virtual time, {} instructions\n", Milliseconds(machine_.board().clock.now()),
                       machine_.instructions());
}

std::string Debugger::show_where() const {
    std::string text;
    for (const std::string &place : machine_.call_chain())
        text += (text.empty() ? "in        " : "called by ") + place + "\n";
    const Firmware *build = machine_.running();
    return text + fmt::format("symbols: {}\n", build && build->elf ? build->file.string() : "none for what runs");
}

std::string Debugger::show_chips() const {
    const Chips &chips = machine_.chips();
    std::string text = fmt::format("NAND: {}\nDataFlash: {}\n", chips.nand.part() ? chips.nand.part()->name : "none",
                                   chips.dataflash.absent ? "none" : chips.dataflash.part().name);
    const bool nand = machine_.options().board.straps.boots_from_nand();
    const FlashReader reader = nand ? ReaderOf(chips.nand) : ReaderOf(chips.dataflash);
    const SlotTable &slots = SlotsOf(nand ? Medium::nand : Medium::dataflash);
    text += fmt::format("the board boots from {}:\n", nand ? "NAND" : "DataFlash");
    for (const Slot &slot : {slots.bootloader[0], slots.bootloader[1], slots.rescue}) {
        const StoredImage image = ReadSlot(reader, slot);
        text +=
            fmt::format("  {} at 0x{:X}: {}, {} bytes\n", slot.name, slot.address, NameOf(image.verdict()), image.size);
    }
    return text;
}

std::string Debugger::cut_power(const std::string &moment) {
    static constexpr std::pair<const char *, CutMoment> kMoments[] = {
        {" before", CutMoment::before}, {" torn", CutMoment::torn}, {" after", CutMoment::after}};
    for (const auto &[name, value] : kMoments) {
        if (moment != name) continue;
        machine_.board().supply.plan(PowerCut{0, value, 1});
        return fmt::format("the power goes{}{} the next operation that changes a chip\n", name,
                           value == CutMoment::torn ? " within" : "");
    }
    return "cut-power before, torn or after the next operation that changes a chip\n";
}

} // namespace fixture
