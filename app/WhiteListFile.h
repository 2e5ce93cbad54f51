#pragma once
// The whitelist file as the engine's loader reads it, checked line by line
// before anything is loaded. The loader stops without a word at a line over
// 259 characters or at a Ctrl+Z, keeps a lone carriage return inside a path,
// ends a path at a NUL and throws at an empty line; a host that then saved
// the list would drop every protected path it did not read.
#include <string>
#include <vector>

class CWhiteListTree;

namespace host {

struct SWhiteListFault {
  int line = 0;       // 1-based
  std::wstring what;  // "line 7 is longer than 259 characters (300)"
  std::wstring fix;   // "shorten it to a parent folder or delete it"
};

// Splits the file's bytes into the lines the loader would add, one byte per
// character. False, with the first fault in the order of the file, when the
// loader would not take the file whole; a Ctrl+Z is accepted only when
// nothing but line ends follows it.
bool SplitWhiteList(const std::string& bytes, std::vector<std::wstring>& lines, SWhiteListFault& fault);

// Why a listed path (as the tree lists it, upper case) cannot be written to
// the file: "holds the character U+4E2D, ...", or empty when it can.
std::wstring WhyNotStorable(const std::wstring& path);

// The path a line that the loader accepts is listed as: upper case, without
// its one trailing separator.
std::wstring StoredForm(const std::wstring& line);

// A path to protect as the whitelist stores it: a registry path (it starts
// with a hive name) in the form the registry scans look for,
// HKCU\Software\Vendor, a value as one more component; anything else as a
// full file path. Throws CHostError(exitUsage) for one it cannot hold.
std::wstring ProtectedPathText(const std::wstring& given);

// Whether the path is itself an entry of the list (not only below one).
bool IsListed(const CWhiteListTree& list, const std::wstring& path);

}  // namespace host
