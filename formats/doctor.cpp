#include "formats/doctor.h"

#include "formats/slot_store.h"
#include "formats/stored_image.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <fmt/format.h>

namespace fixture {

namespace {

// K9F2G08U0M: the data bytes of a page, which one program operation takes.
constexpr std::uint32_t kNandPage = 2048;

// A page of the chip as far as it belongs to an image.
struct Piece {
    std::uint32_t offset; // in the image
    std::uint32_t length;
    std::uint32_t address; // on the chip
};

// The pages that an image of `length` bytes takes from a slot's start on, in the order in which they are written.
std::vector<Piece> PiecesOf(const RawFlash &flash, const Slot &slot, std::uint32_t length) {
    const bool nand = flash.medium == Medium::nand;
    const std::uint32_t page = nand ? kNandPage : flash.unit;
    std::vector<Piece> pieces;
    std::uint32_t address = slot.address;
    for (std::uint32_t offset = 0; offset < length && address < flash.bytes;) {
        // The driver leaves out bad blocks and goes on with the next, so a slot's image may end later than its length
        // says.
        if (nand && address % flash.unit == 0 && flash.is_bad(address / flash.unit)) {
            address += flash.unit;
            continue;
        }
        // A DataFlash slot may begin within a page, so the first piece may be short.
        const std::uint32_t part = std::min(page - address % page, length - offset);
        pieces.push_back({offset, part, address});
        offset += part;
        address += part;
    }
    return pieces;
}

using Span = std::span<const std::uint8_t>;

bool IsAll(Span bytes, std::uint8_t value) {
    return std::all_of(bytes.begin(), bytes.end(), [value](std::uint8_t byte) { return byte == value; });
}

Span Part(Span bytes, const Piece &piece) {
    if (piece.offset >= bytes.size()) return {};
    return bytes.subspan(piece.offset, std::min<std::size_t>(piece.length, bytes.size() - piece.offset));
}

bool Same(Span one, Span other) { return std::equal(one.begin(), one.end(), other.begin(), other.end()); }

// How a slot's content compares with one reference, page by page.
struct Match {
    std::size_t reference = 0;
    std::vector<Piece> pieces;
    std::vector<bool> equal;
    std::size_t prefix = 0; // pages from the first on that are equal
    std::size_t count = 0;  // equal ones that hold something
};

class SlotDoctor {
public:
    SlotDoctor(const RawFlash &flash, const Slot &slot, FileRole role, const std::vector<ReferenceImage> &references)
        : flash_(flash), slot_(slot), role_(role), references_(references) {
        found_.slot = slot;
    }

    SlotDiagnosis diagnose();

private:
    Match match(std::size_t reference) const;
    std::optional<Match> best() const;
    bool tells_apart(const Match &match, std::size_t piece) const;
    bool was_cut(const Match &match) const;
    void judge(const Match &match);
    void judge_without_reference(const StoredImage &image);
    void note_damages(const Match &match);
    const std::string &name_of(std::size_t reference) const { return references_[reference].name; }

