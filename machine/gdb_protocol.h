// GDB's remote serial protocol, as far as it needs neither a socket nor a board: the framing of packets, and a session
// that turns commands into replies.
//
//   GdbPacketReader reader;
//   reader.feed("$g#67");
//   while (const auto item = reader.next()) std::puts(item->data.c_str());
//
// Whatever bytes come in, the reader and the session answer or ignore them: nothing of a packet is trusted.
#pragma once

#include "machine/gdb_files.h"

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace fixture {

inline constexpr std::size_t kGdbPacketMost = 0x4000; // bytes between "$" and "#", either way

class GdbPacketReader {
public:
    enum class Kind : std::uint8_t {
        packet,    // whole, with a good checksum
        broken,    // a bad checksum, or longer than kGdbPacketMost: ask for it again
        interrupt, // Ctrl-C
        resend,    // "-": the last packet did not arrive whole
    };
    struct Item {
        Kind kind;
        std::string data; // of a packet, unescaped
    };

    void feed(std::string_view bytes) { waiting_ += bytes; }
    // The next thing that is complete; nothing until more bytes come. Bytes outside packets are left out.
    std::optional<Item> next();

private:
    std::string waiting_;
};

// "$DATA#SUM", with what must be escaped escaped.
std::string FrameGdbPacket(std::string_view data);

std::string ToHex(std::string_view bytes);
// Nothing for an odd number of digits or another character.
std::optional<std::string> FromHex(std::string_view digits);

// The pieces of a packet: what stands before a separator, which is taken off `text` with it; a whole text as a
// hexadecimal number.
std::string_view TakeGdbWord(std::string_view &text, char separator);
std::optional<std::uint32_t> GdbNumber(std::string_view digits);

// What is debugged.
class GdbTarget {
public:
    virtual ~GdbTarget() = default;
    virtual std::array<std::uint32_t, 17> registers() = 0; // r0 to r15, status
    virtual void set_register(unsigned number, std::uint32_t value) = 0;
    // Memory, and registers of the board without the effects of reading; nothing where not all of it can be read.
    virtual std::optional<std::string> read(std::uint32_t address, std::uint32_t bytes) = 0;
    virtual bool write(std::uint32_t address, std::string_view bytes) = 0;
    // The answer to "monitor COMMAND".
    virtual std::string monitor(const std::string &command) = 0;
    virtual std::string memory_map() = 0; // as XML
    // The path under which the debugger finds the ELF of what runs.
    virtual std::string program() = 0;
    // What is in a file that the debugger may read; nothing for every other.
    virtual std::optional<std::string> file(const std::string &path) = 0;
};

class GdbSession {
public:
    enum class Then : std::uint8_t { wait, go, step, detach, kill };
    struct Answer {
        std::string reply; // empty: the command is not known here, which is a reply too
        Then then = Then::wait;
        bool replies = true; // false: the reply is the next stop
    };
    struct Watchpoint {
        std::uint32_t address;
        std::uint32_t bytes;
        char kind; // '2' writes, '3' reads, '4' both
        bool sees(std::uint32_t at, std::uint32_t length, bool is_write) const {
            return (kind == '4' || (kind == '2') == is_write) && (at - address < bytes || address - at < length);
        }
        friend auto operator<=>(const Watchpoint &, const Watchpoint &) = default;
    };

    explicit GdbSession(GdbTarget &target)
        : target_(target), files_([&target](const std::string &path) { return target.file(path); }) {}

    Answer handle(const std::string &packet);

    bool breaks_at(std::uint32_t pc) const { return !breakpoints_.empty() && breakpoints_.contains(pc); }
    // Why an access stops the processor, as a part of the reply: "watch:20001234;"; empty: it does not.
    std::string watched(std::uint32_t address, std::uint32_t bytes, bool is_write) const;
    bool watches() const { return !watchpoints_.empty(); }
    bool acknowledges() const { return acknowledges_; }
    // Whether the debugger wants to hear of another program, and the part of a stop that tells it.
    bool follows_programs() const { return follows_programs_; }
    std::string new_program() const;
    // The reply that tells of a stop, and again when asked "?". `why` as above, or empty.
    std::string stopped(unsigned signal, const std::string &why);
    // A new debugger knows nothing of what the last one set.
    void forget();

private:
    std::string query(const std::string &packet);
    std::string transfer(const std::string &packet);
    std::string read_memory(std::string_view arguments);
    std::string write_memory(std::string_view arguments, bool binary);
    std::string write_registers(std::string_view digits);
    std::string one_register(std::string_view arguments, bool write);
    std::string set_stop(std::string_view arguments, bool insert);
    Answer resume(std::string_view actions);

    GdbTarget &target_;
    GdbFiles files_;
    std::set<std::uint32_t> breakpoints_;
    std::set<Watchpoint> watchpoints_;
    std::string last_stop_ = "T05thread:1;";
    bool acknowledges_ = true;
    bool follows_programs_ = false;
};

} // namespace fixture
