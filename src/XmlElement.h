// The element tree: a parsed XML text in memory. XmlExtractor builds it, PrjDsc searches it and then frees it.
//
//   XmlElement root;
//   XmlElement_SetupRoot(&root, "Root", 4);          the caller owns the root's record
//   root.value = text; root.value_length = length;   heap text, which the root then owns
//   XmlExtractor_Parse(&root);                       (XmlExtractor.h)
//   XmlElement_FindChildElement(&root, "MainApplication", 15, "Version", 7);
//   XmlElement_Clean(&root);                         frees what hangs below the root, its name and its value
//
// Names and values are counted byte runs without a terminator. A length says something only where its pointer is set:
// a null name or value is empty, whatever its length field holds.
//
// Siblings form a doubly linked list; all of them point at their parent, which points at the first of them alone.
// Trees may be as deep as a file makes them: nothing here recurses. Nothing is printed. Only null tests are made on
// arguments where a routine says so.
#pragma once

#include <cstdint>

extern "C" {

struct XmlElement {
    XmlElement *parent;   // null for the root
    XmlElement *previous; // sibling; null for a first child
    XmlElement *next;     // sibling; null for the last one
    XmlElement *child;    // the first one; null for a leaf
    char *value;          // heap copy of the text between opening and closing tag, markup included; null if none
    std::int32_t value_length;
    char *name; // heap copy of everything between "<" and ">"
    std::int32_t name_length;
};

// Replaces a counted text: frees what `*field` holds, then stores a heap copy of `count` bytes. Without memory, or
// with a count below 0, the field is null and the length 0.
void XmlElement_SetDynamicString(char **field, std::int32_t *length_field, const char *bytes, std::int32_t count);

// Clears the caller's record and names it, where `name` is not null. Frees nothing. Returns `element`.
XmlElement *XmlElement_SetupRoot(XmlElement *element, const char *name, std::int32_t name_length);

// Make an element as the first child of `parent`, or after the sibling `previous`. A null name makes an element
// without name and value, a null value one without value. An older first child or next sibling is not looked at: its
// link is overwritten. Return the element, or null without memory; the tree is then as before.
XmlElement *XmlElement_CreateChild(XmlElement *parent, const char *name, std::int32_t name_length, const char *value,
                                   std::int32_t value_length);
XmlElement *XmlElement_CreateNext(XmlElement *previous, const char *name, std::int32_t name_length, const char *value,
                                  std::int32_t value_length);

// The first element in document order, anywhere below `start`, whose parent's name begins with the one key and whose
// own name begins with the other (so the key "Version" finds "Version/" and "VersionX" too); null if there is none.
// Never `start` itself, its siblings or its parent.
XmlElement *XmlElement_FindChildElement(XmlElement *start, const char *parent_name, std::int32_t parent_name_length,
                                        const char *child_name, std::int32_t child_name_length);

// Frees below `element`, and its name and value, but not its own record. Returns 0 for a null element, else 1.
//
// Kept: an element releases its children or else its next siblings, never both; after an element with children the
// siblings stay allocated, out of reach. A boot reads three descriptors at most, and ends in a reset.
int XmlElement_Clean(XmlElement *element);

// 1 or 0. A child is a first child; a next has a previous sibling; the root is neither.
int XmlElement_HasChildElement(const XmlElement *element);
int XmlElement_HasNextElement(const XmlElement *element);
int XmlElement_HasParentElement(const XmlElement *element);
int XmlElement_IsChild(const XmlElement *element);
int XmlElement_IsNext(const XmlElement *element);

// The linked element, or null: direction 0 parent, 1 first child, 2 previous, 3 next sibling, any other parent.
XmlElement *XmlElement_MoveTo(const XmlElement *element, int direction);

} // extern "C"

static_assert(sizeof(XmlElement) == 8 * sizeof(void *), "eight words on the board");
