#include "registry/RegistryScan.h"

#include <utility>

#include "core/Handles.h"
#include "core/Names.h"
#include "log/ScanLogThread.h"
#include "registry/CleanableRegistry.h"
#include "registry/RegKeyReader.h"
#include "registry/RegistrySafety.h"
#include "scan/OperationNotify.h"
#include "whitelist/WhiteListTree.h"

namespace {

std::wstring Child(const std::wstring& subkey, const std::wstring& name) {
  return subkey.empty() ? name : subkey + L'\\' + name;
}

// One key as the scan sees it: the path items use and every other name it
// goes by (as written in the definition, under HKCR), for the safety table
// and the whitelist.
struct SKeyNames {
  CRegistryPath item;
  REGSAM view = 0;
  std::vector<CRegistryPath> all;  // item first

  SKeyNames ChildNames(const std::wstring& name) const {
    SKeyNames child;
    child.item = CRegistryPath(item.Hive(), Child(item.Subkey(), name));
    child.view = view;
    for (const CRegistryPath& path : all) child.all.emplace_back(path.Hive(), Child(path.Subkey(), name));
    return child;
  }
  void AddAlias(const CRegistryPath& path) {
    for (const CRegistryPath& known : all)
      if (known.SameKey(path)) return;
    all.push_back(path);
  }
};

// The whitelist's view of a path: at most 260 characters, cut at a
// separator (an entry above the cut protects all below it); true when it
// had to be cut.
bool WhiteListForm(const std::wstring& text, std::wstring& out) {
  out = text;
  if (out.size() <= 260) return false;
  out.resize(261);
  size_t slash = out.rfind(L'\\');
  out.resize(slash == std::wstring::npos ? 0 : slash);
  return true;
}

class CScanRun {
 public:
  CScanRun(IResultsCollector* collector, IOperationStatusNotify* status, CWhiteListTree* whiteList)
      : m_collector(collector), m_status(status), m_whiteList(whiteList),
        m_log(CScanLogThread::GetCurrentScanLog(false)) {}

  void ScanPath(const CRegistryPath& path, const CRegistryScan::SKeep& keep);

 private:
  bool Cancelled() const { return m_status && m_status->IsCancelled(); }
  bool Protected(const CRegistryPath& path) const;
  bool Protected(const SKeyNames& names) const;
  void AddProtectedBelow(const SKeyNames& names, CRegistryScan::SKeep& keep) const;
  bool Covered(const CRegistryPath& key) const;
  void ReportKey(HKEY key, const SKeyNames& names, const CRegistryScan::SKeep& keep);
  void ReportValue(HKEY key, const SKeyNames& names, const std::wstring& name, DWORD size);
  void Report(const CRegistryPath& path, REGSAM view, unsigned __int64 size);

