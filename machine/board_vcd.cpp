#include "machine/board_vcd.h"

#include <string_view>

namespace fixture {

namespace {

constexpr std::uint32_t kBaudDivider = 0xFFFFEE20; // DBGU.BRGR
constexpr std::uint32_t kNandWindow = 0x40000000;
// A21 and A22 tell data, address and command of the NAND apart, so all of it lies in these 8 MiB.
constexpr std::uint32_t kNandWindowBytes = 0x00800000;
// A reset takes no virtual time, and a level without a length is not seen.
constexpr Picoseconds kResetShown = kMicrosecond;

} // namespace

BoardVcd::BoardVcd(std::ostream &out, const std::string &signals, Machine &machine)
    : writer_(out, machine.board().clock) {
    for (const VcdSignal &signal : VcdSignals(signals)) {
        const std::string_view name = signal.name;
        if (signal.port)
            writer_.add(signal.name, machine.board().net(signal.port, signal.bit));
        else if (name == "CONSOLE")
            add_console(machine, writer_.add(signal.name, 1, 1));
        else if (name == "RESET")
            add_reset(machine, writer_.add(signal.name, 1, 1));
        else if (name == "NAND_IO")
            nand_io_ = writer_.add(signal.name, 8, 0);
        else
            // The strobes are active low and begin high; the latch enables are active high.
            (name == "NAND_CLE"   ? nand_cle_
             : name == "NAND_ALE" ? nand_ale_
             : name == "NAND_WE"  ? nand_we_
                                  : nand_re_) = writer_.add(signal.name, 1, name == "NAND_WE" || name == "NAND_RE");
    }
    if (nand_io_ || nand_cle_ || nand_ale_ || nand_we_ || nand_re_) add_nand(machine);
    // The controller moves whole characters. Its pins follow bit by bit only while somebody looks.
    machine.board().spi0.trace_bits = true;
    writer_.begin();
}

// A start bit, eight data bits from the lowest, a stop bit, as long as the divider makes them.
void BoardVcd::add_console(Machine &machine, const Line &line) {
    Board &board = machine.board();
    board.console.transmitted = [&board, line, before = board.console.transmitted](char c) {
        if (before) before(c);
        // AT91SAM9263, debug unit: a bit takes 16 x BRGR cycles of the master clock.
        const Picoseconds bit = 16 * Picoseconds{board.bus.peek(kBaudDivider).value_or(1)} * board.bus.cycle;
        const unsigned frame = unsigned{static_cast<unsigned char>(c)} << 1 | 1u << 9;
        for (unsigned n = 0; n < 10; ++n)
            board.clock.show_at(board.clock.now() + n * bit, [line, level = frame >> n & 1u] { line(level); });
    };
}

void BoardVcd::add_reset(Machine &machine, const Line &line) {
    machine.observer = [&machine, line, before = machine.observer](EventKind kind, std::string where,
                                                                   std::string what) {
        if (before) before(kind, std::move(where), std::move(what));
        if (kind != EventKind::reset) return;
        line(0);
        machine.board().clock.show_at(machine.board().clock.now() + kResetShown, [line] { line(1); });
    };
}

// The strobe falls at the access and rises after half a bus cycle; data stand in between.
void BoardVcd::add_nand(Machine &machine) {
    // What nobody asked for goes nowhere, so that no access has to ask which signals there are.
    for (Line *line : {&nand_io_, &nand_cle_, &nand_ale_, &nand_we_, &nand_re_})
        if (!*line) *line = [](unsigned) {};
    Board &board = machine.board();
    board.bus.observer = [&board, before = board.bus.observer, io = nand_io_, cle = nand_cle_, ale = nand_ale_,
                          we = nand_we_, re = nand_re_](const BusAccess &made) {
        if (before) before(made);
        if (made.address - kNandWindow >= kNandWindowBytes) return;
        const std::string name = board.bus.name_of(made.address);
        cle(name == "NAND.COMMAND");
        ale(name == "NAND.ADDRESS");
        io(made.value & 0xFF);
        const Line &strobe = made.is_write ? we : re;
        strobe(0);
        board.clock.show_at(board.clock.now() + board.bus.cycle / 2, [strobe] { strobe(1); });
    };
}

} // namespace fixture
