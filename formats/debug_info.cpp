#include "formats/debug_info.h"

#include <cstdlib>
#include <cstring>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <fmt/format.h>

namespace fixture {

namespace {

constexpr unsigned kStackPointer = 13;
constexpr unsigned kLink = 14;
constexpr unsigned kProgramCounter = 15;

// What an expression of the frame tables comes to: an address, or the value itself.
struct Evaluated {
    std::uint32_t value;
    bool is_value;
};

// The few operations that compilers put into frame tables; everything else ends the chain.
std::optional<Evaluated> Evaluate(std::span<const Dwarf_Op> operations, const DebugInfo::Registers &registers,
                                  std::optional<std::uint32_t> frame_address) {
    std::vector<std::uint32_t> stack;
    bool is_value = false;
    for (const Dwarf_Op &operation : operations) {
        const auto number = static_cast<std::uint32_t>(operation.number);
        if (operation.atom >= DW_OP_breg0 && operation.atom <= DW_OP_breg15) {
            stack.push_back(registers[operation.atom - DW_OP_breg0] + number);
        } else if (operation.atom == DW_OP_bregx && operation.number < registers.size()) {
            stack.push_back(registers[number] + static_cast<std::uint32_t>(operation.number2));
        } else if (operation.atom == DW_OP_call_frame_cfa && frame_address) {
            stack.push_back(*frame_address);
        } else if (operation.atom == DW_OP_plus_uconst && !stack.empty()) {
            stack.back() += number;
        } else if (operation.atom == DW_OP_stack_value) {
            is_value = true;
        } else {
            return std::nullopt;
        }
    }
    if (stack.empty()) return std::nullopt;
    return Evaluated{stack.back(), is_value};
}

struct FrameEnd {
    void operator()(Dwarf_Frame *frame) const { std::free(frame); }
};
using FrameHandle = std::unique_ptr<Dwarf_Frame, FrameEnd>;

std::optional<std::uint32_t> FrameAddress(Dwarf_Frame *frame, const DebugInfo::Registers &registers) {
    Dwarf_Op *operations = nullptr;
    std::size_t count = 0;
    if (dwarf_frame_cfa(frame, &operations, &count) != 0 || count == 0) return std::nullopt;
    const auto found = Evaluate({operations, count}, registers, std::nullopt);
    return found ? std::optional(found->value) : std::nullopt;
}

// One register as the caller had it. What the tables leave undefined counts as kept: the return address of a routine
// that calls nothing is still in its register.
std::optional<std::uint32_t> RestoredRegister(Dwarf_Frame *frame, unsigned number,
                                              const DebugInfo::Registers &registers, std::uint32_t frame_address,
                                              const DebugInfo::ReadWord &read) {
    Dwarf_Op memory[3];
    Dwarf_Op *operations = nullptr;
    std::size_t count = 0;
    if (dwarf_frame_register(frame, static_cast<int>(number), memory, &operations, &count) != 0) return std::nullopt;
    if (count == 0) return registers[number];
    const auto found = Evaluate({operations, count}, registers, frame_address);
    if (!found) return std::nullopt;
    return found->is_value ? std::optional(found->value) : read(found->value);
}

} // namespace

struct DebugInfo::Tables {
    std::vector<std::uint8_t> file;
    Elf *elf = nullptr;
    Dwarf *dwarf = nullptr;
    Dwarf_CFI *frames = nullptr; // belongs to `dwarf`
};

DebugInfo::DebugInfo(std::span<const std::uint8_t> file) : tables_(std::make_unique<Tables>()) {
    tables_->file.assign(file.begin(), file.end());
    if (file.empty()) return;
    elf_version(EV_CURRENT);
    tables_->elf = elf_memory(reinterpret_cast<char *>(tables_->file.data()), tables_->file.size());
    if (!tables_->elf || elf_kind(tables_->elf) != ELF_K_ELF) return;
    tables_->dwarf = dwarf_begin_elf(tables_->elf, DWARF_C_READ, nullptr);
    if (tables_->dwarf) tables_->frames = dwarf_getcfi(tables_->dwarf);
}

// The tables refer to the ELF handle, and the handle to the copy of the file, which goes last.
DebugInfo::~DebugInfo() {
    if (tables_->dwarf) dwarf_end(tables_->dwarf);
    if (tables_->elf) elf_end(tables_->elf);
}

std::string DebugInfo::line(std::uint32_t address) const {
    Dwarf_Die unit;
    if (!tables_->dwarf || !dwarf_addrdie(tables_->dwarf, address, &unit)) return {};
    Dwarf_Line *found = dwarf_getsrc_die(&unit, address);
    int number = 0;
    const char *file = found ? dwarf_linesrc(found, nullptr, nullptr) : nullptr;
    if (!file || dwarf_lineno(found, &number) != 0 || number == 0) return {};
    // Without directories: they are those of the machine that built the image.
    const char *slash = std::strrchr(file, '/');
    return fmt::format("{}:{}", slash ? slash + 1 : file, number);
}

std::optional<DebugInfo::Registers> DebugInfo::caller(const Registers &registers, const ReadWord &read) const {
    Dwarf_Frame *found = nullptr;
    if (!tables_->frames || dwarf_cfi_addrframe(tables_->frames, registers[kProgramCounter], &found) != 0)
        return std::nullopt;
    const FrameHandle frame(found);
    const std::optional<std::uint32_t> frame_address = FrameAddress(frame.get(), registers);
    if (!frame_address) return std::nullopt;
    Registers before = registers;
    for (unsigned number = 0; number <= kLink; ++number) {
        if (number == kStackPointer) continue;
        const auto value = RestoredRegister(frame.get(), number, registers, *frame_address, read);
        if (!value) return std::nullopt;
        before[number] = *value;
    }
    // For the ARM the tables define the frame's address as the stack pointer at the call, so no rule restores it.
    before[kStackPointer] = *frame_address;
    // Bit 0 of a return address tells the instruction set; no table lists odd addresses.
    before[kProgramCounter] = before[kLink] & ~1u;
    return before;
}

std::vector<std::uint32_t> DebugInfo::call_chain(Registers registers, const ReadWord &read, std::size_t most) const {
    std::vector<std::uint32_t> chain = {registers[kProgramCounter]};
    while (chain.size() < most) {
        std::optional<Registers> before = caller(registers, read);
        // Code without tables (a jump to nowhere, assembly) at the innermost place: it was called from somewhere.
        if (!before && chain.size() == 1 && registers[kLink] != 0) {
            before = registers;
            (*before)[kProgramCounter] = registers[kLink] & ~1u;
        }
        if (!before || (*before)[kProgramCounter] == 0) return chain;
        const bool moves = (*before)[kStackPointer] > registers[kStackPointer] || chain.size() == 1;
        if (!moves) return chain; // stacks grow downwards: anything else would go round for ever
        // A call may be a routine's last instruction, and what it returns to another routine's first.
        // The lowest bit of a return address says that the caller is in the 16-bit instruction set.
        const std::uint32_t back = (*before)[kLink]; // where it goes on, with that bit
        const std::uint32_t call = back & 1 ? back - 3 : back - 4;
        chain.push_back(call);
        registers = *before;
        registers[kProgramCounter] = call;
    }
    return chain;
}

} // namespace fixture
