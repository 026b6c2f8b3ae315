#include "formats/stored_image.h"

#include "formats/elf_image.h"
#include "formats/slots.h"

#include <algorithm>
#include <fmt/format.h>

namespace fixture {

namespace {

constexpr std::uintmax_t kLargestInput = 64u << 20; // an ELF file may carry much that is never loaded
constexpr std::size_t kSizeOffset = 20;
static_assert(sizeof kMakerText == kSizeOffset);

std::uint32_t Little32(const std::uint8_t *bytes) {
    return bytes[0] | static_cast<std::uint32_t>(bytes[1]) << 8 | static_cast<std::uint32_t>(bytes[2]) << 16 |
           static_cast<std::uint32_t>(bytes[3]) << 24;
}

void AppendLittle32(Bytes &bytes, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

// Text up to its terminator, with what is not printable as "\xNN".
std::string Escape(std::span<const std::uint8_t> bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        if (byte == 0) return text;
        text += byte >= 0x20 && byte < 0x7F ? std::string(1, static_cast<char>(byte)) : fmt::format("\\x{:02X}", byte);
    }
    return text + " (no terminator)";
}

Bytes Flatten(const std::filesystem::path &file, const Bytes &content) {
    try {
        const ElfImage elf = ElfImage::read(content);
        Bytes flat = elf.flat();
        std::uint32_t first = 0xFFFFFFFF;
        for (const ElfSegment &segment : elf.segments())
            if (!segment.bytes.empty()) first = std::min(first, segment.address);
        if (!flat.empty() && elf.entry() != first)
            throw Refusal(file, fmt::format("entry at 0x{:08X}", elf.entry()),
                          fmt::format("it at the image's first byte, 0x{:08X}, where images are started", first));
        return flat;
    } catch (const ElfError &error) {
        throw Refusal(file, error.what(), "an ELF executable for the ARM or a flat binary");
    }
}

ImageField SizeField(std::uint32_t size, std::size_t file_size) {
    ImageField field{"size", fmt::format("{} (0x{:08X})", size, size), true, ""};
    const std::size_t most = std::min<std::size_t>(file_size, kLargestStoredImage);
    field.valid = size >= kImageHeaderBytes && size <= most;
    if (!field.valid)
        field.expected = fmt::format("{} to {}, {}", kImageHeaderBytes, most,
                                     most == file_size ? "the file's length" : "what the load buffer takes");
    return field;
}

// A sum can be judged only where the size says how far the body goes.
ImageField SumField(const char *name, std::uint32_t stored, const std::uint32_t *computed) {
    const bool valid = computed && stored == *computed;
    const std::string expected =
        computed ? fmt::format("0x{:08X}, the sum over the body", *computed) : "the sum over a body of valid size";
    return {name, fmt::format("0x{:08X}", stored), valid, valid ? "" : expected};
}

std::vector<SlotFit> FitSlots(std::uint32_t size) {
    std::vector<SlotFit> fits;
    const auto add = [&](const char *medium, const Slot &slot) {
        fits.push_back({medium, slot.name, slot.capacity, size <= slot.capacity});
    };
    for (const auto &[medium, name] : {std::pair{Medium::nand, "NAND"}, std::pair{Medium::dataflash, "DataFlash"}}) {
        const SlotTable &table = SlotsOf(medium);
        for (const Slot &slot : table.bootloader) add(name, slot);
        add(name, table.rescue);
    }
    return fits;
}

} // namespace

bool HasMaker(std::span<const std::uint8_t> bytes) {
    return bytes.size() >= sizeof kMakerText && std::equal(std::begin(kMakerText), std::end(kMakerText), bytes.begin());
}

Bytes Wrap(std::span<const std::uint8_t> body) {
    const ImageSums sums = SumsOf(body);
    Bytes image(std::begin(kMakerText), std::end(kMakerText));
    image.reserve(kImageHeaderBytes + body.size());
    AppendLittle32(image, static_cast<std::uint32_t>(kImageHeaderBytes + body.size()));
    AppendLittle32(image, sums.sum1);
    AppendLittle32(image, sums.sum2);
    image.insert(image.end(), body.begin(), body.end());
    return image;
}

Bytes ReadFlatImage(const std::filesystem::path &file) {
    Bytes content = ReadFile(file, kLargestInput);
    constexpr std::uint8_t kElfMagic[] = {0x7F, 'E', 'L', 'F'};
    const bool is_elf = content.size() >= 4 && std::equal(std::begin(kElfMagic), std::end(kElfMagic), content.begin());
    return is_elf ? Flatten(file, content) : content;
}

Bytes WrapFile(const std::filesystem::path &file) {
    const Bytes body = ReadFlatImage(file);
    if (body.empty()) throw Refusal(file, "no bytes to load", "an image");
    if (HasMaker(body)) throw Refusal(file, "carries a stored image header already", "an image without one");
    if (body.size() > kLargestStoredImage - kImageHeaderBytes)
        throw Refusal(file, fmt::format("{} bytes", body.size()),
                      fmt::format("at most {}, what the load buffer takes", kLargestStoredImage - kImageHeaderBytes));
    return Wrap(body);
}

bool ImageReport::good() const {
    return std::all_of(fields.begin(), fields.end(), [](const ImageField &field) { return field.valid; });
}

std::string ImageReport::problem() const {
    for (const ImageField &field : fields)
        if (!field.valid) return fmt::format("{} {}; expected {}", field.name, field.value, field.expected);
    return "";
}

ImageReport ExamineImage(std::span<const std::uint8_t> file) {
    ImageReport report;
    const bool maker = HasMaker(file);
    report.fields.push_back({"maker", fmt::format("\"{}\"", Escape(file.first(std::min(file.size(), kSizeOffset)))),
                             maker, maker ? "" : fmt::format("\"{}\"", kMakerText)});
    if (file.size() < kImageHeaderBytes) {
        report.fields.push_back({"header", fmt::format("{} bytes", file.size()), false, "32 bytes"});
        return report;
    }
    report.size = Little32(&file[kSizeOffset]);
    report.fields.push_back(SizeField(report.size, file.size()));
    const bool sized = report.fields.back().valid;
    ImageSums sums;
    if (sized) {
        report.trailing = file.size() - report.size;
        report.slots = FitSlots(report.size);
        sums = SumsOf(file.subspan(kImageHeaderBytes, report.size - kImageHeaderBytes));
    }
    report.fields.push_back(SumField("sum1", Little32(&file[kSizeOffset + 4]), sized ? &sums.sum1 : nullptr));
    report.fields.push_back(SumField("sum2", Little32(&file[kSizeOffset + 8]), sized ? &sums.sum2 : nullptr));
    return report;
}

} // namespace fixture
