#include "machine/report.h"

#include "formats/file.h"
#include "formats/refusal.h"
#include "machine/raw_flash.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <map>

namespace fixture {

extern const char *const kReportPage; // report_page.html, as the build has made it a text

namespace {

constexpr Picoseconds kShortestPause = 20 * kMillisecond;
constexpr unsigned kBlocksPerRow = 64;
constexpr std::size_t kEventsMost = 6'000; // in the table and under the cursor: what keeps the page below 2 MB

// The drawing's own units.
constexpr unsigned kView = 1000;
constexpr unsigned kLeft = 78;
constexpr unsigned kWidth = kView - kLeft - 12;
constexpr unsigned kLaneHeight = 28;
constexpr double kClosest = 0.1;
constexpr unsigned kTextDrop = 18; // from a row's top to its text's base line

std::string HtmlText(std::string_view text) {
    std::string html;
    for (const char c : text) {
        switch (c) {
        case '<': html += "&lt;"; break;
        case '>': html += "&gt;"; break;
        case '&': html += "&amp;"; break;
        case '"': html += "&quot;"; break;
        default:
            // A console may print any byte, and a page takes no control characters but these.
            if (static_cast<unsigned char>(c) >= 0x20 || c == '\n' || c == '\t') html += c;
        }
    }
    return html;
}

// Inside a script element nothing may look like its end. The page is UTF-8 and may hold nothing else.
std::string JsonText(std::string_view text) {
    std::string json = "\"";
    for (const char c : Printable(text)) {
        if (c == '"' || c == '\\')
            json += fmt::format("\\{}", c);
        else if (c == '<' || c == '&')
            json += fmt::format("\\u{:04x}", static_cast<unsigned char>(c));
        else
            json += c;
    }
    return json + "\"";
}

std::string Base64(std::span<const std::uint8_t> bytes) {
    static constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, bytes.size() - i);
        unsigned group = 0;
        for (std::size_t n = 0; n < 3; ++n) group = group << 8 | (n < count ? bytes[i + n] : 0u);
        for (std::size_t n = 0; n < 4; ++n) text += n <= count ? kDigits[group >> (18 - 6 * n) & 63u] : '=';
    }
    return text;
}

// Pictures go into the page itself: a page that is sent on, or opened years later, has all it shows.
std::string DataUrl(const Picture &picture) { return "data:image/png;base64," + Base64(PngOf(picture)); }

struct Piece {
    unsigned x = 0, y = 0;
    Picture picture{1, 1};
};

// The smallest rectangle that holds every pixel in which two pictures differ; one pixel where they are the same.
Piece Changed(const Picture &before, const Picture &now) {
    if (before.width != now.width || before.height != now.height) return {0, 0, now};
    unsigned left = now.width, right = 0, top = now.height, bottom = 0;
    for (unsigned row = 0; row < now.height; ++row)
        for (unsigned column = 0; column < now.width; ++column) {
            if (before.at(column, row) == now.at(column, row)) continue;
            left = std::min(left, column);
            right = std::max(right, column);
            top = std::min(top, row);
            bottom = std::max(bottom, row);
        }
    if (left > right) left = right = top = bottom = 0;
    Piece piece{left, top, Picture(right - left + 1, bottom - top + 1)};
    for (unsigned row = top; row <= bottom; ++row)
        for (unsigned column = left; column <= right; ++column)
            piece.picture.at(column - left, row - top) = now.at(column, row);
    return piece;
}

// ---------------------------------------------------------------------------------------------------------------------
// The timeline

struct Lane {
    const char *name;
    const char *style;
};
// The last one has no row of its own: what happens to the whole board is a line through all of them.
enum LaneNumber : unsigned {
    lane_stage,
    lane_console,
    lane_file,
    lane_read,
    lane_erase,
    lane_program,
    lane_frame,
    kRows,
    lane_board = kRows,
    kLanes
};
constexpr Lane kLaneFacts[kLanes] = {{"stages", "stage"}, {"console", "console"}, {"files", "file"},
                                     {"chips", "chip"},   {"erases", "erase"},    {"programs", "program"},
                                     {"panel", "frame"},  {"", "board"}};

