#include "machine/vcd.h"

#include "formats/refusal.h"
#include "machine/trace.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <stdexcept>

namespace fixture {

namespace {

constexpr VcdSignal kSignals[] = {
    {"SDA", 'B', 4},         {"SCL", 'B', 5},                                 // two-wire bus
    {"PANEL_DATA", 'B', 13}, {"PANEL_CLOCK", 'B', 14}, {"PANEL_CS", 'B', 15}, // panel's serial line
    {"NAND_RB", 'A', 22},    {"NAND_CE", 'D', 15},                            // ready/busy and chip enable
    {"SPI_MISO", 'A', 0},    {"SPI_MOSI", 'A', 1},                            // DataFlash
    {"SPI_CLOCK", 'A', 2},   {"SPI_CS", 'A', 5},       {"STRAP_12", 'B', 12},
    {"STRAP_18", 'B', 18},                                                 // the straps' pins that nothing else uses
    {"CONSOLE", 0, 0},                                                     // the console's line: 8 bits, no parity
    {"RESET", 0, 0},                                                       // low for 1 us: the processor is reset
    {"NAND_IO", 0, 0},       {"NAND_CLE", 0, 0},       {"NAND_ALE", 0, 0}, // the chip's bus
    {"NAND_WE", 0, 0},       {"NAND_RE", 0, 0},
};

// Short identifiers out of the printable characters.
std::string Identifier(std::size_t index) { return std::string(1, static_cast<char>('!' + index)); }

[[noreturn]] void Refuse(std::string_view wanted) {
    std::string names;
    for (const VcdSignal &signal : kSignals) names += fmt::format(" {}", signal.name);
    throw Refusal(Fault::call,
                  {"wrong-call", "--vcd-signals", fmt::format("no signal \"{}\"", wanted), "one of" + names});
}

} // namespace

// Shared with the nets' watchers, which stay when the writer has gone.
struct VcdWriter::File {
    struct Signal {
        std::string name;
        const Net *net; // or none, and the level it was given last
        unsigned bits = 1;
        unsigned level = 0;
        unsigned now() const { return net ? net->high() : level; }
    };
    std::ostream &out;
    const Clock &clock;
    std::vector<Signal> signals;
    bool open = false;
    Picoseconds stamped = 0;

    void stamp() {
        const Picoseconds now = clock.now() / kNanosecond;
        if (now == stamped) return;
        stamped = now;
        out << '#' << now << '\n';
    }
    void level(std::size_t index, unsigned level) {
        if (signals[index].bits == 1)
            out << (level ? '1' : '0') << Identifier(index) << '\n';
        else
            out << fmt::format("b{:0{}b} {}\n", level, signals[index].bits, Identifier(index));
    }
};

VcdWriter::VcdWriter(std::ostream &out, const Clock &clock) : file_(std::make_shared<File>(File{out, clock, {}})) {}

VcdWriter::~VcdWriter() {
    if (!file_->open) return;
    file_->stamp();
    file_->out.flush();
    file_->open = false;
}

void VcdWriter::add(const std::string &name, Net &net) {
    const std::size_t index = file_->signals.size();
    file_->signals.push_back({name, &net});
    net.watch([file = file_, index](bool high) {
        if (!file->open) return;
        file->stamp();
        file->level(index, high);
    });
}

std::function<void(unsigned)> VcdWriter::add(const std::string &name, unsigned bits, unsigned level) {
    const std::size_t index = file_->signals.size();
    file_->signals.push_back({name, nullptr, bits, level});
    return [file = file_, index](unsigned now) {
        if (file->signals[index].level == now) return;
        file->signals[index].level = now;
        if (!file->open) return;
        file->stamp();
        file->level(index, now);
    };
}

void VcdWriter::begin() {
    std::ostream &out = file_->out;
    out << "$timescale 1 ns $end\n$scope module fixture $end\n";
    for (std::size_t i = 0; i < file_->signals.size(); ++i)
        out << fmt::format("$var wire {} {} {} $end\n", file_->signals[i].bits, Identifier(i), file_->signals[i].name);
    file_->stamped = file_->clock.now() / kNanosecond;
    out << "$upscope $end\n$enddefinitions $end\n#" << file_->stamped << "\n$dumpvars\n";
    for (std::size_t i = 0; i < file_->signals.size(); ++i) file_->level(i, file_->signals[i].now());
    out << "$end\n";
    file_->open = true;
}

std::vector<VcdSignal> VcdSignals(std::string_view list) {
    std::vector<VcdSignal> chosen;
    if (list.empty()) list = "*";
    for (bool more = true; more;) {
        const std::size_t comma = list.find(',');
        more = comma != std::string_view::npos;
        const std::string_view wanted = list.substr(0, comma);
        const std::size_t before = chosen.size();
        std::copy_if(std::begin(kSignals), std::end(kSignals), std::back_inserter(chosen),
                     [&](const VcdSignal &signal) { return Matches(signal.name, wanted); });
        if (chosen.size() == before) Refuse(wanted);
        if (more) list.remove_prefix(comma + 1);
    }
    return chosen;
}

} // namespace fixture