    const RawFlash &flash_;
    const Slot slot_;
    const FileRole role_;
    const std::vector<ReferenceImage> &references_;
    Bytes content_;
    SlotDiagnosis found_;
};

Match SlotDoctor::match(std::size_t reference) const {
    Match match;
    match.reference = reference;
    const Bytes &image = references_[reference].image;
    match.pieces = PiecesOf(flash_, slot_, static_cast<std::uint32_t>(image.size()));
    for (const Piece &piece : match.pieces) {
        const Span part = Part(image, piece);
        const bool equal = Same(Part(content_, piece), part);
        if (equal && match.prefix == match.equal.size()) ++match.prefix;
        // Erased pages are alike in any image and in an empty slot: they speak for no reference.
        match.count += equal && !IsAll(part, 0xFF);
        match.equal.push_back(equal);
    }
    return match;
}

// What was written last begins at the first page. Without that, the image of which most is left.
std::optional<Match> SlotDoctor::best() const {
    std::optional<Match> best;
    for (std::size_t n = 0; n < references_.size(); ++n) {
        // An update refuses an image that is larger than its slot, so such a one was never here.
        if (references_[n].role != role_ || references_[n].image.size() > slot_.capacity) continue;
        Match match = this->match(n);
        if (match.count == 0) continue;
        const auto rank = [](const Match &m) { return std::pair{m.prefix, m.count}; };
        if (!best || rank(match) > rank(*best)) best = std::move(match);
    }
    return best;
}

// Whether a page is this image's alone: builds have pages in common.
bool SlotDoctor::tells_apart(const Match &match, std::size_t piece) const {
    const Span part = Part(references_[match.reference].image, match.pieces[piece]);
    for (std::size_t n = 0; n < references_.size(); ++n)
        if (n != match.reference && references_[n].role == role_ &&
            Same(Part(references_[n].image, match.pieces[piece]), part))
            return false;
    return true;
}

// An update writes page after page: after the one at which it was cut lies what was there before.
bool SlotDoctor::was_cut(const Match &match) const {
    std::size_t pages = 0, equal = 0;
    // The page of the cut itself is left out: it may hold anything.
    for (std::size_t n = match.prefix + 1; n < match.pieces.size(); ++n) {
        if (!tells_apart(match, n)) continue;
        ++pages;
        equal += match.equal[n];
    }
    // Two builds may be the same in all that follows: then nothing there speaks against a cut.
    // Most pages after a cut belong to what was there before. Decay leaves most of them as they should be.
    return pages == 0 || 2 * equal < pages || match.prefix + 1 == match.pieces.size();
}

void SlotDoctor::note_damages(const Match &match) {
    const Bytes &image = references_[match.reference].image;
    for (std::size_t n = 0; n < match.pieces.size(); ++n) {
        if (match.equal[n]) continue;
        ++found_.damaged_pages;
        // The list is for people. The count goes on: it tells a flipped bit from a lost slot.
        if (found_.damages.size() == kMostDamages) continue;
        const Piece &piece = match.pieces[n];
        const Span is = Part(content_, piece), should = Part(image, piece);
        std::size_t bits = 0, first = should.size();
        for (std::size_t at = 0; at < should.size(); ++at) {
            const unsigned wrong = static_cast<unsigned>(is[at] ^ should[at]);
            bits += static_cast<std::size_t>(std::popcount(wrong));
            if (wrong != 0) first = std::min(first, at);
        }
        const std::string text =
            IsAll(is, 0xFF) ? "erased"
                            : fmt::format("{} bit{} wrong, first in byte 0x{:X}: 0x{:02X} found, 0x{:02X} expected",
                                          bits, bits == 1 ? "" : "s", first, is[first], should[first]);
        found_.damages.push_back({static_cast<std::uint32_t>(n), piece.address, piece.address / flash_.unit, text});
    }
}

void SlotDoctor::judge(const Match &match) {
    const Bytes &image = references_[match.reference].image;
    const std::string &name = name_of(match.reference);
    found_.reference = match.reference;
    found_.pages = static_cast<std::uint32_t>(match.pieces.size());
    const Span header = Span(content_).first(kImageHeaderBytes);
    const Span first = Part(content_, match.pieces[0]);
    // On NAND the cleared header takes its block with it, on a DataFlash its 32 bytes alone.
    const bool cleared = flash_.medium == Medium::nand
                             ? IsAll(first, 0)
                             : IsAll(header, 0) && Same(first.subspan(kImageHeaderBytes),
                                                        Part(image, match.pieces[0]).subspan(kImageHeaderBytes));
    if (cleared && role_ == FileRole::bootloader) {
        found_.condition = SlotCondition::retired;
        found_.holds = fmt::format("{}, retired: its header is cleared", name);
        return;
    }
    // Not even the first page is right. On NAND its block is erased first, so a cut in either operation leaves none. On
    // a DataFlash the slot shares its first page with what lies before it, so the page is rewritten by one command with
    // a built-in erase (83h): torn, it may look decayed, and only an erased one is a sure sign of a cut. What else
    // speaks for a cut is for BoardDoctor::tell_cut_from_decay().
    if (match.prefix > 0 ? was_cut(match) : flash_.medium == Medium::nand || IsAll(first, 0xFF)) {
        found_.condition = SlotCondition::cut;
        found_.cut_page = static_cast<std::uint32_t>(match.prefix);
        found_.holds = match.prefix > 0
                           ? fmt::format("the first {} of {} pages of {}", match.prefix, found_.pages, name)
                           : fmt::format("no first page, and remains of {}", name);
        return;
    }
    found_.condition = SlotCondition::damaged;
    note_damages(match);
    found_.holds = fmt::format("{} with {} of {} pages damaged", name, found_.damaged_pages, found_.pages);
}

void SlotDoctor::judge_without_reference(const StoredImage &image) {
    const bool all_zero = IsAll(Span(content_).first(kImageHeaderBytes), 0);
    if (IsAll(content_, 0xFF)) {
        found_.condition = SlotCondition::erased;
        found_.holds = "nothing";
        // Bootloaders alone: a rescue image is replaced in place, and nothing ever clears its header.
    } else if (all_zero && role_ == FileRole::bootloader) {
        found_.condition = SlotCondition::retired;
        found_.holds = "a retired bootloader; nobody can tell which";
    } else if (image.verdict() == ImageVerdict::bad_sums) {
        // Nothing says what belongs here, but an update writes page after page: the first erased one is where it
        // stopped.
        const std::vector<Piece> pieces = PiecesOf(flash_, slot_, image.size);
        found_.pages = static_cast<std::uint32_t>(pieces.size());
        const auto blank =
            std::find_if(pieces.begin(), pieces.end(), [&](const Piece &p) { return IsAll(Part(content_, p), 0xFF); });
        found_.holds = fmt::format("an image of {} bytes with wrong sums", image.size);
        if (blank == pieces.end()) return;
        found_.condition = SlotCondition::cut;
        found_.cut_page = static_cast<std::uint32_t>(blank - pieces.begin());
        found_.holds += fmt::format(", erased from page {} of {} on", *found_.cut_page, found_.pages);
    } else {
        found_.holds = fmt::format("no image ({})", NameOf(image.verdict()));
        // A slot is written from its first page on: with erased flash alone after that, the writing ended in it.
        const std::vector<Piece> pieces = PiecesOf(flash_, slot_, slot_.capacity);
        if (pieces.empty() || !IsAll(Span(content_).subspan(pieces.front().length), 0xFF)) return;
        found_.condition = SlotCondition::cut;
        found_.cut_page = 0;
        found_.holds = "part of a first page, and nothing after it";
    }
}

SlotDiagnosis SlotDoctor::diagnose() {
    const StoredImage image = ReadSlot(flash_.read, slot_);
    if (image.verdict() == ImageVerdict::good) {
        found_.condition = SlotCondition::good;
        for (std::size_t n = 0; n < references_.size() && !found_.reference; ++n)
            if (references_[n].role == role_ && references_[n].image == image.bytes) found_.reference = n;
        found_.holds =
            fmt::format("{}, {} bytes", found_.reference ? name_of(*found_.reference) : "a good image", image.size);
        return found_;
    }
    // Read only now: a good slot, by far the usual one, needs no comparison of megabytes with every reference.
    content_ = flash_.read(slot_.address, slot_.capacity);
    // A NAND's read goes on past bad blocks: what comes after the slot's room is the next slot's.
    if (flash_.medium == Medium::nand)
        std::fill(content_.begin() + RoomIn(flash_, slot_), content_.end(), std::uint8_t{0xFF});
    if (const std::optional<Match> match = best())
        judge(*match);
    else
        judge_without_reference(image);
    return found_;
}

// --- the board as a whole

class BoardDoctor {
public:
    BoardDoctor(const RawFlash &flash, const std::vector<ReferenceImage> &references)
        : flash_(flash), references_(references), slots_(SlotsOn(flash)) {}