unsigned LaneOf(const Event &event) {
    switch (event.kind) {
    case EventKind::console: return lane_console;
    case EventKind::file: return lane_file;
    case EventKind::chip:
        // A DataFlash erases and programs in one operation: it stands with the programs.
        if (event.what.find("program") != std::string::npos || event.what.starts_with("writes")) return lane_program;
        return event.what.find("erase") != std::string::npos ? lane_erase : lane_read;
    case EventKind::stage: return lane_stage;
    default: return lane_board;
    }
}

class TimelineDrawing {
public:
    explicit TimelineDrawing(Picoseconds end) : end_(std::max<Picoseconds>(end, 1)) {}

    double x(Picoseconds time) const {
        return kLeft + static_cast<double>(time) / static_cast<double>(end_) * double{kWidth};
    }
    void tick(unsigned lane, Picoseconds time) {
        ++counts_[lane];
        // Marks as close as this are one, at the deepest zoom too: a long update would fill the page with them.
        if (x(time) - last_[lane] < kClosest) return;
        last_[lane] = x(time);
        const bool whole = lane == lane_board;
        ticks_[lane] += fmt::format("M{:.2f} {}v{}", x(time), whole ? 0 : lane * kLaneHeight + 5,
                                    whole ? kRows * kLaneHeight : kLaneHeight - 10);
    }
    // Half a unit wide at least, or a short one could not be pointed at.
    void band(const char *style, unsigned lane, unsigned lanes, Picoseconds from, Picoseconds to,
              const std::string &title) {
        bands_ +=
            fmt::format("<rect class=\"{}\" x=\"{:.2f}\" y=\"{}\" width=\"{:.2f}\" height=\"{}\"><title>{}</title>"
                        "</rect>",
                        style, x(from), lane * kLaneHeight + 2, std::max(0.5, x(to) - x(from)), lanes * kLaneHeight - 4,
                        HtmlText(title));
    }
    // A band with its name in it, as far as there is room.
    void stage(bool odd, Picoseconds from, Picoseconds to, const std::string &name) {
        band(odd ? "stage odd" : "stage", lane_stage, 1, from, to, name);
        bands_ +=
            fmt::format("<svg x=\"{:.2f}\" y=\"0\" width=\"{:.2f}\" height=\"{}\"><text x=\"6\" y=\"{}\">{}</text>"
                        "</svg>",
                        x(from), std::max(0.0, x(to) - x(from) - 4), kLaneHeight, kTextDrop, HtmlText(name));
    }
    std::string svg() const;

private:
    std::string axis() const;

    Picoseconds end_;
    std::string bands_;
    std::array<std::string, kLanes> ticks_;
    std::array<std::size_t, kLanes> counts_{};
    std::array<double, kLanes> last_{}; // mark in the row
};

// A line about every tenth of the width, at 1, 2 or 5 times a power of ten.
std::string TimelineDrawing::axis() const {
    double step = 1e-6;
    for (unsigned n = 0; Milliseconds(end_) / step > 10; ++n) step *= n % 3 == 1 ? 2.5 : 2;
    const unsigned bottom = kRows * kLaneHeight;
    std::string text = fmt::format("<text class=\"axis-text\" x=\"4\" y=\"{}\">ms</text>", bottom + 14);
    for (double ms = 0; ms <= Milliseconds(end_); ms += step) {
        const double at = x(FromMilliseconds(ms));
        text += fmt::format("<line class=\"axis\" x1=\"{0:.2f}\" x2=\"{0:.2f}\" y1=\"0\" y2=\"{1}\"/>"
                            "<text class=\"axis-text\" text-anchor=\"middle\" x=\"{0:.2f}\" y=\"{2}\">{3:g}</text>",
                            at, bottom, bottom + 14, ms);
    }
    return text;
}

