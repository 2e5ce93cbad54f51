#pragma once
// A definition file's bytes made into the UTF-16 text the parser reads:
// from the thread's ANSI code page (ASCII widened directly), every UTF-8
// declaration relabelled, with the offsets of its line feeds noted in the
// same pass so that a line can be named without converting again.
#include <windows.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <memory>
#include <vector>

#include "atl/CString.h"

// The first c in [from, end), or end; eight bytes at a time.
const char* FindByte(const char* from, const char* end, char c);

// The 8-bit text [begin, end) as UTF-16, every UTF-8 declaration relabelled
// as UTF-16, with the offsets of its line feeds. The declaration is plain
// ASCII, which every ANSI code page maps one to one, and it starts with '<'
// and ends with '>', which are never the second byte of a double-byte
// character: for any well-formed text, converting around it gives what
// replacing the bytes first and converting the whole would.
struct SWideText {
  std::unique_ptr<wchar_t[]> data;
  size_t length = 0;
  std::vector<size_t> breaks;
};

void WidenDefinitionText(const char* begin, const char* end, SWideText& out);

// A file's text as it is parsed: its path, and where its lines start, so
// that an operation can be told the line of the element that made it.
struct SFileLines {
  const CString* path = nullptr;
  const wchar_t* text = nullptr;  // the parsed text; element names point into it
  size_t length = 0;
  size_t linesBefore = 0;         // lines of the bytes before the first '<'
  const std::vector<size_t>* breaks = nullptr;  // offsets of the line feeds of the text, before parsing

  // The line (from 1) of the character at offset in the text.
  int LineAt(size_t offset) const {
    size_t line = 1 + linesBefore;
    if (breaks) line += static_cast<size_t>(std::lower_bound(breaks->begin(), breaks->end(), offset) - breaks->begin());
    return line > INT_MAX ? INT_MAX : static_cast<int>(line);
  }
  // The line of an element or attribute name in the text; 0 for a name from elsewhere.
  int LineOf(const wchar_t* name) const {
    if (!text || name < text || name >= text + length) return 0;
    return LineAt(static_cast<size_t>(name - text));
  }
};
