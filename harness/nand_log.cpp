#include "harness/nand_log.h"

#include "fixture/parts/nand.h"

#include <fmt/format.h>
#include <stdexcept>
#include <utility>

namespace fixture {

namespace {

// The chip on chip select 3: two address lines tell data, address and command apart. PD15 enables it, PA22 is its
// ready line.
constexpr std::uint32_t kData = 0x40000000, kAddress = 0x40200000, kCommand = 0x40400000;
constexpr std::uint32_t kEnableLow = 0xFFFFF834, kEnableHigh = 0xFFFFF830; // PIOD.CODR, PIOD.SODR
constexpr std::uint32_t kReadyPins = 0xFFFFF23C;                           // PIOA.PDSR
constexpr std::uint32_t kReady = 1u << 22, kEnable = 1u << 15;

} // namespace

NandLog::NandLog(Bus &bus) : bus_(bus) {
    bus.observer = [this](const BusAccess &access) { observe(access); };
}

void NandLog::clear() {
    accesses_.clear();
    last_.clear();
    operations_.clear();
}

std::string NandLog::operations() {
    end_run();
    return operations_;
}

void NandLog::observe(const BusAccess &access) {
    if (access.address == kData) return data(access);
    if (access.address == kCommand) command(access.value);
    if (access.address == kAddress) cycles_.push_back(access.value);
    add(word_for(access));
}

std::string NandLog::word_for(const BusAccess &access) const {
    switch (access.address) {
    case kCommand: return fmt::format("c{:02X}", access.value);
    case kAddress: return fmt::format("a{:02X}", access.value);
    case kReadyPins: return access.value & kReady ? "R" : "";
    case kEnableLow:
        if (access.value == kEnable) return "[";
        break;
    case kEnableHigh:
        if (access.value == kEnable) return "]";
        break;
    default: break;
    }
    const std::string name = bus_.name_of(access.address);
    return access.is_write ? fmt::format("{}={:X}", name, access.value) : name + "?";
}

void NandLog::add(const std::string &word) {
    count_ = 0;
    if (!word.empty()) accesses_ += (accesses_.empty() ? "" : " ") + word;
}

// A page is 2,048 accesses: they count up in the word that the first of them opened.
void NandLog::data(const BusAccess &access) {
    const unsigned before = std::exchange(count_, 0);
    if (before == 0) add(fmt::format("{}{}x", access.is_write ? 'w' : 'r', 8 * access.bytes));
    accesses_.resize(accesses_.rfind('x') + 1);
    accesses_ += std::to_string(count_ = before + 1);
}

// The opcode that starts an operation: erase confirm, program confirm, read confirm.
void NandLog::command(std::uint32_t opcode) {
    if (opcode == 0xD0) operation('E', 'E', 0);
    if (opcode == 0x10) operation('P', 'p', 2);
    if (opcode == 0x30) operation('R', 'r', 2);
    cycles_.clear();
}

// Read and program address a column in two cycles and then a row in three, erase a row alone. Column 0 is the page's
// data; the driver addresses nothing else but the spare bytes.
void NandLog::operation(char on_data, char on_spare, std::size_t row_cycle) {
    if (cycles_.size() < row_cycle + 3)
        throw std::runtime_error(fmt::format("NAND: {} address cycles before the confirmation of {}; expected {}",
                                             cycles_.size(), on_data, row_cycle + 3));
    const std::uint32_t *const cycle = cycles_.data() + row_cycle;
    const std::uint32_t row = cycle[0] | cycle[1] << 8 | cycle[2] << 16, page = row % kNandPagesPerBlock;
    const char kind = cycles_[0] + cycles_[1] == 0 ? on_data : on_spare;
    std::string name = fmt::format("{}{}", kind, row / kNandPagesPerBlock);
    if (kind != 'E' && last_.starts_with(name + ".") && page == run_end_ + 1) {
        run_end_ = page;
        return;
    }
    end_run();
    last_ = kind == 'E' ? name : fmt::format("{}.{}", name, page);
    run_begin_ = run_end_ = page;
}

void NandLog::end_run() {
    if (last_.empty()) return;
    operations_ += (operations_.empty() ? "" : " ") + std::exchange(last_, "");
    if (run_end_ > run_begin_) operations_ += fmt::format("-{}", run_end_);
}

} // namespace fixture
