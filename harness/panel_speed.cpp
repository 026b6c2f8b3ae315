#include "harness/speed.h"

namespace fixture {

namespace {

constexpr unsigned kPixels = 320 * 240;
constexpr unsigned kBarPixels = 320 * 20;

} // namespace

std::vector<PixelRow> PanelSpeed() {
    StartedBoard started(Processor::arm);
    started.call("LCD_InitGraphics");
    std::vector<PixelRow> rows;
    const auto measure = [&](const char *what, unsigned pixels, const char *routine, auto... arguments) {
        const std::uint64_t before = started.machine().instructions();
        started.call(routine, arguments...);
        rows.push_back({what, pixels, started.machine().instructions() - before});
    };
    measure("memset of the frame", kPixels, "memset", kVideoRegion, 0u, 2 * kPixels);
    measure("splash picture", kPixels, "LCD_InsertImage", started.machine().symbol("BootImageBitmap"));
    measure("memset of the bar", kBarPixels, "memset", kVideoRegion, 0u, 2 * kBarPixels);
    measure("bar at 0 %", kBarPixels, "LCD_DrawProgressBar", 0u);
    measure("bar at 50 %", kBarPixels, "LCD_DrawProgressBar", 50u);
    measure("bar at 100 %", kBarPixels, "LCD_DrawProgressBar", 100u);
    return rows;
}

} // namespace fixture
