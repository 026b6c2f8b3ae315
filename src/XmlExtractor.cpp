#include "XmlExtractor.h"

#include <cstring>

namespace {

constexpr std::int32_t kTagCapacity = 256;
constexpr std::int32_t kClosingTagCapacity = 1024;
constexpr std::int32_t kClosingTagExtra = 3; // "</" and ">"

struct Slice {
    const char *bytes;
    std::int32_t length;
};

// The children of one element while they are made.
struct SiblingList {
    XmlElement *parent;
    XmlElement *last;
};

bool HasContent(const XmlElement *element) { return element->value != nullptr && element->value_length > 0; }

bool Append(SiblingList *list, Slice name, Slice value) {
    XmlElement *element = list->last == nullptr
                              ? XmlElement_CreateChild(list->parent, name.bytes, name.length, value.bytes, value.length)
                              : XmlElement_CreateNext(list->last, name.bytes, name.length, value.bytes, value.length);
    if (element == nullptr) return false;
    list->last = element;
    return true;
}

// Appends the element whose tag ends before `position`. Returns the position after the whole element; -1 ends the
// level.
std::int32_t AppendElement(SiblingList *list, Slice text, Slice tag, std::int32_t position, int type) {
    if (type == kXmlEmpty) return Append(list, tag, {nullptr, 0}) ? position : -1;
    const std::int32_t end = XmlExtractor_FindEndToken(text.bytes, text.length, position, tag.bytes, tag.length);
    if (end == -1) return -1;
    const Slice value{text.bytes + position, end - tag.length - kClosingTagExtra - position};
    return Append(list, tag, value) ? end : -1;
}

// Appends the elements of one text, without their contents' own.
void ParseLevel(SiblingList *list, Slice text) {
    char tag[kTagCapacity];
    std::int32_t position = 0;
    while (position != -1) {
        std::int32_t length = kTagCapacity;
        position = XmlExtractor_FindNextToken(text.bytes, text.length, position, tag, &length);
        if (position == -1) return;
        const int type = XmlExtractor_GetTokenType(tag, length);
        if (type == kXmlOpening || type == kXmlEmpty)
            position = AppendElement(list, text, {tag, length}, position, type);
    }
}

// Parses the content of `element`. Returns the first of the elements made, or null.
XmlElement *ParseContent(XmlElement *element) {
    if (!HasContent(element)) return nullptr;
    XmlElement *last = element->child != nullptr ? XmlExtractor_GotoEndOfNextList(element->child) : nullptr;
    SiblingList list{element, last};
    ParseLevel(&list, {element->value, element->value_length});
    return last != nullptr ? last->next : element->child;
}

// The element after `element` and all below it, in document order; null after the last one below `top`.
XmlElement *Following(XmlElement *element, const XmlElement *top) {
    while (element != top && element->next == nullptr) element = element->parent;
    return element != top ? element->next : nullptr;
}

} // namespace

int XmlExtractor_Parse(XmlElement *element) {
    XmlElement *const first = ParseContent(element);
    // A file chooses how deep its elements nest: go on level by level along the tree's own links.
    XmlElement *current = first;
    while (current != nullptr) {
        XmlElement *const child = ParseContent(current);
        current = child != nullptr ? child : Following(current, element);
    }
    return first != nullptr;
}

std::int32_t XmlExtractor_FindNextToken(const char *buffer, std::int32_t buffer_length, std::int32_t position,
                                        char *token, std::int32_t *token_length) {
    if (position < 0) return -1;
    bool inside = false;
    std::int32_t count = 0;
    for (; position < buffer_length; ++position) {
        const char byte = buffer[position];
        if (byte == '<') {
            if (!inside && position + 1 >= buffer_length) return -1;
            inside = true;
            count = 0;
        } else if (inside && byte == '>') {
            *token_length = count;
            return position + 1;
        } else if (inside) {
            if (count + 1 >= *token_length) return -1;
            token[count++] = byte;
        }
    }
    return -1;
}

std::int32_t XmlExtractor_FindEndToken(const char *buffer, std::int32_t buffer_length, std::int32_t position,
                                       const char *name, std::int32_t name_length) {
    char token[kClosingTagCapacity];
    while (position != -1) {
        std::int32_t length = kClosingTagCapacity;
        position = XmlExtractor_FindNextToken(buffer, buffer_length, position, token, &length);
        if (position == -1) return -1;
        if (XmlExtractor_GetTokenType(token, length) == kXmlClosing && length - 1 == name_length &&
            std::memcmp(token + 1, name, static_cast<std::size_t>(name_length)) == 0)
            return position;
    }
    return -1;
}

int XmlExtractor_GetTokenType(const char *token, std::int32_t length) {
    if (length <= 0) return kXmlOpening;
    const char first = token[0];
    const char last = token[length - 1];
    if (first == '/') return last == '/' ? kXmlMalformed : kXmlClosing;
    if (first == '?' && last == '?') return kXmlDeclaration;
    return last == '/' ? kXmlEmpty : kXmlOpening;
}

XmlElement *XmlExtractor_GotoEndOfNextList(XmlElement *element) {
    while (element->next != nullptr) element = element->next;
    return element;
}
