#include "harness/speed.h"

namespace fixture {

namespace {

constexpr unsigned kPixels = 320 * 240;
constexpr unsigned kBarPixels = 320 * 20;

// The widest store there is takes four words of two pixels.
constexpr double kPixelsAStore = 8;
// A word of the picture: two loads of bytes and one to join them.
constexpr double kStreamWord = 3;
constexpr double kStreamWords = 11594 / 2.0;

} // namespace

SpeedRows PanelSpeed() {
    StartedBoard started(Processor::arm);
    started.call("LCD_InitGraphics");
    SpeedRows rows;
    const auto measure = [&](const char *what, unsigned pixels, double limit, const char *limit_is, const char *routine,
                             std::uint32_t argument) {
        const std::uint64_t before = started.machine().instructions();
        started.call(routine, argument);
        const auto instructions = static_cast<double>(started.machine().instructions() - before);
        rows.push_back({what, instructions / pixels, "instructions/pixel", limit, limit_is});
    };
    measure("splash picture", kPixels, 1 / kPixelsAStore + kStreamWord * kStreamWords / kPixels,
            "a store for 8 pixels, 3 for a word of the stream", "LCD_InsertImage",
            started.machine().symbol("BootImageBitmap"));
    for (const auto &[what, percent] : {std::pair{"bar at 0 %", 0u}, {"bar at 50 %", 50u}, {"bar at 100 %", 100u}})
        measure(what, kBarPixels, 1 / kPixelsAStore, "a store for 8 pixels", "LCD_DrawProgressBar", percent);
    return rows;
}

} // namespace fixture
