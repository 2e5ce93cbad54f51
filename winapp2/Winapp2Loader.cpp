#include "winapp2/Winapp2Loader.h"

#include <windows.h>

#include <algorithm>
#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "core/Handles.h"
#include "core/NameMask.h"
#include "guard/BlastGuard.h"
#include "registry/RegistryPath.h"
#include "registry/RegistryScan.h"
#include "running/Winapp2Programs.h"
#include "core/Names.h"
#include "winapp2/Winapp2Costs.h"
#include "winapp2/Winapp2Detect.h"
#include "winapp2/Winapp2FileScan.h"
#include "winapp2/Winapp2Text.h"
#include "winapp2/Winapp2Variables.h"

using namespace broom::winapp2;
using broom::SplitPath;
using broom::UpperName;

namespace {

const std::pair<int, const wchar_t*> kCategories[] = {
    {3021, L"Applications"}, {3022, L"Internet"}, {3023, L"Multimedia"}, {3024, L"Utilities"}, {3025, L"Windows"}};
const wchar_t* const kOther = L"Other";

// DET_WINDOWS holds on every Windows: it has no folder to look for.
const wchar_t* const kDetWindows = L"DET_WINDOWS";
const std::pair<const wchar_t*, const wchar_t*> kSpecialDetects[] = {
    {L"DET_CHROME", L"%LocalAppData%\\Google\\Chrome\\User Data"},
    {L"DET_MOZILLA", L"%AppData%\\Mozilla\\Firefox"},
    {L"DET_THUNDERBIRD", L"%AppData%\\Thunderbird"},
    {L"DET_OPERA", L"%AppData%\\Opera Software"}};

class CLoad {
 public:
  CLoad(CConfigStore& store, const wchar_t* path, SWinapp2Report& report)
      : m_store(store), m_path(path ? path : L""), m_report(report) {
    size_t slash = m_path.find_last_of(L"\\/");
    m_fileName = slash == std::wstring::npos ? m_path : m_path.substr(slash + 1);
  }

  void Run(const std::wstring& text) {
    m_entries = ParseEntries(text, [this](int line, Text at, const std::wstring& reason) { Skip(line, at, reason); });
    m_report.entries = static_cast<unsigned>(m_entries.size());
    std::wstring notWinapp2 = NotWinapp2(text);
    if (!notWinapp2.empty()) {
      // an empty file, a web page or a binary: refused whole, nothing of it loaded
      m_report.read = false;
      m_report.error = notWinapp2.c_str();
      m_report.skipped.clear();
      m_store.AddLoadNote(CString(m_path.c_str()), 0, m_report.error);
      return;
    }
    std::vector<SPrepared> prepared(m_entries.size());
    for (size_t i = 0; i < m_entries.size(); ++i) Prepare(m_entries[i], prepared[i]);
    for (SPrepared& entry : prepared) Build(entry);
    m_report.fileCalls = m_detector.FileCalls();
    m_report.registryCalls = m_detector.KeyCalls();
    std::stable_sort(m_report.skipped.begin(), m_report.skipped.end(),
                     [](const SWinapp2Skip& a, const SWinapp2Skip& b) { return a.line < b.line; });
    CString file(m_path.c_str());
    for (const SWinapp2Skip& skip : m_report.skipped) m_store.AddLoadNote(file, skip.line, skip.text + L": " + skip.reason);
  }

 private:
  // Why the text is no winapp2.ini file at all: it holds no entry, or most
  // of its lines are neither comments nor entries nor Key=Value lines.
  std::wstring NotWinapp2(const std::wstring& text) const {
    if (m_entries.empty())
      return L"it holds no [entry] line: it is not a winapp2.ini file (empty, a web page or another kind of file)";
    size_t lines = 0;
    for (size_t at = 0; at < text.size();) {
      size_t end = std::min(text.find(L'\n', at), text.size());
      Text line = Trim(Text(text.data() + at, end - at));
      if (!line.empty() && line[0] != L';') ++lines;
      at = end + 1;
    }
    size_t unusable = 0;
    for (const SWinapp2Skip& skip : m_report.skipped)
      unusable += skip.text.Find(L'=') < 0 || skip.text.Find(L'\0') >= 0 || skip.reason.Find(L"NUL") >= 0;
    if (unusable * 2 > lines)
      return L"most of its " + std::to_wstring(lines) +
             L" lines are not winapp2 lines ([Entry], Key=Value or ; comments): it is not a winapp2.ini file";
    return std::wstring();
  }

