#include "scandefs/FileScopes.h"

#include <cwchar>

#include "scandefs/NoCase.h"

const std::wstring& CFileScopes::Key(const wchar_t* name, size_t length) const {
  m_key.assign(name, length);
  for (wchar_t& c : m_key) c = broom::FoldCase(c);
  return m_key;
}

const wchar_t* CFileScopes::Find(const wchar_t* name, size_t length) const {
  auto found = m_newest.find(Key(name, length));
  if (found != m_newest.end() && found->second != kNone) {
    const Entry& entry = m_entries[found->second];
    return entry.value == kNone ? nullptr : m_text.data() + entry.value;
  }
  return m_global ? m_global->Find(name, length) : nullptr;
}

void CFileScopes::Define(const wchar_t* name, const wchar_t* value) {
  size_t& newest = m_newest.try_emplace(Key(name, wcslen(name)), kNone).first->second;
  Entry entry{&newest, newest, kNone, m_text.size()};
  if (value) {
    entry.value = m_text.size();
    m_text.append(value).push_back(L'\0');
  }
  m_entries.push_back(entry);
  newest = m_entries.size() - 1;
}

void CFileScopes::CloseTo(size_t mark) {
  while (m_entries.size() > mark) {
    const Entry& entry = m_entries.back();
    *entry.newest = entry.previous;
    m_text.resize(entry.textSize);
    m_entries.pop_back();
  }
}
