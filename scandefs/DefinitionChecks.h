#pragma once
// The checks of a parsed definition file before anything of it is used:
// what the parser's status means, and how deep its elements and its groups
// nest, measured without recursion.
#include <cstddef>

#include "scandefs/XmlNode.h"

// What went wrong, in words: "an end tag does not match its start tag".
const wchar_t* ParseErrorText(pugi::xml_parse_status status);

// The deepest nesting of elements from top (level 1), and the first element
// deeper than limit. Follows the parent links, so it needs no stack.
size_t ElementDepth(pugi::xml_node top, size_t limit, pugi::xml_node& tooDeep);

// How deep the groups and items of a file would reach in the tree, along
// the very elements and attributes the reader takes them from; and the
// first element that would reach deeper than limit.
size_t GroupDepth(pugi::xml_node top, size_t limit, pugi::xml_node& tooDeep);