  struct SFileRule {
    const SLine* line;
    std::vector<std::wstring> roots, masks;
    CWinapp2FileScan::ERecurse recurse;
  };
  struct SRegRule {
    const SLine* line;
    CRegistryPath path;
  };
  struct SPrepared {
    const SEntry* entry = nullptr;
    std::wstring category;
    std::wstring section;  // the Section text, when the entry has one
    Text warning;
    bool detection = false;  // a Detect, DetectFile or SpecialDetect key, readable or not
    bool detectWindows = false;  // SpecialDetect=DET_WINDOWS: holds
    bool osHolds = true;
    std::vector<std::wstring> files;
    std::vector<CRegistryPath> keys;
    std::vector<SFileRule> fileRules;
    std::vector<SRegRule> regRules;
    std::shared_ptr<std::vector<CWinapp2FileScan::SExclude>> fileExcludes;
    std::vector<CRegistryPath> regExcludes;
    const SLine* brokenFileExclude = nullptr;
    const SLine* brokenRegExclude = nullptr;
  };
  struct SCategory {
    CScanGroup_imp* group = nullptr;
    std::unordered_set<std::wstring> names;  // upper-cased item names
  };

  void Skip(int line, Text text, const std::wstring& reason) {
    SWinapp2Skip skip;
    skip.line = line;
    skip.text = CString(text.data(), static_cast<int>(text.size()));
    skip.reason = CString(reason.c_str());
    m_report.skipped.push_back(skip);
  }
  void Skip(const SLine& line, const std::wstring& reason) { Skip(line.line, line.text, reason); }

  // Reads every key of the entry and announces its detection queries.
  void Prepare(const SEntry& entry, SPrepared& p) {
    p.entry = &entry;
    bool haveCategory = false;
    for (const SLine& line : entry.keys) {
      std::wstring reason;
      switch (line.kind) {
        case kLangSecRef:
        case kSection:
          if (line.kind == kSection && p.section.empty()) p.section = line.value;
          if (!haveCategory) {
            haveCategory = true;
            p.category = CategoryOf(line);
          }
          break;
        case kWarning:
          if (p.warning.empty()) p.warning = line.value;
          break;
        case kDetect: {
          ++m_report.detectionKeys;
          p.detection = true;
          CRegistryPath key;
          if (!key.Parse(line.value.data(), line.value.size()) || line.value.empty())
            Skip(line, L"not a registry key: it must start with HKCU, HKLM, HKU or HKCR");
          else if (BeyondRegistryLimits(key))
            Skip(line, L"no registry key can be deeper than 512 levels or have a name over 255 characters");
          else
            AddKey(p, key);
          break;
        }
        case kDetectFile:
        case kSpecialDetect: {
          ++m_report.detectionKeys;
          p.detection = true;
          Text path = line.value;
          if (line.kind == kSpecialDetect && Equal(line.value, kDetWindows)) {
            p.detectWindows = true;
            break;
          }
          if (line.kind == kSpecialDetect) {
            path = Text();
            for (const auto& special : kSpecialDetects)
              if (Equal(line.value, special.first)) path = special.second;
            if (path.empty()) {
              Skip(line, L"unknown SpecialDetect (DET_CHROME, DET_MOZILLA, DET_THUNDERBIRD, DET_OPERA or DET_WINDOWS)");
              break;
            }
          }
          std::vector<std::wstring> paths;
          if (path.find(L'|') != Text::npos)
            Skip(line, L"a '|' cannot be part of a path");
          else if (!m_variables.Expand(path, paths, reason))
            Skip(line, reason);
          for (const std::wstring& one : paths) AddFile(p, one);
          break;
        }
        case kDetectOS: {
          ++m_report.detectionKeys;
          std::vector<Text> sides = Fields(line.value, L'|');
          unsigned low[2] = {0, 0}, high[2] = {0, 0}, os[2] = {0, 0};
          WindowsVersion(os);
          if (sides.size() != 2 || (sides[0].empty() && sides[1].empty()) ||
              (!sides[0].empty() && !ParseVersion(sides[0], low)) || (!sides[1].empty() && !ParseVersion(sides[1], high))) {
            Skip(line, L"not min|max Windows versions such as 6.1| or |10.0");
            p.osHolds = false;
          } else if ((!sides[0].empty() && Below(os, low)) || (!sides[1].empty() && Below(high, os))) {
            p.osHolds = false;
          }
          break;
        }
        case kFileKey:
          PrepareFileKey(line, p);
          break;
        case kExcludeKey:
          PrepareExclude(line, p);
          break;
        case kRegKey: {
          CRegistryPath path;
          if (line.value.empty() || !path.Parse(line.value.data(), line.value.size()))
            Skip(line, L"not a registry path: it must start with HKCU, HKLM, HKU or HKCR");
          else if (BeyondRegistryLimits(path))
            Skip(line, L"no registry key can be deeper than 512 levels or have a name over 255 characters");
          else
            p.regRules.push_back(SRegRule{&line, path});
          break;
        }
        case kDefault:
        case kUnknown:
          break;
      }
    }
    if (!haveCategory) p.category = kOther;
  }

