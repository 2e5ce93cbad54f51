#pragma once
// The managed quarantines: one folder per clean in the Quarantine folder of
// the user data folder, named by the local time it was made, e.g.
// "2026-11-23 14.05.09", with " (2)", " (3)" ... when that name is taken.
// The name is the quarantine's date: listing sorts by it and purging ages
// by it, so a folder renamed to something else is listed but never purged.
#include <windows.h>

#include <string>
#include <vector>

namespace host {

struct SManagedQuarantine {
  std::wstring name;
  std::wstring folder;        // full path
  bool dated = false;         // the name is a date as broom writes it
  SYSTEMTIME date = {};       // local time, when dated
  unsigned long suffix = 1;   // the (N) of a taken name
  size_t entries = 0;
  unsigned __int64 size = 0;  // bytes, as the manifest records them
  std::wstring damaged;       // why its manifest cannot be used; empty when it can
};

class CQuarantineStore {
 public:
  explicit CQuarantineStore(std::wstring root) : m_root(std::move(root)) {}
  const std::wstring& Root() const { return m_root; }

  // Makes the folder of a new quarantine (and the root when missing) and
  // returns its full path; throws CHostError when it cannot.
  std::wstring Create() const;

  // Every folder in the root (links are not quarantines and are left out),
  // newest first: dated names by date and suffix, then the others by name.
  // Each manifest is checked whole; a damaged one is listed with its reason.
  std::vector<SManagedQuarantine> List() const;

  // The quarantine a restore means by text: "latest" for the newest, or a
  // name from List. Throws CHostError(exitUsage) when there is none.
  SManagedQuarantine Find(const std::wstring& text) const;

  // Whether a command-line argument names a folder rather than a managed
  // quarantine: paths hold a backslash or a drive colon (C:\q, .\q).
  static bool IsPath(const std::wstring& text);

  // The name's date and suffix; false when the name is not one broom writes.
  static bool ParseName(const std::wstring& name, SYSTEMTIME& date, unsigned long& suffix);
  // Whole days from a local time to now (negative for a time ahead).
  static double AgeInDays(const SYSTEMTIME& date);

 private:
  std::wstring m_root;
};

}  // namespace host
