#include "machine/gdb_protocol.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <fmt/format.h>

namespace fixture {

std::optional<std::uint32_t> GdbNumber(std::string_view digits) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
    if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    return value;
}

std::string_view TakeGdbWord(std::string_view &text, char separator) {
    const std::size_t end = std::min(text.find(separator), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return taken;
}

namespace {

constexpr unsigned kRegisters = 17;
constexpr std::size_t kStopsMost = 4096; // breakpoints and watchpoints, each
constexpr char kEscape = '}';

std::uint8_t SumOf(std::string_view data) {
    unsigned sum = 0;
    for (const char c : data) sum += static_cast<unsigned char>(c);
    return static_cast<std::uint8_t>(sum);
}

// "ADDRESS,LENGTH" and what follows a colon.
struct Place {
    std::uint32_t address, bytes;
};
std::optional<Place> PlaceOf(std::string_view text) {
    const std::optional<std::uint32_t> address = GdbNumber(TakeGdbWord(text, ','));
    const std::optional<std::uint32_t> bytes = GdbNumber(text);
    // Half a packet: a byte takes two digits in the reply.
    if (!address || !bytes || *bytes > kGdbPacketMost / 2) return std::nullopt;
    return Place{*address, *bytes};
}

std::string Unescaped(std::string_view data) {
    std::string plain;
    for (std::size_t i = 0; i < data.size(); ++i) {
        const bool escaped = data[i] == kEscape && i + 1 < data.size();
        plain += escaped ? static_cast<char>(data[++i] ^ 0x20) : data[i];
    }
    return plain;
}

// Registers travel in the target's byte order, whatever the order of this machine.
std::string WordToHex(std::uint32_t word) {
    char bytes[4];
    for (unsigned i = 0; i < 4; ++i) bytes[i] = static_cast<char>(word >> 8 * i);
    return ToHex({bytes, sizeof bytes});
}

std::uint32_t WordFrom(std::string_view bytes) {
    assert(bytes.size() == 4 && "callers have judged the packet's length");
    std::uint32_t word = 0;
    for (unsigned i = 0; i < 4; ++i) word |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << 8 * i;
    return word;
}

// Without it GDB expects eight registers of an old floating-point unit, and finds every reply to "g" too short.
std::string TargetDescription() {
    std::string xml = "<?xml version=\"1.0\"?><!DOCTYPE target SYSTEM \"gdb-target.dtd\"><target version=\"1.0\">"
                      "<architecture>armv5te</architecture><feature name=\"org.gnu.gdb.arm.core\">";
    for (unsigned number = 0; number < 13; ++number) xml += fmt::format("<reg name=\"r{}\" bitsize=\"32\"/>", number);
    return xml + "<reg name=\"sp\" bitsize=\"32\" type=\"data_ptr\"/><reg name=\"lr\" bitsize=\"32\"/>"
                 "<reg name=\"pc\" bitsize=\"32\" type=\"code_ptr\"/><reg name=\"cpsr\" bitsize=\"32\"/>"
                 "</feature></target>";
}

} // namespace

std::string ToHex(std::string_view bytes) {
    std::string digits;
    for (const char c : bytes) digits += fmt::format("{:02x}", static_cast<unsigned char>(c));
    return digits;
}

std::optional<std::string> FromHex(std::string_view digits) {
    if (digits.size() % 2) return std::nullopt;
    std::string bytes;
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        const std::optional<std::uint32_t> byte = GdbNumber(digits.substr(i, 2));
        if (!byte) return std::nullopt;
        bytes += static_cast<char>(*byte);
    }
    return bytes;
}

std::string FrameGdbPacket(std::string_view data) {
    std::string escaped;
    for (const char c : data) {
        // "*" would be read as a count of repeats.
        const bool special = c == '$' || c == '#' || c == '*' || c == kEscape;
        if (special) escaped += kEscape;
        escaped += special ? static_cast<char>(c ^ 0x20) : c;
    }
    return fmt::format("${}#{:02x}", escaped, SumOf(escaped));
}

