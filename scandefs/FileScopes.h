#pragma once
// The names a definition file defines with "value" elements, while its
// value pass runs: one stack for the whole file, the names of an element
// above those of the elements around it and taken off again when the
// element is done, in front of the process-wide scope. A slot of the stack
// keeps its text's buffer for the next name defined there, so once a
// file's names have been seen, defining and finding them allocate nothing;
// a counted map per element did, on a heap that serialises every thread of
// the process.
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
    explicit Inner(CFileScopes* scopes) : m_scopes(scopes), m_mark(scopes->m_open) {}
    ~Inner() { m_scopes->CloseTo(m_mark); }
    Inner(const Inner&) = delete;
    Inner& operator=(const Inner&) = delete;
    // Where the children look names up.
    CFileScopes* Current() const { return m_scopes; }
    // Defines name in this scope with a copy of value, in place of what this
    // scope defined it as before; a null value defines it as nothing, which
    // hides it in the enclosing scopes.
    void Define(const wchar_t* name, const wchar_t* value) { m_scopes->Define(name, value, m_mark); }

   private:
    CFileScopes* m_scopes;
    size_t m_mark;  // the entries of the enclosing scopes
  };

 private:
  static constexpr size_t kNone = static_cast<size_t>(-1);
  struct Entry {
    size_t* newest = nullptr;  // the name's slot in m_newest
    size_t previous = kNone;   // the entry of the name this one hides, or kNone
    bool nothing = false;      // defined as nothing
    std::wstring text;
  };

  // scope: the first entry of the scope that defines the name.
  void Define(const wchar_t* name, const wchar_t* value, size_t scope);
  void CloseTo(size_t mark);
  // The name folded as the maps compare names, in m_key.
  const std::wstring& Key(const wchar_t* name, size_t length) const;

  const CScopedMap::ConfigValueMap* m_global;
  std::vector<Entry> m_entries;  // those before m_open are defined
  size_t m_open = 0;
  std::unordered_map<std::wstring, size_t> m_newest;  // folded name -> its innermost entry, or kNone
  mutable std::wstring m_key;
};
