// A run as one page of HTML that needs nothing but itself: verdict, timeline, panel, console, flash, events.
//
//   RunRecord record(machine);                    before the run: what the flash holds
//   for (const Event &event : listed) record.add(event);
//   const std::string page = ReportPage(record, report, MapOf(chips, true), machine.frames()->frames(), texts);
#pragma once

#include "formats/boot_prediction.h"
#include "machine/events.h"

#include <cstdint>
#include <string>
#include <vector>

namespace fixture {

// How full each block (NAND) or group of pages (DataFlash) is, 0 to 64, or bad.
struct FlashMap {
    static constexpr std::uint8_t kBad = 0xFF;
    std::vector<std::uint8_t> fill;
    std::vector<std::string> slots; // "bootloader 0 at 0x40000: good, 92204 bytes"
};
FlashMap MapOf(const Chips &chips, bool nand);

// What a page needs of the events: all but the accesses.
class RunRecord {
public:
    explicit RunRecord(Machine &machine);

    void add(const Event &event);
    void console(char c) { console_ += c; }

    struct Pause {
        Picoseconds begin, end;
    };
    const std::vector<Event> &events() const { return events_; }
    const std::vector<Pause> &pauses() const { return pauses_; }
    const std::string &console() const { return console_; }
    const FlashMap &before() const { return before_; }

private:
    FlashMap before_;
    std::vector<Event> events_;
    std::vector<Pause> pauses_;
    std::string console_;
    Picoseconds last_work_ = 0; // the last event that was no look at a timer
};

struct PageTexts {
    std::string verdict;                  // one line
    std::string explanation;              // lines; may be empty
    std::string call;                     // the command line
    const Prediction *foretold = nullptr; // where it was possible
};

// The whole page. `frames` may be empty.
std::string ReportPage(const RunRecord &record, const RunReport &report, const FlashMap &after,
                       std::span<const FrameRecorder::Frame> frames, const PageTexts &texts);

} // namespace fixture