std::string TimelineDrawing::svg() const {
    const unsigned height = kRows * kLaneHeight + 22;
    std::string text = fmt::format("<svg class=\"timeline\" role=\"img\" aria-label=\"What happened when\" "
                                   "viewBox=\"0 0 {} {}\">",
                                   kView, height);
    text += axis() + bands_;
    for (unsigned lane = 0; lane < kLanes; ++lane)
        text += fmt::format("<text x=\"4\" y=\"{}\">{}</text><path class=\"t t-{}\" data-events=\"{}\" d=\"{}\"/>",
                            lane * kLaneHeight + kTextDrop, kLaneFacts[lane].name, kLaneFacts[lane].style,
                            counts_[lane], ticks_[lane]);
    return text + fmt::format("<line id=\"cursor\" x1=\"{0}\" x2=\"{0}\" y1=\"0\" y2=\"{1}\"/></svg>", kLeft,
                              kRows * kLaneHeight);
}

// From one start to the next: a stage ends where another begins.
constexpr std::string_view kStarts = "starts ";
void AddStages(TimelineDrawing &drawing, const RunRecord &record, Picoseconds end) {
    std::vector<std::pair<Picoseconds, std::string>> starts;
    for (const Event &event : record.events())
        // What the first stage takes, it starts in the next event.
        if (event.kind == EventKind::stage && !event.what.starts_with("takes"))
            starts.emplace_back(event.time,
                                event.what.starts_with(kStarts) ? event.what.substr(kStarts.size()) : event.what);
    for (std::size_t i = 0; i < starts.size(); ++i)
        drawing.stage(i % 2 != 0, starts[i].first, i + 1 < starts.size() ? starts[i + 1].first : end, starts[i].second);
}

std::string DrawTimeline(const RunRecord &record, Picoseconds end, std::span<const FrameRecorder::Frame> frames) {
    // What is drawn later lies on top: pauses are the ground for everything else.
    TimelineDrawing drawing(end);
    for (const RunRecord::Pause &pause : record.pauses()) {
        if (drawing.x(pause.end) - drawing.x(pause.begin) < kClosest) continue;
        drawing.band("pause", lane_console, kRows - 1, pause.begin, pause.end,
                     fmt::format("waits {:.3f} ms", Milliseconds(pause.end - pause.begin)));
    }
    AddStages(drawing, record, end);
    for (const Event &event : record.events()) drawing.tick(LaneOf(event), event.time);
    for (const FrameRecorder::Frame &frame : frames) drawing.tick(lane_frame, frame.time);
    return drawing.svg();
}

// ---------------------------------------------------------------------------------------------------------------------
// The rest of the page

// Erased blocks are not drawn: most of a chip is, and 2,048 squares, twice, would outweigh the rest of the page.
std::string DrawMap(const FlashMap &map, const FlashMap *before) {
    const auto rows = static_cast<unsigned>((map.fill.size() + kBlocksPerRow - 1) / kBlocksPerRow);
    std::string text = fmt::format("<svg role=\"img\" aria-label=\"Blocks in use\" viewBox=\"0 0 {} {}\">",
                                   kBlocksPerRow * 4, rows * 4);
    for (std::size_t block = 0; block < map.fill.size(); ++block) {
        const std::uint8_t fill = map.fill[block];
        const bool changed = before && block < before->fill.size() && before->fill[block] != fill;
        if (fill == 0 && !changed) continue;
        // A block with one page in use is still to be seen, so the scale does not begin at 0.
        text += fmt::format("<rect class=\"m-{}\" x=\"{}\" y=\"{}\" width=\"3.4\" height=\"3.4\" opacity=\"{:.2f}\"/>",
                            fill == FlashMap::kBad ? "bad"
                            : changed              ? "changed"
                                                   : "data",
                            block % kBlocksPerRow * 4, block / kBlocksPerRow * 4,
                            fill == FlashMap::kBad ? 1.0 : 0.35 + 0.65 * fill / 64);
    }
    return text + "</svg>";
}

std::string DrawFlash(const FlashMap &before, const FlashMap &after, const std::string &medium) {
    const auto one = [](const char *title, const FlashMap &map, const FlashMap *other) {
        std::string text = fmt::format("<div><h3>{}</h3>{}<ul>", title, DrawMap(map, other));
        for (const std::string &slot : map.slots) text += "<li>" + HtmlText(slot) + "</li>";
        return text + "</ul></div>";
    };
    return fmt::format(
        "<p class=\"quiet\">{}: a square is a block, darker the more of it is in use; red is marked bad, "
        "amber has changed.</p><div class=\"map\">{}{}</div>",
        HtmlText(medium), one("Before", before, nullptr), one("After", after, &before));
}