    FlashDiagnosis diagnose();

private:
    void tell_cut_from_decay();
    void tell_bootloaders();
    void tell_rescue();
    void mend_bootloaders();
    void mend_rescue();
    void erase(const SlotDiagnosis &slot, const std::string &text);
    void write(const SlotDiagnosis &slot);
    void tell(std::string text) { found_.history.push_back(std::move(text)); }
    std::string cut_text(const SlotDiagnosis &slot, const char *what) const;

    const RawFlash &flash_;
    const std::vector<ReferenceImage> &references_;
    const std::array<Slot, 3> slots_;
    FlashDiagnosis found_;
};

std::string BoardDoctor::cut_text(const SlotDiagnosis &slot, const char *what) const {
    assert(slot.cut_page && "asked of slots that were cut");
    const bool nand = flash_.medium == Medium::nand;
    const bool erased = IsAll(flash_.read(slot.slot.address, kImageHeaderBytes), 0xFF);
    if (*slot.cut_page == 0 && (!nand || !erased))
        return fmt::format("{} cut at the first page of {}{}", what, slot.slot.name,
                           slot.reference && slot.slot.address != slots_[2].address
                               ? ", or power went while its old copy was retired"
                               : "");
    // Both begin by erasing the first page, so what is left does not tell which it was.
    if (*slot.cut_page == 0)
        return fmt::format("power went while {} was erased: before an update's first page, or while its old copy was "
                           "retired",
                           slot.slot.name);
    const std::string name = slot.reference ? " to " + references_[*slot.reference].name : "";
    return fmt::format("{}{} cut at page {} of {} of {}", what, name, *slot.cut_page + 1, slot.pages, slot.slot.name);
}

// A first page of a DataFlash that is neither right nor erased may be torn or decayed. Beside a good copy a slot is
// at rest only while it is erased or retired, so remains of an image there are what an update was writing over.
void BoardDoctor::tell_cut_from_decay() {
    if (flash_.medium == Medium::nand) return;
    for (const unsigned n : {0u, 1u}) {
        SlotDiagnosis &slot = found_.slots[n];
        if (slot.condition != SlotCondition::damaged || found_.slots[1 - n].condition != SlotCondition::good) continue;
        if (slot.damages.front().page != 0) continue;
        slot.condition = SlotCondition::cut;
        slot.cut_page = 0;
        slot.holds = fmt::format("part of a first page, and remains of {}", references_[*slot.reference].name);
    }
}

void BoardDoctor::tell_bootloaders() {
    const std::string whole = found_.running
                                  ? fmt::format("the running copy, {}, is whole", found_.slots[*found_.running].holds)
                                  : "no other copy is whole: the board is dead";
    for (const unsigned n : {0u, 1u}) {
        const SlotDiagnosis &slot = found_.slots[n];
        if (slot.condition == SlotCondition::cut) tell(cut_text(slot, "update") + "; " + whole);
        if (slot.condition == SlotCondition::retired)
            tell(fmt::format("{} was retired after an update was stored and checked", slot.slot.name));
        if (slot.condition == SlotCondition::damaged)
            tell(fmt::format("{}: a power cut rarely leaves such pages; cells have decayed or were overwritten; {}",
                             slot.slot.name, whole));
    }
    if (found_.slots[0].condition == SlotCondition::good && found_.slots[1].condition == SlotCondition::good)
        tell("both copies are good: an update was cut after the new one was checked, before the old one was retired");
}

void BoardDoctor::tell_rescue() {
    const SlotDiagnosis &slot = found_.slots[2];
    if (slot.condition == SlotCondition::cut) tell(cut_text(slot, "rescue update"));
    if (slot.condition == SlotCondition::damaged)
        tell("rescue: a power cut rarely leaves such pages; cells have decayed or were overwritten");
}

std::string Verb(const Slot &slot) {
    std::string name = slot.name;
    name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
    return name;
}

void BoardDoctor::erase(const SlotDiagnosis &slot, const std::string &text) {
    // The slot goes into the repair by value, since a repair outlives the doctor.
    found_.repairs.push_back({"erase", slot.slot.name, text, "flash erase " + Verb(slot.slot),
                              [slot = slot.slot](const RawFlash &flash) { EraseSlot(flash, slot); }});
}

void BoardDoctor::write(const SlotDiagnosis &slot) {
    assert(slot.reference && "only what is known can be written");
    const ReferenceImage &reference = references_[*slot.reference];
    found_.repairs.push_back(
        {"write", slot.slot.name, fmt::format("write {} again", reference.name),
         "flash write " + Verb(slot.slot) + " --image " + reference.file,
         [slot = slot.slot, image = reference.image](const RawFlash &flash) { StoreInSlot(flash, slot, image); }});
}

// With a copy that runs, what is broken goes, and the next update writes it anew. Without one, the copy that can be
// made whole is: rather a damaged one than one that was cut, rather that than a retired one.
void BoardDoctor::mend_bootloaders() {
    const auto is = [&](unsigned n, SlotCondition condition) { return found_.slots[n].condition == condition; };
    if (found_.running) {
        for (const unsigned n : {0u, 1u})
            if (is(n, SlotCondition::cut) || is(n, SlotCondition::damaged) || is(n, SlotCondition::unknown))
                erase(found_.slots[n], "erase what is broken; the next update is stored there");
        return;
    }
    for (const SlotCondition condition : {SlotCondition::damaged, SlotCondition::cut, SlotCondition::retired})
        for (const unsigned n : {0u, 1u})
            if (is(n, condition) && found_.slots[n].reference) return write(found_.slots[n]);
}

void BoardDoctor::mend_rescue() {
    const SlotDiagnosis &slot = found_.slots[2];
    if (slot.condition == SlotCondition::good || slot.condition == SlotCondition::erased) return;
    // With the image at hand the slot is whole again at once, and no bank is needed.
    if (slot.reference) return write(slot);
    if (found_.record.empty()) return erase(slot, "erase what is broken; the next bank with a rescue image stores it");
    // A board stores a rescue image only where the record names another version. Without the record any bank's will do.
    const Slot record = SlotsOf(flash_.medium).record;
    found_.repairs.push_back({"erase", record.name,
                              fmt::format("erase the version record: a bank whose rescue image is \"{}\" too would not "
                                          "store it again",
                                          found_.record),
                              "flash erase record", [](const RawFlash &flash) { EraseRecord(flash); }});
}

FlashDiagnosis BoardDoctor::diagnose() {
    const FlashReport report = ExamineFlash(flash_);
    found_ = {flash_.medium, flash_.bad_blocks, {}, report.record, report.first_stage, {}, {}};
    for (const unsigned n : {0u, 1u, 2u})
        found_.slots.push_back(
            SlotDoctor(flash_, slots_[n], n == 2 ? FileRole::rescue : FileRole::bootloader, references_).diagnose());
    tell_cut_from_decay();
    tell_bootloaders();
    tell_rescue();
    if (!found_.running && found_.history.empty()) tell("no bootloader was ever stored, or all was erased");
    mend_bootloaders();
    mend_rescue();
    return std::move(found_);
}

} // namespace

const char *NameOf(SlotCondition condition) {
    constexpr const char *kNames[] = {"erased", "good", "retired", "cut", "damaged", "unknown"};
    return kNames[static_cast<unsigned>(condition)];
}

FlashDiagnosis DiagnoseFlash(const RawFlash &flash, const std::vector<ReferenceImage> &references) {
    return BoardDoctor(flash, references).diagnose();
}

StoreDiagnosis DiagnoseStore(const EepromBytes &chip) {
    StoreDiagnosis found{ReadStore(chip), "", {}};
    const auto &sectors = found.store.sectors;
    if (!found.store.current) {
        // A commit writes one sector and leaves the other alone until its image is whole.
        const bool blank = sectors[0].empty() && sectors[1].empty();
        found.history = blank ? "no parameters were ever stored" : "both sectors are lost: no power cut leaves that";
        return found;
    }
    const int other = 1 - *found.store.current;
    if (sectors[other].empty()) return found;
    found.clean = other;
    found.history =
        sectors[other].good
            ? fmt::format("a commit was cut after its image was written, and before sector {} was cleared", other)
            : fmt::format("a commit to sector {} was cut; sector {} is whole", other, *found.store.current);
    return found;
}

// The six bytes of the header, as the bootloader's own cleaning leaves them; the records stay and count for nothing.
void CleanSector(EepromBytes &chip, int sector) { PlaceStoreImage(chip, sector, Bytes(6, 0xFF)); }

} // namespace fixture
