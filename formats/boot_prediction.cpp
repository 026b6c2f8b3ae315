#include "formats/boot_prediction.h"

#include "formats/bank.h"
#include "formats/board_volume.h"
#include "formats/stored_image.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace fixture {

namespace fs = std::filesystem;

namespace {

constexpr std::uint32_t kRescueFlush = 0x3FBFFF;       // what the bootloader writes back of a rescue image of any size
constexpr std::uintmax_t kHeapBytes = 4u << 20;        // the bootloader's heap
constexpr std::uintmax_t kLargeDescriptor = 64u << 10; // from here on its tree may not fit that heap
constexpr std::size_t kVersionBytes = 16;
constexpr unsigned kMostStarts = 64; // every start either ends the prediction or changes a slot
constexpr const char *kRescueName = "rescue image";
constexpr const char *kRejected = "error processing project descriptor file\n";

// A text in one of the bootloader's fields of 16 bytes, filled up with zeros.
Bytes Field(const std::string &text) {
    Bytes field(text.begin(), text.end());
    field.resize(kVersionBytes);
    return field;
}

std::string FieldText(const Bytes &field) {
    if (std::all_of(field.begin(), field.end(), [](std::uint8_t byte) { return byte == 0xFF; })) return "none";
    return "\"" + Printable(std::string(field.begin(), std::find(field.begin(), field.end(), 0))) + "\"";
}

std::uint32_t SizeField(const Bytes &image) {
    assert(image.size() >= kImageHeaderBytes && "a whole header was read");
    return Little32(image, kSizeOffset);
}

bool SumsFit(const Bytes &image) {
    assert(SizeField(image) >= kImageHeaderBytes && SizeField(image) <= image.size() && "callers judge the size first");
    const std::span<const std::uint8_t> body(image.data() + kImageHeaderBytes, SizeField(image) - kImageHeaderBytes);
    return SumsOf(body) == ImageSums{Little32(image, kSumsOffset), Little32(image, kSumsOffset + 4)};
}

// A file of a bank as the manifest lists it.
struct Listed {
    std::string path; // on the board
    std::uint32_t size = 0;
    std::uint32_t sum = 0;
};

class Predictor {
public:
    explicit Predictor(const BoardState &board)
        : board_(board), slots_(SlotsOf(board.medium())), nand_(board.medium() == Medium::nand) {}

    Prediction run();

private:
    enum class Went : std::uint8_t { on, reset, launched };

    // --- telling
    void tell(const char *id, std::string place, std::string text, std::string console = "") {
        told_.steps.push_back({start_, id, std::move(place), std::move(text), std::move(console)});
    }
    void say(std::string_view console) { told_.steps.back().console += console; }
    void warn(std::string id, std::string place, std::string text, std::string remedy);
    void end(BootEnd how, std::string reason) {
        told_.end = how;
        told_.reason = std::move(reason);
    }

    // --- the medium, as the bootloader's drivers reach it
    bool in_chip(std::uint32_t address, std::uint32_t length) const {
        return board_.chip_answers && address <= board_.flash.bytes && board_.flash.bytes - address >= length;
    }
    std::optional<Bytes> read(std::uint32_t address, std::uint32_t length);
    bool write(std::uint32_t address, const Bytes &bytes);
    bool write_short(std::uint32_t address, Bytes bytes);
    bool has_header(const Slot &slot);
    std::optional<Bytes> image_within(std::uint32_t address, std::uint32_t largest);

    // --- the stages
    void tell_straps();
    void tell_network();
    bool first_stage();
    Went bootloader();
    Went bank(const std::string &directory);
    bool read_descriptor(const std::string &directory);
    std::optional<Manifest> manifest_in(const std::string &path);
    bool read_manifest(const std::string &directory);
    void take_record(const std::string &directory, const ManifestRecord &record);
    std::string check_file(const Listed &file, Bytes &content);
    std::string check_image(const Bytes &file) const;
    void update_rescue();
    std::string store_rescue(const Bytes &file, const Bytes &version);
    Went update_bootloader();
    std::string store_bootloader(const Bytes &file);
    Went launch_application();
    void rescue();
    bool met_before();
    void loop_found(std::size_t first);
    void look_ahead();

