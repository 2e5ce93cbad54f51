#pragma once
// The text of a winapp2.ini file: reading and decoding it, and cutting it
// into entries and their Key=Value lines, each with its line number. The
// names and values point into the decoded text. Internal to the engine.
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace broom {
namespace winapp2 {

using Text = std::wstring_view;

enum EKind {
  kUnknown, kLangSecRef, kSection, kDetect, kDetectFile, kSpecialDetect, kDetectOS,
  kFileKey, kExcludeKey, kRegKey, kWarning, kDefault
};

struct SLine {
  int line = 0;
  EKind kind = kUnknown;
  Text key, value, text;
};

struct SEntry {
  int line = 0;
  Text name, text;
  std::vector<SLine> keys;
};

bool IsBlank(wchar_t c);
Text Trim(Text t);
bool Equal(Text a, const wchar_t* b);  // without case
std::wstring Upper(Text t);
// Splits at every separator and trims each field; a field may be empty.
std::vector<Text> Fields(Text t, wchar_t separator);
// A key's kind: its name without trailing digits, in any case.
EKind KindOf(Text key);

// The major and minor version of "10", "6.1"; false for anything else.
bool ParseVersion(Text t, unsigned (&version)[2]);
// The version Windows really is.
void WindowsVersion(unsigned (&version)[2]);
bool Below(const unsigned (&a)[2], const unsigned (&b)[2]);

// Told about each line the text cannot use: its number, its text and why.
using SkipFn = std::function<void(int line, Text text, const std::wstring& reason)>;
// The entries of text in order, each with the keys of a kind it knows.
std::vector<SEntry> ParseEntries(const std::wstring& text, const SkipFn& skip);

// The whole file when it holds at most maxBytes; false with the reason in words.
bool ReadWhole(const wchar_t* path, size_t maxBytes, std::string& bytes, std::wstring& error);
// UTF-8 with or without its BOM; UTF-16 when the file starts with its BOM.
std::wstring Decode(const char* data, size_t size);

}  // namespace winapp2
}  // namespace broom
