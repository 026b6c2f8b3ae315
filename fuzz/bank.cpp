// A bank's two texts: the bootloader's reading of them against the tools'.
#include "formats/bank_check.h"
#include "fuzz/targets.h"

#include <algorithm>
#include <fmt/format.h>

namespace fixture {

namespace {

constexpr const char *kBank = "i:/vol0/data/app/";
constexpr const char *kDescriptorFile = "data/app/ProjectDescriptorFile.xml";
constexpr const char *kManifestFile = "data/app/BankContent.txt";
constexpr const char *kPaths[] = {"bin/demo.bin", "bin/loader.img", "bin/help.bin", "bin/demo_loader.img", "bin/x", ""};

// --- descriptor

std::string Value(Shape &shape, const char *usual) {
    switch (shape.below(8)) {
    case 5: return std::string(shape.pick({0u, 1u, 15u, 16u, 17u, 256u, 257u}), 'x');
    case 6: return shape.text(40);
    case 7: return shape.pick<std::string>({"<", ">", "<a>1</a>", "<a/>", "<!-- c -->", "</a>", "\n .bin", "demo"});
    default: return usual;
    }
}

void PutElement(Shape &shape, std::string &text, std::string name, const std::string &content) {
    if (shape.one_in(16)) name += shape.text(8);
    for (unsigned copies = shape.pick({1u, 1u, 1u, 1u, 1u, 1u, 1u, 0u, 2u}); copies > 0; --copies) {
        text += "<" + name + shape.pick({">", ">", ">", ">", ">", ">", "/>", ""}) + content;
        if (!shape.one_in(12)) text += "</" + name + ">";
    }
}

std::string MakeDescriptorText(Shape &shape) {
    if (const std::optional<Bytes> whole = shape.whole_in(8)) return AsText(*whole);
    const struct {
        const char *element, *base, *extension, *version;
    } sections[] = {{"MainApplication", "demo", ".bin", "1.0"},
                    {"RescueApplication", "help", "bin", "7"},
                    {"SecondaryBootloader", "loader", ".img", "1.9.1"}};
    std::string inner;
    for (const auto &section : sections) {
        std::string parts;
        PutElement(shape, parts, "BaseFileName", Value(shape, section.base));
        PutElement(shape, parts, "BaseFileExtension", Value(shape, section.extension));
        PutElement(shape, parts, "Version", Value(shape, section.version));
        PutElement(shape, inner, section.element, parts);
    }
    for (unsigned depth = shape.pick({1u, 0u, 2u, 40u, 200u}); depth > 0; --depth) inner = "<P>" + inner + "</P>";
    return shape.pick({"<?xml version=\"1.0\"?>\n", "", "<", "<a>"}) + inner + shape.pick({"\n", "", "<", "</"});
}

// --- manifest

std::string Column(Shape &shape, std::size_t usual) {
    if (!shape.one_in(4)) return fmt::format("{:>9}", usual);
    return shape.pick<std::string>({"-1", "+5", " 7 ", "999999999", "", "0x10", "\t\n12", shape.text(9)});
}

std::string PathField(Shape &shape) {
    std::string path = shape.pick({"", "", "", "/", ".", "..", "\\", "./"});
    path += shape.one_in(6) ? shape.text(64) : std::string(kPaths[shape.below(std::size(kPaths))]);
    if (shape.one_in(8)) {
        const unsigned count = shape.pick({232u, 237u, 238u, 239u, 250u, 256u});
        if (count == 256) path.clear(); // all of the field is one character
        path.append(count, shape.pick({'b', '/', '.'}));
    }
    return path + shape.pick({"", "", "", "\r\n", "\n", " ", "\r \n"});
}

std::string Record(Shape &shape, std::size_t size, std::size_t sum) {
    const char padding = shape.pick({' ', ' ', ' ', '\0'});
    std::string record = fmt::format("{:<9} | {:<9} | ", Column(shape, size), Column(shape, sum)) + PathField(shape);
    record.resize(shape.pick({280u, 280u, 280u, 280u, 280u, 280u, 279u, 24u}), padding);
    return record + shape.pick({"\r\n", "\r\n", "\r\n", "\r\n", "\n\r", "  "});
}

std::string MakeManifestText(Shape &shape, std::size_t size, std::size_t sum) {
    if (const std::optional<Bytes> whole = shape.whole_in(8)) return AsText(*whole);
    std::string text(282 * shape.pick({2u, 2u, 2u, 2u, 1u, 0u}), '-');
    for (unsigned records = 1 + shape.below(6); records > 0; --records) text += Record(shape, size, sum);
    return text + shape.text(8);
}

// What the bootloader has taken over for a role is what the tool says it would.
void CheckRecord(ModuleBoard &board, const BankReport &bank, FileRole role, const std::string &module) {
    const auto last = std::find_if(bank.records.rbegin(), bank.records.rend(),
                                   [role](const RecordReport &report) { return report.role == role; });
    const ManifestRecord *record = last == bank.records.rend() ? nullptr : &last->record;
    const std::string path = record ? bank.directory + record->path : "";
    Require(board.text((module + "_GetPathFilename").c_str()) == path, module + ": path");
    Require(board.started().call((module + "_GetSize").c_str()) == (record ? record->size : 0), module + ": size");
    Require(board.started().call((module + "_GetCheckSum").c_str()) == (record ? record->sum : 0), module + ": sum");
}

} // namespace

void FuzzDescriptor(std::span<const std::uint8_t> input) {
    Shape shape(input);
    const Bytes text = AsBytes(MakeDescriptorText(shape));
    ScratchFile(kDescriptorFile, text);
    ModuleBoard board;
    board.call("PrjDsc_SetPathFilename", board.started().scratch_text(std::string("i:/vol0/") + kDescriptorFile));
    const bool good = board.call("PrjDsc_Parse") == 0;
    const Descriptor read = ReadDescriptor(text); // with the modules' own reader, on what is left of their heap
    constexpr std::size_t kHeapNeverFull = 3000;
    if (text.size() > kHeapNeverFull) return;
    Require(good == read.problem.empty(), "descriptor: " + read.problem);
    for (const char *path : kPaths)
        Require(board.call("PrjDsc_GetFileType", board.started().scratch_text(path)) ==
                    static_cast<int>(read.role_of(path)),
                path);
}

void FuzzManifest(std::span<const std::uint8_t> input) {
    Shape shape(input);
    Shape usual({});
    const Bytes application = shape.bytes(32);
    const bool plain = !shape.one_in(4);
    ScratchFile(kDescriptorFile, AsBytes(MakeDescriptorText(plain ? usual : shape)));
    ScratchFile(kManifestFile, AsBytes(MakeManifestText(shape, application.size(), ByteSum(application))));
    ScratchFile("data/app/bin/demo.bin", application);
    const BankReport bank = ExamineBank(ModuleBoard::volume() / "data/app", kBank);
    ModuleBoard board;
    const bool nand = !shape.one_in(8);
    board.start_driver(nand);
    const bool launched = board.resets("Validate_Bank", {board.started().scratch_text(kBank), nand});
    Require(launched == bank.launches, bank.actions.back());
    if (bank.actions.front().starts_with("rejects")) return;
    CheckRecord(board, bank, FileRole::application, "App");
    CheckRecord(board, bank, FileRole::bootloader, "Boot");
    CheckRecord(board, bank, FileRole::rescue, "Rescue");
}

} // namespace fixture