    const BoardState &board_;
    const SlotTable &slots_;
    const bool nand_;
    Prediction told_;
    unsigned start_ = 0;
    std::uint64_t erases_ = 0;

    // What the bootloader remembers through one start, and through one bank.
    bool rescue_found_ = false;
    Descriptor descriptor_;
    std::optional<Listed> files_[3]; // by FileRole
    std::string bank_;
    std::string stored_; // what the last update of the bootloader did
    // Every start that stored a bootloader, with "BANK installs VERSION".
    std::vector<std::pair<unsigned, std::string>> installs_;

    // What a start depends on. The same once more: the board goes round.
    struct Met {
        std::vector<Bytes> flash;
        std::uint64_t erases;
    };
    std::vector<Met> met_;
};

const char *Chip(bool nand) { return nand ? "NAND" : "DataFlash"; }

void Predictor::warn(std::string id, std::string place, std::string text, std::string remedy) {
    const bool known = std::any_of(told_.hazards.begin(), told_.hazards.end(),
                                   [&](const BootHazard &hazard) { return hazard.id == id && hazard.place == place; });
    if (!known) told_.hazards.push_back({std::move(id), std::move(place), std::move(text), std::move(remedy)});
}

// --- the medium

// NAND delivers what it has, and erased flash for the rest; a DataFlash refuses what does not lie in the chip.
std::optional<Bytes> Predictor::read(std::uint32_t address, std::uint32_t length) {
    // Without a chip the NAND driver delivers what it delivers beyond a chip's end.
    if (nand_) return board_.chip_answers ? board_.flash.read(address, length) : Bytes(length, 0xFF);
    if (in_chip(address, length)) return board_.flash.read(address, length);
    say("\tAT91SAM926X_ReadDataflash : Failed with Error=1\n");
    return std::nullopt;
}

bool Predictor::write(std::uint32_t address, const Bytes &bytes) {
    if (!nand_ && !in_chip(address, static_cast<std::uint32_t>(bytes.size()))) {
        say("\tAT91SAM926X_WriteDataflash : Failed with Error=1\n");
        return false;
    }
    // Without a chip the NAND driver reports success all the same. The check of what was written then finds nothing.
    if (!board_.chip_answers || bytes.empty()) return true;
    const std::uint32_t unit = board_.flash.unit;
    erases_ += (address % unit + bytes.size() + unit - 1) / unit;
    board_.flash.write(address, bytes);
    return true;
}

// NAND is programmed in whole pages: the rest of the page becomes zeros, and the rest of the block is erased.
bool Predictor::write_short(std::uint32_t address, Bytes bytes) {
    constexpr std::size_t kNandPage = 2048;
    if (nand_) bytes.resize(kNandPage);
    return write(address, bytes);
}

bool Predictor::has_header(const Slot &slot) {
    const std::optional<Bytes> header = read(slot.address, kImageHeaderBytes);
    if (!header) {
        say(nand_ ? "\tNandFlash read header failed\n" : "\tSDFlash read header failed\n");
        return false;
    }
    const bool valid = HasMaker(*header);
    say(fmt::format("\t{} header at address 0x{:08x}\n", valid ? "Valid" : "Invalid", slot.address));
    return valid;
}

// The image at an address, where the bootloader's own check of it passes. The maker text does not count there.
std::optional<Bytes> Predictor::image_within(std::uint32_t address, std::uint32_t largest) {
    const std::optional<Bytes> header = read(address, kImageHeaderBytes);
    if (!header) return std::nullopt;
    const std::uint32_t size = SizeField(*header);
    if (size < kImageHeaderBytes || size > std::min(largest, kLargestStoredImage)) return std::nullopt;
    std::optional<Bytes> image = read(address, size + kReadAfter);
    if (!image) return std::nullopt;
    image->resize(size);
    return SumsFit(*image) ? image : std::nullopt;
}

// --- the first stage

void Predictor::tell_straps() {
    const char *fitted = board_.pins_12_13 && board_.pins_14_18 ? "the straps PB12-PB13 and PB14-PB18 are fitted"
                         : board_.pins_12_13                    ? "the strap PB12-PB13 is fitted"
                         : board_.pins_14_18                    ? "the strap PB14-PB18 is fitted"
                                                                : "no strap is fitted";
    tell("straps", "", fmt::format("{}: the board boots from {}", fitted, Chip(nand_)));
}

// The board's start-up reads the network settings before the bootloader looks at anything.
void Predictor::tell_network() {
    if (!board_.eeprom) return;
    const StoreReport store = ReadStore(*board_.eeprom);
    told_.network = NetworkOf(*board_.eeprom);
    if (!store.current) {
        tell("network", "EEPROM", fmt::format("{}: the board starts without network settings", store.why));
        warn("no-current-sector", "EEPROM", store.why, "set the network's parameters with eeprom set");
        return;
    }
    std::string settings;
    for (std::size_t n = 0; n < told_.network.size(); ++n)
        settings += fmt::format(", {} {}", kNetworkParameters[n].name,
                                told_.network[n] == 0 ? "missing" : AddressText(told_.network[n]));
    const int other = 1 - *store.current;
    tell("network", "EEPROM",
         fmt::format("sector {}, since {}{}{}", *store.current, store.why, settings,
                     store.sectors[other].empty() ? "" : fmt::format("; sector {} is cleaned", other)));
    for (const int sector : {0, 1})
        if (!store.sectors[sector].warning.empty())
            warn("store-warning", fmt::format("EEPROM sector {}", sector), store.sectors[sector].warning,
                 "eeprom show tells more");
}

// Starts the first good bootloader slot.
bool Predictor::first_stage() {
    std::optional<unsigned> chosen;
    for (unsigned n = 0; n < slots_.bootloader.size() && !chosen; ++n) {
        const Slot &slot = slots_.bootloader[n];
        const StoredImage image = ReadSlot(board_.flash.read, slot);
        if (image.verdict() != ImageVerdict::good) {
            tell("slot-passed-over", slot.name,
                 fmt::format("{}: the first stage passes it over", NameOf(image.verdict())));
            continue;
        }
        chosen = n;
        told_.slot = n;
        told_.version = board_.version_of ? board_.version_of(std::span(image.bytes).subspan(kImageHeaderBytes)) : "";
        tell("bootloader-starts", slot.name,
             fmt::format("good, {} bytes, {}: the first stage starts it", image.size,
                         told_.version.empty() ? "of no known build" : "version " + told_.version));
    }
    if (!chosen) {
        end(BootEnd::no_bootloader, fmt::format("no bootloader: neither slot of the {} holds a good one", Chip(nand_)));
        return false;
    }
    if (!told_.version.empty()) return true;
    end(BootEnd::unknown_bootloader,
        fmt::format("{} holds a bootloader that matches no known build", slots_.bootloader[*chosen].name));
    return false;
}

// --- the bootloader

Predictor::Went Predictor::bootloader() {
    // The flag lies in the bootloader's memory: every start clears it, and the banks of one start share it.
    rescue_found_ = false;
    for (const char *directory : kBankDirectories)
        if (const Went went = bank(directory); went != Went::on) return went;
    rescue();
    return Went::launched;
}

// Finds out what a bank holds and does with it what the bootloader would.
Predictor::Went Predictor::bank(const std::string &directory) {
    bank_ = directory;
    descriptor_ = {};
    for (std::optional<Listed> &file : files_) file.reset();
    if (!read_descriptor(directory)) return Went::on;
    if (!read_manifest(directory)) return Went::on;
    // Before the bank is asked for the other two: the board refreshes its rescue image even from a bank that it cannot
    // launch.
    if (rescue_found_) update_rescue();
    for (const FileRole role : {FileRole::bootloader, FileRole::application}) {
        if (files_[static_cast<std::size_t>(role)]) continue;
        tell("bank-incomplete", directory + kManifestName,
             fmt::format("no record for the {}: nothing is launched from this bank", NameOf(role)));
        return Went::on;
    }
    if (const Went went = update_bootloader(); went != Went::on) return went;
    return launch_application();
}

bool Predictor::read_descriptor(const std::string &directory) {
    const std::string path = directory + kDescriptorName;
    const auto reject = [&](const std::string &place, const std::string &why, const std::string &console) {
        tell("bank-rejected", place, why + ": the bank is passed over", console + kRejected);
        return false;
    };
    // Three reports without a break between them: the board asks for the size, reads from a file that it could not
    // open, and only then gives up.
    const auto not_opened = [](int error) {
        return fmt::format("FileSize failed with errno={}\tFatal Error : read file failed with errno=9", error);
    };
    const std::optional<fs::path> file = FindOnVolume(board_.volume, path);
    if (!file) return reject(directory, fmt::format("no {}", kDescriptorName), not_opened(ENOENT));
    try {
        const std::uintmax_t size = FileSize(*file);
        if (size >= kHeapBytes)
            return reject(path,
                          fmt::format("{} bytes; expected less than the {} of the bootloader's heap", size, kHeapBytes),
                          "\tFatal Error : read file failed with errno=12");
        if (size > kLargeDescriptor)
            warn("descriptor-large", path,
                 fmt::format("{} bytes: its tree may not fit the bootloader's heap of {}", size, kHeapBytes),
                 "shorten it to what bank build writes");
        descriptor_ = ReadDescriptor(ReadFile(*file, kHeapBytes));
    } catch (const Refusal &refusal) {
        return reject(path, refusal.problem().found, not_opened(EACCES));
    }
    return descriptor_.problem.empty() || reject(path, descriptor_.problem, "");
}

std::optional<Manifest> Predictor::manifest_in(const std::string &path) {
    const auto reject = [&](const std::string &why) {
        tell("bank-rejected", path, why + ": the bank is passed over");
        return std::nullopt;
    };
    const std::optional<fs::path> file = FindOnVolume(board_.volume, path);
    if (!file) return reject("no such file");
    try {
        // No limit: the board takes one record at a time, so no manifest is too long for it.
        Manifest manifest = ReadManifest(ReadFile(*file, UINTMAX_MAX));
        if (!manifest.has_headings) return reject("fewer than 564 bytes, the two records of headings");
        return manifest;
    } catch (const Refusal &refusal) {
        return reject(refusal.problem().found);
    }
}

bool Predictor::read_manifest(const std::string &directory) {
    const std::string path = directory + kManifestName;
    const std::optional<Manifest> manifest = manifest_in(path);
    if (!manifest) return false;
    for (const ManifestRecord &record : manifest->records) {
        // What earlier records have set stays set, rescue_found_ above all: the next bank's rescue step runs.
        if (record.rejects) {
            tell("bank-rejected", path,
                 fmt::format("offset {}: a path of 256 \"/\", \"\\\" and \".\": the bank is rejected here",
                             record.offset + 24));
            return false;
        }
        take_record(directory, record);
    }
    if (manifest->left_over > 0)
        tell("record-dropped", path,
             fmt::format("{} bytes after the last whole record of 282 are dropped", manifest->left_over));
    return true;
}

// A later record of a role takes the place of an earlier one.
void Predictor::take_record(const std::string &directory, const ManifestRecord &record) {
    const std::string path = directory + record.path;
    // A path that does not fit the bootloader's buffer is passed over, never cut off.
    if (path.size() > kLongestPath || record.path.find(kFileDirectory) == std::string::npos) return;
    const FileRole role = descriptor_.role_of(path);
    if (role == FileRole::none) return;
    files_[static_cast<std::size_t>(role)] = {path, record.size, record.sum};
    // Once a bank has listed one, every later bank's rescue step runs: with an empty record it stores nothing.
    if (role == FileRole::rescue) rescue_found_ = true;
}

// Why a file does not pass the check by size and byte-sum; empty where it does, with its content.
std::string Predictor::check_file(const Listed &file, Bytes &content) {
    FileCheck check = CheckFile(FindOnVolume(board_.volume, file.path), file.size, file.sum);
    // The board prints both with %i, so from 2 GiB on they come out negative.
    if (check.other_size)
        say(fmt::format("filesize check {} != {}\n", static_cast<std::int32_t>(file.size),
                        static_cast<std::int32_t>(*check.other_size)));
    content = std::move(check.content);
    return check.problem;
}

// Why a file is no stored image for the bootloader; empty where it is one, whatever its maker.
std::string Predictor::check_image(const Bytes &file) const {
    if (file.size() < kImageHeaderBytes) return fmt::format("{} bytes are no stored image", file.size());
    const std::uint32_t size = SizeField(file);
    if (size < kImageHeaderBytes || size > file.size())
        return fmt::format("its header says {} bytes, the file has {}", size, file.size());
    return SumsFit(file) ? "" : "its header's sums do not match its body";
}

// --- the rescue image

void Predictor::update_rescue() {
    const std::optional<Listed> &file = files_[static_cast<std::size_t>(FileRole::rescue)];
    const std::string version = file ? descriptor_.entries[static_cast<std::size_t>(FileRole::rescue)].version : "";
    const std::string place = file ? file->path : bank_;
    tell("rescue-step", place, "");
    const auto done = [&](const char *id, const std::string &text) {
        told_.steps.back().id = id;
        told_.steps.back().text = text;
    };
    const std::optional<Bytes> record = read(slots_.record.address, kVersionBytes);
    if (!record) return done("rescue-kept", "the version record cannot be read: the rescue image stays");
    if (std::equal(record->begin(), record->end(), std::begin(kMakerText)))
        return done("rescue-kept", "an image lies where the version record should be, read past a bad block: the "
                                   "rescue image stays");
    // Texts end at their terminators, so the rest of a stored field does not count.
    if (std::string(record->begin(), std::find(record->begin(), record->end(), 0)) == version)
        return done("rescue-kept", fmt::format("version \"{}\" is stored already", Printable(version)));
    if (!file) return done("rescue-none", "an earlier bank lists a rescue image, this one does not: nothing is stored");
    Bytes content;
    const std::string problem = check_file(*file, content);
    if (!problem.empty()) return done("rescue-kept", problem + ": the rescue image stays");
    const std::string failure = store_rescue(content, Field(version));
    say(failure.empty() ? "\tRescue image replaced successfully.\n" : "\tRescue image replace failed.\n");
    if (!failure.empty()) return done("rescue-fails", failure);
    done("rescue-stored", fmt::format("{} bytes, version \"{}\" in place of {}: stored in the rescue slot",
                                      SizeField(content), Printable(version), FieldText(*record)));
}

std::string Predictor::store_rescue(const Bytes &file, const Bytes &version) {
    if (std::string problem = check_image(file); !problem.empty()) return problem;
    const std::uint32_t size = SizeField(file);
    if (nand_ && size > slots_.rescue.capacity)
        return fmt::format("{} bytes; the slot takes {}", size, slots_.rescue.capacity);
    // Asked before a byte is written: an image that could never be checked must not cost the one that is there. The
    // board asks by a write of no bytes, hence the words of a failed write.
    if (!nand_ && !in_chip(slots_.rescue.address + size + kReadAfter, 0)) {
        say("\tAT91SAM926X_WriteDataflash : Failed with Error=1\n");
        return fmt::format("{} bytes, and {} read after them, reach beyond the chip's end", size, kReadAfter);
    }
    if (!write(slots_.rescue.address, {file.begin(), file.begin() + size})) return "the slot cannot be written";
    if (!image_within(slots_.rescue.address, kLargestStoredImage)) return "what was written does not read back";
    // The record comes last. Where power goes in between, it still names the old version, and the next start stores the
    // image again.
    if (!write_short(slots_.record.address, version)) return "the version record cannot be written";
    return "";
}

// --- the bootloader's own update

Predictor::Went Predictor::update_bootloader() {
    const Listed &file = *files_[static_cast<std::size_t>(FileRole::bootloader)];
    const std::string &version = descriptor_.entries[static_cast<std::size_t>(FileRole::bootloader)].version;
    // Kept: "bootlaoder", which is what the board prints.
    tell("bootloader-kept", file.path, fmt::format("version {} runs already", told_.version),
         fmt::format("Current bootlaoder is: {}\nBank bootloader is: {}\n", told_.version, version));
    if (version == told_.version) return Went::on;
    const auto done = [&](const char *id, const std::string &text) {
        told_.steps.back().id = id;
        told_.steps.back().text =
            fmt::format("the bank says version \"{}\", {} runs: {}", Printable(version), told_.version, text);
    };
    Bytes content;
    if (const std::string problem = check_file(file, content); !problem.empty()) {
        done("bootloader-refused", problem + "; the update is left out");
        say(fmt::format("\tValidate_File({}, {}, {}) Failed!!!", file.path, static_cast<std::int32_t>(file.sum),
                        static_cast<std::int32_t>(file.size)));
        return Went::on;
    }
    const std::string failure = store_bootloader(content);
    if (!failure.empty()) {
        done("bootloader-fails", failure);
        say("\tBootloader image replace failed.\n");
        return Went::on;
    }
    done("bootloader-stored", stored_);
    installs_.emplace_back(start_, fmt::format("{} installs {}", bank_, Printable(version)));
    return Went::reset;
}

// Writes the image where no good one lies and retires the other copy afterwards. Why not, or empty.
std::string Predictor::store_bootloader(const Bytes &file) {
    if (std::string problem = check_image(file); !problem.empty()) return problem;
    if (!HasMaker(file)) return "it has another maker's text; the first stage would not start it";
    const Bytes image(file.begin(), file.begin() + SizeField(file));
    const auto &slots = slots_.bootloader;
    int target = -1, kept = -1;
    for (const int n : {0, 1}) (has_header(slots[static_cast<unsigned>(n)]) ? kept : target) = n;
    // Two headers are what an update leaves that was cut before it retired the old copy. Now the whole images count.
    if (target < 0) {
        for (const int n : {0, 1}) {
            const Slot &slot = slots[static_cast<unsigned>(n)];
            (image_within(slot.address, slot.capacity) ? kept : target) = n;
        }
        if (target < 0) target = kept == 0 ? 1 : 0;
        // With both broken, slot 1 has been both. The slot about to be written is never the one to retire.
        if (target == kept) kept = 1 - target;
    }
    const Slot &slot = slots[static_cast<unsigned>(target)];
    // Kept: announced before the size is looked at, and on NAND boards alone.
    if (nand_) say(fmt::format("Placing new bootloader at {:08X}.\n", slot.address));
    if (image.size() > slot.capacity)
        return fmt::format("{} bytes; {} takes {}", image.size(), slot.name, slot.capacity);
    if (!write(slot.address, image)) return fmt::format("{} cannot be written", slot.name);
    if (nand_) say("Bootloader replaced.\n");
    if (!image_within(slot.address, slot.capacity))
        return fmt::format("what was written to {} does not read back", slot.name);
    stored_ = fmt::format("{} bytes are stored in {}", image.size(), slot.name);
    if (kept >= 0) {
        const Slot &old = slots[static_cast<unsigned>(kept)];
        const std::optional<Bytes> header = read(old.address, kImageHeaderBytes);
        if (!header) return fmt::format("{} cannot be read", old.name);
        // A slot without the maker text holds nothing that could be started, so nothing is written to it.
        if (HasMaker(*header)) {
            if (!write_short(old.address, Bytes(kImageHeaderBytes)))
                return fmt::format("{} cannot be retired", old.name);
            stored_ += fmt::format(", {} is retired", old.name);
        }
    }
    stored_ += ", and the board resets";
    return "";
}

// --- the launch

Predictor::Went Predictor::launch_application() {
    const Listed &file = *files_[static_cast<std::size_t>(FileRole::application)];
    tell("application-launched", file.path, "");
    Bytes content;
    std::string problem = check_file(file, content);
    // The board launches what the check has left in the load buffer; an empty file leaves another one's bytes there.
    if (problem.empty() && content.empty()) problem = "0 bytes; expected an application";
    if (!problem.empty()) {
        told_.steps.back().id = "application-rejected";
        told_.steps.back().text = problem + ": the next bank is tried";
        say(fmt::format("\tValidate_File({}, {}, {}) Failed!!!", file.path, static_cast<std::int32_t>(file.sum),
                        static_cast<std::int32_t>(file.size)));
        return Went::on;
    }
    told_.steps.back().text = fmt::format("{} bytes, byte-sum {}: as listed; it is launched", file.size, file.sum);
    told_.launched = file.path;
    told_.launched_bytes = file.size;
    told_.image = std::move(content);
    end(BootEnd::application, fmt::format("launches {} ({} bytes)", file.path, file.size));
    if (file.size > kLargestApplication)
        warn(
            "launch-marker-overlap", file.path,
            fmt::format("{} bytes: the launch marker is written over those from {} on", file.size, kLargestApplication),
            fmt::format("keep the application to {} bytes", kLargestApplication));
    if (HasMaker(told_.image))
        warn("application-wrapped", file.path,
             "it begins with a stored image's header: the first stage starts what "
             "follows the header",
             "put the application into the bank without a header");
    return Went::launched;
}

void Predictor::rescue() {
    tell("rescue-launched", slots_.rescue.name, "",
         "\tNo valid bank found...\n\tStart rescue app...\n\tFind valid rescue app...\n");
    std::optional<Bytes> image = image_within(slots_.rescue.address, kLargestStoredImage);
    if (!image) {
        // The image may be good and still be refused: the check reads 32 bytes after it, and a DataFlash may end before
        // them.
        const StoredImage found = ReadSlot(board_.flash.read, slots_.rescue);
        told_.steps.back().id = "nothing-launched";
        told_.steps.back().text =
            fmt::format("no bank launched, and the rescue slot holds no good image ({}): the board stops",
                        found.verdict() == ImageVerdict::good ? "out of the chip" : NameOf(found.verdict()));
        say("\tFatal Error : No valid application or bootloader in the filesystem\n");
        return end(BootEnd::nothing, "launches nothing: no bank is good, and there is no good rescue image");
    }
    say("\tRescue app found...\n\tResetting...\n");
    const auto size = static_cast<std::uint32_t>(image->size());
    told_.steps.back().text = fmt::format("no bank launched; {} bytes with the right sums: it is launched", size);
    told_.launched = kRescueName;
    told_.launched_bytes = size;
    told_.image = std::move(*image);
    end(BootEnd::rescue, fmt::format("falls back to the rescue image ({} bytes): no bank is good", size));
    if (!HasMaker(told_.image))
        warn("foreign-maker", slots_.rescue.name,
             "it has another maker's text: the first stage starts it at its header, not after it",
             "store a rescue image with this maker's header");
    if (size > kRescueFlush)
        warn("rescue-unflushed", slots_.rescue.name,
             fmt::format("{} bytes: only {} are written back from the cache before the reset, the rest may be lost",
                         size, kRescueFlush),
             fmt::format("keep the rescue image to {} bytes", kRescueFlush));
}

// --- going round

// A start depends on the raw slots and on files, and files do not change.
bool Predictor::met_before() {
    Met now{{}, erases_};
    for (const Slot &slot : {slots_.bootloader[0], slots_.bootloader[1], slots_.rescue})
        now.flash.push_back(board_.flash.read(slot.address, kImageHeaderBytes));
    now.flash.push_back(board_.flash.read(slots_.record.address, kVersionBytes));
    for (const Slot &slot : slots_.bootloader) {
        const StoredImage image = ReadSlot(board_.flash.read, slot);
        // The headers above do not tell whether what follows them is whole, and the choice of a slot depends on that.
        now.flash.push_back({static_cast<std::uint8_t>(image.verdict())});
    }
    const auto same =
        std::find_if(met_.begin(), met_.end(), [&](const Met &before) { return before.flash == now.flash; });
    const bool met = same != met_.end();
    const auto first = static_cast<std::size_t>(same - met_.begin());
    met_.push_back(std::move(now));
    if (met) loop_found(first);
    return met;
}

void Predictor::loop_found(std::size_t first) {
    told_.loop_resets = static_cast<unsigned>(met_.size() - 1 - first);
    told_.loop_erases = met_.back().erases - met_[first].erases;
    std::vector<std::string> installs;
    for (const auto &[start, text] : installs_)
        // Installs before the turn are how the board got into it, not what keeps it going round.
        if (start > first) installs.push_back(text);
    std::sort(installs.begin(), installs.end());
    installs.erase(std::unique(installs.begin(), installs.end()), installs.end());
    const std::string who = fmt::format("{}", fmt::join(installs, " and "));
    const bool fight = installs.size() > 1;
    end(BootEnd::loop, fmt::format("resets for ever: {}{}", who, fight ? "" : " at every start"));
    const auto times = [](std::uint64_t count, const char *what) {
        return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
    };
    warn(fight ? kBanksFight : kResetsForEver, who,
         fmt::format("each round takes {} and wears the chip by {}", times(told_.loop_resets, "reset"),
                     times(told_.loop_erases, nand_ ? "block erase" : "page erase")),
         fight ? "give both banks the same bootloader, or make the first bank's application good"
               : "let the bank's descriptor state the version that the bootloader has");
}

// --- what may come later

void Predictor::look_ahead() {
    if (board_.unstrapped_nand)
        warn("nand-without-strap", "NAND",
             "holds a bootloader, and no strap is fitted: the file system takes the whole chip, slots included, and "
             "may format it",
             "fit the strap before the board is started at all");
    for (const Problem &warning : ExamineFlash(board_.flash).warnings)
        warn(warning.id, warning.where.empty() ? Chip(nand_) : warning.where,
             Problem{"", "", warning.found, warning.expected}.text(), "flash info tells more");
    const bool has_rescue = ReadSlot(board_.flash.read, slots_.rescue).verdict() == ImageVerdict::good;
    if (told_.end == BootEnd::application && !has_rescue)
        warn("no-fallback", slots_.rescue.name, "no good rescue image: if the banks are lost, nothing is launched",
             "put a rescue image into the bank, or store one with flash write rescue");
}

Prediction Predictor::run() {
    tell_straps();
    tell_network();
    while (start_ < kMostStarts) {
        if (met_before()) break;
        ++start_;
        if (!first_stage()) break;
        if (bootloader() == Went::launched) break;
        ++told_.resets;
    }
    if (told_.reason.empty()) end(BootEnd::loop, fmt::format("resets more than {} times", kMostStarts));
    look_ahead();
    return std::move(told_);
}

} // namespace

const char *NameOf(BootEnd end) {
    constexpr const char *kNames[] = {"application",   "rescue", "nothing",
                                      "no bootloader", "loop",   "unknown bootloader"};
    return kNames[static_cast<unsigned>(end)];
}

Prediction PredictBoot(const BoardState &board) { return Predictor(board).run(); }

} // namespace fixture
