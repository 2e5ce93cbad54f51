#include "app/QuarantineStore.h"

#include <shlobj.h>

#include <algorithm>
#include <cwchar>

#include "app/HostError.h"
#include "app/Quarantine.h"
#include "app/Text.h"
#include "core/Names.h"
#include "core/Handles.h"

namespace host {

namespace {

bool AsFileTime(const SYSTEMTIME& time, unsigned __int64& out) {
  FILETIME file;
  if (!SystemTimeToFileTime(&time, &file)) return false;
  out = (static_cast<unsigned __int64>(file.dwHighDateTime) << 32) | file.dwLowDateTime;
  return true;
}

std::wstring NameFor(const SYSTEMTIME& t, unsigned long suffix) {
  wchar_t name[64];
  swprintf(name, 64, L"%04u-%02u-%02u %02u.%02u.%02u", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond);
  std::wstring text = name;
  if (suffix > 1) text += L" (" + std::to_wstring(suffix) + L")";
  return text;
}

// Newest first: a later date, then a higher suffix; undated names last.
bool Newer(const SManagedQuarantine& a, const SManagedQuarantine& b) {
  if (a.dated != b.dated) return a.dated;
  if (!a.dated) return a.name < b.name;
  unsigned __int64 ta = 0, tb = 0;
  AsFileTime(a.date, ta);
  AsFileTime(b.date, tb);
  return ta != tb ? ta > tb : a.suffix > b.suffix;
}

}  // namespace

bool CQuarantineStore::IsPath(const std::wstring& text) {
  return text.find_first_of(L"\\:") != std::wstring::npos || text == L"." || text == L"..";
}

bool CQuarantineStore::ParseName(const std::wstring& name, SYSTEMTIME& date, unsigned long& suffix) {
  static const wchar_t kForm[] = L"0000-00-00 00.00.00";  // 0: a digit
  if (name.size() < 19) return false;
  unsigned fields[6] = {}, field = 0;
  for (size_t i = 0; i < 19; ++i) {
    if (kForm[i] != L'0') {
      if (name[i] != kForm[i]) return false;
      ++field;
    } else if (name[i] < L'0' || name[i] > L'9') {
      return false;
    } else {
      fields[field] = fields[field] * 10 + static_cast<unsigned>(name[i] - L'0');
    }
  }
  date = SYSTEMTIME{};
  date.wYear = static_cast<WORD>(fields[0]);
  date.wMonth = static_cast<WORD>(fields[1]);
  date.wDay = static_cast<WORD>(fields[2]);
  date.wHour = static_cast<WORD>(fields[3]);
  date.wMinute = static_cast<WORD>(fields[4]);
  date.wSecond = static_cast<WORD>(fields[5]);
  unsigned __int64 ignored;
  if (!AsFileTime(date, ignored)) return false;
  suffix = 1;
  if (name.size() == 19) return true;
  // " (N)" with N from 2, as Create writes it
  if (name.size() < 23 || name.size() > 28 || name.compare(19, 2, L" (") != 0 || name.back() != L')') return false;
  for (size_t i = 21; i + 1 < name.size(); ++i) {
    if (name[i] < L'0' || name[i] > L'9') return false;
    suffix = (i == 21 ? 0 : suffix * 10) + static_cast<unsigned long>(name[i] - L'0');
  }
  return suffix >= 2 && name == NameFor(date, suffix);
}

double CQuarantineStore::AgeInDays(const SYSTEMTIME& date) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  unsigned __int64 then = 0, current = 0;
  if (!AsFileTime(date, then) || !AsFileTime(now, current)) return 0;
  return (static_cast<double>(current) - static_cast<double>(then)) / (10000000.0 * 86400.0);
}

std::wstring CQuarantineStore::Create() const {
  int rc = SHCreateDirectoryExW(nullptr, m_root.c_str(), nullptr);
  // A file where a folder of the path should be is named, as nothing else says why.
  for (std::wstring folder = m_root; rc != ERROR_SUCCESS && rc != ERROR_ALREADY_EXISTS && folder.size() > 3;
       folder = broom::ParentOf(folder)) {
    const DWORD attributes = GetFileAttributesW(folder.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY))
      throw CHostError{exitUsage, L"cannot create the quarantine folder " + Quoted(m_root) + L": " + Quoted(folder) +
                                      L" is a file, not a folder; move or rename that file, or give --quarantine a "
                                      L"folder"};
  }
  if (rc != ERROR_SUCCESS && rc != ERROR_ALREADY_EXISTS && rc != ERROR_FILE_EXISTS)
    throw CHostError{exitUsage, L"cannot create the quarantine folder " + Quoted(m_root) + L" (" +
                                    SystemMessage(static_cast<DWORD>(rc)) + L"); check that it is writable"};
  SYSTEMTIME now;
  GetLocalTime(&now);
  // CreateDirectoryW fails on a taken name, so two cleans never share one.
  DWORD error = ERROR_SUCCESS;
  for (unsigned long suffix = 1; suffix < 1000; ++suffix) {
    std::wstring folder = m_root + L"\\" + NameFor(now, suffix);
    if (CreateDirectoryW(folder.c_str(), nullptr)) return folder;
    error = GetLastError();
    if (error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS) break;
  }
  throw CHostError{exitUsage, L"cannot create a new quarantine in " + Quoted(m_root) + L" (" + SystemMessage(error) +
                                  L"); check that it is writable"};
}

std::vector<SManagedQuarantine> CQuarantineStore::List() const {
  std::vector<SManagedQuarantine> out;
  WIN32_FIND_DATAW data = {};
  broom::unique_hfind find(FindFirstFileW((m_root + L"\\*").c_str(), &data));
  for (bool more = static_cast<bool>(find); more; more = FindNextFileW(find.get(), &data)) {
    const std::wstring name = data.cFileName;
    if (name == L"." || name == L".." || !(data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) ||
        (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT))
      continue;
    SManagedQuarantine q;
    q.name = name;
    q.folder = m_root + L"\\" + name;
    q.dated = ParseName(name, q.date, q.suffix);
    try {
      CQuarantine quarantine(q.folder, false);
      q.entries = quarantine.Entries().size();
      for (const SQuarantineEntry& e : quarantine.Entries()) q.size += e.size;
    } catch (const CHostError& e) {
      q.damaged = e.message;
    }
    out.push_back(std::move(q));
  }
  std::sort(out.begin(), out.end(), Newer);
  return out;
}

SManagedQuarantine CQuarantineStore::Find(const std::wstring& text) const {
  std::vector<SManagedQuarantine> all = List();
  if (text == L"latest") {
    if (all.empty())
      throw CHostError{exitUsage, L"there is no quarantine in " + Quoted(m_root) +
                                      L" to restore; 'broom clean --quarantine' makes one"};
    return all.front();
  }
  for (const SManagedQuarantine& q : all)
    if (q.name == text) return q;
  throw CHostError{exitUsage, L"there is no quarantine named " + Quoted(text) + L" in " + Quoted(m_root) +
                                  L"; run 'broom quarantine list' for the names, or write a folder as a path (.\\" +
                                  text + L")"};
}

}  // namespace host
