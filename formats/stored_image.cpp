#include "formats/stored_image.h"

#include "formats/slots.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <fmt/format.h>

namespace fixture {

namespace {

constexpr std::uintmax_t kLargestInput = 64u << 20; // an ELF file may carry much that is never loaded
static_assert(kSumsOffset + 8 == kImageHeaderBytes);

void AppendLittle32(Bytes &bytes, std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

// The maker field up to its terminator.
std::string MakerOf(std::span<const std::uint8_t> file) {
    const auto field = file.first(std::min(file.size(), kSizeOffset));
    const auto end = std::find(field.begin(), field.end(), 0);
    const std::string text = Escaped(std::string(field.begin(), end));
    return fmt::format("\"{}\"{}", text, end == field.end() ? " (no terminator)" : "");
}

// Parts without bytes in the file (zeroed memory) may lie below the image, so they do not count.
std::uint32_t LowestAddress(const ElfImage &elf) {
    std::uint32_t lowest = 0xFFFFFFFF;
    for (const ElfSegment &segment : elf.segments())
        if (!segment.bytes.empty()) lowest = std::min(lowest, segment.address);
    return lowest;
}

// The load buffer bounds it as well as the file: a longer image could be read but never checked on the board.
ImageField SizeField(const StoredImage &image, std::size_t file_size) {
    ImageField field{"size", fmt::format("{} (0x{:08X})", image.size, image.size), image.sized, ""};
    const std::size_t most = std::min<std::size_t>(file_size, kLargestStoredImage);
    if (!field.valid)
        field.expected = fmt::format("{} to {}, {}", kImageHeaderBytes, most,
                                     most == file_size ? "the file's length" : "what the load buffer takes");
    return field;
}

// A sum can be judged only where the size says how far the body goes.
ImageField SumField(const char *name, std::uint32_t stored, std::uint32_t computed, bool sized) {
    const bool valid = sized && stored == computed;
    const std::string expected =
        sized ? fmt::format("0x{:08X}, the sum over the body", computed) : "the sum over a body of valid size";
    return {name, fmt::format("0x{:08X}", stored), valid, valid ? "" : expected};
}

// By the tables alone. What bad blocks and a smaller chip leave of a slot is for WarningsOfBootloader to say.
std::vector<SlotFit> FitSlots(std::uint32_t size) {
    std::vector<SlotFit> fits;
    for (const Medium medium : {Medium::nand, Medium::dataflash}) {
        const SlotTable &table = SlotsOf(medium);
        for (const Slot &slot : {table.bootloader[0], table.bootloader[1], table.rescue})
            fits.push_back({NameOf(medium), slot.name, slot.capacity, size <= slot.capacity});
    }
    return fits;
}

} // namespace

const char *NameOf(ImageVerdict verdict) {
    constexpr const char *kNames[] = {"erased", "no maker text", "bad size", "bad sums", "good"};
    return kNames[static_cast<unsigned>(verdict)];
}

// The second sum adds up the first, so bytes that change places are noticed, which a plain sum would miss. Plainly
// written on purpose: the bootloader's faster form (src/Sums) is held against this one.
ImageSums SumsOf(std::span<const std::uint8_t> body) {
    ImageSums sums;
    for (const std::uint8_t byte : body) {
        sums.sum1 += byte;
        sums.sum2 += sums.sum1;
    }
    return sums;
}

ImageVerdict StoredImage::verdict() const {
    if (erased) return ImageVerdict::erased;
    // Before the maker: of 31 bytes nobody can say more.
    if (!whole_header) return ImageVerdict::bad_size;
    if (!maker) return ImageVerdict::no_maker;
    if (!sized) return ImageVerdict::bad_size;
    return sums_agree() ? ImageVerdict::good : ImageVerdict::bad_sums;
}

StoredImage JudgeImage(std::span<const std::uint8_t> bytes, std::uint32_t capacity) {
    StoredImage image;
    const std::span<const std::uint8_t> header = bytes.first(std::min<std::size_t>(bytes.size(), kImageHeaderBytes));
    image.bytes.assign(header.begin(), header.end());
    image.erased = std::all_of(header.begin(), header.end(), [](std::uint8_t byte) { return byte == 0xFF; });
    image.maker = HasMaker(header);
    image.whole_header = header.size() == kImageHeaderBytes;
    if (!image.whole_header) return image;
    image.size = Little32(header, kSizeOffset);
    image.stored = {Little32(header, kSumsOffset), Little32(header, kSumsOffset + 4)};
    // Bounded by three things before a byte of the body is looked at: the size is whatever a damaged page made of it.
    image.sized = image.size >= kImageHeaderBytes && image.size <= capacity && image.size <= bytes.size();
    if (!image.sized) return image;
    // Only now: up to here `bytes` of the report is the header alone, which is all that is known to belong to it.
    image.bytes.assign(bytes.begin(), bytes.begin() + image.size);
    image.computed = SumsOf(bytes.subspan(kImageHeaderBytes, image.size - kImageHeaderBytes));
    return image;
}

// The whole text with its terminator, as both the first stage and the bootloader compare it.
bool HasMaker(std::span<const std::uint8_t> bytes) {
    return bytes.size() >= sizeof kMakerText && std::equal(std::begin(kMakerText), std::end(kMakerText), bytes.begin());
}

// Byte by byte: an image may lie at any address of a file, and this machine may be of either byte order.
std::uint32_t Little32(std::span<const std::uint8_t> bytes, std::size_t at) {
    assert(at + 4 <= bytes.size() && "callers have looked how much there is");
    std::uint32_t word = 0;
    for (std::size_t n = 0; n < 4; ++n) word |= std::uint32_t{bytes[at + n]} << 8 * n;
    return word;
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

FlatImage ReadFlatImage(const std::filesystem::path &file) {
    FlatImage image{ReadFile(file, kLargestInput), {}};
    if (!IsElf(image.bytes)) return image;
    // Kept beside the bytes: symbols and entry are of use after the image itself has been flattened.
    image.elf = ElfImage::read(image.bytes, file);
    image.bytes = image.elf->flat();
    return image;
}

Bytes ReadStartedImage(const std::filesystem::path &file) {
    FlatImage image = ReadFlatImage(file);
    // The first stage jumps to the first byte after the header. An ELF that starts elsewhere would run something else
    // first, and no flat file says so.
    if (image.elf && !image.bytes.empty())
        if (const std::uint32_t first = LowestAddress(*image.elf); image.elf->entry() != first)
            throw Refusal(file, fmt::format("entry at 0x{:08X}", image.elf->entry()),
                          fmt::format("it at the image's first byte, 0x{:08X}, where images are started", first),
                          "bad-entry");
    return std::move(image.bytes);
}

namespace {

Bytes WrapBody(const std::filesystem::path &file, const Bytes &body) {
    if (body.empty()) throw Refusal(file, "no bytes to load", "an image", "empty");
    if (body.size() > kLargestStoredImage - kImageHeaderBytes)
        throw Refusal(file, fmt::format("{} bytes", body.size()),
                      fmt::format("at most {}, what the load buffer takes", kLargestStoredImage - kImageHeaderBytes),
                      "too-large");
    return Wrap(body);
}

} // namespace

Bytes WrapFile(const std::filesystem::path &file) {
    const Bytes body = ReadStartedImage(file);
    // A second header would be started as code.
    if (HasMaker(body))
        throw Refusal(file, "carries a stored image header already", "an image without one", "wrapped-already");
    return WrapBody(file, body);
}

Bytes ReadStoredImage(const std::filesystem::path &file) {
    Bytes content = ReadStartedImage(file);
    if (!HasMaker(content)) return WrapBody(file, content);
    const ImageReport report = ExamineImage(content);
    if (!report.good()) throw Refusal(file, "not a good stored image: " + report.problem(), "", "bad-image");
    // What follows the image in the file is covered by no sum and would only be written for nothing.
    content.resize(report.image.size);
    return content;
}

std::string ImageReport::problem() const {
    for (const ImageField &field : fields)
        if (!field.valid) return fmt::format("{} {}; expected {}", field.name, field.value, field.expected);
    return "";
}

ImageReport ExamineImage(std::span<const std::uint8_t> file) {
    ImageReport report{JudgeImage(file, kLargestStoredImage), {}, 0, {}};
    const StoredImage &image = report.image;
    report.fields.push_back(
        {"maker", MakerOf(file), image.maker, image.maker ? "" : fmt::format("\"{}\"", kMakerText)});
    if (!image.whole_header) {
        report.fields.push_back({"header", fmt::format("{} bytes", file.size()), false, "32 bytes"});
        return report;
    }
    report.fields.push_back(SizeField(image, file.size()));
    report.fields.push_back(SumField("sum1", image.stored.sum1, image.computed.sum1, image.sized));
    report.fields.push_back(SumField("sum2", image.stored.sum2, image.computed.sum2, image.sized));
    if (!image.sized) return report;
    report.trailing = file.size() - image.size;
    report.slots = FitSlots(image.size);
    return report;
}

} // namespace fixture