  std::wstring CategoryOf(const SLine& line) {
    if (line.kind == kSection) return line.value.empty() ? kOther : std::wstring(line.value);
    unsigned number[2];
    if (!ParseVersion(line.value, number) || line.value.find(L'.') != Text::npos) {
      Skip(line, L"LangSecRef is not a number; the entry goes to Other");
      return kOther;
    }
    for (const auto& category : kCategories)
      if (static_cast<unsigned>(category.first) == number[0]) return category.second;
    return kOther;
  }

  void AddFile(SPrepared& p, const std::wstring& path) {
    m_detector.PlanFile(path);
    p.files.push_back(path);
  }
  void AddKey(SPrepared& p, const CRegistryPath& key) {
    m_detector.PlanKey(key);
    p.keys.push_back(key);
  }

  void PrepareFileKey(const SLine& line, SPrepared& p) {
    std::vector<Text> fields = Fields(line.value, L'|');
    SFileRule rule{&line, {}, {}, CWinapp2FileScan::recurseNone};
    std::wstring reason;
    if (fields.size() < 2)
      return Skip(line, L"no '|' between the folder and the file masks");
    if (fields.size() > 3) return Skip(line, L"more than three '|'-separated parts");
    if (fields[0].empty()) return Skip(line, L"empty path");
    if (fields.size() == 3) {
      if (Equal(fields[2], L"RECURSE"))
        rule.recurse = CWinapp2FileScan::recurseAll;
      else if (Equal(fields[2], L"REMOVESELF"))
        rule.recurse = CWinapp2FileScan::recurseRemoveSelf;
      else
        return Skip(line, L"unknown flag '" + std::wstring(fields[2]) + L"' (RECURSE or REMOVESELF)");
    }
    for (Text mask : Fields(fields[1], L';')) {
      if (mask.empty()) continue;
      if (mask.find_first_of(L"\\/:") != Text::npos) return Skip(line, L"a file mask holds a folder separator or ':'");
      rule.masks.push_back(Upper(mask));
    }
    if (rule.masks.empty()) return Skip(line, L"no file mask");
    if (!m_variables.Expand(fields[0], rule.roots, reason)) return Skip(line, reason);
    bool everyName = false;
    for (const std::wstring& mask : rule.masks)
      everyName = everyName || mask == L"*.*" || mask.find_first_not_of(L'*') == std::wstring::npos;
    for (const std::wstring& root : rule.roots) {
      CBlastGuard::SVerdict verdict = Guard().CheckRule(root.c_str(), rule.recurse != CWinapp2FileScan::recurseNone,
                                                        everyName);
      if (!verdict.allowed) return Skip(line, L"refused: " + std::wstring(verdict.reason.GetString()));
    }
    p.fileRules.push_back(std::move(rule));
  }

