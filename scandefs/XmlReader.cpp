#include "scandefs/XmlReader.h"

#include <shlwapi.h>

#include <cstdlib>
#include <cwchar>
#include <map>
#include <vector>

#include "core/Handles.h"
#include "scan/StdFileScan.h"

namespace {

const wchar_t kKindTable[] = L":ram:1:file:2:path:2:trunc:3:file_trunc:3:path_trunc:3:reg:4:registry:4:system:5:";

struct MallocFree {
  void operator()(void* p) const { free(p); }
};

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (size_t pos = text.find(from); pos != std::string::npos; pos = text.find(from, pos + to.size()))
    text.replace(pos, from.size(), to);
}

// Child elements of a node, in document order.
template <class F>
void ForEachElement(xml::NodePtr node, F f) {
  for (xml::NodePtr child = node.FirstChild(); child; child = child.NextSibling())
    if (child.IsElement()) f(child);
}

}  // namespace

int LookupNamedValue(const CString& table, const wchar_t* name) {
  CString key = CString(L":") + name + L":";
  key.MakeLower();
  int at = table.Find(key);
  if (at < 0) return 0;
  int close = table.Find(L':', at + 1);
  if (close < 0) return 0;
  return _wtoi(table.GetString() + close + 1);
}

EElementType XmlReader::Classify(const wchar_t* name) {
  static const std::pair<const wchar_t*, EElementType> table[] = {
      {L"group", etGroup},   {L"item", etItem},   {L"cleaning", etCleaning}, {L"clean", etClean},
      {L"checks", etChecks}, {L"check", etCheck}, {L"value", etValue}};
  for (const auto& entry : table)
    if (CompareStringOrdinal(name, -1, entry.first, -1, TRUE) == CSTR_EQUAL) return entry.second;
  return etUnknown;
}

bool XmlReader::TextToBool(const CString& text, bool& value) {
  static const wchar_t* const yes[] = {L"true", L"yes", L"on", L"1"};
  static const wchar_t* const no[] = {L"false", L"no", L"off", L"0"};
  for (const wchar_t* word : yes)
    if (text.CompareNoCase(word) == 0) return value = true, true;
  for (const wchar_t* word : no)
    if (text.CompareNoCase(word) == 0) return value = false, true;
  return false;
}

bool XmlReader::Decrypt(char*&, unsigned long) { return true; }
bool XmlReader::Encrypt(char*&, unsigned long) { return true; }

