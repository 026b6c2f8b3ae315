#include "machine/machine.h"

#include "machine/first_stage.h"
#include "machine/raw_flash.h"
#include "machine/symbols.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>
#include <fmt/format.h>
#include <stdexcept>

namespace fixture {

const char *VerdictName(Verdict verdict) {
    static constexpr std::array kNames = {"launched",   "idle", "no bootloader", "power lost",
                                          "reset loop", "hang", "fault",         "violation"};
    return kNames[static_cast<std::size_t>(verdict)];
}

int RunReport::exit_status() const {
    switch (verdict) {
    case Verdict::launched: return 0;
    case Verdict::idle:
    // The board did as it should with what it was given; 3 is for runs that should never happen.
    case Verdict::no_bootloader: return 1;
    default: return 3;
    }
}

Machine::Machine(Chips &chips, RunOptions options)
    : options_(std::move(options)), chips_(chips), board_(chips, options_.board), volume_(options_.volume),
      debugger_(board_.memory.memory(), volume_) {
    connect();
    // Both processors serve files from one volume, so that what a module reads does not depend on where it runs.
    debugger_.file_server_fails = options_.file_server_fails;
    if (options_.processor != ProcessorKind::host) return;
    native_ = std::make_unique<NativeProcessor>(
        NativeProcessor::Wiring{board_.clock, board_.bus, volume_, board_.cache,
                                [this] { return static_cast<std::uint32_t>(kSecond / board_.pmc.master_cycle()); },
                                options_.file_server_fails});
}

Machine::~Machine() = default;

void Machine::connect() {
    board_.console.transmitted = [this](char c) {
        // First, since whoever watches the console may stop the run.
        note_rescue(c);
        if (options_.console) options_.console(c);
    };
    board_.reset_controller.processor_reset = [this] { stop({StageEnd::reset, 0, "reset controller"}); };
    board_.watchdog.expired = [this] {
        // The register that was read last says what the program was waiting for.
        stop({StageEnd::reset, 0, "watchdog, after a look at " + board_.bus.last_read()});
    };
    board_.supply.lost = [this] {
        tell(EventKind::power, "supply", "the power goes");
        stop({StageEnd::power_lost, 0, ""});
    };
    board_.lcdc.behind_cache = [this](std::uint32_t address) {
        // Natively there is no data cache that a picture could lie behind.
        return arm_ && arm_->running() && arm_->cached(address);
    };
    board_.bus.endless_wait = [this](const std::string &name) { stop({StageEnd::hang, 0, name}); };
    board_.journal.after_violation = [this](const JournalEntry &entry) {
        sight(1);
        if (troubled) troubled(Trouble::violation, entry.where + ": " + entry.what);
        if (!options_.keep_going) stop({StageEnd::fault, 0, entry.where + ": " + entry.what});
    };
    volume_.observer = [this](std::string call) { tell(EventKind::file, "volume", std::move(call)); };
    const auto page_time = static_cast<Picoseconds>(static_cast<double>(kSecond * Volume::kPageBytes) /
                                                    (options_.file_rate * 1024 * 1024));
    // The board waits for a file with its clock running, so the watchdog counts and a cut may come meanwhile.
    volume_.moved = [this, page_time](std::uint64_t pages, std::uint64_t fresh) {
        file_time_ += pages * page_time;
        file_time_needed_ += fresh * page_time;
        board_.clock.advance(pages * page_time);
    };
    // For native runs. The emulated processor answers with a bus fault of its own while it runs.
    board_.bus.unmapped = [this](std::uint32_t address, bool is_write) {
        stop({StageEnd::fault, 0,
              fmt::format("{} at 0x{:08X}, where nothing is", is_write ? "write" : "read", address)});
    };
}

void Machine::record_frames(PanelWiring wiring) {
    constexpr unsigned kBarRow = 220; // the first one that changes from one step to the next
    // 320 pixels of two bytes.
    constexpr unsigned kRowBytes = 640;
    frames_.emplace(
        board_.clock, board_.lcdc, board_.memory.sdram(), [this] { return board_.picture_lit(); }, wiring, kBarRow);
    board_.bus.before_access = volume_.before_open = [this] { frames_->glance(); };
    // A bar may be drawn over another with nothing between them: the last moment to see the first is before the first
    // word of the bar is written again. Natively instructions take no time, so there two such bars are one moment.
    arm().watch_write(kVideoRegion + kBarRow * kRowBytes, [this] {
        if (frames_->lit()) frames_->glance();
    });
}

void Machine::tell(EventKind kind, std::string where, std::string what) const {
    if (observer) observer(kind, std::move(where), std::move(what));
}

std::vector<std::string> Machine::call_chain() const {
    if (!arm_) return {};
    DebugInfo::Registers registers{};
    const std::array<std::uint32_t, 17> all = arm_->registers();
    std::copy_n(all.begin(), registers.size(), registers.begin());
    return Symbols(running()).call_chain(registers, [this](std::uint32_t address) -> std::optional<std::uint32_t> {
        // Memory hands out writable bytes alone; these are only read.
        const std::span<const std::uint8_t> bytes = const_cast<Board &>(board_).memory.memory().at(address, 4);
        if (bytes.empty()) return std::nullopt;
        std::uint32_t word;
        std::memcpy(&word, bytes.data(), sizeof word);
        return word;
    });
}

// The first thing that goes wrong is the one to be looked at; what follows may be of its making.
void Machine::sight(std::uint64_t times) {
    if (!options_.sightings || sighting_) return;
    sighting_ = {board_.clock.now(), pc(), pc() ? call_chain() : std::vector<std::string>{}, times};
}

void Machine::stage_ends(const StageResult &end) {
    const bool loops = end.end == StageEnd::reset && report_.resets + 1 >= options_.most_resets;
    if (end.end == StageEnd::hang) sight(1);
    // A single reset is what an update does; a loop is looked at where it is given up.
    if (loops) sight(options_.most_resets);
    if (end.end == StageEnd::exited && end.exit_code != 0) sight(1);
    if (troubled && end.end == StageEnd::hang) troubled(Trouble::hang, end.place);
    if (troubled && end.end == StageEnd::reset) troubled(Trouble::reset, end.place);
}

void Machine::stop(StageResult result) {
    // The emulated processor tells of its ends itself, at the very instruction.
    if (native_) stage_ends(result);
    // A launched image runs on the emulated processor even in a native run, so that one is asked first.
    if (arm_ && arm_->running()) return arm_->stop(std::move(result));
    if (native_) native_->stop(std::move(result));
}

ArmProcessor &Machine::arm() {
    if (!arm_) {
        // Made late: a native run that launches nothing needs no emulator.
        arm_ = std::make_unique<ArmProcessor>(ArmProcessor::Wiring{board_.clock, board_.journal, board_.bus,
                                                                   board_.memory.memory(), debugger_, board_.cache,
                                                                   [this] { return board_.pmc.core_cycle(); }});
        arm_->watch_alignment(options_.watch_alignment);
        arm_->faulted = [this](const std::string &what) {
            sight(1);
            if (troubled) troubled(Trouble::fault, what);
        };
        arm_->ending = [this](const StageResult &end) { stage_ends(end); };
    }
    return *arm_;
}

// The image in the first good slot of the strapped medium. What runs natively must be a build that is known here.
const Firmware *Machine::bootloader_in_slot() {
    const bool nand = options_.board.straps.boots_from_nand();
    NoiseSource noise(options_.board.seed, 5 + starts_); // what it reads once, it checks and starts
    const NandContents nand_read = chips_.nand.as_read(noise);
    const At45Contents dataflash_read = chips_.dataflash.as_read(noise);
    const FlashReader read = nand ? ReaderOf(nand_read) : ReaderOf(dataflash_read);
    const SlotTable &slots = SlotsOf(nand ? Medium::nand : Medium::dataflash);
    report_.slot = ChooseBootloader(read, slots);
    tell(EventKind::stage, "first stage",
         report_.slot
             ? fmt::format("takes {} of the {}", slots.bootloader[*report_.slot].name, nand ? "NAND" : "DataFlash")
             : "finds no good bootloader");
    if (!report_.slot) return nullptr;
    const StoredImage image = ReadSlot(read, slots.bootloader[*report_.slot]);
    const auto body = std::span(image.bytes).subspan(kImageHeaderBytes);
    // A known image brings its symbols; natively nothing else can run.
    const Firmware *known = options_.known ? options_.known->identify(body) : nullptr;
    if (known || native_) return known;
    from_slot_ = Firmware{slots.bootloader[*report_.slot].name, {body.begin(), body.end()}, {}, {}};
    return &*from_slot_;
}

const Firmware *Machine::choose_bootloader() {
    // A bootloader that was named runs once; from the first reset on the slots decide, as on a board.
    const bool given = options_.firmware && (starts_ == 0 || !options_.slots);
    return given ? options_.firmware : bootloader_in_slot();
}

StageResult Machine::run_bootloader(const Firmware &firmware) {
    running_ = &firmware;
    tell(EventKind::stage, "first stage", "starts " + firmware.file.filename().string());
    rescue_found_ = false;
    console_line_.clear();
    volume_.close_all();
    if (native_) return native_->run(firmware.version);
    const std::span<std::uint8_t> place = board_.memory.memory().at(kBootloaderLinkAddress, firmware.flat.size());
    if (place.empty()) return {StageEnd::fault, 0, "the image does not fit the memory"};
    if (firmware.elf)
        // Not cleared, as after a copy of a flat image: start-up code that counts on zeroed memory must fail here too.
        LoadElf(*firmware.elf, board_.memory.memory(), false);
    else
        std::copy(firmware.flat.begin(), firmware.flat.end(), place.begin());
    return arm().run(firmware.entry());
}

// The load buffer cannot tell what was launched: a rescue image may be the bank's file byte for byte, and the launch
// marker overwrites the end of the longest applications. The bootloader says so itself, right before it launches.
void Machine::note_rescue(char c) {
    static constexpr std::string_view kFound = "\tRescue app found...";
    if (c != '\n' && console_line_.size() <= kFound.size()) console_line_ += c;
    if (c != '\n') return;
    rescue_found_ |= console_line_ == kFound;
    console_line_.clear();
}

void Machine::name_launched() {
    if (!rescue_found_) {
        std::error_code error;
        // A launch takes the load buffer as the check of the application has left it, so that was the last file opened.
        const std::uintmax_t size = std::filesystem::file_size(volume_.last_opened_file(), error);
        report_.launched = volume_.last_opened();
        report_.launched_bytes = error ? 0 : static_cast<std::uint32_t>(size);
        return;
    }
    report_.launched = "rescue image";
    const std::span<std::uint8_t> header = board_.memory.memory().at(kLoadBuffer, kImageHeaderBytes);
    report_.launched_bytes = JudgeImage(header, kLargestStoredImage).size;
}

// By content: the name of a file in a bank does not tell which program it is.
const Firmware *Machine::program_at(std::uint32_t entry) {
    const Memory &memory = board_.memory.memory();
    for (const Firmware &program : options_.programs) {
        const auto there = memory.at(entry, static_cast<std::uint32_t>(program.flat.size()));
        if (program.elf && program.entry() == entry &&
            std::equal(program.flat.begin(), program.flat.end(), there.begin(), there.end()))
            return &program;
    }
    return nullptr;
}

void Machine::launch() {
    const std::optional<Handover> handover = TakeHandover(board_.memory.memory());
    assert(handover && "run() has seen the marker");
    report_.verdict = Verdict::launched;
    name_launched();
    volume_.close_all();
    tell(EventKind::stage, "first stage",
         fmt::format("launches {} ({} bytes) at 0x{:08X}", report_.launched, report_.launched_bytes, handover->entry));
    if (!options_.run_launched) return;
    running_ = program_at(handover->entry);
    in_launched_ = true;
    const StageResult end = arm().run(handover->entry);
    static constexpr std::array kEnds = {"was reset", "ended", "is still running", "faulted", "lost power", "stopped"};
    report_.launched_end = kEnds[static_cast<std::size_t>(end.end)];
    if (end.end == StageEnd::exited)
        report_.launched_end += fmt::format(" with result {}", end.exit_code);
    else if (!end.place.empty())
        report_.launched_end += " at " + end.place;
}

RunReport Machine::finish(RunReport report) {
    report.medium = options_.board.straps.boots_from_nand() ? "NAND" : "DataFlash";
    report.time = board_.clock.now();
    report.two_wire = board_.two_wire_times.shortest();
    report.instructions = instructions();
    const std::vector<JournalEntry> &violations = board_.journal.violations();
    // A run that broke a rule has failed, however well it ended. A cut excuses what was left unfinished.
    if (!violations.empty() && report.verdict != Verdict::power_lost) {
        report.verdict = Verdict::violation;
        report.place = violations.front().where + ": " + violations.front().what;
        if (sighting_)
            sighting_->times = static_cast<std::uint64_t>(
                std::count_if(violations.begin(), violations.end(), [&](const JournalEntry &entry) {
                    return entry.where == violations.front().where && entry.what == violations.front().what;
                }));
    }
    if (report.exit_status() == 3) report.sighting = sighting_;
    return report;
}

namespace {

// How a bootloader's stage ends the run, where it does.
std::optional<Verdict> VerdictOf(const StageResult &end) {
    switch (end.end) {
    // The first stage decides what a reset means: a launch, or another start.
    case StageEnd::reset: return std::nullopt;
    case StageEnd::exited: return end.exit_code == 0 ? Verdict::idle : Verdict::fault;
    case StageEnd::power_lost: return Verdict::power_lost;
    case StageEnd::hang: return Verdict::hang;
    default: return Verdict::fault;
    }
}

} // namespace

RunReport Machine::run() {
    for (;;) {
        const Firmware *firmware = choose_bootloader();
        // Counted after the choice, which asks whether this is the first start.
        ++starts_;
        if (!firmware) {
            report_.verdict = Verdict::no_bootloader;
            return finish(report_);
        }
        const StageResult end = run_bootloader(*firmware);
        if (const std::optional<Verdict> verdict = VerdictOf(end)) {
            report_.verdict = *verdict;
            report_.place = end.end == StageEnd::exited && end.exit_code
                                ? fmt::format("the program ended with result {} {}", end.exit_code, end.place)
                                : end.place;
            return finish(report_);
        }
        ++report_.resets;
        tell(EventKind::reset, "processor", "reset by the " + end.place);
        // Caches are discarded here, not written back, so what the bootloader left is what it flushed.
        board_.processor_reset();
        // Looked for after the reset: a marker that was not flushed is gone by now, and the bootloader starts again.
        if (MarkerStands(board_.memory.memory())) {
            launch();
            return finish(report_);
        }
        if (report_.resets >= options_.most_resets) {
            report_.verdict = Verdict::reset_loop;
            report_.place = end.place;
            return finish(report_);
        }
    }
}

StageResult Machine::start() {
    const Firmware *firmware = choose_bootloader();
    if (!firmware) throw std::runtime_error("no bootloader to start");
    running_ = firmware;
    if (native_) return native_->start(firmware->version);
    if (!firmware->elf) throw std::runtime_error(firmware->file.string() + ": no symbols");
    LoadElf(*firmware->elf, board_.memory.memory(), false);
    return arm().run(firmware->entry(), symbol("main"));
}

std::uint32_t Machine::symbol(const char *name) const {
    const std::optional<std::uint32_t> address = running_->elf ? running_->elf->symbol(name) : std::nullopt;
    if (!address) throw std::runtime_error(fmt::format("{}: no symbol {}", running_->file.string(), name));
    return *address;
}

StageResult Machine::call(const char *routine, std::span<const std::uint32_t> arguments, std::uint32_t &result) {
    if (native_) return native_->call(routine, arguments, result);
    return arm().call(symbol(routine), arguments, result);
}

void *Machine::object(const char *name) {
    if (native_) return NativeProcessor::object(name);
    return board_.memory.memory().from(symbol(name)).data();
}

} // namespace fixture
