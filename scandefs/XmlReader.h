#pragma once
// Reads one definition file and merges its groups, items, operations and
// checks into a tree of scan groups.
#include <memory>
#include <string>

#include "atl/CString.h"
#include "core/Export.h"
#include "core/PathString.h"
#include "core/RefCounting.h"
#include "scandefs/ConfigStore.h"
#include "scandefs/ConfigValues.h"
#include "scandefs/ScanGroup.h"
#include "scandefs/XmlNode.h"

struct SFileBytes;

// Implemented by the host for the definition files that pass through it.
struct ILoadHook {
  virtual void OnLoadComplete() = 0;
  // May change the bytes in place and lower *size; false rejects the file.
  virtual bool OnFileData(char* data, unsigned long* size, bool reading) = 0;

 protected:
  ~ILoadHook() = default;
};

enum EElementType { etUnknown = -1, etGroup = 0, etItem, etCleaning, etClean, etChecks, etCheck, etValue, etRunning };

// The kinds of "clean" elements and the operation each builds.
enum EOperationKind { okNone = 0, okRam = 1, okFile = 2, okTrunc = 3, okRegistry = 4, okSystem = 5 };

// Reads the integer after ":name:" in a table of ":name:value:" pairs; 0 when absent.
BROOM_API int LookupNamedValue(const CString& table, const wchar_t* name);

class BROOM_API XmlReader {
 public:
  using ConfigValueMap = CScopedMap::ConfigValueMap;

  // A file whose elements nest deeper than this ("ConfigItems" is level
  // 1), or whose groups would nest deeper in the tree (a top-level group is
  // level 1), is not read at all: the walks over a file and over the tree
  // stay shallow. Real files nest about 6 deep.
  static constexpr size_t kMaxElementDepth = 100;
  static constexpr unsigned long kMaxAgeDays = 36500;
  static constexpr size_t kMaxGroupDepth = 100;
  // The most characters the %NAME% references of one file may insert; a
  // file whose references would insert more is not read.
  static constexpr size_t kMaxInsertedText = 16u << 20;

  explicit XmlReader(CRefPtr<CConfigStore> store) : m_store(store) {}

  // False when the file cannot be read, is empty, is rejected by the hook,
  // does not parse, has no "ConfigItems" root or nests too deep (see
  // above); the tree is then untouched and the store gets a note saying why.
  // Throws CAtlException(E_INVALIDARG) when the data holds no '<'.
  bool ReadFile(const CString& path, CScanGroup& root, ILoadHook* hook);
  // The same for a file already read (or not) by ReadWholeFile; takes its bytes.
  bool ReadFile(const CString& path, SFileBytes& bytes, CScanGroup& root, ILoadHook* hook);
  // Widens, parses and checks the bytes of a file that will pass through no
  // hook, ahead of ReadFile, value pass included: it reads the process-wide
  // scope and the registry paths of "regVal" values, and touches no store.
  static void PrepareText(SFileBytes& bytes);

  // While one lives, the files read on its thread into its tree share one
  // index of group children instead of building one each, so merging many
  // files into the same large groups costs no more than merging one. The
  // tree must only grow meanwhile (reading only appends groups): not be
  // sorted, nor lose a group.
  class SharedIndex {
   public:
    explicit SharedIndex(const CScanGroup& root);
    ~SharedIndex();
    SharedIndex(const SharedIndex&) = delete;
    SharedIndex& operator=(const SharedIndex&) = delete;

   private:
    struct State;
    std::unique_ptr<State> m_state;
  };

  // Expands %NAME% references in place: bit 1 = changed, bit 2 = a name was unknown.
  static unsigned long ExpandSymbols(std::wstring& text, const ConfigValueMap* scope);
  static EElementType Classify(const wchar_t* name);
  static bool TextToBool(const CString& text, bool& value);
  static void RemoveDuplicateValues(CPathString& path, wchar_t separator);

 private:
  bool ReadGroup(xml::NodePtr node, CScanGroup_imp& parent);
  bool ReadOperation(xml::NodePtr node, CScanGroup_imp& parent);
  bool ReadChildren(xml::NodePtr node, CScanGroup_imp& group);
  static bool ReadBaseProperties(CScanGroup_imp* group, xml::NodePtr node);
  // The "cost" of a group or item into the store; a word it does not know
  // gets a note and counts as the dearest, "saved".
  void ReadCost(xml::NodePtr node, CScanGroup_imp& group) const;
  // A "running" element: image names of the programs that hold the group's
  // files while they run; each name that is none gets a note.
  void ReadRunning(xml::NodePtr node, CScanGroup_imp& group) const;
  // A load note on the file being read: text, the node's line, after.
  void Note(xml::NodePtr node, const std::wstring& text, const wchar_t* after = L"") const;
  static bool Decrypt(char*& data, unsigned long size);
  static bool Encrypt(char*& data, unsigned long size);

  static bool DecodeDOMRecursive(xml::NodePtr node, ConfigValueMap* scope);
  static bool ReadValue(xml::NodePtr node, ConfigValueMap* scope);
  // A file's text, parsed and checked on its own, ahead of the merge.
  struct ParsedText;
  static std::unique_ptr<ParsedText> ParseText(const char* data, size_t count);
  static void CheckText(ParsedText& text);
  bool Reject(const CString& path, int line, const std::wstring& reason) const;

  bool ReadCleaning(xml::NodePtr node, CScanGroup_imp& group);
  bool ReadClean(xml::NodePtr node, CScanGroup_imp& group);
  static bool ReadChecks(xml::NodePtr node, CScanGroup_imp& group);
  static bool ReadCheck(xml::NodePtr node, CScanGroup_imp& group);
  CRefPtr<IScanOperation> newCleanOperation(const wchar_t* text, xml::NodePtr node);
  // The "olderThan" (days) or "olderThanHours" and "ageBy" ("modified" or
  // "accessed") of a clean element, in hours; false, with a note, when one
  // cannot be used or both ages are given.
  bool ReadAge(xml::NodePtr node, unsigned long& hours, bool& byAccess) const;

  CRefPtr<CConfigStore> m_store;
};

// Commands of the host's deleters; bit 1 scans, bits 1 and 2 forbid a reboot.
class BROOM_API IDelete {
 public:
  enum CleanCommand { ccNone = 0, ccScan = 1, ccNoReboot = 2, ccScanNoReboot = 3 };
  virtual ~IDelete() = default;
  virtual void Delete() = 0;
  virtual void Cancel() = 0;
  static bool IsScanCommand(CleanCommand c) { return (c & 1) == 1; }
  static bool IsRebootAllowed(CleanCommand c) { return (c & 3) == 0; }
};
