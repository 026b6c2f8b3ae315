// What the panel shows: the frame as the LCD controller scans it from memory, and the row of different frames that a
// run goes through.
#pragma once

#include "fixture/chip/lcdc.h"
#include "fixture/core/clock.h"
#include "formats/picture.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace fixture {

// How the board connects the controller's colour outputs to the panel.
enum class PanelWiring : std::uint8_t {
    bgr,    // as the controller has it: red in bits 4-0, green in 9-5, blue in 14-10; bit 15 lifts all three
    rgb,    // red and blue crossed
    rgb565, // rewired for 5, 6 and 5 bits: blue in bits 4-0, green in 10-5, red in 15-11
};

// The colour that a pixel word makes on the panel.
Colour PixelColour(std::uint16_t pixel, PanelWiring wiring);

// The frame exactly as programmed, whether or not anything lights it. Nothing where the controller makes no picture or
// the frame is not all in SDRAM. `sdram` begins at 0x20000000.
std::optional<Picture> RenderFrame(const Lcdc &lcdc, std::span<const std::uint8_t> sdram, PanelWiring wiring);

// Collects every different frame that somebody in front of the panel could have seen.
//
// Memory is written without anybody being told, so the recorder has to be asked to look: glance() at every bus access
// and everything else that the processor does outside its memory, look() where the run stops. Two frames drawn with
// nothing of that kind between them are seen as one.
class FrameRecorder {
public:
    // `lit` tells whether clock, scan, panel power, panel reset and backlight let the frame be seen. `watched_row` is
    // the row that a glance compares; a change anywhere else is seen at the next look.
    FrameRecorder(const Clock &clock, const Lcdc &lcdc, std::span<const std::uint8_t> sdram, std::function<bool()> lit,
                  PanelWiring wiring, unsigned watched_row);

    void glance();
    void look();
    // Whether the panel was lit when somebody last looked.
    bool lit() const { return was_lit_; }

    struct Frame {
        Picoseconds time;
        bool lit; // false: the panel went dark, and the picture is black
        Picture picture;
    };
    // In order. A dark panel counts as a frame once it has been lit.
    const std::vector<Frame> &frames() const { return frames_; }

    // Told of every frame as it is seen.
    std::function<void(const Frame &)> observer;

    // What the panel shows now: the frame, or black.
    Picture shown() const;

private:
    std::span<const std::uint8_t> scanned() const;

    const Clock &clock_;
    const Lcdc &lcdc_;
    std::span<const std::uint8_t> sdram_;
    std::function<bool()> lit_;
    PanelWiring wiring_;
    unsigned watched_row_;
    bool was_lit_ = false;
    std::vector<std::uint8_t> seen_; // the frame's bytes when it was last looked at
    std::vector<Frame> frames_;
};

// How an animation shows the frames of a run.
struct AnimationStyle {
    unsigned slower = 1; // times slower than virtual time
    // The line below a frame; empty: there is none below any.
    std::function<std::string(const FrameRecorder::Frame &)> caption = {};
};

// The frames as an animation in virtual time that ends `until`. A frame stands for 0.02 s at least, so that none is
// lost, and the last one for a second, so that the end of a loop is seen; a dark time shorter than 0.02 s is left out.
std::vector<GifFrame> Animation(std::span<const FrameRecorder::Frame> frames, Picoseconds until,
                                const AnimationStyle &style = {});

} // namespace fixture