  IResultsCollector* m_collector;
  IOperationStatusNotify* m_status;
  CWhiteListTree* m_whiteList;
  CRefPtr<ILogWriter> m_log;
  std::set<std::wstring> m_keys;    // upper-cased key paths reported whole
  std::set<std::wstring> m_values;  // upper-cased Key|Name of reported values
};

bool CScanRun::Protected(const CRegistryPath& path) const {
  if (!m_whiteList) return false;
  std::wstring text;
  WhiteListForm(path.WhiteListText(), text);
  try {
    return (m_whiteList->CheckProtection(text.c_str()) & 0x1) != 0;
  } catch (...) {
    return true;  // a path the whitelist cannot read is left alone
  }
}

bool CScanRun::Protected(const SKeyNames& names) const {
  for (const CRegistryPath& path : names.all)
    if (Protected(path)) return true;
  return false;
}

// Every protected entry below the key's names becomes something to keep:
// a subkey and a value of its name.
void CScanRun::AddProtectedBelow(const SKeyNames& names, CRegistryScan::SKeep& keep) const {
  if (!m_whiteList) return;
  for (const CRegistryPath& path : names.all) {
    std::wstring text;
    if (WhiteListForm(path.KeyText(), text)) continue;  // nothing that long is listed
    unsigned long flags = 0;
    CWhiteListTree::Folder folder;
    try {
      folder = m_whiteList->GetFolder(text.c_str(), flags);
    } catch (...) {
      continue;
    }
    if (!folder) continue;
    // depth first through the tree's nodes below the folder
    std::vector<std::pair<const SWhiteListTreeNode*, std::wstring>> pending{{folder.Position().node(), L""}};
    while (!pending.empty()) {
      auto [node, relative] = pending.back();
      pending.pop_back();
      for (const SWhiteListTreeNode* child = node->link->next; child->item; child = child->next) {
        std::wstring name(child->item->name.GetString(), static_cast<size_t>(child->item->name.GetLength()));
        std::wstring below = Child(relative, name);
        if (child->item->flags & 0x1) {
          keep.Add(below, nullptr);
          size_t slash = below.rfind(L'\\');
          std::wstring value = below.substr(slash == std::wstring::npos ? 0 : slash + 1);
          keep.Add(slash == std::wstring::npos ? std::wstring() : below.substr(0, slash), &value);
        } else {
          pending.emplace_back(child, below);
        }
      }
    }
  }
}

bool CScanRun::Covered(const CRegistryPath& key) const {
  std::wstring text = broom::Upper(key.KeyText());
  for (size_t end = text.find(L'\\'); end != std::wstring::npos; end = text.find(L'\\', end + 1))
    if (m_keys.count(text.substr(0, end))) return true;
  return m_keys.count(text) != 0;
}

void CScanRun::Report(const CRegistryPath& path, REGSAM view, unsigned __int64 size) {
  CRefPtr<CCleanableRegistry> item(new IUnknownNoQIImp<CCleanableRegistry>());
  item->Init(path, view, size);
  if (path.HasValue())
    m_values.insert(broom::Upper(path.Text()));
  else
    m_keys.insert(broom::Upper(path.KeyText()));
  // the log lists every reported item, even one the host later declines
  if (m_log) m_log->WriteEntry(item->GetLogEntry(), false);
  if (m_collector) m_collector->AddItem(item);
}

void CScanRun::ReportValue(HKEY key, const SKeyNames& names, const std::wstring& name, DWORD size) {
  for (const CRegistryPath& path : names.all) {
    if (CRegistrySafety::IsRefusedValueKey(path)) return;
    CRegistryPath value = path;
    value.SetValue(name);
    if (Protected(value)) return;
  }
  CRegistryPath value = names.item;
  value.SetValue(name);
  if (Covered(names.item) || m_values.count(broom::Upper(value.Text()))) return;
  if (size == MAXDWORD) {
    DWORD type = REG_NONE;
    size = 0;
    if (RegQueryValueExW(key, name.c_str(), nullptr, &type, nullptr, &size) != ERROR_SUCCESS) return;
  }
  Report(value, names.view, size);
}

void CScanRun::ReportKey(HKEY key, const SKeyNames& names, const CRegistryScan::SKeep& given) {
  if (Cancelled()) return;
  for (const CRegistryPath& path : names.all)
    if (CRegistrySafety::IsRefusedKey(path)) return;
  if (Protected(names) || Covered(names.item) || given.whole) return;
  CRegistryScan::SKeep keep = given;
  AddProtectedBelow(names, keep);
  if (keep.whole) return;
  if (keep.Empty()) {
    Report(names.item, names.view, broom::reg::TreeDataSize(key, names.view));
    return;
  }
  // the key stays: what is not kept goes one by one
  std::vector<broom::reg::SValue> values;
  if (broom::reg::ReadValues(key, false, values) == ERROR_SUCCESS)
    for (const auto& value : values) {
      std::wstring upper = broom::Upper(value.name);
      if (!keep.values.count(upper)) ReportValue(key, names, value.name, value.size);
    }
  std::vector<std::wstring> subkeys;
  if (broom::reg::ReadSubkeyNames(key, subkeys) != ERROR_SUCCESS) return;
  static const CRegistryScan::SKeep kNothing;
  for (const std::wstring& name : subkeys) {
    auto found = keep.keys.find(broom::Upper(name));
    if (found != keep.keys.end() && found->second.whole) continue;
    broom::unique_hkey child;
    if (RegOpenKeyExW(key, name.c_str(), 0, KEY_READ | names.view, child.addressof()) != ERROR_SUCCESS) continue;
    ReportKey(child.get(), names.ChildNames(name), found != keep.keys.end() ? found->second : kNothing);
  }
}

void CScanRun::ScanPath(const CRegistryPath& path, const CRegistryScan::SKeep& keep) {
  std::wstring firstKernelName;
  bool firstOpened = false;
  const REGSAM views[] = {KEY_WOW64_64KEY, KEY_WOW64_32KEY};
  for (size_t i = 0; i < 2; ++i) {
    broom::unique_hkey key;
    if (RegOpenKeyExW(path.Hive(), path.Subkey().c_str(), 0, KEY_READ | views[i], key.addressof()) != ERROR_SUCCESS)
      continue;
    std::wstring kernelName = CRegistryPath::KernelName(key.get());
    // the second view counts only when the system names another key for it
    if (firstOpened &&
        (kernelName.empty() || firstKernelName.empty() || broom::Upper(kernelName) == broom::Upper(firstKernelName)))
      continue;
    firstOpened = true;
    firstKernelName = kernelName;
    SKeyNames names;
    CRegistryPath real;
    if (CRegistryPath::FromKernelName(kernelName, real)) {
      names.item = real;  // the real place, reached from the 64-bit view
      names.view = KEY_WOW64_64KEY;
    } else {
      names.item = CRegistryPath(path.Hive(), path.Subkey());
      names.view = views[i];
    }
    names.all.push_back(names.item);
    names.AddAlias(CRegistryPath(path.Hive(), path.Subkey()));
    std::wstring rest;
    for (HKEY hive : {HKEY_LOCAL_MACHINE, HKEY_CURRENT_USER}) {
      CRegistryPath classes(hive, hive == HKEY_LOCAL_MACHINE ? L"SOFTWARE\\Classes" : L"Software\\Classes");
      if (names.item.IsBelow(classes, &rest)) names.AddAlias(CRegistryPath(HKEY_CLASSES_ROOT, rest));
    }
    if (path.HasValue())
      ReportValue(key.get(), names, path.ValueName(), MAXDWORD);
    else
      ReportKey(key.get(), names, keep);
  }
}

}  // namespace

