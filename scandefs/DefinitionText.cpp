#include "scandefs/DefinitionText.h"

#include <cstdint>
#include <cstring>
#include <cwchar>

namespace {

// The declaration the files carry and the one the converted text gets.
const char kUtf8Declaration[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>";
const wchar_t kUtf16Declaration[] = L"<?xml version=\"1.0\" encoding=\"utf-16\"?>";
constexpr size_t kUtf8DeclarationLength = sizeof kUtf8Declaration - 1;
constexpr size_t kUtf16DeclarationLength = sizeof kUtf16Declaration / sizeof(wchar_t) - 1;

// Eight bytes at a time: the runtime's memchr goes byte by byte, and a
// file's text is scanned a few times over before it is parsed.
constexpr uint64_t kLowBits = 0x0101010101010101ull;
constexpr uint64_t kHighBits = 0x8080808080808080ull;

uint64_t Word(const char* at) {
  uint64_t word;
  memcpy(&word, at, sizeof word);
  return word;
}

// Whether a byte of word equals the byte that repeated is.
bool HasByte(uint64_t word, uint64_t repeated) {
  uint64_t x = word ^ repeated;
  return ((x - kLowBits) & ~x & kHighBits) != 0;
}

// Converts [begin, end) with the thread's ANSI code page to out + at, which
// has room for end - begin more units (an ANSI code page never yields more
// UTF-16 units than it has bytes), and returns the new length; the offsets
// of its line feeds go to breaks. Every ANSI code page maps the bytes below
// 0x80 to the same code units, so a leading run of them is widened directly
// (in a double-byte code page only the bytes after a lead byte can be below
// 0x80, and none comes before the run).
size_t AppendAnsi(wchar_t* out, size_t at, const char* begin, const char* end, std::vector<size_t>& breaks) {
  const uint64_t lineFeeds = kLowBits * '\n';
  for (uint64_t word; end - begin >= 8 && !((word = Word(begin)) & kHighBits); begin += 8, at += 8) {
    for (int i = 0; i < 8; ++i) out[at + i] = static_cast<wchar_t>(begin[i]);
    if (HasByte(word, lineFeeds))
      for (int i = 0; i < 8; ++i)
        if (begin[i] == '\n') breaks.push_back(at + i);
  }
  for (; begin != end && static_cast<unsigned char>(*begin) < 0x80; ++begin, ++at) {
    if (*begin == '\n') breaks.push_back(at);
    out[at] = static_cast<wchar_t>(*begin);
  }
  if (begin == end) return at;
  int n = MultiByteToWideChar(CP_THREAD_ACP, 0, begin, static_cast<int>(end - begin), out + at,
                              static_cast<int>(end - begin));
  for (size_t i = at, stop = at + static_cast<size_t>(n > 0 ? n : 0); i < stop; ++i)
    if (out[i] == L'\n') breaks.push_back(i);
  return at + static_cast<size_t>(n > 0 ? n : 0);
}

// The first UTF-8 declaration in [from, end), or end. A '?' is rare in
// definition text, so the search goes from one to the next.
const char* FindUtf8Declaration(const char* from, const char* end) {
  if (from == end) return end;
  for (const char* mark = from + 1; (mark = FindByte(mark, end, '?')) != end; ++mark) {
    const char* start = mark - 1;
    if (static_cast<size_t>(end - start) >= kUtf8DeclarationLength &&
        memcmp(start, kUtf8Declaration, kUtf8DeclarationLength) == 0)
      return start;
  }
  return end;
}

}  // namespace

const char* FindByte(const char* from, const char* end, char c) {
  const uint64_t repeated = kLowBits * static_cast<unsigned char>(c);
  while (end - from >= 8 && !HasByte(Word(from), repeated)) from += 8;
  while (from != end && *from != c) ++from;
  return from;
}

void WidenDefinitionText(const char* begin, const char* end, SWideText& out) {
  std::vector<const char*> declarations;
  for (const char* at = begin; (at = FindUtf8Declaration(at, end)) != end; at += kUtf8DeclarationLength)
    declarations.push_back(at);
  out.data.reset(new wchar_t[static_cast<size_t>(end - begin) +
                             declarations.size() * (kUtf16DeclarationLength - kUtf8DeclarationLength) + 1]);
  out.breaks.clear();
  out.breaks.reserve(static_cast<size_t>(std::count(begin, end, '\n')));
  size_t length = 0;
  const char* from = begin;
  for (const char* found : declarations) {
    length = AppendAnsi(out.data.get(), length, from, found, out.breaks);
    wmemcpy(out.data.get() + length, kUtf16Declaration, kUtf16DeclarationLength);
    length += kUtf16DeclarationLength;
    from = found + kUtf8DeclarationLength;
  }
  out.length = AppendAnsi(out.data.get(), length, from, end, out.breaks);
}
