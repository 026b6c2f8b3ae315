// Semihosting calls of a hostile guest: it gets the volume's files and its own console, and nothing else of this
// machine.
#include "fixture/core/board_memory.h"
#include "fuzz/targets.h"
#include "machine/volume.h"

#include <algorithm>
#include <cstring>
#include <map>

namespace fixture {

namespace {

constexpr const char *kSecret = "what no guest may read";
constexpr const char *kContent = "what a guest may read";
const std::string kInside = "i:/vol0/guest/file";
constexpr std::uint32_t kFailure = 0xFFFFFFFF;
constexpr std::uint32_t kConsole = 0x7FFFFFFF;
constexpr std::uint32_t kBlock = kSdram + 0x100;  // of a call's words
constexpr std::uint32_t kName = kSdram + 0x200;   // of a path
constexpr std::uint32_t kBuffer = kSdram + 0x800; // of what is read
constexpr std::uint32_t kWindow = 0x1000;         // all of the guest's memory

// A file inside the volume, one beside it, and a link to that one.
const std::filesystem::path &GuestVolume() {
    static const std::filesystem::path directory = [] {
        ScratchFile("semihosting/volume/guest/file", AsBytes(kContent));
        const std::filesystem::path secret = ScratchFile("semihosting/secret", AsBytes(kSecret));
        std::filesystem::path volume = ModuleBoard::volume() / "semihosting/volume";
        std::filesystem::create_symlink(secret, volume / "guest/link");
        return volume;
    }();
    return directory;
}

std::string MakePath(Shape &shape) {
    if (shape.one_in(2)) return kInside;
    static const std::string kSecretFile = (ModuleBoard::volume() / "semihosting/secret").string();
    if (shape.one_in(4)) return shape.text(64);
    std::string path = shape.pick<std::string>({"i:/vol0/guest/link", "i:/vol0/../secret", "i:/vol0/guest/../../secret",
                                                kSecretFile, "i:/vol0" + kSecretFile, "i:/vol0/guest", "i:/vol0/guest/",
                                                "i:/vol0//guest//file", ":tt", ":file-server-fails", ""});
    return shape.one_in(8) ? path + shape.text(16) : path;
}

class Guest {
public:
    explicit Guest(Volume &volume) : server_(memory_, volume) {
        server_.console = [this](char c) { console_ += c; };
    }

    void call(Shape &shape) {
        enum : std::uint32_t { open = 1, close, writec, write0, write, read, is_tty = 9, length = 12, error = 0x13 };
        const std::uint32_t operation =
            shape.pick({1u, 6u, 6u, 6u, 1u, 2u, 12u, 5u, 3u, 4u, 9u, 10u, 0x13u, shape.below(256), shape.number()});
        const std::string path = operation == open ? MakePath(shape) : "";
        const std::uint32_t handle = shape.pick({1u, 1u, 1u, 2u, kConsole, 0u, kFailure, shape.number()});
        const std::uint32_t buffer = shape.pick({kBuffer, kBuffer, kBuffer, kSdram + kWindow - 4, shape.number()});
        const std::uint32_t bytes = shape.pick({shape.below(32), shape.below(32), 0x400u, shape.number()});
        std::uint32_t words[3] = {handle, buffer, bytes};
        if (operation == open) {
            std::copy_n(path.c_str(), path.size() + 1, at(kName));
            words[0] = shape.one_in(16) ? shape.number() : kName;
            words[1] = shape.below(12);
            words[2] = shape.one_in(8) ? shape.number() : static_cast<std::uint32_t>(path.size());
        }
        std::memcpy(at(kBlock), words, sizeof words);
        const bool strange = shape.one_in(16);
        const std::uint32_t parameter = strange ? shape.number() : kBlock;
        const Bytes before = window_;
        const std::size_t printed = console_.size();
        const std::uint32_t result = server_.call(operation, parameter);
        Require(console_.size() == printed || (operation >= writec && operation <= write), "printed by another call");
        if (operation == open && !strange && words[0] == kName && words[2] == path.size()) opened(path, result);
        if (operation == close && !strange && result == 0) positions_.erase(handle);
        if (operation == read && !strange)
            check_read(words, result, before);
        else
            Require(before == window_, "wrote to the guest's memory");
        if (operation == length && !strange && positions_.contains(handle))
            Require(result == std::string_view(kContent).size(), "another length");
        look_for_secret();
        if (strange) positions_.clear(); // whatever it did
    }

private:
    std::uint8_t *at(std::uint32_t address) { return window_.data() + (address - kSdram); }

    void opened(const std::string &path, std::uint32_t result) {
        if (path == kInside) Require(result != kFailure, "the volume's own file does not open");
        if (path == kInside) positions_[result] = 0;
    }

    void check_read(const std::uint32_t (&words)[3], std::uint32_t result, Bytes expected) {
        const auto [handle, buffer, bytes] = words;
        const auto position = positions_.find(handle);
        if (position == positions_.end()) return;
        const std::string_view rest = std::string_view(kContent).substr(position->second);
        const std::size_t room = memory_.from(buffer).size();
        const std::size_t count = std::min<std::uint64_t>({bytes, room, rest.size()});
        Require(result == bytes - count, "another count than was read");
        position->second += count;
        if (count > 0) std::copy_n(rest.begin(), count, expected.begin() + (buffer - kSdram));
        Require(expected == window_, "read something else");
    }

    void look_for_secret() {
        const std::string_view secret = kSecret;
        Require(std::search(window_.begin(), window_.end(), secret.begin(), secret.end()) == window_.end() &&
                    console_.find(secret) == std::string::npos,
                "a file beside the volume was read");
    }

    Bytes window_ = Bytes(kWindow, 0xA5);
    const Memory memory_{{{kSdram, window_}}};
    SemihostingServer server_;
    std::string console_;
    std::map<std::uint32_t, std::size_t> positions_; // of the volume's file, by handle
};

} // namespace

void FuzzSemihosting(std::span<const std::uint8_t> input) {
    Shape shape(input);
    Volume volume(GuestVolume());
    Guest guest(volume);
    for (unsigned calls = 1 + shape.below(24); calls > 0; --calls) guest.call(shape);
    if (shape.one_in(64)) { // opens without end, and this process still has files of its own
        int handle = 0;
        for (int i = 0; i < 1000 && handle >= 0; ++i) handle = volume.open(kInside, false);
        Require(handle < 0, "a guest takes every file of the process");
    }
    Require(AsText(ReadFile(GuestVolume() / "guest/file", 64)) == kContent, "a file was changed");
}

} // namespace fixture
