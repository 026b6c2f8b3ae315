#include "formats/refusal.h"

#include <cstdint>
#include <fmt/format.h>

namespace fixture {

namespace {

// The length of the UTF-8 character that begins `text`, and the character; 0 for what is none.
std::size_t Decode(std::string_view text, std::uint32_t &character) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned first = byte(0);
    // 0x80 to 0xBF only continue a character; 0xC0 and 0xC1 could only begin one that is longer than need be.
    const std::size_t length = first < 0x80 ? 1 : first < 0xC2 ? 0 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (length == 0 || first > 0xF4 || text.size() < length) return 0;
    character = length == 1 ? first : first & (0xFFu >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0u) != 0x80) return 0;
        character = character << 6 | (byte(i) & 0x3Fu);
    }
    // A longer form than needed would be a second spelling, one that no filter looks for.
    constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
    return character < kSmallest[length] || character > 0x10FFFF || surrogate ? 0 : length;
}

// What a terminal shows as one thing and does nothing else with: no controls, no marks of direction, no line breaks.
bool Harmless(std::uint32_t character) {
    const auto within = [=](std::uint32_t first, std::uint32_t last) {
        return character >= first && character <= last;
    };
    // Left out: controls, joiners and marks of direction, line separators and embeddings, invisible operators, the
    // byte-order mark and the Arabic letter mark.
    return character >= 0x20 && !within(0x7F, 0x9F) && !within(0x200B, 0x200F) && !within(0x2028, 0x202E) &&
           !within(0x2060, 0x206F) && character != 0xFEFF && character != 0x061C;
}

std::string Sanitized(std::string_view text, bool double_backslashes) {
    std::string result;
    while (!text.empty()) {
        std::uint32_t character = 0;
        const std::size_t length = Decode(text, character);
        const std::size_t taken = length == 0 ? 1 : length;
        if (double_backslashes && text[0] == '\\')
            result += "\\\\";
        else if (length != 0 && Harmless(character))
            result += text.substr(0, taken);
        else
            for (const char c : text.substr(0, taken))
                result += fmt::format("\\x{:02X}", static_cast<unsigned char>(c));
        text.remove_prefix(taken);
    }
    return result;
}

} // namespace

std::string Printable(std::string_view text) { return Sanitized(text, false); }
std::string Escaped(std::string_view text) { return Sanitized(text, true); }

std::string Problem::text() const {
    std::string line = where;
    if (!line.empty() && !found.empty()) line += ": ";
    line += found;
    if (!expected.empty()) line += "; expected " + expected;
    return Printable(line);
}

Refusal::Refusal(Fault fault, Problem problem)
    : std::runtime_error(problem.text()), fault_(fault), problem_(std::move(problem)) {}

Refusal::Refusal(const std::filesystem::path &file, std::string_view found, std::string_view expected,
                 std::string_view id)
    : Refusal(Fault::content, {std::string(id), file.string(), std::string(found), std::string(expected)}) {}

} // namespace fixture
