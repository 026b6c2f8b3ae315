// What the examples in headers take as given. Nothing here is defined anywhere: examples are compiled, never linked.
#pragma once

#include "formats/bank_check.h"
#include "formats/boot_prediction.h"
#include "formats/debug_info.h"
#include "formats/elf_image.h"
#include "formats/stored_image.h"
#include "harness/started_board.h"
#include "machine/board_vcd.h"
#include "machine/debugger.h"
#include "machine/events.h"
#include "machine/machine.h"
#include "machine/raw_flash.h"
#include "machine/report.h"
#include "src/StoredImage.h"
#include "src/XmlExtractor.h"
#include "src/main.h"
#include "sweep/case.h"
#include "tools/chip_files.h"
#include "tools/commands.h"
#include "tools/option_checks.h"

#include <cstdio>
#include <fmt/format.h>
#include <memory_map.h>
#include <ostream>

namespace fixture::examples {

extern Chips chips;
extern Board board;
extern const BoardOptions board_options;
extern const RunOptions run_options;
extern Clock clock;
extern Journal journal;
extern Bus bus;
extern Memory memory;
extern HandoverCache cache;
extern PowerSupply supply;
extern FileSystem &volume;
extern Semihosting &semihosting;
extern CacheObserver &lines;
extern ArmProcessor processor;
extern std::function<Picoseconds()> core_cycle;
extern std::function<std::uint32_t()> master_clock_hz;
extern StartedBoard started;
extern Machine machine;
extern std::vector<Event> listed;
extern RunReport report;
extern PageTexts texts;
extern DebugInfo::Registers registers;
extern DebugInfo::ReadWord read_word;
extern std::span<const std::uint8_t> file_bytes;
extern std::span<std::uint8_t> cells;
extern const SweepFirmware &firmware;
extern const World &world;
extern const FlashReader &read;
extern Command *command;
extern std::ostream &stream;
extern std::filesystem::path directory;
extern Bytes manifest;
extern Bytes contents;
extern const BoardState state;
extern const std::filesystem::path file;
extern std::string_view text;
extern const Slot &slot;
extern const StoredImage judged;
extern const ChipShape shape;
extern OutputFile &output;
extern ChipFiles files;
extern std::uint32_t used;
extern const std::function<void(std::uint32_t, std::span<const std::uint8_t>)> take;
extern const std::function<std::span<const std::uint8_t>(std::uint32_t)> page;
extern unsigned jobs;
extern bool json;
extern decltype(BoardState::version_of) version_of;

// A pointer among the arguments of a routine is an address.
extern std::uint32_t address, buffer, entry, main_address, routine, a0, a1, result;

} // namespace fixture::examples

// The bootloader's own names lie in no namespace.
namespace examples {

extern char *text;
extern std::int32_t length;
extern std::uint16_t parameter_length;
extern std::uint8_t *buffer, *bytes;
extern const std::uint8_t *image;
extern std::int32_t size;
extern int ranges;

} // namespace examples
