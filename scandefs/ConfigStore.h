#pragma once
// The host's entry point to the scan definitions: a store that loads
// definition folders into one sorted tree of groups.
#include <list>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "atl/CString.h"
#include "core/Export.h"
#include "core/RefCounting.h"
#include "scandefs/ItemTraits.h"
#include "scandefs/ScanGroup.h"
#include "scandefs/XmlNode.h"

struct ILoadHook;
struct SFileBytes;

// Implemented by the host: builds operations for "clean" kinds it knows.
struct IScanOperationFactory : public IUnknown {
  virtual CRefPtr<IScanOperation> CreateOperation(const wchar_t* kind, xml::NodePtr node) = 0;
};

// Implemented by the host: the display text for a "$(name)" key ("MANUAL_name").
class BROOM_API ILocalizeStrings {
 public:
  ILocalizeStrings() = default;
  ILocalizeStrings(const ILocalizeStrings&) = default;
  ILocalizeStrings& operator=(const ILocalizeStrings&) = default;
  virtual CString Localize(const wchar_t* key, int reserved) = 0;

 protected:
  ~ILocalizeStrings() = default;
};

// An interface the library exports but does not call.
class BROOM_API IFighter {
 public:
  IFighter() = default;
  IFighter(const IFighter&) = default;
  IFighter& operator=(const IFighter&) = default;
  virtual void Fight() = 0;

 protected:
  ~IFighter() = default;
};

class BROOM_API IConfig : public IUnknown {
 public:
  static CRefPtr<IConfig> NewConfig();

  virtual void GetGroups(CRefPtr<TIteratorIface<CScanGroup>>& out) = 0;
  // True when at least one definition file was accepted.
  virtual bool Load(const wchar_t* folder, ILoadHook* hook, ILocalizeStrings* localizer) = 0;
  virtual void AddFactory(IScanOperationFactory* factory) = 0;
  virtual ~IConfig() = default;

 protected:
  IConfig() = default;
};

// Something a load skipped: a definition file it could not use, or a part
// of one, with the reason in words.
struct SLoadNote {
  CString file;    // full path
  int line = 0;    // from 1; 0 when no line is known
  CString reason;  // "does not parse: a start tag is malformed at line 3"
};

// Where an operation of the tree came from: the definition file, the line
// of its rule, the rule's kind and its text as it was read (after %NAME%
// expansion). A host shows it to answer "why does this want to go?".
struct SOperationSource {
  CString file;
  int line = 0;  // from 1; 0 when unknown
  CString kind;  // "file", "trunc", "reg", a winapp2 key name, ...
  CString text;  // the root pattern or rule
};

class BROOM_API CConfigStore : public IConfig {
 public:
  CConfigStore() = default;

  // The store behind a configuration made by NewConfig; null for any other.
  static CConfigStore* Of(IConfig* config);

  void GetGroups(CRefPtr<TIteratorIface<CScanGroup>>& out) override;
  bool Load(const wchar_t* folder, ILoadHook* hook, ILocalizeStrings* localizer) override;
  void AddFactory(IScanOperationFactory* factory) override { m_factories.emplace_back(factory); }

  const std::list<CRefPtr<IScanOperationFactory>>& GetFactories() const { return m_factories; }
  CScanGroup_imp& GetRoot() { return m_root; }
  // The display form of a group text: environment variables, "$(name)"
  // through the localizer (during a load), "$$" to "$".
  CString ExpandText(const CString& text) const;

  // The source of an operation of this store's tree; false when unknown.
  bool GetOperationSource(const IScanOperation* op, SOperationSource& out) const;
  // Notes where op came from; a later note for the same op wins.
  void SetOperationSource(const IScanOperation* op, const wchar_t* file, int line, const wchar_t* kind,
                          const wchar_t* text);

  // What cleaning the group's items costs: its own word, else its nearest
  // group's, else costCache.
  ECost GetCost(const CScanGroup* group) const;
  ECost GetOwnCost(const CScanGroup* group) const;  // costUnset when it says nothing itself
  void SetCost(const CScanGroup* group, ECost cost);

  // The image names of the programs that keep the group's files open while
  // they run (chrome.exe): its own and those of every group above it, each
  // once whatever its case.
  std::vector<std::wstring> GetPrograms(const CScanGroup* group) const;
  void AddPrograms(const CScanGroup* group, const std::vector<std::wstring>& images);

  // What the loads skipped, oldest first, kept until taken.
  const std::vector<SLoadNote>& GetLoadNotes() const { return m_notes; }
  std::vector<SLoadNote> TakeLoadNotes();
  void AddLoadNote(const CString& file, int line, const CString& reason);

 protected:
  bool SearchFolder(const wchar_t* folder, const wchar_t* extension, ILoadHook* hook);
  // What a folder holds, listed once per load (null when it cannot be listed).
  struct SEntry {
    std::wstring name;
    bool folder;
  };
  const std::vector<SEntry>* Listing(const wchar_t* folder);
  bool LoadFile(const wchar_t* path, SFileBytes& bytes, ILoadHook* hook);
  void FinishLoad();
  void ExpandTree(CScanGroup_imp& group);
  CString Localize(const CString& text) const;

  std::list<CRefPtr<IScanOperationFactory>> m_factories;
  int m_loadDepth = 0;
  CScanGroup_imp m_root;
  ILocalizeStrings* m_localizer = nullptr;
  std::vector<SLoadNote> m_notes;
  struct SListing {
    bool listed = false;
    std::vector<SEntry> entries;
  };
  using Listings = std::map<std::wstring, SListing>;
  Listings* m_listings = nullptr;  // the listings of the load under way
  // Sources of the operations the tree holds (they live as long as the
  // store), appended while files are read and sorted on the first look-up;
  // their texts share one buffer, so noting one costs no allocation of its own.
  struct SSourceRecord {
    const IScanOperation* op;
    size_t file;  // index into m_sourceFiles
    int line;
    size_t kind, kindLength, text, textLength;  // into m_sourceText
  };
  mutable std::vector<SSourceRecord> m_sources;
  mutable bool m_sourcesSorted = true;
  std::wstring m_sourceText;
  std::vector<CString> m_sourceFiles;
  std::unordered_map<const CScanGroup*, ECost> m_costs;  // groups live as long as the store
  std::unordered_map<const CScanGroup*, std::vector<std::wstring>> m_programs;
};

// Settings with a current group path; values are not stored anywhere.
class BROOM_API XmlConfigSettings {
 public:
  XmlConfigSettings() = default;
  XmlConfigSettings(const XmlConfigSettings&) = default;
  XmlConfigSettings& operator=(const XmlConfigSettings&) = default;

  virtual void Set(const wchar_t* name, const wchar_t* value);
  virtual void Set(const wchar_t* name, int value);
  virtual int Get(const wchar_t* name, int defaultValue);
  virtual CString Get(const wchar_t* name, const wchar_t* defaultValue);
  virtual std::wstring GetPath(const wchar_t* name);
  virtual void BeginGroup(const wchar_t* name);
  virtual void EndGroup();
  virtual std::wstring Group();
  // declared last so that the eight operations keep the first slots
  virtual ~XmlConfigSettings() = default;

  CString m_group;
};

// Enters a group for its lifetime and restores the path it found.
class BROOM_API XmlConfigGroup {
 public:
  XmlConfigGroup(XmlConfigSettings* settings, const wchar_t* name);
  XmlConfigGroup(const XmlConfigGroup&) = default;
  ~XmlConfigGroup();
  operator XmlConfigSettings*() const { return m_settings; }

  XmlConfigSettings* m_settings;
  CString m_savedGroup;
};