void CRegistryScan::SKeep::Add(const std::wstring& relativeKey, const std::wstring* value) {
  SKeep* node = this;
  for (size_t start = 0; start < relativeKey.size();) {
    size_t end = relativeKey.find(L'\\', start);
    if (end == std::wstring::npos) end = relativeKey.size();
    if (end > start) node = &node->keys[broom::Upper(relativeKey.substr(start, end - start))];
    start = end + 1;
  }
  if (value)
    node->values.insert(broom::Upper(*value));
  else
    node->whole = true;
}

bool CRegistryScan::AddPath(const wchar_t* text) {
  CRegistryPath path;
  if (!text || !path.Parse(text, wcslen(text))) return false;
  m_paths.push_back(path);
  return true;
}

bool CRegistryScan::AddKeep(const wchar_t* text) {
  if (!text) return false;
  std::wstring keep(text);
  size_t first = keep.find_first_not_of(L" \t\r\n");
  keep.erase(0, first == std::wstring::npos ? keep.size() : first);
  keep.erase(keep.find_last_not_of(L" \t\r\n") + 1);
  SKeepEntry entry;
  entry.full = CRegistryPath::StartsWithHive(keep.c_str());
  // a relative keep is read as a path below a hive
  if (!entry.path.Parse(entry.full ? keep : L"HKCU\\" + keep)) return false;
  if (!entry.full && entry.path.IsHiveRoot() && !entry.path.HasValue()) return false;
  bool below = false;
  for (const CRegistryPath& key : m_paths) {
    std::wstring rest;
    if (!key.HasValue() && (!entry.full || entry.path.IsBelow(key, &rest) ||
                            (entry.path.HasValue() && key.SameKey(entry.path))))
      below = true;
  }
  if (!below) return false;
  m_keeps.push_back(entry);
  return true;
}

CRegistryScan::SKeep CRegistryScan::KeepFor(const CRegistryPath& key) const {
  SKeep keep;
  for (const SKeepEntry& entry : m_keeps) {
    std::wstring rest;
    if (!entry.full)
      rest = entry.path.Subkey();
    else if (!entry.path.IsBelow(key, &rest) && !(entry.path.HasValue() && key.SameKey(entry.path)))
      continue;
    keep.Add(rest, entry.path.HasValue() ? &entry.path.ValueName() : nullptr);
  }
  return keep;
}

void CRegistryScan::PerformScan(IResultsCollector* collector, IOperationProgressNotify* progress,
                                IOperationStatusNotify* status, CWhiteListTree* whiteList) {
  CScanRun run(collector, status, whiteList);
  if (progress) progress->SetTotal(static_cast<int>(m_paths.size()));
  for (size_t i = 0; i < m_paths.size(); ++i) {
    if (status && status->IsCancelled()) break;
    if (status) status->SetCurrentFolder(CString(m_paths[i].Text().c_str()));
    run.ScanPath(m_paths[i], m_paths[i].HasValue() ? SKeep() : KeepFor(m_paths[i]));
    if (progress) progress->SetPosition(static_cast<int>(i + 1));
  }
  if (progress) progress->Finish();
}
