// The debugger's packets: whatever a line brings, the reader comes back to its senses and the session answers.
#include "fuzz/targets.h"
#include "machine/gdb_protocol.h"

#include <algorithm>

namespace fixture {

namespace {

class SmallTarget : public GdbTarget {
public:
    std::array<std::uint32_t, 17> registers() override { return registers_; }
    void set_register(unsigned number, std::uint32_t value) override { registers_.at(number) = value; }
    std::optional<std::string> read(std::uint32_t address, std::uint32_t bytes) override {
        if (address < kBase || address - kBase > memory_.size() || memory_.size() - (address - kBase) < bytes)
            return std::nullopt;
        return memory_.substr(address - kBase, bytes);
    }
    bool write(std::uint32_t address, std::string_view bytes) override {
        if (!read(address, static_cast<std::uint32_t>(bytes.size()))) return false;
        memory_.replace(address - kBase, bytes.size(), bytes);
        return true;
    }
    std::string monitor(const std::string &command) override { return "heard " + command; }
    std::string memory_map() override { return "<memory-map/>"; }
    std::string program() override { return "/a"; }
    std::optional<std::string> file(const std::string &path) override {
        return path == program() ? std::optional(memory_) : std::nullopt;
    }

private:
    static constexpr std::uint32_t kBase = 0x20000000;
    std::array<std::uint32_t, 17> registers_{};
    std::string memory_ = std::string(4096, '\x5A');
};

} // namespace

void FuzzGdb(std::span<const std::uint8_t> input) {
    const std::string bytes(input.begin(), input.end());
    SmallTarget target;
    GdbSession session(target);
    GdbPacketReader reader;
    const auto answer = [&](const std::string &packet) {
        const GdbSession::Answer given = session.handle(packet);
        Require(given.reply.size() <= 2 * kGdbPacketMost, "a reply longer than any packet");
        Require(given.replies || given.then != GdbSession::Then::wait, "a command without an answer");
    };
    // The line as it comes, in two pieces, and then each of its lines as a packet that arrived whole.
    reader.feed(std::string_view(bytes).substr(0, bytes.size() / 2));
    reader.feed(std::string_view(bytes).substr(bytes.size() / 2));
    while (const auto item = reader.next())
        if (item->kind == GdbPacketReader::Kind::packet) answer(item->data);
    GdbPacketReader whole;
    for (std::size_t begin = 0; begin < bytes.size();) {
        const std::size_t end = std::min(bytes.find('\n', begin), bytes.size());
        const std::string packet = bytes.substr(begin, end - begin);
        whole.feed(FrameGdbPacket(packet));
        const auto item = whole.next();
        Require(item && item->kind == GdbPacketReader::Kind::packet && item->data == packet,
                "a packet changed on its way");
        answer(item->data);
        begin = end + 1;
    }
    session.breaks_at(0x20100000);
    session.watched(0x20000000, 4, true);
}

} // namespace fixture
