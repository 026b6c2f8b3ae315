#include "machine/frames.h"

#include "formats/caption.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <limits>

namespace fixture {

namespace {

constexpr std::uint32_t kSdramStart = 0x20000000;
constexpr unsigned kPixelBytes = 2;

// The bits that a colour output carries, widened to eight by repeating them from the top.
std::uint8_t Widen(unsigned value, unsigned bits) {
    assert(bits >= 4 && bits <= 8 && "a byte is filled by one repetition");
    return static_cast<std::uint8_t>(value << (8 - bits) | value >> (2 * bits - 8));
}

// The bytes that a scan reads; empty where they are not all in memory.
std::span<const std::uint8_t> ScannedBytes(const Lcdc::Scan &scan, std::span<const std::uint8_t> sdram) {
    const std::size_t length = std::size_t{scan.width} * scan.height * kPixelBytes;
    const std::size_t start = scan.base - kSdramStart;
    // Base and size are whatever the program wrote: compared so that nothing overflows.
    if (scan.base < kSdramStart || start > sdram.size() || sdram.size() - start < length) return {};
    return sdram.subspan(start, length);
}

} // namespace

Colour PixelColour(std::uint16_t pixel, PanelWiring wiring) {
    if (wiring == PanelWiring::rgb565)
        return {Widen(pixel >> 11, 5), Widen(pixel >> 5 & 63u, 6), Widen(pixel & 31u, 5)};
    // Every output has six bits: the pixel's five, and bit 15 below them.
    const auto field = [&](unsigned shift) { return Widen((pixel >> shift & 31u) << 1 | pixel >> 15, 6); };
    const Colour colour{field(0), field(5), field(10)};
    return wiring == PanelWiring::bgr ? colour : Colour{colour.blue, colour.green, colour.red};
}

std::optional<Picture> RenderFrame(const Lcdc &lcdc, std::span<const std::uint8_t> sdram, PanelWiring wiring) {
    const std::optional<Lcdc::Scan> &scan = lcdc.scan();
    if (!scan) return std::nullopt;
    const std::span<const std::uint8_t> bytes = ScannedBytes(*scan, sdram);
    if (bytes.empty()) return std::nullopt;
    // Big-endian order turns whole words round: their bytes, and with them the order of the two pixels.
    const std::size_t turn = scan->little_endian ? 0 : 3;
    Picture picture(scan->width, scan->height);
    for (std::size_t i = 0; i < picture.pixels.size(); ++i) {
        const std::size_t at = i * kPixelBytes;
        const unsigned low = bytes[at ^ turn];
        const unsigned high = bytes[(at + 1) ^ turn];
        const unsigned pixel = high << 8 | low;
        picture.pixels[i] = PixelColour(static_cast<std::uint16_t>(pixel), wiring);
    }
    return picture;
}

FrameRecorder::FrameRecorder(const Clock &clock, const Lcdc &lcdc, std::span<const std::uint8_t> sdram,
                             std::function<bool()> lit, PanelWiring wiring, unsigned watched_row)
    : clock_(clock), lcdc_(lcdc), sdram_(sdram), lit_(std::move(lit)), wiring_(wiring), watched_row_(watched_row) {}

std::span<const std::uint8_t> FrameRecorder::scanned() const {
    const std::optional<Lcdc::Scan> &scan = lcdc_.scan();
    return scan ? ScannedBytes(*scan, sdram_) : std::span<const std::uint8_t>{};
}

Picture FrameRecorder::shown() const {
    const std::optional<Picture> frame = RenderFrame(lcdc_, sdram_, wiring_);
    // The panel's own size, dark.
    if (!frame) return Picture(320, 240);
    return lit_() ? *frame : Picture(frame->width, frame->height);
}

void FrameRecorder::glance() {
    const bool lit = lit_();
    if (lit != was_lit_) return look();
    if (!lit) return;
    const std::optional<Lcdc::Scan> &scan = lcdc_.scan();
    const std::size_t row = scan ? std::size_t{scan->width} * kPixelBytes : 0;
    // One row of the bar tells whether anything moved: this is asked before every access to a register.
    const std::size_t start = watched_row_ * row;
    const std::span<const std::uint8_t> now = scanned();
    if (now.size() != seen_.size()) return look();
    if (start + row > now.size()) return;
    if (!std::equal(&now[start], &now[start] + row, &seen_[start])) look();
}

void FrameRecorder::look() {
    const bool lit = lit_();
    const std::span<const std::uint8_t> now = scanned();
    const bool same = lit == was_lit_ && (!lit || std::equal(now.begin(), now.end(), seen_.begin(), seen_.end()));
    if (same) return;
    was_lit_ = lit;
    seen_.assign(now.begin(), now.end());
    frames_.push_back({clock_.now(), lit, shown()});
    if (observer) observer(frames_.back());
}

std::vector<GifFrame> Animation(std::span<const FrameRecorder::Frame> frames, Picoseconds until,
                                const AnimationStyle &style) {
    constexpr Picoseconds kCentisecond = 10 * kMillisecond;
    // Centiseconds. Viewers show shorter frames for a tenth of a second.
    constexpr unsigned kShortest = 2, kLast = 100;
    std::vector<GifFrame> animation;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const Picoseconds end = std::max(i + 1 < frames.size() ? frames[i + 1].time : until, frames[i].time);
        const Picoseconds stands = std::min<Picoseconds>((end - frames[i].time) * style.slower / kCentisecond, 0xFFFF);
        if (!frames[i].lit && stands < kShortest) continue;
        const Picture &picture = frames[i].picture;
        animation.push_back({style.caption ? WithCaption(picture, style.caption(frames[i])) : picture,
                             std::max(kShortest, static_cast<unsigned>(stands))});
    }
    if (!animation.empty()) animation.back().centiseconds = std::max(kLast, animation.back().centiseconds);
    return animation;
}

} // namespace fixture
