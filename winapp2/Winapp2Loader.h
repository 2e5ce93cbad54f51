#pragma once
// Reads a winapp2.ini file (the community's cleaning database) into a
// store's tree, beside whatever definition files were loaded into it.
//
// Every entry becomes an item below the top group "winapp2" and its
// category (LangSecRef 3021 Applications, 3022 Internet, 3023 Multimedia,
// 3024 Utilities, 3025 Windows, other numbers Other; or the Section text),
// named as the entry without its trailing " *" and made directly in its
// category, so a '/' in a name never makes groups. Items are off for
// scanning and cleaning by default, switched off (bpEnabled) when none of
// their detection keys holds on this PC, and carry Warning= as their tip.
// Each FileKey becomes a CWinapp2FileScan, each RegKey a CRegistryScan, and
// each operation's source (file, line, key, value) is kept by the store.
//
// A key that cannot be read is skipped and reported with its line; the rest
// of its entry still loads, and nothing ever becomes broader than written:
// an exclude that cannot be read takes the rules it would narrow with it,
// and a detection key that cannot be read never holds.
#include <vector>

#include "atl/CString.h"
#include "core/Export.h"
#include "scandefs/ConfigStore.h"

struct SWinapp2Skip {
  int line = 0;     // from 1
  CString text;     // the line as written: "FileKey7=%LocalAppData%\Dropbox\"
  CString reason;   // "no '|' between the folder and the file masks"
};

struct SWinapp2Report {
  bool read = false;  // false when the file could not be read; error says why
  CString error;
  unsigned entries = 0;        // [Name *] lines
  unsigned items = 0;          // entries that became items
  unsigned applicable = 0;     // items whose detection holds on this PC
  unsigned fileRules = 0;      // FileKey operations made
  unsigned registryRules = 0;  // RegKey operations made
  unsigned excludes = 0;       // ExcludeKeys read
  unsigned detectionKeys = 0;  // Detect, DetectFile, SpecialDetect and DetectOS keys
  unsigned fileCalls = 0;      // file-system and registry calls the detection made
  unsigned registryCalls = 0;
  std::vector<SWinapp2Skip> skipped;  // by line
};

class BROOM_API CWinapp2Loader {
 public:
  static constexpr const wchar_t* kTopGroup = L"winapp2";
  static constexpr unsigned long kMaxFileBytes = 64ul << 20;

  explicit CWinapp2Loader(CConfigStore& store) : m_store(store) {}

  // Reads the file (UTF-8, with or without BOM; CRLF or LF) into the
  // store's tree, sorts the tree again and adds a load note per skipped
  // line. A file that cannot be read (missing, larger than kMaxFileBytes)
  // changes nothing and gets one note.
  SWinapp2Report Load(const wchar_t* path);
  // The same for text in memory; path names it in notes and sources.
  SWinapp2Report LoadText(const char* data, size_t size, const wchar_t* path);

 private:
  CConfigStore& m_store;
};
