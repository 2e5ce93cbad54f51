#include "scandefs/XmlReader.h"

#include <shlwapi.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <map>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "core/Handles.h"
#include "scan/StdFileScan.h"
#include "scandefs/FilePrefetch.h"
#include "scandefs/FileScopes.h"
#include "scandefs/NoCase.h"

namespace {

const wchar_t kKindTable[] = L":ram:1:file:2:path:2:trunc:3:file_trunc:3:path_trunc:3:reg:4:registry:4:system:5:";

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

const char* FindByte(const char* from, const char* end, char c) {
  const uint64_t repeated = kLowBits * static_cast<unsigned char>(c);
  while (end - from >= 8 && !HasByte(Word(from), repeated)) from += 8;
  while (from != end && *from != c) ++from;
  return from;
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

// The 8-bit text [begin, end) as UTF-16, every UTF-8 declaration relabelled
// as UTF-16, with the offsets of its line feeds. The declaration is plain
// ASCII, which every ANSI code page maps one to one, and it starts with '<'
// and ends with '>', which are never the second byte of a double-byte
// character: for any well-formed text, converting around it gives what
// replacing the bytes first and converting the whole would.
struct WideText {
  std::unique_ptr<wchar_t[]> data;
  size_t length = 0;
  std::vector<size_t> breaks;
};

void ToWide(const char* begin, const char* end, WideText& out) {
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

// Finds the children of large groups by name without walking the sibling
// list, which made merging many items into one group quadratic. It lives
// while one file is read. Before each use a group's table takes in the
// children appended since (a list keeps its elements in place, and groups
// are only ever appended while a file is read), so children added by anyone
// else in between are found too.
class ChildIndex {
 public:
  CScanGroup_imp* Find(CScanGroup_imp& parent, const wchar_t* name, size_t length) {
    if (parent.m_children.size() < kIndexFrom) return parent.FindChild(name, length);
    Table& table = Update(parent);
    size_t mask = table.slots.size() - 1;
    for (size_t i = Hash(name, length) & mask;; i = (i + 1) & mask) {
      CScanGroup_imp* child = table.slots[i];
      if (!child) return nullptr;
      if (broom::EqualNoCase(child->m_name.GetString(), static_cast<size_t>(child->m_name.GetLength()), name,
                             length))
        return child;
    }
  }

 private:
  static constexpr size_t kIndexFrom = 16;  // below that a walk is as quick

  struct Table {
    CScanGroup_imp* parent = nullptr;
    size_t indexed = 0;  // children taken in, from the front of the list
    std::vector<CScanGroup_imp*> slots;  // open addressing, at most half full
  };

  static size_t Hash(const wchar_t* name, size_t length) {
    size_t hash = 2166136261u;
    for (size_t i = 0; i < length; ++i) hash = (hash ^ broom::FoldCase(name[i])) * 16777619u;
    return hash;
  }

  // Takes child in unless an earlier sibling has the same name (FindChild answers the first).
  static void Insert(Table& table, CScanGroup_imp& child) {
    size_t mask = table.slots.size() - 1;
    const CString& name = child.m_name;
    for (size_t i = Hash(name.GetString(), static_cast<size_t>(name.GetLength())) & mask;; i = (i + 1) & mask) {
      CScanGroup_imp*& slot = table.slots[i];
      if (!slot) {
        slot = &child;
        return;
      }
      if (broom::EqualNoCase(slot->m_name.GetString(), static_cast<size_t>(slot->m_name.GetLength()),
                             name.GetString(), static_cast<size_t>(name.GetLength())))
        return;
    }
  }

  Table& Update(CScanGroup_imp& parent) {
    Table* table = &m_tables[&parent];
    table->parent = &parent;
    size_t count = parent.m_children.size();
    if (count == table->indexed) return *table;
    size_t capacity = table->slots.size();
    if (count < table->indexed || count * 2 > capacity) {
      // start again, with room to grow
      while (capacity < count * 4) capacity = capacity ? capacity * 2 : 64;
      table->slots.assign(capacity, nullptr);
      table->indexed = 0;
    }
    // the children not yet taken in are the last count - indexed ones
    auto it = parent.m_children.begin();
    if (table->indexed > 0) {
      it = parent.m_children.end();
      for (size_t i = table->indexed; i < count; ++i) --it;
    }
    for (; it != parent.m_children.end(); ++it) Insert(*table, *it);
    table->indexed = count;
    return *table;
  }

  std::unordered_map<CScanGroup_imp*, Table> m_tables;
};

// The index of the file being read on this thread, if any.
thread_local ChildIndex* t_index = nullptr;

// The index a SharedIndex on this thread keeps for the files read into its
// tree, and that tree.
thread_local ChildIndex* t_sharedIndex = nullptr;
thread_local const CScanGroup* t_sharedRoot = nullptr;

// The file being read on this thread: its path, and where its lines start,
// so that an operation can be told the line of the element that made it.
struct FileLines {
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
thread_local const FileLines* t_lines = nullptr;

CScanGroup_imp* ResolveGroupPath(const wchar_t* path, CScanGroup_imp& start) {
  size_t length = wcslen(path);
  ChildIndex* index = t_index;
  if (!index) return CScanGroup_imp::FindOrAddGroupPath(path, length, start);
  return CScanGroup_imp::ResolvePath(path, length, start,
                                     [index](CScanGroup_imp& parent, const wchar_t* name, size_t nameLength) {
                                       return index->Find(parent, name, nameLength);
                                     });
}

// Child elements of a node, in document order.
template <class F>
void ForEachElement(xml::NodePtr node, F f) {
  for (xml::NodePtr child = node.FirstChild(); child; child = child.NextSibling())
    if (child.IsElement()) f(child);
}

// ---- checks of a parsed file, before anything of it is used ----

const wchar_t* ParseError(pugi::xml_parse_status status) {
  switch (status) {
    case pugi::status_out_of_memory: return L"there is not enough memory";
    case pugi::status_unrecognized_tag: return L"a tag is not recognised";
    case pugi::status_bad_pi: return L"a declaration or processing instruction is malformed";
    case pugi::status_bad_comment: return L"a comment is malformed";
    case pugi::status_bad_cdata: return L"a CDATA section is malformed";
    case pugi::status_bad_doctype: return L"the document type declaration is malformed";
    case pugi::status_bad_pcdata: return L"text is malformed";
    case pugi::status_bad_start_element: return L"a start tag is malformed";
    case pugi::status_bad_attribute: return L"an attribute is malformed";
    case pugi::status_bad_end_element: return L"an end tag is malformed";
    case pugi::status_end_element_mismatch: return L"an end tag does not match its start tag";
    default: return L"the parser failed";
  }
}

// The deepest nesting of elements from top (level 1), and the first element
// deeper than limit. Follows the parent links, so it needs no stack.
size_t ElementDepth(pugi::xml_node top, size_t limit, pugi::xml_node& tooDeep) {
  size_t depth = 1, deepest = 1;
  for (pugi::xml_node node = top;;) {
    if (pugi::xml_node child = node.first_child()) {
      node = child;
      ++depth;
    } else {
      while (node != top && !node.next_sibling()) {
        node = node.parent();
        --depth;
      }
      if (node == top) break;
      node = node.next_sibling();
    }
    if (node.type() == pugi::node_element && depth > deepest) {
      deepest = depth;
      if (depth > limit && !tooDeep) tooDeep = node;
    }
  }
  return deepest;
}

// The segments of a group path that path resolution makes groups of.
size_t Segments(const wchar_t* path) {
  size_t count = 0;
  for (bool inSegment = false; path && *path; ++path) {
    bool slash = *path == L'/';
    if (!slash && !inSegment) ++count;
    inSegment = !slash;
  }
  return count;
}

// How deep the groups and items of a file would reach in the tree, along
// the very elements and attributes the reader takes them from; and the
// first element that would reach deeper than limit.
size_t GroupDepth(pugi::xml_node top, size_t limit, pugi::xml_node& tooDeep) {
  struct Level {
    pugi::xml_node next;  // the next child to look at
    size_t depth;         // of the group that holds the children
  };
  std::vector<Level> levels{{top.first_child(), 0}};
  size_t deepest = 0;
  while (!levels.empty()) {
    pugi::xml_node node = levels.back().next;
    if (!node) {
      levels.pop_back();
      continue;
    }
    levels.back().next = node.next_sibling();
    if (node.type() != pugi::node_element) continue;
    xml::NodePtr element(node);
    EElementType kind = XmlReader::Classify(element.Name());
    if (kind != etGroup && kind != etItem) continue;
    size_t depth = levels.back().depth;
    if (kind == etItem) {
      const wchar_t* group = element.Attribute(L"group");
      if (group) {
        size_t segments = Segments(group);
        if (!segments) continue;
        depth += segments;
      } else if (levels.size() == 1) {
        continue;  // an item directly in the file needs its group
      }
    }
    size_t segments = Segments(element.Attribute(L"name"));
    if (!segments) continue;
    depth += segments;
    deepest = std::max(deepest, depth);
    if (depth > limit && !tooDeep) tooDeep = node;
    levels.push_back(Level{node.first_child(), depth});
  }
  return deepest;
}

}  // namespace

// ---- values ----

namespace {

// Set beside the flags of ExpandSymbols: the values would insert more than allowed.
constexpr unsigned long kOverLimit = 4;

// The expansion of ExpandSymbols, in one pass from text[0, length) into out,
// which is written only when the text changes; names are found through
// scope (a ConfigValueMap or the CFileScopes of a file). Values count
// against *insertable (no limit when null); when they would pass it, the
// expansion stops with kOverLimit.
template <class Scope>
unsigned long Expand(const wchar_t* text, size_t length, const Scope* scope, std::wstring& out, size_t* insertable) {
  const std::wstring_view view(text, length);
  unsigned long flags = 0;
  size_t copied = 0;  // text before this is in out
  auto emit = [&](size_t upTo, const wchar_t* value, size_t valueLength) {
    if (!(flags & 1)) {
      out.clear();
      out.reserve(length);
    }
    out.append(text + copied, upTo - copied);
    out.append(value, valueLength);
    flags |= 1;
  };
  for (size_t pos = view.find(L'%'); pos != std::wstring_view::npos;) {
    if (pos + 1 < length && text[pos + 1] == L'%') {
      emit(pos + 1, L"", 0);  // the first '%' stays, the second goes
      copied = pos + 2;
      pos = view.find(L'%', pos + 2);
      continue;
    }
    size_t close = view.find(L'%', pos + 1);
    if (close == std::wstring_view::npos) break;
    if (const wchar_t* value = scope ? scope->Find(text + pos + 1, close - pos - 1) : nullptr) {
      size_t valueLength = wcslen(value);
      if (insertable) {
        if (valueLength > *insertable) return flags | kOverLimit;
        *insertable -= valueLength;
      }
      emit(pos, value, valueLength);
      copied = close + 1;
    } else {
      flags |= 2;
    }
    pos = view.find(L'%', close + 1);
  }
  if (flags & 1) out.append(text + copied, length - copied);
  return flags;
}

// Expands a node's or attribute's text in place; only a text with a '%' can
// change. False when the values would insert more than allowed.
template <class T, class Scope>
bool ExpandValue(T target, const Scope* scope, std::wstring& scratch, size_t& insertable) {
  const wchar_t* current = target.value();
  const wchar_t* percent = wcschr(current, L'%');
  if (!percent) return true;
  size_t length = static_cast<size_t>(percent - current) + wcslen(percent);
  unsigned long flags = Expand(current, length, scope, scratch, &insertable);
  if (flags & kOverLimit) return false;
  if (flags & 1) target.set_value(scratch.c_str());
  return true;
}

// Whether pattern occurs in text (Knuth-Morris-Pratt: linear in both).
bool Contains(const wchar_t* text, const wchar_t* pattern) {
  size_t m = wcslen(pattern);
  std::vector<size_t> fallback(m, 0);
  for (size_t i = 1, k = 0; i < m; ++i) {
    while (k && pattern[i] != pattern[k]) k = fallback[k - 1];
    if (pattern[i] == pattern[k]) ++k;
    fallback[i] = k;
  }
  for (size_t k = 0; *text; ++text) {
    while (k && *text != pattern[k]) k = fallback[k - 1];
    if (*text == pattern[k] && ++k == m) return true;
  }
  return m == 0;
}

// Where the rest of source begins once n fields are skipped, the way
// CString::Tokenize takes fields with delimiters as a set of characters:
// a run of delimiters before a field is skipped, and the delimiter that
// ends it is consumed. 0 when there is no field at all.
size_t SkipFields(const wchar_t* source, size_t length, const wchar_t* delimiters, int n) {
  std::vector<bool> isDelimiter(65536);
  for (const wchar_t* d = delimiters; *d; ++d) isDelimiter[static_cast<unsigned short>(*d)] = true;
  auto delimiter = [&](size_t at) { return isDelimiter[static_cast<unsigned short>(source[at])]; };
  size_t pos = 0, after = 0;
  for (int i = 0; i < n && pos < length; ++i) {
    while (pos < length && delimiter(pos)) ++pos;
    if (pos >= length) break;
    while (pos < length && !delimiter(pos)) ++pos;
    after = ++pos;
  }
  return after;
}

// The text a "value" element defines its name with; null when it cannot be
// had, which defines the name as nothing. A registry value is read into
// registry, which holds it.
const wchar_t* ValueText(xml::NodePtr node, std::wstring& registry) {
  const wchar_t* text = node.Text();
  if (!*text) text = node.Raw().attribute(L"default").value();
  const wchar_t* type = node.Attribute(L"type");
  const wchar_t* source = text;
  if (type && broom::CompareNoCase(type, L"regVal") == 0)
    source = *text && ReadRegistryString(text, registry) ? registry.c_str() : nullptr;
  if (!source) return nullptr;
  const wchar_t* delimiter = node.Attribute(L"delimiter");
  const wchar_t* index = node.Attribute(L"index");
  int n = index ? _wtoi(index) : 0;
  if (delimiter && n > 0 && Contains(source, delimiter)) {
    size_t length = wcslen(source);
    size_t after = SkipFields(source, length, delimiter, n);
    return after >= length ? L"" : source + after;
  }
  return source;
}

// Reads one "value" element into scope (anything that can Define a name):
// without a name it defines nothing; otherwise the name gets its text, or
// nothing when the text cannot be had. True when the name received a text.
template <class Scope>
bool DefineValue(xml::NodePtr node, Scope& scope) {
  const wchar_t* name = node.Attribute(L"name");
  if (!name) return false;
  std::wstring registry;
  const wchar_t* value = ValueText(node, registry);
  scope.Define(name, value);
  return value != nullptr;
}

// One counted map as a scope to define names in.
struct MapScope {
  CScopedMap::ConfigValueMap* map;
  void Define(const wchar_t* name, const wchar_t* value) { map->Set(name, value); }
};

struct ValuePass {
  std::wstring scratch;     // keeps its capacity from one text to the next
  size_t insertable;        // characters references may still insert
  pugi::xml_node overflow;  // the element where that ran out
};

// The scope of an element's "value" children among counted maps. It is
// made when the first such child needs it: until then it would be empty,
// so the children before that child see exactly what they see through the
// enclosing scope.
class MapInner {
 public:
  explicit MapInner(CScopedMap::ConfigValueMap* outer) : m_outer(outer) {}
  CScopedMap::ConfigValueMap* Current() const { return m_inner ? m_inner.Get() : m_outer; }
  void Define(const wchar_t* name, const wchar_t* value) {
    if (!m_inner) m_inner = m_outer->CreateChildScope();
    m_inner->Set(name, value);
  }

 private:
  CScopedMap::ConfigValueMap* m_outer;
  CRefPtr<CScopedMap::ConfigValueMap> m_inner;
};

MapInner InnerScope(CScopedMap::ConfigValueMap* scope) { return MapInner(scope); }
CFileScopes::Inner InnerScope(CFileScopes* scopes) { return CFileScopes::Inner(scopes); }

// The value pass over node and what it holds, with the scopes of counted
// maps or those of a CFileScopes. Recursive, but only over files that
// passed the nesting check.
template <class Scope>
bool DecodeNode(pugi::xml_node node, Scope* scope, ValuePass& pass) {
  for (pugi::xml_attribute a = node.first_attribute(); a; a = a.next_attribute()) {
    if (!ExpandValue(a, scope, pass.scratch, pass.insertable)) {
      pass.overflow = node;
      return false;
    }
  }
  if (!node.first_child()) {
    // a CDATA section or an empty element keeps its text as written
    if (node.type() == pugi::node_pcdata && !ExpandValue(node, scope, pass.scratch, pass.insertable))
      pass.overflow = node.parent();
    return false;
  }
  auto inner = InnerScope(scope);
  bool readAny = false;
  pugi::xml_node next;
  for (pugi::xml_node child = node.first_child(); child && !pass.overflow; child = next) {
    next = child.next_sibling();
    if (child.type() == pugi::node_element && broom::CompareNoCase(child.name(), L"value") == 0) {
      readAny |= DefineValue(xml::NodePtr(child), inner);
      node.remove_child(child);  // nothing visits it again
    } else {
      DecodeNode(child, inner.Current(), pass);
    }
  }
  return readAny;
}

}  // namespace

int LookupNamedValue(const CString& table, const wchar_t* name) {
  // ":name:" in lower case, as the runtime lower-cases in the "C" locale
  std::wstring key;
  key.reserve(wcslen(name) + 2);
  key += L':';
  for (const wchar_t* c = name; *c; ++c) key += broom::FoldCase(*c);
  key += L':';
  const std::wstring& text = table.str();
  size_t at = text.find(key);
  if (at == std::wstring::npos) return 0;
  size_t close = text.find(L':', at + 1);
  if (close == std::wstring::npos) return 0;
  return _wtoi(text.c_str() + close + 1);
}

EElementType XmlReader::Classify(const wchar_t* name) {
  static const std::pair<const wchar_t*, EElementType> table[] = {
      {L"group", etGroup},   {L"item", etItem},   {L"cleaning", etCleaning}, {L"clean", etClean},
      {L"checks", etChecks}, {L"check", etCheck}, {L"value", etValue}};
  for (const auto& entry : table)
    if (broom::CompareNoCase(name, entry.first) == 0) return entry.second;
  return etUnknown;
}

namespace {

bool WordToBool(const wchar_t* text, bool& value) {
  static const wchar_t* const yes[] = {L"true", L"yes", L"on", L"1"};
  static const wchar_t* const no[] = {L"false", L"no", L"off", L"0"};
  for (const wchar_t* word : yes)
    if (broom::CompareNoCase(text, word) == 0) return value = true, true;
  for (const wchar_t* word : no)
    if (broom::CompareNoCase(text, word) == 0) return value = false, true;
  return false;
}

}  // namespace

bool XmlReader::TextToBool(const CString& text, bool& value) { return WordToBool(text, value); }

bool XmlReader::Decrypt(char*&, unsigned long) { return true; }
bool XmlReader::Encrypt(char*&, unsigned long) { return true; }

bool XmlReader::Reject(const CString& path, int line, const std::wstring& reason) const {
  if (m_store) m_store->AddLoadNote(path, line, CString(reason.c_str()));
  return false;
}

bool XmlReader::ReadFile(const CString& path, CScanGroup& root, ILoadHook* hook) {
  SFileBytes bytes;
  ReadWholeFile(path, bytes);
  return ReadFile(path, bytes, root, hook);
}

// A file's text as the reader parses it: from its first '<' up to its first
// NUL, widened, its line breaks noted and parsed in place; then checked,
// with the value pass between the checks, which need nothing but the file
// and the process-wide scope. Made on the read-ahead thread for a file that
// passes through no hook, by ReadFile otherwise.
struct XmlReader::ParsedText : SFileBytes::Prepared {
  bool markup = false;  // the bytes hold a '<'
  WideText wide;
  FileLines lines;  // all but the path
  pugi::xml_document document;
  pugi::xml_parse_result parsed;
  // What the checks found, each made only when those before it passed.
  bool checked = false;
  bool hasRoot = false;  // a "ConfigItems" element
  size_t elementDepth = 0;
  pugi::xml_node elementTooDeep;
  pugi::xml_node overflow;  // where the values inserted too much
  size_t groupDepth = 0;
  pugi::xml_node groupTooDeep;
};

std::unique_ptr<XmlReader::ParsedText> XmlReader::ParseText(const char* data, size_t count) {
  auto text = std::make_unique<ParsedText>();
  const char* first = FindByte(data, data + count, '<');
  if (first == data + count) return text;
  text->markup = true;
  const char* last = FindByte(first, data + count, '\0');
  WideText& wide = text->wide;
  ToWide(first, last, wide);
  FileLines& lines = text->lines;
  lines.text = wide.data.get();
  lines.length = wide.length;
  lines.linesBefore = static_cast<size_t>(std::count(data, first, '\n'));
  lines.breaks = &wide.breaks;
  text->parsed = text->document.load_buffer_inplace(wide.data.get(), wide.length * sizeof(wchar_t),
                                                    pugi::parse_default, pugi::encoding_utf16_le);
  return text;
}

void XmlReader::CheckText(ParsedText& text) {
  text.checked = true;
  if (!text.parsed) return;
  xml::NodePtr top(text.document.first_child());
  text.hasRoot = top && top.IsElement() && broom::CompareNoCase(top.Name(), L"ConfigItems") == 0;
  if (!text.hasRoot) return;
  // Nesting is checked before the value pass, which removes "value"
  // elements, and the parser frees an element's subtree recursively.
  text.elementDepth = ElementDepth(top.Raw(), kMaxElementDepth, text.elementTooDeep);
  if (text.elementTooDeep) return;
  CFileScopes scopes(CScopedMap::GetGlobalScope());
  ValuePass pass{{}, kMaxInsertedText, {}};
  DecodeNode(top.Raw(), &scopes, pass);
  text.overflow = pass.overflow;
  if (text.overflow) return;
  // group paths are checked once their values are in
  text.groupDepth = GroupDepth(top.Raw(), kMaxGroupDepth, text.groupTooDeep);
}

void XmlReader::PrepareText(SFileBytes& bytes) {
  if (bytes.failure != SFileBytes::fNone || bytes.size == 0) return;
  std::unique_ptr<ParsedText> text = ParseText(bytes.data.get(), bytes.size);
  if (text->markup) CheckText(*text);
  bytes.prepared = std::move(text);
}

struct XmlReader::SharedIndex::State {
  ChildIndex index;
  ChildIndex* outerIndex;
  const CScanGroup* outerRoot;
};

XmlReader::SharedIndex::SharedIndex(const CScanGroup& root) : m_state(new State{{}, t_sharedIndex, t_sharedRoot}) {
  t_sharedIndex = &m_state->index;
  t_sharedRoot = &root;
}

XmlReader::SharedIndex::~SharedIndex() {
  t_sharedIndex = m_state->outerIndex;
  t_sharedRoot = m_state->outerRoot;
}

bool XmlReader::ReadFile(const CString& path, SFileBytes& bytes, CScanGroup& root, ILoadHook* hook) {
  auto error = [&](const wchar_t* what) { return std::wstring(what) + L" (error " + std::to_wstring(bytes.error) + L")"; };
  switch (bytes.failure) {
    case SFileBytes::fNone: break;
    case SFileBytes::fOpen: return Reject(path, 0, error(L"cannot be opened"));
    case SFileBytes::fRead: return Reject(path, 0, error(L"cannot be read"));
    case SFileBytes::fNoMemory: AtlThrow(E_OUTOFMEMORY);
  }
  if (bytes.size == 0) return Reject(path, 0, L"is empty");
  std::unique_ptr<char, SFileBytes::Free> buffer = std::move(bytes.data);
  std::unique_ptr<ParsedText> text(static_cast<ParsedText*>(bytes.prepared.release()));
  DWORD read = bytes.size;
  unsigned long count = read;
  if (hook) {
    text.reset();  // made of the bytes before the hook saw them
    if (!hook->OnFileData(buffer.get(), &count, true)) return Reject(path, 0, L"was rejected by the load hook");
    hook->OnLoadComplete();
    // A hook may only lower the count: the buffer holds the bytes read.
    if (count > read) count = read;
  }
  if (!text) text = ParseText(buffer.get(), count);
  if (!text->markup) AtlThrow(E_INVALIDARG);
  // the text holds all that is needed from here on, line breaks included
  buffer.reset();
  FileLines& lines = text->lines;
  lines.path = &path;
  auto lineOf = [&](pugi::xml_node node) { return lines.LineOf(node.name()); };
  auto at = [](int line) { return line ? L" at line " + std::to_wstring(line) : std::wstring(); };

  // the document points into the text, which outlives it
  pugi::xml_document& document = text->document;
  const pugi::xml_parse_result& parsed = text->parsed;
  if (!parsed) {
    if (parsed.status == pugi::status_no_document_element) return Reject(path, 0, L"holds no element");
    int line = lines.LineAt(static_cast<size_t>(parsed.offset));
    return Reject(path, line, std::wstring(L"does not parse: ") + ParseError(parsed.status) + at(line));
  }
  if (!text->checked) CheckText(*text);
  if (!text->hasRoot) return Reject(path, 0, L"has no ConfigItems root element");
  if (text->elementTooDeep) {
    int line = lineOf(text->elementTooDeep);
    return Reject(path, line, L"nests " + std::to_wstring(text->elementDepth) + L" levels deep" + at(line) +
                                  L"; at most " + std::to_wstring(kMaxElementDepth) + L" are read");
  }
  if (text->overflow) {
    int line = lineOf(text->overflow);
    return Reject(path, line, L"has %NAME% references that insert more than " + std::to_wstring(kMaxInsertedText) +
                                  L" characters" + at(line) + L"; at most that many are read");
  }
  if (text->groupTooDeep) {
    int line = lineOf(text->groupTooDeep);
    return Reject(path, line, L"nests its groups " + std::to_wstring(text->groupDepth) + L" levels deep" + at(line) +
                                  L"; at most " + std::to_wstring(kMaxGroupDepth) + L" are read");
  }
  xml::NodePtr top(document.first_child());

  auto& tree = static_cast<CScanGroup_imp&>(root);
  ChildIndex ownIndex;
  ChildIndex* outer = t_index;  // a factory may load another file meanwhile
  const FileLines* outerLines = t_lines;
  t_index = &root == t_sharedRoot ? t_sharedIndex : &ownIndex;
  t_lines = &lines;
  auto restore = broom::scope_exit([&] {
    t_index = outer;
    t_lines = outerLines;
  });
  ForEachElement(top, [&](xml::NodePtr child) {
    switch (Classify(child.Name())) {
      case etGroup:
        ReadGroup(child, tree);
        break;
      case etItem:
        ReadOperation(child, tree);
        break;
      default:
        break;
    }
  });
  return true;
}

bool XmlReader::ReadGroup(xml::NodePtr node, CScanGroup_imp& parent) {
  const wchar_t* name = node.Attribute(L"name");
  if (!name) return false;
  CScanGroup_imp* group = ResolveGroupPath(name, parent);
  if (!group) return false;
  ReadBaseProperties(group, node);
  ReadChildren(node, *group);
  return true;
}

bool XmlReader::ReadOperation(xml::NodePtr node, CScanGroup_imp& parent) {
  const wchar_t* name = node.Attribute(L"name");
  if (!name) return false;
  CScanGroup_imp* target = &parent;
  if (const wchar_t* groupPath = node.Attribute(L"group")) {
    target = ResolveGroupPath(groupPath, parent);
    if (!target) return false;
  } else if (!parent.m_parent) {
    return false;  // an item directly in the file needs its group
  }
  CScanGroup_imp* item = ResolveGroupPath(name, *target);
  if (!item) return false;
  ReadBaseProperties(item, node);
  ReadChildren(node, *item);
  return true;
}

bool XmlReader::ReadChildren(xml::NodePtr node, CScanGroup_imp& group) {
  ForEachElement(node, [&](xml::NodePtr child) {
    switch (Classify(child.Name())) {
      case etGroup: ReadGroup(child, group); break;
      case etItem: ReadOperation(child, group); break;
      case etCleaning: ReadCleaning(child, group); break;
      case etClean: ReadClean(child, group); break;
      case etChecks: ReadChecks(child, group); break;
      case etCheck: ReadCheck(child, group); break;
      default: break;
    }
  });
  return true;
}

bool XmlReader::ReadBaseProperties(CScanGroup_imp* group, xml::NodePtr node) {
  // One walk over the attributes, each name compared once (an item has a
  // handful): the first attribute of a name counts, and an empty value
  // counts as absent, as for Attribute.
  enum { kOrder, kDesc, kTip, kTabIcon, kIcon, kReport, kScan, kClean, kQScan, kSafe, kCount };
  static const wchar_t* const names[kCount] = {L"order", L"desc",   L"tip",  L"tabIcon", L"icon",
                                               L"report", L"scan", L"clean", L"qscan", L"safe"};
  const wchar_t* values[kCount] = {};
  bool seen[kCount] = {};
  for (pugi::xml_attribute a = node.Raw().first_attribute(); a; a = a.next_attribute()) {
    const wchar_t* name = a.name();
    int candidates[2] = {-1, -1};
    switch (name[0]) {
      case L'o': candidates[0] = kOrder; break;
      case L'd': candidates[0] = kDesc; break;
      case L't': candidates[0] = kTip, candidates[1] = kTabIcon; break;
      case L'i': candidates[0] = kIcon; break;
      case L'r': candidates[0] = kReport; break;
      case L's': candidates[0] = kScan, candidates[1] = kSafe; break;
      case L'c': candidates[0] = kClean; break;
      case L'q': candidates[0] = kQScan; break;
      default: continue;
    }
    for (int i : candidates) {
      if (i < 0 || seen[i] || wcscmp(name, names[i]) != 0) continue;
      seen[i] = true;
      values[i] = *a.value() ? a.value() : nullptr;
    }
  }
  if (values[kOrder]) group->m_order = _wtoi(values[kOrder]);
  const std::pair<int, CString*> texts[] = {{kDesc, &group->m_desc},
                                            {kTip, &group->m_tip},
                                            {kTabIcon, &group->m_tabIcon},
                                            {kIcon, &group->m_icon},
                                            {kReport, &group->m_report}};
  for (const auto& text : texts)
    if (values[text.first]) *text.second = values[text.first];
  const std::pair<int, EBoolProperty> switches[] = {
      {kScan, bpDefaultScan}, {kClean, bpDefaultClean}, {kQScan, bpQScan}, {kSafe, bpSafe}};
  for (const auto& s : switches) {
    bool flag = false;
    bool known = values[s.first] && WordToBool(values[s.first], flag);
    group->SetBoolProperty(s.second, CScanGroup::MakeBoolState(known, flag));
  }
  return true;
}

unsigned long XmlReader::ExpandSymbols(std::wstring& text, const ConfigValueMap* scope) {
  std::wstring out;
  unsigned long flags = Expand(text.data(), text.size(), scope, out, nullptr);
  if (flags & 1) text.swap(out);
  return flags;
}

bool XmlReader::DecodeDOMRecursive(xml::NodePtr node, ConfigValueMap* scope) {
  ValuePass pass{{}, SIZE_MAX, {}};
  return DecodeNode(node.Raw(), scope, pass);
}

bool XmlReader::ReadValue(xml::NodePtr node, ConfigValueMap* scope) {
  MapScope target{scope};
  return DefineValue(node, target);
}

// ---- operations and checks ----

bool XmlReader::ReadCleaning(xml::NodePtr node, CScanGroup_imp& group) {
  ForEachElement(node, [&](xml::NodePtr child) { ReadClean(child, group); });
  return true;
}

bool XmlReader::ReadClean(xml::NodePtr node, CScanGroup_imp& group) {
  if (broom::CompareNoCase(node.Name(), L"Clean") == 0) {
    CRefPtr<IScanOperation> op = newCleanOperation(node.Text(), node);
    if (!op) return true;
    CScanGroup_imp::AddScanOp(group, op);
    if (m_store && t_lines)
      m_store->SetOperationSource(op.Get(), t_lines->path->GetString(), t_lines->LineOf(node.Name()),
                                  node.Raw().attribute(L"kind").value(), node.Text());
    return true;
  }
  if (broom::CompareNoCase(node.Name(), L"Cleaning") == 0) {
    ForEachElement(node, [&](xml::NodePtr child) { ReadCheck(child, group); });
    return true;
  }
  return false;
}

bool XmlReader::ReadChecks(xml::NodePtr node, CScanGroup_imp& group) {
  ForEachElement(node, [&](xml::NodePtr child) { ReadCheck(child, group); });
  return true;
}

bool XmlReader::ReadCheck(xml::NodePtr node, CScanGroup_imp& group) {
  if (broom::CompareNoCase(node.Name(), L"check") != 0) return false;
  CString test, path, data, value;
  if (!node.GetAttribute(L"test", test) || !node.GetAttribute(L"path", path) || !node.GetAttribute(L"data", data))
    return false;
  if ((test == L"equals" || test == L"contains") && !node.GetAttribute(L"value", value)) return false;
  bool pass = true;
  if (data.CompareNoCase(L"regvalue") == 0) {
    std::wstring ignored;
    pass = ReadRegistryString(path.str(), ignored);
  } else if (data.CompareNoCase(L"regkey") == 0) {
    HKEY key = nullptr;
    pass = OpenRegistryPath(path.str(), key);
    if (pass) RegCloseKey(key);
  } else if (data.CompareNoCase(L"file") == 0) {
    pass = PathFileExistsW(path) != FALSE;
  } else if (data.CompareNoCase(L"env") == 0) {
    const wchar_t* variable = _wgetenv(path);
    if (!variable) {
      pass = false;
    } else if (test == L"equals") {
      pass = _wcsicmp(variable, value) == 0;
    } else if (test == L"contains") {
      pass = wcsstr(variable, value) != nullptr;
    }
  }
  if (!pass) group.SetBoolProperty(bpEnabled, abFalse);
  return true;
}

CRefPtr<IScanOperation> XmlReader::newCleanOperation(const wchar_t* text, xml::NodePtr node) {
  const wchar_t* kind = node.Attribute(L"kind");
  if (!kind) return nullptr;
  if (m_store) {
    for (const auto& factory : m_store->GetFactories()) {
      CRefPtr<IScanOperation> op = factory->CreateOperation(kind, node);
      if (op) return op;
    }
  }
  pugi::xml_attribute systemAttribute = node.Raw().attribute(L"system");
  bool system = systemAttribute && wcscmp(systemAttribute.value(), L"1") == 0;
  static const CString kinds(kKindTable);
  int k = LookupNamedValue(kinds, kind);
  if (k != okFile && k != okTrunc) return nullptr;
  // An age the rule cannot be held to would make it broader than written:
  // such a rule is skipped, with a note.
  unsigned long days = 0;
  bool byAccess = false;
  if (!ReadAge(node, days, byAccess)) return nullptr;
  CStdFileScan* scan = nullptr;
  if (k == okFile)
    scan = new IUnknownNoQIImp<CStdFileScan>();
  else
    scan = new IUnknownNoQIImp<CStdFileScan_trunc>();
  CRefPtr<IScanOperation> op(scan);
  CPathString path(text);
  RemoveDuplicateValues(path, L'\\');
  scan->SetWhiteListTestBits(1);
  scan->AddPath(path);
  scan->SetSystem(system);
  if (days) {
    auto* age = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>();
    CRefPtr<CBaseFileScan::IFilter> hold(age);
    age->SetAge(days, byAccess);
    scan->AddFilter(age);
  }
  return op;
}

bool XmlReader::ReadAge(xml::NodePtr node, unsigned long& days, bool& byAccess) const {
  days = 0;
  byAccess = false;
  pugi::xml_attribute olderThan = node.Raw().attribute(L"olderThan");
  pugi::xml_attribute ageBy = node.Raw().attribute(L"ageBy");
  auto skip = [&](const std::wstring& why) {
    if (!m_store || !t_lines) return false;
    // the line only for a note: most rules have no age
    int line = t_lines->LineOf(node.Name());
    std::wstring where = line ? L" (line " + std::to_wstring(line) + L")" : L"";
    m_store->AddLoadNote(*t_lines->path, line, CString((why + where + L"; that rule is skipped").c_str()));
    return false;
  };
  if (olderThan) {
    const wchar_t* text = olderThan.value();
    unsigned long value = 0;
    bool digits = *text != 0;
    for (const wchar_t* c = text; *c && digits; ++c) {
      digits = *c >= L'0' && *c <= L'9';
      if (digits) value = value > kMaxAgeDays ? value : value * 10 + static_cast<unsigned long>(*c - L'0');
    }
    if (!digits || value == 0 || value > kMaxAgeDays)
      return skip(L"olderThan=\"" + std::wstring(text) + L"\" is not a number of days from 1 to " +
                  std::to_wstring(kMaxAgeDays));
    days = value;
  }
  if (ageBy) {
    if (broom::CompareNoCase(ageBy.value(), L"accessed") == 0)
      byAccess = true;
    else if (broom::CompareNoCase(ageBy.value(), L"modified") != 0)
      return skip(L"ageBy=\"" + std::wstring(ageBy.value()) + L"\" is neither \"modified\" nor \"accessed\"");
  }
  return true;
}

void XmlReader::RemoveDuplicateValues(CPathString& path, wchar_t separator) {
  unsigned short pos = 0;
  for (;;) {
    if (pos >= path.GetLength()) throw PositionOutOfStringException(pos, path.GetLength());
    const wchar_t* found = wcschr(path.c_str() + pos, separator);
    if (!found) return;
    unsigned short at = static_cast<unsigned short>(found - path.c_str());
    if (at + 1 < path.GetLength() && path.c_str()[at + 1] == separator) {
      CPathString rest;
      path.Right(static_cast<unsigned short>(path.GetLength() - at - 2), rest);
      CPathString head;
      path.Mid(0, static_cast<unsigned short>(at + 1), head);
      head.Append(rest.c_str(), rest.GetLength());
      path = head;
    }
    pos = static_cast<unsigned short>(at + 1);
    if (pos + 1 >= path.GetLength()) return;
  }
}
