#include "machine/forecast.h"

#include "machine/raw_flash.h"

#include <cassert>
#include <fmt/format.h>

namespace fixture {

std::string VersionText(const Firmware &build) {
    return fmt::format("{}.{}.{}", build.version.major, build.version.minor, build.version.build);
}

bool CanForecast(const Chips &chips, const RunOptions &options) {
    // What a watchdog, a file server or a failing cell does depends on time and chance, which rules do not know.
    return options.slots && !options.firmware && options.known && !options.file_server_fails &&
           !options.board.watchdog && chips.nand.faults.empty() && chips.dataflash.faults.empty();
}

Prediction Forecast(Chips &chips, const RunOptions &options) {
    assert(options.known && "builds name the version of what is in the slots");
    BoardState board;
    board.pins_12_13 = options.board.straps.pins_12_13;
    board.pins_14_18 = options.board.straps.pins_14_18;
    board.flash = board.medium() == Medium::nand ? RawFlashOf(chips.nand) : RawFlashOf(chips.dataflash);
    board.eeprom = chips.eeprom.bytes;
    board.volume = options.volume;
    board.version_of = [known = options.known](std::span<const std::uint8_t> body) {
        // Without a version the prediction ends where the image starts.
        const Firmware *build = known->identify(body);
        return build ? VersionText(*build) : "";
    };
    return PredictBoot(board);
}

} // namespace fixture
