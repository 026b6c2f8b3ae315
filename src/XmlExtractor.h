// Turns an element's text into child elements, all levels down: a small subset of XML.
//
// Understood are opening tags, closing tags, empty-element tags (<name/>) and declarations (<?...?>, skipped). There
// are no attributes, entities or comments and nothing is trimmed: a tag's whole text is its element's name, a comment
// is an opening tag, and a value is the exact text between opening and closing tag. Text outside tags is skipped.
//
// A level ends, and keeps what was built, at the end of its text, at a "<" that is the last byte, at a tag of more
// than 255 bytes, at an opening tag without its closing tag, and where memory runs out. Nothing is printed.
//
// Tokens are the bytes between a "<" and the next ">"; a further "<" in between begins a new one. They are counted,
// without a terminator. Positions count bytes from the start of the buffer.
#pragma once

#include "XmlElement.h"

#include <cstdint>

extern "C" {

// What a token is; an empty one is an opening tag.
enum XmlTokenType : int {
    kXmlOpening = 0,     // "name"
    kXmlClosing = 1,     // "/name"
    kXmlEmpty = 2,       // "name/"
    kXmlDeclaration = 3, // "?...?"
    kXmlMalformed = 4,   // "/.../", ignored
};

// Appends the elements in the value of `element` as its children, and to each of them its own.
// Returns 1 if the value itself held at least one element, else 0.
//
// Kept: an element ends at the first closing tag of its name, also where it holds an element of the same name.
int XmlExtractor_Parse(XmlElement *element);

// Fetches the next token at or after `position`. `*token_length` is the capacity of `token` before and the number of
// bytes stored after; a token is at most capacity - 1 bytes long. Returns the position after its ">", or -1 with
// `*token_length` as it was.
std::int32_t XmlExtractor_FindNextToken(const char *buffer, std::int32_t buffer_length, std::int32_t position,
                                        char *token, std::int32_t *token_length);

// Returns the position after the next closing tag of that name, or -1; a position of -1 gives -1. A tag of more than
// 1,023 bytes on the way ends the search.
std::int32_t XmlExtractor_FindEndToken(const char *buffer, std::int32_t buffer_length, std::int32_t position,
                                       const char *name, std::int32_t name_length);

// The XmlTokenType of a token.
int XmlExtractor_GetTokenType(const char *token, std::int32_t length);

// The last of the siblings after `element`, or `element` itself. No null check.
XmlElement *XmlExtractor_GotoEndOfNextList(XmlElement *element);

} // extern "C"