std::optional<GdbPacketReader::Item> GdbPacketReader::next() {
    while (!waiting_.empty()) {
        const char first = waiting_.front();
        if (first != '$') {
            waiting_.erase(0, 1);
            if (first == '\x03') return Item{Kind::interrupt, {}};
            if (first == '-') return Item{Kind::resend, {}};
            continue; // an acknowledgement, or the rest of a broken packet
        }
        const std::size_t end = waiting_.find('#');
        if (end == std::string::npos && waiting_.size() <= kGdbPacketMost) return std::nullopt;
        // Too long to be kept: what has come of it goes, and the other side is asked for it again.
        if (end == std::string::npos || end > kGdbPacketMost) {
            waiting_.erase(0, std::min(end, waiting_.size()));
            return Item{Kind::broken, {}};
        }
        // The sum's two digits may come with the next bytes.
        if (end + 3 > waiting_.size()) return std::nullopt;
        const std::string data = waiting_.substr(1, end - 1);
        const std::optional<std::uint32_t> sum = GdbNumber(std::string_view(waiting_).substr(end + 1, 2));
        waiting_.erase(0, end + 3);
        if (sum != SumOf(data)) return Item{Kind::broken, {}};
        return Item{Kind::packet, Unescaped(data)};
    }
    return std::nullopt;
}

void GdbSession::forget() {
    breakpoints_.clear();
    watchpoints_.clear();
    acknowledges_ = true;
    follows_programs_ = false;
    files_.close_all();
}

std::string GdbSession::new_program() const { return fmt::format("exec:{};", ToHex(target_.program())); }

std::string GdbSession::stopped(unsigned signal, const std::string &why) {
    return last_stop_ = fmt::format("T{:02x}{}thread:1;", signal, why);
}

std::string GdbSession::watched(std::uint32_t address, std::uint32_t bytes, bool is_write) const {
    static constexpr const char *kNames[] = {"watch", "rwatch", "awatch"};
    for (const Watchpoint &watchpoint : watchpoints_)
        if (watchpoint.sees(address, bytes, is_write))
            return fmt::format("{}:{:x};", kNames[watchpoint.kind - '2'], watchpoint.address);
    return {};
}

GdbSession::Answer GdbSession::handle(const std::string &packet) {
    if (packet.empty()) return {};
    const std::string_view rest = std::string_view(packet).substr(1);
    switch (packet[0]) {
    case '?': return {last_stop_};
    case 'g': {
        std::string all;
        for (const std::uint32_t value : target_.registers()) all += WordToHex(value);
        return {all};
    }
    case 'G': return {write_registers(rest)};
    case 'p': return {one_register(rest, false)};
    case 'P': return {one_register(rest, true)};
    case 'm': return {read_memory(rest)};
    case 'M': return {write_memory(rest, false)};
    case 'X': return {write_memory(rest, true)};
    case 'Z': return {set_stop(rest, true)};
    case 'z': return {set_stop(rest, false)};
    // An address that may follow is left out: GDB sets r15 itself. So is a signal, since nothing here takes one.
    case 'c':
    case 'C': return {"", Then::go, false};
    case 's':
    case 'S': return {"", Then::step, false};
    case 'v': return packet.starts_with("vFile:") ? Answer{files_.handle(packet)} : resume(rest);
    case 'D': return {"OK", Then::detach};
    case 'k': return {"", Then::kill, false};
    // Whatever thread is meant, there is one.
    case 'H':
    case 'T': return {"OK"};
    case 'q':
    case 'Q': return {query(packet)};
    default: return {};
    }
}

GdbSession::Answer GdbSession::resume(std::string_view actions) {
    const std::string_view verb = TakeGdbWord(actions, ';');
    if (verb == "Cont?") return {"vCont;c;C;s;S"};
    if (verb == "Kill") return {"OK", Then::kill};
    if (verb != "Cont" || actions.empty()) return {};
    // There is one thread, so the first action is the one for it.
    const char action = actions.front();
    if (action == 'c' || action == 'C') return {"", Then::go, false};
    if (action == 's' || action == 'S') return {"", Then::step, false};
    return {"E01"};
}

std::string GdbSession::query(const std::string &packet) {
    if (packet.starts_with("qSupported")) {
        // A debugger that has not said that it knows such stops is sent none.
        follows_programs_ = packet.find("exec-events+") != std::string::npos;
        return fmt::format("PacketSize={:x};qXfer:features:read+;qXfer:memory-map:read+;qXfer:exec-file:read+;"
                           "exec-events+;QStartNoAckMode+;vContSupported+",
                           kGdbPacketMost);
    }
    if (packet == "QStartNoAckMode") {
        acknowledges_ = false;
        return "OK";
    }
    // Attached, not started: when GDB quits it lets go and the run goes on, where it would kill what it had started.
    if (packet == "qAttached") return "1";
    // One processor is one thread.
    if (packet == "qC") return "QC1";
    if (packet == "qfThreadInfo") return "m1";
    if (packet == "qsThreadInfo") return "l";
    if (packet.starts_with("qSymbol")) return "OK";
    if (packet.starts_with("qXfer:")) return transfer(packet);
    if (packet.starts_with("qRcmd,")) {
        const std::optional<std::string> command = FromHex(std::string_view(packet).substr(6));
        if (!command) return "E01";
        const std::string answer = target_.monitor(*command);
        return answer.empty() ? "OK" : ToHex(answer.substr(0, kGdbPacketMost / 2));
    }
    return {};
}