bool XmlReader::ReadFile(const CString& path, CScanGroup& root, ILoadHook* hook) {
  broom::unique_hfile file(
      CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return false;
  LARGE_INTEGER size;
  if (!GetFileSizeEx(file.get(), &size)) return false;
  std::unique_ptr<char, MallocFree> buffer(static_cast<char*>(malloc(size.LowPart ? size.LowPart : 1)));
  if (!buffer) AtlThrow(E_OUTOFMEMORY);
  DWORD read = 0;
  if (!::ReadFile(file.get(), buffer.get(), size.LowPart, &read, nullptr) || read == 0) return false;
  unsigned long count = read;
  if (hook) {
    if (!hook->OnFileData(buffer.get(), &count, true)) return false;
    hook->OnLoadComplete();
  }
  const char* data = buffer.get();
  const char* first = static_cast<const char*>(memchr(data, '<', count));
  if (!first) AtlThrow(E_INVALIDARG);
  std::string text(first, count - (first - data));
  buffer.reset();
  size_t nul = text.find('\0');
  if (nul != std::string::npos) text.resize(nul);
  ReplaceAll(text, "<?xml version=\"1.0\" encoding=\"utf-8\"?>", "<?xml version=\"1.0\" encoding=\"utf-16\"?>");
  std::wstring wide;
  if (!text.empty()) {
    int n = MultiByteToWideChar(CP_THREAD_ACP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    wide.resize(static_cast<size_t>(n));
    MultiByteToWideChar(CP_THREAD_ACP, 0, text.data(), static_cast<int>(text.size()), &wide[0], n);
  }

  pugi::xml_document document;
  pugi::xml_parse_result parsed =
      document.load_buffer(wide.data(), wide.size() * sizeof(wchar_t), pugi::parse_default, pugi::encoding_utf16_le);
  if (!parsed) return false;
  xml::NodePtr top(document.first_child());
  if (!top || !top.IsElement() || _wcsicmp(top.Name(), L"ConfigItems") != 0) return false;

  CRefPtr<ConfigValueMap> fileScope = CScopedMap::GetGlobalScope()->CreateChildScope();
  DecodeDOMRecursive(top, fileScope);
  auto& tree = static_cast<CScanGroup_imp&>(root);
  ForEachElement(top, [&](xml::NodePtr child) {
    switch (Classify(child.Name())) {
      case etGroup:
        ReadGroup(child, tree);
        break;
      case etItem:
        ReadOperation(child, tree);
        break;
      default:
        break;
    }
  });
  return true;
}

bool XmlReader::ReadGroup(xml::NodePtr node, CScanGroup_imp& parent) {
  CString name;
  if (!node.GetAttribute(L"name", name)) return false;
  CScanGroup_imp* group = CScanGroup_imp::FindOrAddGroupPath(name, parent);
  if (!group) return false;
  ReadBaseProperties(group, node);
  ReadChildren(node, *group);
  return true;
}

bool XmlReader::ReadOperation(xml::NodePtr node, CScanGroup_imp& parent) {
  CString name, groupPath;
  if (!node.GetAttribute(L"name", name)) return false;
  CScanGroup_imp* target = &parent;
  if (node.GetAttribute(L"group", groupPath)) {
    target = CScanGroup_imp::FindOrAddGroupPath(groupPath, parent);
    if (!target) return false;
  } else if (!parent.m_parent) {
    return false;  // an item directly in the file needs its group
  }
  CScanGroup_imp* item = CScanGroup_imp::FindOrAddGroupPath(name, *target);
  if (!item) return false;
  ReadBaseProperties(item, node);
  ReadChildren(node, *item);
  return true;
}

bool XmlReader::ReadChildren(xml::NodePtr node, CScanGroup_imp& group) {
  ForEachElement(node, [&](xml::NodePtr child) {
    switch (Classify(child.Name())) {
      case etGroup: ReadGroup(child, group); break;
      case etItem: ReadOperation(child, group); break;
      case etCleaning: ReadCleaning(child, group); break;
      case etClean: ReadClean(child, group); break;
      case etChecks: ReadChecks(child, group); break;
      case etCheck: ReadCheck(child, group); break;
      default: break;
    }
  });
  return true;
}

bool XmlReader::ReadBaseProperties(CScanGroup_imp* group, xml::NodePtr node) {
  CString value;
  if (node.GetAttribute(L"order", value)) group->m_order = _wtoi(value);
  const std::pair<const wchar_t*, CString*> texts[] = {{L"desc", &group->m_desc},
                                                       {L"tip", &group->m_tip},
                                                       {L"tabIcon", &group->m_tabIcon},
                                                       {L"icon", &group->m_icon},
                                                       {L"report", &group->m_report}};
  for (const auto& text : texts)
    if (node.GetAttribute(text.first, value)) *text.second = value;
  const std::pair<const wchar_t*, EBoolProperty> switches[] = {
      {L"scan", bpDefaultScan}, {L"clean", bpDefaultClean}, {L"qscan", bpQScan}, {L"safe", bpSafe}};
  for (const auto& s : switches) {
    bool flag = false;
    bool known = node.GetAttribute(s.first, value) && TextToBool(value, flag);
    group->SetBoolProperty(s.second, CScanGroup::MakeBoolState(known, flag));
  }
  return true;
}

// ---- values ----

unsigned long XmlReader::ExpandSymbols(std::wstring& text, const ConfigValueMap* scope) {
  unsigned long flags = 0;
  size_t pos = text.find(L'%');
  while (pos != std::wstring::npos) {
    if (pos + 1 < text.size() && text[pos + 1] == L'%') {
      text.erase(pos, 1);
      flags |= 1;
      pos = text.find(L'%', pos + 1);
      continue;
    }
    size_t close = text.find(L'%', pos + 1);
    if (close == std::wstring::npos) break;
    std::wstring name = text.substr(pos + 1, close - pos - 1);
    std::wstring value;
    if (scope && scope->Lookup(name, value)) {
      text.replace(pos, close - pos + 1, value);
      flags |= 1;
      pos = text.find(L'%', pos + value.size());
    } else {
      flags |= 2;
      pos = text.find(L'%', close + 1);
    }
  }
  return flags;
}

bool XmlReader::DecodeDOMRecursive(xml::NodePtr node, ConfigValueMap* scope) {
  pugi::xml_node raw = node.Raw();
  for (pugi::xml_attribute a = raw.first_attribute(); a; a = a.next_attribute()) {
    std::wstring value = a.value();
    if (ExpandSymbols(value, scope) & 1) a.set_value(value.c_str());
  }
  CRefPtr<ConfigValueMap> inner = scope->CreateChildScope();
  bool readAny = false;
  if (raw.first_child()) {
    std::vector<pugi::xml_node> values;
    for (pugi::xml_node child = raw.first_child(); child; child = child.next_sibling()) {
      if (child.type() == pugi::node_element && CompareStringOrdinal(child.name(), -1, L"value", -1, TRUE) == CSTR_EQUAL) {
        readAny |= ReadValue(xml::NodePtr(child), inner);
        values.push_back(child);
      } else {
        DecodeDOMRecursive(xml::NodePtr(child), inner);
      }
    }
    for (auto& value : values) raw.remove_child(value);
  } else if (raw.type() == pugi::node_pcdata) {
    std::wstring value = raw.value();
    if (ExpandSymbols(value, scope) & 1) raw.set_value(value.c_str());
  }
  return readAny;
}

bool XmlReader::ReadValue(xml::NodePtr node, ConfigValueMap* scope) {
  CString name;
  if (!node.GetAttribute(L"name", name)) return false;
  scope->Set(name.str(), nullptr);  // hidden until it gets a text
  CString text = node.Text();
  if (text.IsEmpty()) node.GetAttribute(L"default", text);
  CString type;
  std::wstring source;
  if (node.GetAttribute(L"type", type) && type.CompareNoCase(L"regVal") == 0) {
    if (text.IsEmpty() || !ReadRegistryString(text.str(), source)) return false;
  } else {
    source = text.str();
  }
  CString delimiter, index;
  node.GetAttribute(L"delimiter", delimiter);
  int n = node.GetAttribute(L"index", index) ? _wtoi(index) : 0;
  std::wstring value = source;
  if (!delimiter.IsEmpty() && n > 0 && source.find_first_of(delimiter.GetString()) != std::wstring::npos) {
    CString whole(source);
    int pos = 0, after = 0;
    for (int i = 0; i < n; ++i) {
      whole.Tokenize(delimiter, pos);
      if (pos == -1) break;
      after = pos;
    }
    value = after >= whole.GetLength() ? std::wstring() : source.substr(static_cast<size_t>(after));
  }
  scope->Set(name.str(), value.c_str());
  return true;
}

// ---- operations and checks ----

bool XmlReader::ReadCleaning(xml::NodePtr node, CScanGroup_imp& group) {
  ForEachElement(node, [&](xml::NodePtr child) { ReadClean(child, group); });
  return true;
}

bool XmlReader::ReadClean(xml::NodePtr node, CScanGroup_imp& group) {
  if (_wcsicmp(node.Name(), L"Clean") == 0) {
    CRefPtr<IScanOperation> op = newCleanOperation(node.Text(), node);
    if (op) CScanGroup_imp::AddScanOp(group, op);
    return true;
  }
  if (_wcsicmp(node.Name(), L"Cleaning") == 0) {
    ForEachElement(node, [&](xml::NodePtr child) { ReadCheck(child, group); });
    return true;
  }
  return false;
}

bool XmlReader::ReadChecks(xml::NodePtr node, CScanGroup_imp& group) {
  ForEachElement(node, [&](xml::NodePtr child) { ReadCheck(child, group); });
  return true;
}

bool XmlReader::ReadCheck(xml::NodePtr node, CScanGroup_imp& group) {
  if (_wcsicmp(node.Name(), L"check") != 0) return false;
  CString test, path, data, value;
  if (!node.GetAttribute(L"test", test) || !node.GetAttribute(L"path", path) || !node.GetAttribute(L"data", data))
    return false;
  if ((test == L"equals" || test == L"contains") && !node.GetAttribute(L"value", value)) return false;
  bool pass = true;
  if (data.CompareNoCase(L"regvalue") == 0) {
    std::wstring ignored;
    pass = ReadRegistryString(path.str(), ignored);
  } else if (data.CompareNoCase(L"regkey") == 0) {
    HKEY key = nullptr;
    pass = OpenRegistryPath(path.str(), key);
    if (pass) RegCloseKey(key);
  } else if (data.CompareNoCase(L"file") == 0) {
    pass = PathFileExistsW(path) != FALSE;
  } else if (data.CompareNoCase(L"env") == 0) {
    const wchar_t* variable = _wgetenv(path);
    if (!variable) {
      pass = false;
    } else if (test == L"equals") {
      pass = _wcsicmp(variable, value) == 0;
    } else if (test == L"contains") {
      pass = wcsstr(variable, value) != nullptr;
    }
  }
  if (!pass) group.SetBoolProperty(bpEnabled, abFalse);
  return true;
}

CRefPtr<IScanOperation> XmlReader::newCleanOperation(const wchar_t* text, xml::NodePtr node) {
  CString kind;
  if (!node.GetAttribute(L"kind", kind)) return nullptr;
  if (m_store) {
    for (const auto& factory : m_store->GetFactories()) {
      CRefPtr<IScanOperation> op = factory->CreateOperation(kind, node);
      if (op) return op;
    }
  }
  pugi::xml_attribute systemAttribute = node.Raw().attribute(L"system");
  bool system = systemAttribute && wcscmp(systemAttribute.value(), L"1") == 0;
  int k = LookupNamedValue(CString(kKindTable), kind);
  CStdFileScan* scan = nullptr;
  if (k == okFile)
    scan = new IUnknownNoQIImp<CStdFileScan>();
  else if (k == okTrunc)
    scan = new IUnknownNoQIImp<CStdFileScan_trunc>();
  else
    return nullptr;
  CRefPtr<IScanOperation> op(scan);
  CPathString path(text);
  RemoveDuplicateValues(path, L'\\');
  scan->SetWhiteListTestBits(1);
  scan->AddPath(path);
  scan->SetSystem(system);
  return op;
}

void XmlReader::RemoveDuplicateValues(CPathString& path, wchar_t separator) {
  unsigned short pos = 0;
  for (;;) {
    if (pos >= path.GetLength()) throw PositionOutOfStringException(pos, path.GetLength());
    const wchar_t* found = wcschr(path.c_str() + pos, separator);
    if (!found) return;
    unsigned short at = static_cast<unsigned short>(found - path.c_str());
    if (at + 1 < path.GetLength() && path.c_str()[at + 1] == separator) {
      CPathString rest;
      path.Right(static_cast<unsigned short>(path.GetLength() - at - 2), rest);
      CPathString head;
      path.Mid(0, static_cast<unsigned short>(at + 1), head);
      head.Append(rest.c_str(), rest.GetLength());
      path = head;
    }
    pos = static_cast<unsigned short>(at + 1);
    if (pos + 1 >= path.GetLength()) return;
  }
}
