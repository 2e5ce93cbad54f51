#pragma once
// The sites whose cookies a clean keeps ("cookies-keep.txt"; hosts keep it in
// %LOCALAPPDATA%\Broom). UTF-8, one site per line, '#' starts a comment,
// blank lines are allowed. A site keeps itself and every subdomain:
// example.com keeps the cookies of example.com, .example.com and
// mail.example.com, never those of badexample.com or example.com.evil.net.
// "*.example.com" and ".example.com" name the same site; case does not count,
// and international names are kept in their ASCII (punycode) form, as cookies
// store them.
//
// It fails closed: a list that could not be read, or holds a line that is not
// a host name (spaces, a scheme, a path, a port, a wildcard other than a
// leading "*."), is unusable. An unusable list keeps every site, refuses
// edits, and the cookie operations given it find and delete nothing. An
// absent file is an empty list.
#include <windows.h>

#include <string>
#include <unordered_set>
#include <vector>

#include "core/Export.h"

// Why a list could not be used.
struct SKeepListProblem {
  int line = 0;          // from 1; 0 when the file as a whole could not be read
  std::wstring text;     // the line as read (control characters shown as <U+000D>)
  std::wstring reason;   // "holds a scheme ('https://'); write the host name alone, as in example.com"
  DWORD error = 0;       // the Win32 error when the file could not be read
};

class BROOM_API CCookieKeepList {
 public:
  enum EEdit {
    editAdded,      // keep: the site was added
    editRemoved,    // unkeep: every line naming the site was removed
    editAlready,    // keep: the site is kept already (detail: by which listed site)
    editNotListed,  // unkeep: no line names the site
    editByParent,   // unkeep: a listed parent site keeps it (detail: that site); nothing changed
    editInvalid,    // the text is not a host name (detail: why)
    editUnusable,   // the list itself is unusable; nothing changed
    editByPolicy,   // keep or unkeep: an enforced site keeps it (detail: that site); nothing changed
  };

  CCookieKeepList() = default;

  // Reads the file; false, with the problem, when it cannot be read whole.
  // An absent file (or folder) makes an empty list and counts as read.
  bool Load(const wchar_t* path);
  // The same from the file's bytes.
  bool Parse(const std::string& utf8);
  bool IsUsable() const { return m_usable; }
  bool WasAbsent() const { return m_absent; }
  const SKeepListProblem& GetProblem() const { return m_problem; }
  // "line 3 ('http://example.com'): holds a scheme ...", or the file's error.
  std::wstring DescribeProblem() const;

  // Whether a cookie of this host (a Chromium host_key or Firefox host, a
  // leading dot allowed) is kept. An unusable list keeps everything.
  bool Keeps(const wchar_t* host) const;
  bool KeepsUtf8(const char* host, size_t length) const;
  // The listed site that keeps host, or empty.
  std::wstring KeptBy(const wchar_t* host) const;
  // The sites as listed (normalised: lower case, ASCII), in file order, once each.
  std::vector<std::wstring> GetSites() const;

  // A site kept whatever the file says (an organisation's policy; origin
  // names where it comes from in a problem): it keeps like a listed site,
  // is never written to the file, and neither Keep nor Unkeep changes it
  // (editByPolicy). A text that is not a site makes the list unusable, so
  // that no cookie goes that it meant to keep. Load and Parse drop the
  // enforced sites: add them after.
  bool AddEnforced(const wchar_t* text, const wchar_t* origin);
  std::vector<std::wstring> GetEnforcedSites() const;
  bool IsEnforced(const wchar_t* site) const;

  // The site a line names, normalised; false with the reason otherwise.
  static bool ParseSite(const std::wstring& text, std::wstring& site, std::wstring& why);

  // Edit the lines in memory; Save writes them.
  EEdit Keep(const wchar_t* text, std::wstring* detail = nullptr);
  EEdit Unkeep(const wchar_t* text, std::wstring* detail = nullptr);
  // The file's text: its lines as read (comments kept), edits applied, CRLF.
  std::string Text() const;
  // Replaces the file whole in one step (written beside it, then moved over
  // it): 0 or the Win32 error, and then the old file is as it was. Refused
  // (ERROR_INVALID_STATE) for an unusable list.
  DWORD Save(const wchar_t* path) const;

 private:
  struct SLine {
    std::string raw;   // as read, without its line end
    std::string site;  // normalised; empty for a blank or comment line
  };
  bool Fail(int line, const std::string& raw, const std::wstring& reason);
  void Rebuild();
  std::string KeptByUtf8(const std::string& host) const;

  std::vector<SLine> m_lines;
  std::unordered_set<std::string> m_sites;     // listed and enforced
  std::vector<std::string> m_enforced;         // in the order added, once each
  bool m_usable = true;
  bool m_absent = false;
  SKeepListProblem m_problem;
};