  const CBlastGuard& Guard() {
    if (!m_guard) m_guard.reset(new CBlastGuard());
    return *m_guard;
  }

  // A registry path no system can hold: deeper than 512 levels, or a name over 255 characters.
  static bool BeyondRegistryLimits(const CRegistryPath& key) {
    std::vector<std::wstring> parts = CRegistryPath::Components(key.Subkey());
    if (parts.size() > 512) return true;
    for (const std::wstring& part : parts)
      if (part.size() > 255) return true;
    return false;
  }

  void PrepareExclude(const SLine& line, SPrepared& p) {
    size_t bar = line.value.find(L'|');
    Text kind = Trim(line.value.substr(0, bar));
    Text rest = bar == Text::npos ? Text() : Trim(line.value.substr(bar + 1));
    auto broken = [&](const std::wstring& reason, bool files, bool keys) {
      Skip(line, reason);
      if (files && !p.brokenFileExclude) p.brokenFileExclude = &line;
      if (keys && !p.brokenRegExclude) p.brokenRegExclude = &line;
    };
    if (Equal(kind, L"REG")) {
      CRegistryPath key;
      if (rest.empty() || !key.Parse(rest.data(), rest.size()) || key.IsHiveRoot())
        return broken(L"REG needs a registry key below HKCU, HKLM, HKU or HKCR", false, true);
      p.regExcludes.push_back(key);
      ++m_report.excludes;
      return;
    }
    bool file = Equal(kind, L"FILE");
    if (!file && !Equal(kind, L"PATH")) return broken(L"unknown exclude kind (FILE, PATH or REG)", true, true);
    // FILE|folder\|name, PATH|folder\|mask; FILE|folder\name and PATH|folder read as such too
    size_t split = rest.rfind(L'|');
    Text folder = rest, mask = L"*";
    if (split != Text::npos) {
      folder = Trim(rest.substr(0, split));
      mask = Trim(rest.substr(split + 1));
    } else if (file) {
      size_t slash = rest.find_last_of(L"\\/");
      folder = slash == Text::npos ? Text() : rest.substr(0, slash);
      mask = slash == Text::npos ? rest : rest.substr(slash + 1);
    }
    if (folder.empty()) return broken(L"empty path", true, false);
    std::vector<std::wstring> masks;
    for (Text one : Fields(mask, L';')) {
      // a name as the system opens it: a trailing dot or space would make the exclude keep nothing
      while (!one.empty() && (one.back() == L'.' || one.back() == L' ')) one.remove_suffix(1);
      if (one.empty()) continue;
      if (one.find_first_of(L"\\/:|") != Text::npos)
        return broken(file ? L"a file name holds a folder separator" : L"the mask holds a folder separator", true,
                      false);
      masks.push_back(Upper(one));
    }
    if (masks.empty()) return broken(file ? L"no file name after the folder" : L"no mask after the folder", true, false);
    std::vector<std::wstring> folders;
    std::wstring reason;
    if (!m_variables.Expand(folder, folders, reason)) return broken(reason, true, false);
    if (!p.fileExcludes) p.fileExcludes = std::make_shared<std::vector<CWinapp2FileScan::SExclude>>();
    for (const std::wstring& one : folders) {
      CWinapp2FileScan::SExclude exclude;
      exclude.folder = SplitPath(one.c_str(), one.size());
      for (std::wstring& part : exclude.folder) UpperName(part);
      exclude.masks = masks;
      exclude.below = !file;
      p.fileExcludes->push_back(std::move(exclude));
    }
    ++m_report.excludes;
  }

  bool Applies(const SPrepared& p) {
    if (!p.osHolds) return false;
    if (!p.detection || p.detectWindows) return true;
    // files first: they cost no trip to the Wine server
    for (const std::wstring& file : p.files)
      if (m_detector.FileExists(file)) return true;
    for (const CRegistryPath& key : p.keys)
      if (m_detector.KeyExists(key)) return true;
    return false;
  }