// "qXfer:OBJECT:read:ANNEX:OFFSET,LENGTH": one piece of a text.
std::string GdbSession::transfer(const std::string &packet) {
    std::string_view rest = packet;
    TakeGdbWord(rest, ':');
    const std::string_view object = TakeGdbWord(rest, ':');
    const std::string_view verb = TakeGdbWord(rest, ':');
    const std::string_view annex = TakeGdbWord(rest, ':');
    std::optional<std::string> text;
    if (object == "features" && annex == "target.xml") text = TargetDescription();
    if (object == "memory-map" && annex.empty()) text = target_.memory_map();
    if (object == "exec-file") text = target_.program();
    const std::optional<std::uint32_t> offset = GdbNumber(TakeGdbWord(rest, ','));
    const std::optional<std::uint32_t> length = GdbNumber(rest);
    if (verb != "read" || !text) return {};
    if (!offset || !length || *offset > text->size()) return "E01";
    const std::string piece = text->substr(*offset, std::min<std::uint32_t>(*length, kGdbPacketMost / 2));
    // "m" has GDB ask for the next piece, "l" is the last one.
    return (*offset + piece.size() < text->size() ? "m" : "l") + piece;
}

std::string GdbSession::read_memory(std::string_view arguments) {
    const std::optional<Place> place = PlaceOf(arguments);
    const std::optional<std::string> bytes = place ? target_.read(place->address, place->bytes) : std::nullopt;
    return bytes ? ToHex(*bytes) : "E01";
}

std::string GdbSession::write_memory(std::string_view arguments, bool binary) {
    const std::optional<Place> place = PlaceOf(TakeGdbWord(arguments, ':'));
    const std::optional<std::string> bytes = binary ? std::string(arguments) : FromHex(arguments);
    if (!place || !bytes || bytes->size() != place->bytes) return "E01";
    // GDB tries by a write of no bytes whether binary writes are known here.
    return bytes->empty() || target_.write(place->address, *bytes) ? "OK" : "E01";
}

std::string GdbSession::write_registers(std::string_view digits) {
    const std::optional<std::string> bytes = FromHex(digits);
    if (!bytes || bytes->size() != kRegisters * 4) return "E01";
    // GDB writes all of them to change one. To write r15 ends the straight run of code, so what stays is left alone.
    const auto before = target_.registers();
    for (unsigned number = 0; number < kRegisters; ++number) {
        const std::uint32_t value = WordFrom(std::string_view(*bytes).substr(number * 4, 4));
        if (value != before[number]) target_.set_register(number, value);
    }
    return "OK";
}

// "NUMBER" or "NUMBER=VALUE".
std::string GdbSession::one_register(std::string_view arguments, bool write) {
    const std::optional<std::uint32_t> number = GdbNumber(TakeGdbWord(arguments, '='));
    if (!number || *number >= kRegisters) return "E01";
    if (!write) return WordToHex(target_.registers()[*number]);
    const std::optional<std::string> bytes = FromHex(arguments);
    if (!bytes || bytes->size() != 4) return "E01";
    target_.set_register(*number, WordFrom(*bytes));
    return "OK";
}

// "KIND,ADDRESS,LENGTH": 0 and 1 are breakpoints, which are one thing here, 2 to 4 watchpoints.
std::string GdbSession::set_stop(std::string_view arguments, bool insert) {
    const std::string_view kind = TakeGdbWord(arguments, ',');
    if (kind.size() != 1 || kind[0] < '0' || kind[0] > '4') return {};
    const std::optional<Place> place = PlaceOf(TakeGdbWord(arguments, ';'));
    if (!place) return "E01";
    // A bound, since every stop is looked at before each instruction and nobody sets thousands by hand.
    if (insert && (breakpoints_.size() >= kStopsMost || watchpoints_.size() >= kStopsMost)) return "E02";
    if (kind[0] <= '1') {
        insert ? void(breakpoints_.insert(place->address)) : void(breakpoints_.erase(place->address));
        return "OK";
    }
    const Watchpoint watchpoint{place->address, place->bytes, kind[0]};
    insert ? void(watchpoints_.insert(watchpoint)) : void(watchpoints_.erase(watchpoint));
    return "OK";
}

} // namespace fixture
