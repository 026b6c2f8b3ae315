#include "formats/stored_image.h"
#include "harness/noise.h"
#include "harness/speed.h"

#include <numeric>
#include <stdexcept>

namespace fixture {

namespace {

constexpr std::uint32_t kHeaderBytes = 32;
constexpr std::uint32_t kBody = kSpeedBytes - kHeaderBytes;
constexpr std::uint32_t kRescueSlot = 0x400000; // of the NAND
constexpr const char *kFile = "i:/vol0/file";

// Instructions that have to be made for four bytes of a word each.
constexpr double kByteSum = 4;     // load, mask, two additions
constexpr double kRunningSums = 6; // load, mask, four additions
constexpr double kJoin8 = 8;       // four loads, three to join, store
constexpr double kJoin16 = 4;      // two loads, one to join, store
constexpr double kCopy = 0.5;      // four words by one load and one store

// Instructions a byte of a call that has to return 0.
template <typename... Arguments>
double PerByte(StartedBoard &started, std::uint32_t bytes, const char *routine, Arguments... arguments) {
    const std::uint64_t before = started.machine().instructions();
    if (started.call(routine, arguments...) != 0) throw std::runtime_error(std::string(routine) + " failed");
    return static_cast<double>(started.machine().instructions() - before) / bytes;
}

SpeedRow CheckOfNand(const NandPart &part, const Bytes &image) {
    Chips chips;
    chips.nand = NandContents(&part);
    chips.nand.write(kRescueSlot, image);
    StartedBoard started(Processor::arm, chips, {});
    started.call("NandFlash_if_Init");
    const double limit = ((part.wide ? kJoin16 : kJoin8) + kCopy + kRunningSums) / 4;
    return {part.wide ? "image check, NAND 16-bit" : "image check, NAND 8-bit",
            PerByte(started, kSpeedBytes, "Validate_NandFlashImage", kRescueSlot), "instructions/byte", limit,
            part.wide ? "a word: 2 loads, join, store; half a copy; sums"
                      : "a word: 4 loads, 3 joins, store; half a copy; sums"};
}

SpeedRow ShortestPause() {
    StartedBoard started(Processor::arm);
    const Picoseconds start = started.board().clock.now();
    started.call("usleep", 1u);
    return {"usleep(1)", static_cast<double>(started.board().clock.now() - start) / static_cast<double>(kMicrosecond),
            "us", 1, "what was asked for"};
}

} // namespace

SpeedRows PathSpeed() {
    const Bytes body = Noise(kBody);
    const Bytes image = Wrap(body);
    TemporaryDirectory volume;
    const std::string text(image.begin(), image.end());
    volume.write("file", text);
    Chips chips;
    StartedBoard started(Processor::arm, chips, volume.path());
    const std::uint32_t path = started.scratch_text(kFile);
    const std::uint32_t sum = std::accumulate(image.begin(), image.end(), 0u);
    SpeedRows rows;
    rows.push_back({"byte-sum of a file", PerByte(started, kSpeedBytes, "Validate_File", path, sum, kSpeedBytes),
                    "instructions/byte", kByteSum / 4, "a word: load, mask, 2 additions"});
    rows.push_back({"sums of a stored image",
                    PerByte(started, kBody, "Validate_RamChecksums", started.scratch_text(text)), "instructions/byte",
                    kRunningSums / 4, "a word: load, mask, 4 additions"});
    rows.push_back(CheckOfNand(*FindNandPart("K9F2G08U0M"), image));
    rows.push_back(CheckOfNand(*FindNandPart("MT29F2G16AAB"), image));
    rows.push_back(ShortestPause());
    return rows;
}

} // namespace fixture
