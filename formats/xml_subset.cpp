#include "formats/xml_subset.h"

#include <algorithm>
#include <optional>

namespace fixture {

namespace {

constexpr std::size_t kLongestTag = 255;         // of an element
constexpr std::size_t kLongestClosingTag = 1023; // of any tag passed in search of a closing one
constexpr std::size_t kElementBytes = 40;        // an element's record and the heap's own words, about

struct Tag {
    std::string_view text; // between the brackets
    std::size_t end;       // in the text searched, after the ">"
};

// The next tag from `from` on. A second "<" begins the tag again; none follows a "<" that ends the text.
std::optional<Tag> NextTag(std::string_view text, std::size_t from, std::size_t longest) {
    std::size_t open = text.find('<', from);
    if (open == text.npos) return std::nullopt;
    const std::size_t close = text.find('>', open);
    const std::string_view range = text.substr(0, close);
    while (true) {
        const std::size_t again = range.find('<', open + 1);
        // Too long counts up to the next "<" too: the reader's buffer is full before it comes there.
        if (std::min(again, range.size()) - open - 1 > longest) return std::nullopt;
        if (again == range.npos) break;
        open = again;
    }
    if (close == text.npos) return std::nullopt;
    return Tag{text.substr(open + 1, close - open - 1), close + 1};
}

bool IsClosing(std::string_view tag) { return tag.starts_with('/') && !tag.ends_with('/'); }
bool IsDeclaration(std::string_view tag) { return tag.starts_with('?') && tag.ends_with('?'); }
bool IsEmpty(std::string_view tag) { return !tag.starts_with('/') && !IsDeclaration(tag) && tag.ends_with('/'); }
bool OpensElement(std::string_view tag) { return !tag.starts_with('/') && !IsDeclaration(tag); }

std::optional<Tag> ClosingTag(std::string_view text, std::size_t from, std::string_view name) {
    while (const std::optional<Tag> tag = NextTag(text, from, kLongestClosingTag)) {
        if (IsClosing(tag->text) && tag->text.substr(1) == name) return tag;
        from = tag->end;
    }
    return std::nullopt;
}

} // namespace

XmlSubset::XmlSubset(std::string_view text) {
    parse(text, nullptr);
    for (std::size_t i = 0; i < elements_.size() && !exhausts_heap(); ++i) parse(elements_[i].value, &elements_[i]);
}

void XmlSubset::parse(std::string_view text, const Element *parent) {
    std::size_t at = 0;
    while (const std::optional<Tag> tag = NextTag(text, at, kLongestTag)) {
        at = tag->end;
        if (!OpensElement(tag->text)) continue;
        std::string_view value;
        if (!IsEmpty(tag->text)) {
            const std::optional<Tag> closing = ClosingTag(text, at, tag->text);
            if (!closing) return;                  // what is left of the level is dropped
            constexpr std::size_t kAroundName = 3; // "</" and ">"
            value = text.substr(at, closing->end - tag->text.size() - kAroundName - at);
            at = closing->end;
        }
        elements_.push_back({tag->text, value, parent});
        copied_ += tag->text.size() + value.size() + kElementBytes;
        if (exhausts_heap()) return;
    }
}

const XmlSubset::Element *XmlSubset::find(std::string_view parent, std::string_view name) const {
    const Element *first = nullptr;
    for (const Element &element : elements_)
        if (element.parent && element.parent->name.starts_with(parent) && element.name.starts_with(name) &&
            (!first || element.name.data() < first->name.data()))
            first = &element;
    return first;
}

} // namespace fixture
