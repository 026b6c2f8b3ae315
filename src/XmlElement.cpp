#include "XmlElement.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

enum Direction { kParent = 0, kChild = 1, kPrevious = 2, kNext = 3 };

// Whether the first bytes of the element's name are the key. A key length below 0 matches nothing.
bool NameBegins(const XmlElement *element, const char *key, std::int32_t key_length) {
    if (key_length < 0) return false;
    const std::size_t name_length = element->name != nullptr ? static_cast<std::size_t>(element->name_length) : 0;
    const std::string_view name(element->name, name_length);
    return name.starts_with(std::string_view(key, static_cast<std::size_t>(key_length)));
}

void SetTexts(XmlElement *element, const char *name, std::int32_t name_length, const char *value,
              std::int32_t value_length) {
    if (name == nullptr) return;
    XmlElement_SetDynamicString(&element->name, &element->name_length, name, name_length);
    if (value != nullptr) XmlElement_SetDynamicString(&element->value, &element->value_length, value, value_length);
}

void ReleaseTexts(XmlElement *element) {
    std::free(element->name);
    element->name = nullptr;
    std::free(element->value);
    element->value = nullptr;
}

// The one element whose release `element` owes before its own, or null.
XmlElement *Owned(const XmlElement *element) { return element->child != nullptr ? element->child : element->next; }

} // namespace

void XmlElement_SetDynamicString(char **field, std::int32_t *length_field, const char *bytes, std::int32_t count) {
    std::free(*field);
    *field = nullptr;
    *length_field = 0;
    if (count < 0) return;
    *field = static_cast<char *>(std::malloc(static_cast<std::size_t>(count)));
    if (*field == nullptr) return;
    *length_field = count;
    if (count > 0) std::memcpy(*field, bytes, static_cast<std::size_t>(count));
}

XmlElement *XmlElement_SetupRoot(XmlElement *element, const char *name, std::int32_t name_length) {
    *element = {};
    SetTexts(element, name, name_length, nullptr, 0);
    return element;
}

XmlElement *XmlElement_CreateChild(XmlElement *parent, const char *name, std::int32_t name_length, const char *value,
                                   std::int32_t value_length) {
    auto *element = static_cast<XmlElement *>(std::malloc(sizeof(XmlElement)));
    if (element == nullptr) return nullptr;
    *element = {};
    SetTexts(element, name, name_length, value, value_length);
    parent->child = element;
    element->parent = parent;
    return element;
}

XmlElement *XmlElement_CreateNext(XmlElement *previous, const char *name, std::int32_t name_length, const char *value,
                                  std::int32_t value_length) {
    auto *element = static_cast<XmlElement *>(std::malloc(sizeof(XmlElement)));
    if (element == nullptr) return nullptr;
    element->child = nullptr;
    element->next = nullptr;
    // Kept: the lengths stay as the heap had them; nobody reads one whose text is null.
    element->name = nullptr;
    element->value = nullptr;
    SetTexts(element, name, name_length, value, value_length);
    element->parent = previous->parent;
    element->previous = previous;
    previous->next = element;
    return element;
}

XmlElement *XmlElement_FindChildElement(XmlElement *start, const char *parent_name, std::int32_t parent_name_length,
                                        const char *child_name, std::int32_t child_name_length) {
    const auto matches = [=](const XmlElement *parent, const XmlElement *element) {
        return NameBegins(parent, parent_name, parent_name_length) &&
               NameBegins(element, child_name, child_name_length);
    };
    XmlElement *current = start->child;
    if (current == nullptr) return nullptr;
    Direction came = kChild;
    while (current != start) {
        if (current->parent != nullptr && matches(current->parent, current)) return current;
        if (came != kParent && current->child != nullptr)
            came = kChild;
        else if (current->next != nullptr)
            came = kNext;
        else if (current->parent != nullptr)
            came = kParent;
        else
            return nullptr;
        current = XmlElement_MoveTo(current, came);
    }
    // Kept: the walk ends with the test it began with.
    return matches(start, start->child) ? start->child : nullptr;
}

int XmlElement_Clean(XmlElement *element) {
    if (element == nullptr) return 0;
    XmlElement *current = element;
    while (Owned(current) != nullptr) current = Owned(current);
    while (current != element) {
        XmlElement *owner = XmlElement_IsChild(current) ? current->parent : current->previous;
        ReleaseTexts(current);
        std::free(current);
        (owner->child != nullptr ? owner->child : owner->next) = nullptr;
        current = owner;
    }
    ReleaseTexts(element);
    return 1;
}

int XmlElement_HasChildElement(const XmlElement *element) { return element->child != nullptr; }
int XmlElement_HasNextElement(const XmlElement *element) { return element->next != nullptr; }
int XmlElement_HasParentElement(const XmlElement *element) { return element->parent != nullptr; }
int XmlElement_IsChild(const XmlElement *element) { return element->parent != nullptr && element->previous == nullptr; }
int XmlElement_IsNext(const XmlElement *element) { return element->parent != nullptr && element->previous != nullptr; }

XmlElement *XmlElement_MoveTo(const XmlElement *element, int direction) {
    switch (direction) {
    case kChild: return element->child;
    case kPrevious: return element->previous;
    case kNext: return element->next;
    default: return element->parent;
    }
}
