#include "textconv/TextConv.h"

#include <cstdio>
#include <cwchar>
#include <cwctype>

namespace textconv {
namespace {

struct NamedPage {
  const wchar_t* name;
  UINT codepage;
};

// IANA names and common Windows aliases; "windows-NNNN", "cpNNNN", "ibmNNN"
// and bare numbers are read by pattern below.
const NamedPage kNames[] = {
    {L"utf-8", CP_UTF8},          {L"utf8", CP_UTF8},          {L"utf-7", CP_UTF7},
    {L"us-ascii", 20127},         {L"ascii", 20127},           {L"iso-8859-1", 28591},
    {L"latin1", 28591},           {L"iso-8859-2", 28592},      {L"iso-8859-3", 28593},
    {L"iso-8859-4", 28594},       {L"iso-8859-5", 28595},      {L"iso-8859-6", 28596},
    {L"iso-8859-7", 28597},       {L"iso-8859-8", 28598},      {L"iso-8859-9", 28599},
    {L"iso-8859-13", 28603},      {L"iso-8859-15", 28605},     {L"koi8-r", 20866},
    {L"koi8-u", 21866},           {L"shift_jis", 932},         {L"shift-jis", 932},
    {L"sjis", 932},               {L"euc-jp", 20932},          {L"iso-2022-jp", 50220},
    {L"gb2312", 936},             {L"gbk", 936},               {L"gb18030", 54936},
    {L"big5", 950},               {L"euc-kr", 949},            {L"ks_c_5601-1987", 949},
    {L"macintosh", 10000},        {L"ansi", CP_ACP},           {L"acp", CP_ACP},
    {L"oem", CP_OEMCP},           {L"oemcp", CP_OEMCP},        {L"thread_acp", CP_THREAD_ACP},
};

bool ReadNumber(const wchar_t* text, UINT& value) {
  if (!*text) return false;
  UINT n = 0;
  for (; *text; ++text) {
    if (*text < L'0' || *text > L'9' || n > 100000) return false;
    n = n * 10 + static_cast<UINT>(*text - L'0');
  }
  value = n;
  return true;
}

void CheckPage(UINT codepage) {
  bool pseudo = codepage == CP_ACP || codepage == CP_OEMCP || codepage == CP_THREAD_ACP;
  if (!pseudo && !IsValidCodePage(codepage)) throw unsupported_codepage(static_cast<int>(codepage));
}

UINT PageFromName(const std::wstring& name) {
  UINT page = 0;
  if (!CodePageFromName(name, page)) throw unsupported_codepage(0);
  return page;
}

}  // namespace

unsupported_codepage::unsupported_codepage(int codepage)
    : exception([codepage] {
        char text[64];
        snprintf(text, sizeof text, "codepage %d is not supported", codepage);
        return std::string(text);
      }()),
      m_codepage(codepage) {}

bool CodePageFromName(const std::wstring& name, UINT& codepage) {
  std::wstring lower(name);
  for (auto& ch : lower) ch = static_cast<wchar_t>(std::towlower(ch));
  for (const auto& entry : kNames)
    if (lower == entry.name) {
      codepage = entry.codepage;
      return true;
    }
  const wchar_t* prefixes[] = {L"windows-", L"cp", L"ibm", L"x-cp", L""};
  for (const wchar_t* prefix : prefixes) {
    size_t n = wcslen(prefix);
    if (lower.compare(0, n, prefix) == 0 && ReadNumber(lower.c_str() + n, codepage)) return true;
  }
  return false;
}

std::string ToMultiByte(const std::wstring& text, UINT codepage) {
  CheckPage(codepage);
  if (text.empty()) return std::string();
  int n = WideCharToMultiByte(codepage, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                              nullptr);
  if (n <= 0) throw unsupported_codepage(static_cast<int>(codepage));
  std::string out(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(codepage, 0, text.data(), static_cast<int>(text.size()), &out[0], n, nullptr, nullptr);
  return out;
}

std::wstring ToWide(const std::string& text, UINT codepage) {
  CheckPage(codepage);
  if (text.empty()) return std::wstring();
  int n = MultiByteToWideChar(codepage, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  if (n <= 0) throw unsupported_codepage(static_cast<int>(codepage));
  std::wstring out(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(codepage, 0, text.data(), static_cast<int>(text.size()), &out[0], n);
  return out;
}

std::string ToMultiByte(const std::wstring& text, const std::wstring& codepageName) {
  return ToMultiByte(text, PageFromName(codepageName));
}

std::wstring ToWide(const std::string& text, const std::wstring& codepageName) {
  return ToWide(text, PageFromName(codepageName));
}

}  // namespace textconv