std::string Facts(const RunReport &report) {
    const auto fact = [](const char *name, const std::string &value) {
        return fmt::format("<div><dt>{}</dt><dd>{}</dd></div>", name, HtmlText(value));
    };
    return fact("boots from", report.medium) +
           fact("virtual time", fmt::format("{:.3f} ms", Milliseconds(report.time))) +
           fact("resets", fmt::format("{}", report.resets)) +
           (report.instructions ? fact("instructions", fmt::format("{}", report.instructions)) : "");
}

// What was to be expected of the board, start by start, from its chips and files alone.
std::string DrawForetold(const Prediction *foretold) {
    if (!foretold) return "<p class=\"quiet\">This run cannot be foretold: not all of the board is in its files.</p>";
    std::string text =
        fmt::format("<p>Foretold from chips and files before the run: {}.</p>", HtmlText(foretold->reason));
    std::optional<unsigned> start;
    for (const BootStep &step : foretold->steps) {
        if (step.start > 0 && step.start != start)
            text += fmt::format("{}<h3>{}</h3><ul>", start ? "</ul>" : "",
                                step.start == 1 ? "At power-up" : fmt::format("After reset {}", step.start - 1));
        else if (!start)
            text += "<ul>";
        start = step.start;
        const std::string place = step.place.empty() ? "" : "<code>" + HtmlText(step.place) + "</code> ";
        text += fmt::format("<li>{}{}</li>", place, HtmlText(step.text));
    }
    if (start) text += "</ul>";
    for (const BootHazard &hazard : foretold->hazards)
        text += fmt::format("<p class=\"hazard\"><strong>{}</strong> <code>{}</code> {}; {}.</p>", HtmlText(hazard.id),
                            HtmlText(hazard.place), HtmlText(hazard.text), HtmlText(hazard.remedy));
    return text;
}

// The symbols of an event are those of its own time: the same address is another routine in another build.
std::string EventRows(std::span<const Event> events) {
    std::string rows;
    for (const Event &event : events)
        rows += fmt::format("<tr><td class=\"num\">{:.3f}</td><td>{}</td><td>{}</td><td>{}</td></tr>\n",
                            Milliseconds(event.time), NameOf(event.kind), HtmlText(DescribeEvent(event)),
                            event.pc ? HtmlText(event.symbols->place(event.pc)) : "");
    return rows;
}

// A step of the bar changes a few rows of the panel, so a frame is kept as what differs from the one before it.
std::string FramesJson(std::span<const FrameRecorder::Frame> frames) {
    std::string json;
    Picture before(0, 0);
    for (const FrameRecorder::Frame &frame : frames) {
        const Piece piece = Changed(before, frame.picture);
        before = frame.picture;
        json += fmt::format("{}{{\"ms\":{:.6f},\"lit\":{},\"x\":{},\"y\":{},\"png\":\"{}\"}}", json.empty() ? "" : ",",
                            Milliseconds(frame.time), frame.lit, piece.x, piece.y, DataUrl(piece.picture));
    }
    return json;
}

std::string EventsJson(std::span<const Event> events) {
    std::string json;
    for (const Event &event : events)
        json += fmt::format("{}{{\"ms\":{:.6f},\"text\":{}}}", json.empty() ? "" : ",", Milliseconds(event.time),
                            JsonText(DescribeEvent(event)));
    return json;
}

std::string Fill(std::string_view page, const std::map<std::string_view, std::string> &texts) {
    std::string filled;
    while (!page.empty()) {
        const std::size_t begin = std::min(page.find("{{"), page.size());
        filled += page.substr(0, begin);
        page.remove_prefix(begin);
        if (page.empty()) break;
        // The page is part of this program, so every name in it has its end and its text.
        const std::size_t end = page.find("}}");
        filled += texts.at(page.substr(2, end - 2));
        page.remove_prefix(end + 2);
    }
    return filled;
}

} // namespace

