#include "scandefs/ValuePass.h"

#include <cstdlib>
#include <cwchar>
#include <string_view>
#include <vector>

#include "core/Names.h"

namespace {

// Set beside the flags of ExpandReferences: the values would insert more than allowed.
constexpr unsigned long kOverLimit = 4;

// The expansion of ExpandReferences, in one pass from text[0, length) into out,
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
bool DefineIn(xml::NodePtr node, Scope& scope) {
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
bool DecodeNode(pugi::xml_node node, Scope* scope, SValuePass& pass) {
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
      readAny |= DefineIn(xml::NodePtr(child), inner);
      node.remove_child(child);  // nothing visits it again
    } else {
      DecodeNode(child, inner.Current(), pass);
    }
  }
  return readAny;
}

}  // namespace

bool RunValuePass(pugi::xml_node node, CScopedMap::ConfigValueMap* scope, SValuePass& pass) {
  return DecodeNode(node, scope, pass);
}

bool RunValuePass(pugi::xml_node node, CFileScopes* scopes, SValuePass& pass) {
  return DecodeNode(node, scopes, pass);
}

unsigned long ExpandReferences(const wchar_t* text, size_t length, const CScopedMap::ConfigValueMap* scope,
                               std::wstring& out) {
  return Expand(text, length, scope, out, nullptr);
}

bool DefineValue(xml::NodePtr node, CScopedMap::ConfigValueMap* scope) {
  MapScope target{scope};
  return DefineIn(node, target);
}