  void Build(SPrepared& p) {
    const SEntry& entry = *p.entry;
    struct SOp {
      CRefPtr<IScanOperation> op;
      const SLine* line;
    };
    std::vector<SOp> ops;
    std::wstring firstRoot;
    unsigned files = 0, keys = 0;
    // a rule of a kind whose exclusions cannot all be read would delete what they keep
    auto excludeBroken = [&](const SLine* broken, const SLine& rule) {
      if (!broken) return false;
      Skip(rule, L"skipped with ExcludeKey line " + std::to_wstring(broken->line) +
                     L", which cannot be read: this rule would delete what it keeps");
      return true;
    };
    for (const SFileRule& rule : p.fileRules) {
      if (excludeBroken(p.brokenFileExclude, *rule.line)) continue;
      CRefPtr<CWinapp2FileScan> scan(new IUnknownNoQIImp<CWinapp2FileScan>());
      scan->SetWhiteListTestBits(1);
      for (const std::wstring& root : rule.roots) scan->AddPath(CPathString(root.c_str()));
      scan->SetRule(rule.masks, rule.recurse);
      scan->SetExcludes(p.fileExcludes);
      if (firstRoot.empty()) firstRoot = rule.roots.front();
      ops.push_back(SOp{CRefPtr<IScanOperation>(scan.Get()), rule.line});
      ++files;
    }
    for (const SRegRule& rule : p.regRules) {
      if (excludeBroken(p.brokenRegExclude, *rule.line)) continue;
      CRefPtr<CRegistryScan> scan(new IUnknownNoQIImp<CRegistryScan>());
      scan->AddPath(rule.path.Text().c_str());
      bool kept = false;
      for (const CRegistryPath& exclude : p.regExcludes) {
        // a kept key keeps everything in it: a rule inside it has nothing left to find
        if (rule.path.IsAtOrBelow(exclude) &&
            (!exclude.HasValue() || (rule.path.HasValue() && exclude.Subkey().size() == rule.path.Subkey().size() &&
                                     broom::EqualNoCase(exclude.ValueName().c_str(), exclude.ValueName().size(),
                                                        rule.path.ValueName().c_str(), rule.path.ValueName().size()))))
          kept = true;
        else if (!rule.path.HasValue())
          scan->AddKeep(exclude.Text().c_str());
      }
      if (kept) continue;
      ops.push_back(SOp{CRefPtr<IScanOperation>(scan.Get()), rule.line});
      ++keys;
    }
    if (ops.empty()) {
      if (p.fileRules.empty() && p.regRules.empty())
        Skip(entry.line, entry.text, L"the entry has no FileKey or RegKey that can be read; it is left out");
      return;
    }
    SCategory& category = Category(p.category);
    if (!category.names.insert(Upper(entry.name)).second) {
      Skip(entry.line, entry.text, L"an entry of this name is already in " + std::wstring(CWinapp2Loader::kTopGroup) + L"/" +
                                       p.category + L"; this one is left out");
      return;
    }
    category.group->m_children.emplace_back();
    CScanGroup_imp& item = category.group->m_children.back();
    item.m_name = CString(entry.name.data(), static_cast<int>(entry.name.size()));
    item.m_parent = category.group;
    item.m_tip = CString(p.warning.data(), static_cast<int>(p.warning.size()));
    item.SetBoolProperty(bpDefaultScan, abFalse);
    item.SetBoolProperty(bpDefaultClean, abFalse);
    bool applies = Applies(p);
    if (!applies) item.SetBoolProperty(bpEnabled, abFalse);
    item.m_desc = Describe(p.category, firstRoot, files, keys).c_str();
    m_store.SetCost(&item, CostOf(entry.name, Targets(p)));
    m_store.AddPrograms(&item, CWinapp2Programs::Images(p.section.empty() ? nullptr : p.section.c_str(),
                                                        std::wstring(entry.name).c_str()));
    for (const SOp& op : ops) {
      CScanGroup_imp::AddScanOp(item, op.op);
      const std::wstring kind(op.line->key.data(), op.line->key.size());
      const std::wstring text(op.line->value.data(), op.line->value.size());
      m_store.SetOperationSource(op.op.Get(), m_path.c_str(), op.line->line, kind.c_str(), text.c_str());
    }
    ++m_report.items;
    m_report.applicable += applies;
    m_report.fileRules += files;
    m_report.registryRules += keys;
  }

