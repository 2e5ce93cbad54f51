#include "app/WhiteListFile.h"

#include "app/Session.h"
#include "app/Text.h"
#include "core/Names.h"
#include "core/PathString.h"
#include "registry/RegistryPath.h"
#include "whitelist/WhiteListTree.h"

namespace host {

namespace {

std::wstring Hex4(unsigned value) {
  wchar_t text[16];
  swprintf(text, 16, L"U+%04X", value);
  return text;
}

// Why the engine's path splitter rejects a line, in words.
std::wstring SplitterFault(const std::wstring& line, const Exception& e) {
  std::wstring trimmed = line.substr(0, line.size() - 1);  // one trailing separator is dropped
  if (line.back() == L'\\' && trimmed.empty()) return L"is only a backslash";
  if (line.back() == L'\\' && trimmed.back() == L'\\') return L"ends in two backslashes";
  return L"is not a path the list can hold (" + e.m_message + L")";
}

}  // namespace

bool SplitWhiteList(const std::string& bytes, std::vector<std::wstring>& lines, SWhiteListFault& fault) {
  lines.clear();
  if (bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) {
    // An editor's UTF-8 mark: the loader would take it as part of the first
    // path, and any letter beyond ASCII as two others.
    fault = SWhiteListFault{1, L"line 1 starts with a UTF-8 byte-order mark, but the file holds one byte per character",
                            L"save the file as ANSI (Latin-1) text without the mark"};
    return false;
  }
  size_t end = bytes.find('\x1A');
  if (end == std::string::npos) end = bytes.size();
  size_t pos = 0;
  int number = 0;
  bool lineEnd = true;  // whether the last line read ended with a line end
  auto fail = [&](const std::wstring& what, const std::wstring& fix) {
    fault = SWhiteListFault{number, L"line " + std::to_wstring(number) + L" " + what, fix};
    return false;
  };
  while (pos < end) {
    ++number;
    std::wstring line;
    lineEnd = false;
    while (pos < end) {
      const char c = bytes[pos++];
      if (c == '\r' && pos < end && bytes[pos] == '\n') continue;  // CR LF is one line end
      if (c == '\n') {
        lineEnd = true;
        break;
      }
      line.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    }
    if (line.empty() && !lineEnd) break;  // the end of the file adds nothing
    if (line.empty()) return fail(L"is empty", L"delete the empty line");
    if (line.size() > static_cast<size_t>(CWhiteListTree::kMaxLineLength))
      return fail(Quoted(line, 40) + L" is longer than 259 characters (" + std::to_wstring(line.size()) + L")",
                  L"shorten that line to a parent folder or delete it");
    if (line.find(L'\0') != std::wstring::npos)
      return fail(Quoted(line, 60) + L" holds a NUL character, where the path would end",
                  L"delete the NUL character");
    if (line.find(L'\r') != std::wstring::npos)
      return fail(Quoted(line, 60) + L" holds a carriage return that does not end the line",
                  L"end every line with CR LF and keep carriage returns out of the paths");
    try {
      CWhiteListTree::CParsedString parsed(line.c_str());
    } catch (const Exception& e) {
      return fail(Quoted(line, 60) + L" " + SplitterFault(line, e), L"correct or delete that line");
    }
    lines.push_back(line);
  }
  if (end < bytes.size() && bytes.find_first_not_of("\r\n", end + 1) != std::string::npos) {
    if (lineEnd) ++number;
    return fail(L"holds a Ctrl+Z, where reading stops, and more text follows it", L"delete the Ctrl+Z character");
  }
  return true;
}

std::wstring StoredForm(const std::wstring& line) {
  std::wstring stored = line;
  if (!stored.empty() && stored.back() == L'\\') stored.pop_back();
  return broom::Upper(stored);
}

std::wstring WhyNotStorable(const std::wstring& path) {
  if (path.size() > static_cast<size_t>(CWhiteListTree::kMaxLineLength))
    return L"is longer than 259 characters (" + std::to_wstring(path.size()) + L")";
  for (wchar_t c : path) {
    if (c > 0xFF) return L"holds the character " + Hex4(c) + L", and the file holds Latin-1 text only";
    if (c == L'\r' || c == L'\n' || c == 0x1A || c == 0)
      return L"holds the control character " + Hex4(c) + L", which would end or cut its line";
  }
  return std::wstring();
}

std::wstring ProtectedPathText(const std::wstring& given) {
  for (wchar_t c : given)
    if (c < 0x20)
      throw CHostError{exitUsage, L"the path " + Quoted(given) +
                                      L" holds a control character, which no file name can hold; check the argument"};
  if (!CRegistryPath::StartsWithHive(given.c_str())) return FullPath(given);
  CRegistryPath path;
  path.Parse(given);
  std::wstring normal = path.WhiteListText();
  if (normal.size() > MAX_PATH)
    throw CHostError{exitUsage,
                     L"the registry path " + Quoted(given) + L" is longer than 260 characters; protect a key above it"};
  return normal;
}

bool IsListed(const CWhiteListTree& list, const std::wstring& path) {
  const std::wstring upper = broom::Upper(path);
  CRefPtr<IConstTArray<CString>> listed = list.SaveToArray(0x1);
  if (listed)
    for (const CString& entry : listed->GetArray())
      if (upper == entry.GetString()) return true;
  return false;
}

}  // namespace host
