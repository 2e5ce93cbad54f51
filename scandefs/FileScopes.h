#pragma once
// The names a definition file defines with "value" elements, while its
// value pass runs: one stack for the whole file, the names of an element
// above those of the elements around it and taken off again when the
// element is done, in front of the process-wide scope. Once a file's names
// have been seen, defining and finding them allocate nothing; a counted map
// per element did, on a heap that serialises every thread of the process.
#include <string>
#include <unordered_map>
#include <vector>

#include "scandefs/ConfigValues.h"

class CFileScopes {
 public:
  explicit CFileScopes(const CScopedMap::ConfigValueMap* global) : m_global(global) {}
  CFileScopes(const CFileScopes&) = delete;
  CFileScopes& operator=(const CFileScopes&) = delete;

  // As ConfigValueMap::Find: the innermost open scope that defines the name
  // answers, a definition as nothing included; then the global scope. The
  // text stays valid until the next definition.
  const wchar_t* Find(const wchar_t* name, size_t length) const;

  // The scope of one element's "value" children, open while it lives.
  class Inner {
   public:
    explicit Inner(CFileScopes* scopes) : m_scopes(scopes), m_mark(scopes->m_entries.size()) {}
    ~Inner() { m_scopes->CloseTo(m_mark); }
    Inner(const Inner&) = delete;
    Inner& operator=(const Inner&) = delete;
    // Where the children look names up.
    CFileScopes* Current() const { return m_scopes; }
    // Defines name in this scope with a copy of value; a null value defines
    // it as nothing, which hides it in the enclosing scopes.
    void Define(const wchar_t* name, const wchar_t* value) { m_scopes->Define(name, value); }

   private:
    CFileScopes* m_scopes;
    size_t m_mark;  // the entries of the enclosing scopes
  };

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);
  struct Entry {
    size_t* newest;   // the name's slot in m_newest
    size_t previous;  // the entry of the name this one hides, or kNone
    size_t value;     // offset of the text in m_text, or kNone for nothing
    size_t textSize;  // m_text's size before this entry
  };

  void Define(const wchar_t* name, const wchar_t* value);
  void CloseTo(size_t mark);
  // The name folded as the maps compare names, in m_key.
  const std::wstring& Key(const wchar_t* name, size_t length) const;

  const CScopedMap::ConfigValueMap* m_global;
  std::vector<Entry> m_entries;
  std::wstring m_text;                                // the defined texts, each ended by a NUL
  std::unordered_map<std::wstring, size_t> m_newest;  // folded name -> its innermost entry, or kNone
  mutable std::wstring m_key;
};
