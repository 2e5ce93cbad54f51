#include "scandefs/FileScopes.h"

#include <cwchar>

#include "core/Names.h"

const std::wstring& CFileScopes::Key(const wchar_t* name, size_t length) const {
  m_key.assign(name, length);
  for (wchar_t& c : m_key) c = broom::FoldCase(c);
  return m_key;
}

const wchar_t* CFileScopes::Find(const wchar_t* name, size_t length) const {
  auto found = m_newest.find(Key(name, length));
  if (found != m_newest.end() && found->second != kNone) {
    const Entry& entry = m_entries[found->second];
    return entry.nothing ? nullptr : entry.text.c_str();
  }
  return m_global ? m_global->Find(name, length) : nullptr;
}

void CFileScopes::Define(const wchar_t* name, const wchar_t* value, size_t scope) {
  size_t& newest = m_newest.try_emplace(Key(name, wcslen(name)), kNone).first->second;
  auto set = [value](Entry& entry) {
    if (value)
      entry.text.assign(value);
    else
      entry.text.clear();
    entry.nothing = !value;
  };
  if (newest != kNone && newest >= scope) return set(m_entries[newest]);
  if (m_open == m_entries.size()) m_entries.emplace_back();
  Entry& entry = m_entries[m_open];
  set(entry);
  entry.newest = &newest;
  entry.previous = newest;
  newest = m_open++;
}

void CFileScopes::CloseTo(size_t mark) {
  for (; m_open > mark; --m_open) {
    const Entry& entry = m_entries[m_open - 1];
    *entry.newest = entry.previous;
  }
}