FlashMap MapOf(const Chips &chips, bool nand) {
    FlashMap map;
    if (nand) {
        for (std::uint32_t block = 0; block < kNandBlocks; ++block) {
            std::uint8_t used = 0;
            for (std::uint32_t page = 0; page < kNandPagesPerBlock; ++page)
                used = static_cast<std::uint8_t>(used + !chips.nand.erased(block * kNandPagesPerBlock + page));
            map.fill.push_back(chips.nand.marked_bad(block) ? FlashMap::kBad : used);
        }
    } else {
        const std::uint32_t pages = chips.dataflash.bytes() / chips.dataflash.part().page_bytes;
        // AT45DB: a block, as its erase command takes it, is eight pages.
        constexpr std::uint32_t kGroup = 8;
        for (std::uint32_t first = 0; first < pages; first += kGroup) {
            std::uint8_t used = 0;
            for (std::uint32_t page = first; page < std::min(first + kGroup, pages); ++page)
                used = static_cast<std::uint8_t>(used + (chips.dataflash.erased(page) ? 0 : 64 / kGroup));
            map.fill.push_back(used);
        }
    }
    const SlotTable &slots = SlotsOf(nand ? Medium::nand : Medium::dataflash);
    const FlashReader read = nand ? ReaderOf(chips.nand) : ReaderOf(chips.dataflash);
    for (const Slot &slot : {slots.bootloader[0], slots.bootloader[1], slots.rescue}) {
        const StoredImage image = ReadSlot(read, slot);
        map.slots.push_back(fmt::format("{} at 0x{:X}: {}", slot.name, slot.address, NameOf(image.verdict())));
        if (image.verdict() == ImageVerdict::good) map.slots.back() += fmt::format(", {} bytes", image.size);
    }
    return map;
}

RunRecord::RunRecord(Machine &machine)
    : before_(MapOf(machine.chips(), machine.options().board.straps.boots_from_nand())) {}

void RunRecord::add(const Event &event) {
    // The bootloader waits by reading the timer. That is what a pause consists of, and does not end it.
    const bool looks_at_timer = event.kind == EventKind::access && event.where.starts_with("PIT.");
    if (!looks_at_timer) {
        if (event.time - last_work_ > kShortestPause) pauses_.push_back({last_work_, event.time});
        last_work_ = event.time;
    }
    // Accesses are a hundred times as many as all the rest: the trace has them.
    if (event.kind != EventKind::access) events_.push_back(event);
}

std::string ReportPage(const RunRecord &record, const RunReport &report, const FlashMap &after,
                       std::span<const FrameRecorder::Frame> frames, const PageTexts &texts) {
    const std::span<const Event> listed =
        std::span(record.events()).first(std::min(record.events().size(), kEventsMost));
    std::string note = fmt::format("{} events; register accesses are in the trace", record.events().size());
    if (listed.size() < record.events().size()) note += fmt::format("; the first {} are listed", listed.size());
    const std::string last =
        frames.empty()
            ? "<p class=\"quiet\">The panel shows nothing.</p>"
            : fmt::format("<img id=\"still\" alt=\"the panel at the end\" width=\"320\" height=\"240\" src=\"{}\">",
                          DataUrl(frames.back().picture));
    return Fill(
        kReportPage,
        {{"title", HtmlText("fixture: " + texts.verdict)},
         {"tone", report.exit_status() == 0 ? "good" : "bad"},
         {"verdict", HtmlText(texts.verdict)},
         {"facts", Facts(report)},
         {"foretold", DrawForetold(texts.foretold)},
         {"explanation",
          texts.explanation.empty() ? "" : "<pre class=\"end\">" + HtmlText(texts.explanation) + "</pre>"},
         {"timeline", DrawTimeline(record, report.time, frames)},
         {"last_frame", last},
         {"console", HtmlText(record.console())},
         {"flash", DrawFlash(record.before(), after, report.medium)},
         {"events_note", HtmlText(note)},
         {"events", EventRows(listed)},
         {"call", HtmlText(texts.call)},
         // Its end is never 0: the page divides by it.
         {"data",
          fmt::format(
              "{{\"left\":{},\"width\":{},\"view\":{},\"end\":{:.6f},\"more\":{},\"frames\":[{}],\"events\":[{}]}}",
              kLeft, kWidth, kView, std::max(Milliseconds(report.time), 1e-6), listed.size() < record.events().size(),
              FramesJson(frames), EventsJson(listed))}});
}

} // namespace fixture