  // What the entry's rules name, as written: folder names without their
  // variables, masks, key and value names.
  static std::vector<Text> Targets(const SPrepared& p) {
    std::vector<Text> targets;
    auto add = [&](Text text, const wchar_t* separators) {
      for (size_t at = 0; at <= text.size();) {
        size_t end = std::min(text.find_first_of(separators, at), text.size());
        Text part = Trim(text.substr(at, end - at));
        if (!part.empty() && part.find(L'%') == Text::npos) targets.push_back(part);
        at = end + 1;
      }
    };
    for (const SFileRule& rule : p.fileRules) add(rule.line->value, L"\\/|;");
    for (const SRegRule& rule : p.regRules) add(rule.line->value, L"\\|");
    return targets;
  }

  std::wstring Describe(const std::wstring& category, const std::wstring& firstRoot, unsigned files,
                        unsigned keys) const {
    std::wstring text = category + L" (" + m_fileName + L"): ";
    if (files) {
      text += L"files in " + firstRoot;
      if (files > 1) text += L" and " + std::to_wstring(files - 1) + (files == 2 ? L" more place" : L" more places");
    }
    if (keys) text += (files ? L"; " : L"") + std::to_wstring(keys) + (keys == 1 ? L" registry key or value" : L" registry keys or values");
    return text;
  }

  SCategory& Category(const std::wstring& name) {
    std::wstring upper = Upper(name);
    auto found = m_categories.find(upper);
    if (found != m_categories.end()) return found->second;
    SCategory& category = m_categories[upper];
    category.group = &Child(Child(m_store.GetRoot(), CWinapp2Loader::kTopGroup), name.c_str());
    for (const CScanGroup_imp& item : category.group->m_children) category.names.insert(Upper(item.GetName()));
    return category;
  }

  static CScanGroup_imp& Child(CScanGroup_imp& parent, const wchar_t* name) {
    if (CScanGroup_imp* found = parent.FindChild(name)) return *found;
    parent.m_children.emplace_back();
    CScanGroup_imp& child = parent.m_children.back();
    child.m_name = name;
    child.m_parent = &parent;
    return child;
  }

  CConfigStore& m_store;
  std::wstring m_path, m_fileName;
  SWinapp2Report& m_report;
  std::vector<SEntry> m_entries;
  CVariables m_variables;
  CDetector m_detector;
  std::unique_ptr<CBlastGuard> m_guard;  // made for the first FileKey
  std::unordered_map<std::wstring, SCategory> m_categories;
};

}  // namespace

SWinapp2Report CWinapp2Loader::Load(const wchar_t* path) {
  std::string bytes;
  std::wstring error;
  if (!ReadWhole(path, kMaxFileBytes, bytes, error)) {
    SWinapp2Report report;
    report.error = error.c_str();
    m_store.AddLoadNote(CString(path), 0, CString(error.c_str()));
    return report;
  }
  return LoadText(bytes.data(), bytes.size(), path);
}

SWinapp2Report CWinapp2Loader::LoadText(const char* data, size_t size, const wchar_t* path) {
  SWinapp2Report report;
  if (size > kMaxFileBytes) {
    report.error = L"the file is larger than 64 MB";
    m_store.AddLoadNote(CString(path), 0, report.error);
    return report;
  }
  report.read = true;
  std::wstring text = Decode(data, size);
  // the tree is sorted again on the way out of a failure too, as after a definition load
  auto sort = broom::scope_exit([this] { m_store.GetRoot().SortChildren(); });
  CLoad(m_store, path, report).Run(text);
  return report;
}
