// The debugger's packets: whatever a line brings, the reader comes back to its senses and the session answers.
#include "fuzz/targets.h"
#include "harness/small_target.h"

#include <algorithm>

namespace fixture {

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
