// The small part of XML that project descriptors are written in, read as the bootloader reads it: tags, empty elements
// and declarations; no attributes, no comments, no entities. An element ends at the first closing tag of its name.
//
// This is a second reader on purpose: what `bank check` foretells must not come from the code that it foretells.
//
//   const XmlSubset document(text);
//   if (const auto *version = document.find("MainApplication", "Version")) fmt::print("{}\n", version->value);
#pragma once

#include <cstddef>
#include <deque>
#include <string_view>

namespace fixture {

class XmlSubset {
public:
    struct Element {
        std::string_view name;
        std::string_view value; // everything between the tags; empty for an empty element
        const Element *parent;  // null at the top level
    };

    // `text` outlives the document.
    explicit XmlSubset(std::string_view text);

    bool empty() const { return elements_.empty(); }
    // The bootloader copies every name and value into its heap of 4 MiB. A document that nests beyond that is cut by
    // both readers, but not at the same place.
    bool exhausts_heap() const { return copied_ > kHeap; }
    // The first element of the document whose name begins with `name`, in an element whose name begins with `parent`.
    const Element *find(std::string_view parent, std::string_view name) const;

private:
    static constexpr std::size_t kHeap = 4u << 20;
    void parse(std::string_view text, const Element *parent);

    std::deque<Element> elements_; // level by level; their places in the text give the order
    std::size_t copied_ = 0;
};

} // namespace fixture
