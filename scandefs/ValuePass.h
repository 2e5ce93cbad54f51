#pragma once
// The value pass of a definition file: its "value" elements define names,
// and %NAME% references in the text and attributes of the elements after
// them (and inside them) are replaced, through the counted maps of the
// process-wide scope or the scopes of one file (CFileScopes).
#include <cstddef>
#include <string>

#include "scandefs/ConfigValues.h"
#include "scandefs/FileScopes.h"
#include "scandefs/XmlNode.h"

struct SValuePass {
  std::wstring scratch;     // keeps its capacity from one text to the next
  size_t insertable;        // characters references may still insert
  pugi::xml_node overflow;  // the element where that ran out
};

// The value pass over node and what it holds; the "value" elements are
// taken out of the document as they are read. True when a name received a
// text. When the references would insert more than pass.insertable, it
// stops and pass.overflow is the element where that happened. Recursive,
// but only over files that passed the nesting check.
bool RunValuePass(pugi::xml_node node, CScopedMap::ConfigValueMap* scope, SValuePass& pass);
bool RunValuePass(pugi::xml_node node, CFileScopes* scopes, SValuePass& pass);

// The expansion of %NAME% references in text[0, length) into out, which is
// written only when the text changes: bit 1 = changed, bit 2 = a name was
// unknown.
unsigned long ExpandReferences(const wchar_t* text, size_t length, const CScopedMap::ConfigValueMap* scope,
                               std::wstring& out);

// Reads one "value" element into scope: without a name it defines nothing;
// otherwise the name gets its text, or nothing when the text cannot be
// had. True when the name received a text.
bool DefineValue(xml::NodePtr node, CScopedMap::ConfigValueMap* scope);
