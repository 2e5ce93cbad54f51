#include "scandefs/XmlReader.h"

#include <shlwapi.h>

#include <algorithm>
#include <cstdlib>
#include <cwchar>
#include <memory>

#include "core/Handles.h"
#include "core/Names.h"
#include "scan/StdFileScan.h"
#include "scandefs/ChildIndex.h"
#include "scandefs/DefinitionChecks.h"
#include "scandefs/DefinitionText.h"
#include "scandefs/FilePrefetch.h"
#include "scandefs/FileScopes.h"
#include "scandefs/ItemTraits.h"
#include "scandefs/ValuePass.h"
#include "running/ImageNames.h"

namespace {

const wchar_t kKindTable[] = L":ram:1:file:2:path:2:trunc:3:file_trunc:3:path_trunc:3:reg:4:registry:4:system:5:";

// The index of the file being read on this thread, if any.
thread_local CChildIndex* t_index = nullptr;

// The index a SharedIndex on this thread keeps for the files read into its
// tree, and that tree.
thread_local CChildIndex* t_sharedIndex = nullptr;
thread_local const CScanGroup* t_sharedRoot = nullptr;

// The file being read on this thread.
thread_local const SFileLines* t_lines = nullptr;

CScanGroup_imp* ResolveGroupPath(const wchar_t* path, CScanGroup_imp& start) {
  size_t length = wcslen(path);
  CChildIndex* index = t_index;
  if (!index) return CScanGroup_imp::FindOrAddGroupPath(path, length, start);
  return CScanGroup_imp::ResolvePath(path, length, start,
                                     [index](CScanGroup_imp& parent, const wchar_t* name, size_t nameLength) {
                                       return index->Find(parent, name, nameLength);
                                     });
}

// Child elements of a node, in document order.
template <class F>
void ForEachElement(xml::NodePtr node, F f) {
  for (xml::NodePtr child = node.FirstChild(); child; child = child.NextSibling())
    if (child.IsElement()) f(child);
}

}  // namespace

int LookupNamedValue(const CString& table, const wchar_t* name) {
  // ":name:" in lower case, as the runtime lower-cases in the "C" locale
  std::wstring key;
  key.reserve(wcslen(name) + 2);
  key += L':';
  for (const wchar_t* c = name; *c; ++c) key += broom::FoldCase(*c);
  key += L':';
  const std::wstring& text = table.str();
  size_t at = text.find(key);
  if (at == std::wstring::npos) return 0;
  size_t close = text.find(L':', at + 1);
  if (close == std::wstring::npos) return 0;
  return _wtoi(text.c_str() + close + 1);
}

EElementType XmlReader::Classify(const wchar_t* name) {
  static const std::pair<const wchar_t*, EElementType> table[] = {
      {L"group", etGroup},   {L"item", etItem},   {L"cleaning", etCleaning}, {L"clean", etClean},
      {L"checks", etChecks}, {L"check", etCheck}, {L"value", etValue},  {L"running", etRunning}};
  for (const auto& entry : table)
    if (broom::CompareNoCase(name, entry.first) == 0) return entry.second;
  return etUnknown;
}

namespace {

bool WordToBool(const wchar_t* text, bool& value) {
  static const wchar_t* const yes[] = {L"true", L"yes", L"on", L"1"};
  static const wchar_t* const no[] = {L"false", L"no", L"off", L"0"};
  for (const wchar_t* word : yes)
    if (broom::CompareNoCase(text, word) == 0) return value = true, true;
  for (const wchar_t* word : no)
    if (broom::CompareNoCase(text, word) == 0) return value = false, true;
  return false;
}

}  // namespace

bool XmlReader::TextToBool(const CString& text, bool& value) { return WordToBool(text, value); }

bool XmlReader::Decrypt(char*&, unsigned long) { return true; }
bool XmlReader::Encrypt(char*&, unsigned long) { return true; }

bool XmlReader::Reject(const CString& path, int line, const std::wstring& reason) const {
  if (m_store) m_store->AddLoadNote(path, line, CString(reason.c_str()));
  return false;
}

bool XmlReader::ReadFile(const CString& path, CScanGroup& root, ILoadHook* hook) {
  SFileBytes bytes;
  ReadWholeFile(path, bytes);
  return ReadFile(path, bytes, root, hook);
}

// A file's text as the reader parses it: from its first '<' up to its first
// NUL, widened, its line breaks noted and parsed in place; then checked,
// with the value pass between the checks, which need nothing but the file
// and the process-wide scope. Made on the read-ahead thread for a file that
// passes through no hook, by ReadFile otherwise.
struct XmlReader::ParsedText : SFileBytes::Prepared {
  bool markup = false;  // the bytes hold a '<'
  SWideText wide;
  SFileLines lines;  // all but the path
  pugi::xml_document document;
  pugi::xml_parse_result parsed;
  // What the checks found, each made only when those before it passed.
  bool checked = false;
  bool hasRoot = false;  // a "ConfigItems" element
  size_t elementDepth = 0;
  pugi::xml_node elementTooDeep;
  pugi::xml_node overflow;  // where the values inserted too much
  size_t groupDepth = 0;
  pugi::xml_node groupTooDeep;
};

std::unique_ptr<XmlReader::ParsedText> XmlReader::ParseText(const char* data, size_t count) {
  auto text = std::make_unique<ParsedText>();
  const char* first = FindByte(data, data + count, '<');
  if (first == data + count) return text;
  text->markup = true;
  const char* last = FindByte(first, data + count, '\0');
  SWideText& wide = text->wide;
  WidenDefinitionText(first, last, wide);
  SFileLines& lines = text->lines;
  lines.text = wide.data.get();
  lines.length = wide.length;
  lines.linesBefore = static_cast<size_t>(std::count(data, first, '\n'));
  lines.breaks = &wide.breaks;
  text->parsed = text->document.load_buffer_inplace(wide.data.get(), wide.length * sizeof(wchar_t),
                                                    pugi::parse_default, pugi::encoding_utf16_le);
  return text;
}

void XmlReader::CheckText(ParsedText& text) {
  text.checked = true;
  if (!text.parsed) return;
  xml::NodePtr top(text.document.first_child());
  text.hasRoot = top && top.IsElement() && broom::CompareNoCase(top.Name(), L"ConfigItems") == 0;
  if (!text.hasRoot) return;
  // Nesting is checked before the value pass, which removes "value"
  // elements, and the parser frees an element's subtree recursively.
  text.elementDepth = ElementDepth(top.Raw(), kMaxElementDepth, text.elementTooDeep);
  if (text.elementTooDeep) return;
  CFileScopes scopes(CScopedMap::GetGlobalScope());
  SValuePass pass{{}, kMaxInsertedText, {}};
  RunValuePass(top.Raw(), &scopes, pass);
  text.overflow = pass.overflow;
  if (text.overflow) return;
  // group paths are checked once their values are in
  text.groupDepth = GroupDepth(top.Raw(), kMaxGroupDepth, text.groupTooDeep);
}

void XmlReader::PrepareText(SFileBytes& bytes) {
  if (bytes.failure != SFileBytes::fNone || bytes.size == 0) return;
  std::unique_ptr<ParsedText> text = ParseText(bytes.data.get(), bytes.size);
  if (text->markup) CheckText(*text);
  bytes.prepared = std::move(text);
}

struct XmlReader::SharedIndex::State {
  CChildIndex index;
  CChildIndex* outerIndex;
  const CScanGroup* outerRoot;
};

XmlReader::SharedIndex::SharedIndex(const CScanGroup& root) : m_state(new State{{}, t_sharedIndex, t_sharedRoot}) {
  t_sharedIndex = &m_state->index;
  t_sharedRoot = &root;
}

XmlReader::SharedIndex::~SharedIndex() {
  t_sharedIndex = m_state->outerIndex;
  t_sharedRoot = m_state->outerRoot;
}

bool XmlReader::ReadFile(const CString& path, SFileBytes& bytes, CScanGroup& root, ILoadHook* hook) {
  auto error = [&](const wchar_t* what) { return std::wstring(what) + L" (error " + std::to_wstring(bytes.error) + L")"; };
  switch (bytes.failure) {
    case SFileBytes::fNone: break;
    case SFileBytes::fOpen: return Reject(path, 0, error(L"cannot be opened"));
    case SFileBytes::fRead: return Reject(path, 0, error(L"cannot be read"));
    case SFileBytes::fNoMemory: AtlThrow(E_OUTOFMEMORY);
  }
  if (bytes.size == 0) return Reject(path, 0, L"is empty");
  std::unique_ptr<char, SFileBytes::Free> buffer = std::move(bytes.data);
  std::unique_ptr<ParsedText> text(static_cast<ParsedText*>(bytes.prepared.release()));
  DWORD read = bytes.size;
  unsigned long count = read;
  if (hook) {
    text.reset();  // made of the bytes before the hook saw them
    if (!hook->OnFileData(buffer.get(), &count, true)) return Reject(path, 0, L"was rejected by the load hook");
    hook->OnLoadComplete();
    // A hook may only lower the count: the buffer holds the bytes read.
    if (count > read) count = read;
  }
  if (!text) text = ParseText(buffer.get(), count);
  if (!text->markup) AtlThrow(E_INVALIDARG);
  // the text holds all that is needed from here on, line breaks included
  buffer.reset();
  SFileLines& lines = text->lines;
  lines.path = &path;
  auto lineOf = [&](pugi::xml_node node) { return lines.LineOf(node.name()); };
  auto at = [](int line) { return line ? L" at line " + std::to_wstring(line) : std::wstring(); };

  // the document points into the text, which outlives it
  pugi::xml_document& document = text->document;
  const pugi::xml_parse_result& parsed = text->parsed;
  if (!parsed) {
    if (parsed.status == pugi::status_no_document_element) return Reject(path, 0, L"holds no element");
    int line = lines.LineAt(static_cast<size_t>(parsed.offset));
    return Reject(path, line, std::wstring(L"does not parse: ") + ParseErrorText(parsed.status) + at(line));
  }
  if (!text->checked) CheckText(*text);
  if (!text->hasRoot) return Reject(path, 0, L"has no ConfigItems root element");
  if (text->elementTooDeep) {
    int line = lineOf(text->elementTooDeep);
    return Reject(path, line, L"nests " + std::to_wstring(text->elementDepth) + L" levels deep" + at(line) +
                                  L"; at most " + std::to_wstring(kMaxElementDepth) + L" are read");
  }
  if (text->overflow) {
    int line = lineOf(text->overflow);
    return Reject(path, line, L"has %NAME% references that insert more than " + std::to_wstring(kMaxInsertedText) +
                                  L" characters" + at(line) + L"; at most that many are read");
  }
  if (text->groupTooDeep) {
    int line = lineOf(text->groupTooDeep);
    return Reject(path, line, L"nests its groups " + std::to_wstring(text->groupDepth) + L" levels deep" + at(line) +
                                  L"; at most " + std::to_wstring(kMaxGroupDepth) + L" are read");
  }
  xml::NodePtr top(document.first_child());

  auto& tree = static_cast<CScanGroup_imp&>(root);
  CChildIndex ownIndex;
  CChildIndex* outer = t_index;  // a factory may load another file meanwhile
  const SFileLines* outerLines = t_lines;
  t_index = &root == t_sharedRoot ? t_sharedIndex : &ownIndex;
  t_lines = &lines;
  auto restore = broom::scope_exit([&] {
    t_index = outer;
    t_lines = outerLines;
  });
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
  const wchar_t* name = node.Attribute(L"name");
  if (!name) return false;
  CScanGroup_imp* group = ResolveGroupPath(name, parent);
  if (!group) return false;
  ReadBaseProperties(group, node);
  ReadCost(node, *group);
  ReadChildren(node, *group);
  return true;
}

bool XmlReader::ReadOperation(xml::NodePtr node, CScanGroup_imp& parent) {
  const wchar_t* name = node.Attribute(L"name");
  if (!name) return false;
  CScanGroup_imp* target = &parent;
  if (const wchar_t* groupPath = node.Attribute(L"group")) {
    target = ResolveGroupPath(groupPath, parent);
    if (!target) return false;
  } else if (!parent.m_parent) {
    return false;  // an item directly in the file needs its group
  }
  CScanGroup_imp* item = ResolveGroupPath(name, *target);
  if (!item) return false;
  ReadBaseProperties(item, node);
  ReadCost(node, *item);
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
      case etRunning: ReadRunning(child, group); break;
      default: break;
    }
  });
  return true;
}

bool XmlReader::ReadBaseProperties(CScanGroup_imp* group, xml::NodePtr node) {
  // One walk over the attributes, each name compared once (an item has a
  // handful): the first attribute of a name counts, and an empty value
  // counts as absent, as for Attribute.
  enum { kOrder, kDesc, kTip, kTabIcon, kIcon, kReport, kScan, kClean, kQScan, kSafe, kCount };
  static const wchar_t* const names[kCount] = {L"order", L"desc",   L"tip",  L"tabIcon", L"icon",
                                               L"report", L"scan", L"clean", L"qscan", L"safe"};
  const wchar_t* values[kCount] = {};
  bool seen[kCount] = {};
  for (pugi::xml_attribute a = node.Raw().first_attribute(); a; a = a.next_attribute()) {
    const wchar_t* name = a.name();
    int candidates[2] = {-1, -1};
    switch (name[0]) {
      case L'o': candidates[0] = kOrder; break;
      case L'd': candidates[0] = kDesc; break;
      case L't': candidates[0] = kTip, candidates[1] = kTabIcon; break;
      case L'i': candidates[0] = kIcon; break;
      case L'r': candidates[0] = kReport; break;
      case L's': candidates[0] = kScan, candidates[1] = kSafe; break;
      case L'c': candidates[0] = kClean; break;
      case L'q': candidates[0] = kQScan; break;
      default: continue;
    }
    for (int i : candidates) {
      if (i < 0 || seen[i] || wcscmp(name, names[i]) != 0) continue;
      seen[i] = true;
      values[i] = *a.value() ? a.value() : nullptr;
    }
  }
  if (values[kOrder]) group->m_order = _wtoi(values[kOrder]);
  const std::pair<int, CString*> texts[] = {{kDesc, &group->m_desc},
                                            {kTip, &group->m_tip},
                                            {kTabIcon, &group->m_tabIcon},
                                            {kIcon, &group->m_icon},
                                            {kReport, &group->m_report}};
  for (const auto& text : texts)
    if (values[text.first]) *text.second = values[text.first];
  const std::pair<int, EBoolProperty> switches[] = {
      {kScan, bpDefaultScan}, {kClean, bpDefaultClean}, {kQScan, bpQScan}, {kSafe, bpSafe}};
  for (const auto& s : switches) {
    bool flag = false;
    bool known = values[s.first] && WordToBool(values[s.first], flag);
    group->SetBoolProperty(s.second, CScanGroup::MakeBoolState(known, flag));
  }
  return true;
}

void XmlReader::Note(xml::NodePtr node, const std::wstring& text, const wchar_t* after) const {
  if (!m_store || !t_lines) return;
  int line = t_lines->LineOf(node.Name());
  std::wstring where = line ? L" (line " + std::to_wstring(line) + L")" : L"";
  m_store->AddLoadNote(*t_lines->path, line, CString((text + where + after).c_str()));
}

void XmlReader::ReadCost(xml::NodePtr node, CScanGroup_imp& group) const {
  pugi::xml_attribute attribute = node.Raw().attribute(L"cost");
  if (!attribute || !m_store) return;
  ECost cost = costSaved;
  if (!ParseCost(attribute.value(), cost)) {
    cost = costSaved;
    const wchar_t* name = node.Attribute(L"name");
    Note(node, L"cost=\"" + std::wstring(attribute.value()) + L"\" of '" + (name ? name : L"") +
                   L"' is none of cache, history, sign-in, saved; it counts as saved");
  }
  m_store->SetCost(&group, cost);
}

void XmlReader::ReadRunning(xml::NodePtr node, CScanGroup_imp& group) const {
  if (!m_store) return;
  std::vector<CImageNames::SRejected> rejected;
  m_store->AddPrograms(&group, CImageNames::Parse(node.Text(), rejected));
  for (const CImageNames::SRejected& bad : rejected)
    Note(node, L"running program '" + bad.name + L"' of '" + group.GetName() + L"' is left out: " + bad.reason);
}

unsigned long XmlReader::ExpandSymbols(std::wstring& text, const ConfigValueMap* scope) {
  std::wstring out;
  unsigned long flags = ExpandReferences(text.data(), text.size(), scope, out);
  if (flags & 1) text.swap(out);
  return flags;
}

bool XmlReader::DecodeDOMRecursive(xml::NodePtr node, ConfigValueMap* scope) {
  SValuePass pass{{}, SIZE_MAX, {}};
  return RunValuePass(node.Raw(), scope, pass);
}

bool XmlReader::ReadValue(xml::NodePtr node, ConfigValueMap* scope) {
  return DefineValue(node, scope);
}

// ---- operations and checks ----

bool XmlReader::ReadCleaning(xml::NodePtr node, CScanGroup_imp& group) {
  ForEachElement(node, [&](xml::NodePtr child) { ReadClean(child, group); });
  return true;
}

bool XmlReader::ReadClean(xml::NodePtr node, CScanGroup_imp& group) {
  if (broom::CompareNoCase(node.Name(), L"Clean") == 0) {
    CRefPtr<IScanOperation> op = newCleanOperation(node.Text(), node);
    if (!op) return true;
    CScanGroup_imp::AddScanOp(group, op);
    if (m_store && t_lines)
      m_store->SetOperationSource(op.Get(), t_lines->path->GetString(), t_lines->LineOf(node.Name()),
                                  node.Raw().attribute(L"kind").value(), node.Text());
    return true;
  }
  if (broom::CompareNoCase(node.Name(), L"Cleaning") == 0) {
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
  if (broom::CompareNoCase(node.Name(), L"check") != 0) return false;
  CString test, path, data, value;
  if (!node.GetAttribute(L"test", test) || !node.GetAttribute(L"path", path) || !node.GetAttribute(L"data", data))
    return false;
  if ((test == L"equals" || test == L"contains") && !node.GetAttribute(L"value", value)) return false;
  bool pass = true;
  if (data.CompareNoCase(L"regvalue") == 0) {
    std::wstring ignored;
    pass = ReadRegistryString(path.str(), ignored);
  } else if (data.CompareNoCase(L"regkey") == 0) {
    broom::unique_hkey key;
    pass = OpenRegistryPath(path.str(), *key.addressof());
  } else if (data.CompareNoCase(L"file") == 0) {
    pass = PathFileExistsW(path) != FALSE;
  } else if (data.CompareNoCase(L"env") == 0) {
    const wchar_t* variable = _wgetenv(path);
    if (!variable) {
      pass = false;
    } else if (test == L"equals") {
      pass = broom::CompareNoCase(variable, value) == 0;
    } else if (test == L"contains") {
      pass = wcsstr(variable, value) != nullptr;
    }
  }
  if (!pass) group.SetBoolProperty(bpEnabled, abFalse);
  return true;
}

CRefPtr<IScanOperation> XmlReader::newCleanOperation(const wchar_t* text, xml::NodePtr node) {
  const wchar_t* kind = node.Attribute(L"kind");
  if (!kind) return nullptr;
  if (m_store) {
    for (const auto& factory : m_store->GetFactories()) {
      CRefPtr<IScanOperation> op = factory->CreateOperation(kind, node);
      if (op) return op;
    }
  }
  pugi::xml_attribute systemAttribute = node.Raw().attribute(L"system");
  bool system = systemAttribute && wcscmp(systemAttribute.value(), L"1") == 0;
  static const CString kinds(kKindTable);
  int k = LookupNamedValue(kinds, kind);
  if (k != okFile && k != okTrunc) return nullptr;
  // An age the rule cannot be held to would make it broader than written:
  // such a rule is skipped, with a note.
  unsigned long hours = 0;
  bool byAccess = false;
  if (!ReadAge(node, hours, byAccess)) return nullptr;
  bool removeEmpty = false;
  if (const wchar_t* remove = node.Attribute(L"removeEmpty")) {
    if (!WordToBool(remove, removeEmpty) || (removeEmpty && k != okFile)) {
      Note(node, L"removeEmpty=\"" + std::wstring(remove) +
                     L"\" is not yes or no, or is given to a rule that deletes no files", L"; that rule is skipped");
      return nullptr;
    }
  }
  CStdFileScan* scan = nullptr;
  if (k == okFile)
    scan = new IUnknownNoQIImp<CStdFileScan>();
  else
    scan = new IUnknownNoQIImp<CStdFileScan_trunc>();
  CRefPtr<IScanOperation> op(scan);
  CPathString path(text);
  RemoveDuplicateValues(path, L'\\');
  scan->SetWhiteListTestBits(1);
  scan->AddPath(path);
  scan->SetSystem(system);
  scan->SetRemoveEmptied(removeEmpty);
  if (hours) {
    auto* age = new IUnknownNoQIImp<CBaseFileScan::_FilterRejectRecentFiles_Impl>();
    CRefPtr<CBaseFileScan::IFilter> hold(age);
    if (hours % 24 == 0)
      age->SetAge(hours / 24, byAccess);
    else
      age->SetAgeHours(hours, byAccess);
    scan->AddFilter(age);
  }
  return op;
}

bool XmlReader::ReadAge(xml::NodePtr node, unsigned long& hours, bool& byAccess) const {
  hours = 0;
  byAccess = false;
  pugi::xml_attribute olderThan = node.Raw().attribute(L"olderThan");
  pugi::xml_attribute olderThanHours = node.Raw().attribute(L"olderThanHours");
  pugi::xml_attribute ageBy = node.Raw().attribute(L"ageBy");
  auto skip = [&](const std::wstring& why) {
    // the line only for a note: most rules have no age
    Note(node, why, L"; that rule is skipped");
    return false;
  };
  // a whole number from 1 to most, or 0
  auto number = [](const wchar_t* text, unsigned long most) {
    unsigned long value = 0;
    bool digits = *text != 0;
    for (const wchar_t* c = text; *c && digits; ++c) {
      digits = *c >= L'0' && *c <= L'9';
      if (digits) value = value > most ? value : value * 10 + static_cast<unsigned long>(*c - L'0');
    }
    return digits && value <= most ? value : 0;
  };
  if (olderThan && olderThanHours) return skip(L"olderThan and olderThanHours are both given");
  if (olderThan) {
    unsigned long days = number(olderThan.value(), kMaxAgeDays);
    if (!days)
      return skip(L"olderThan=\"" + std::wstring(olderThan.value()) + L"\" is not a number of days from 1 to " +
                  std::to_wstring(kMaxAgeDays));
    hours = days * 24;
  }
  if (olderThanHours) {
    hours = number(olderThanHours.value(), kMaxAgeDays * 24);
    if (!hours)
      return skip(L"olderThanHours=\"" + std::wstring(olderThanHours.value()) +
                  L"\" is not a number of hours from 1 to " + std::to_wstring(kMaxAgeDays * 24));
  }
  if (ageBy) {
    if (broom::CompareNoCase(ageBy.value(), L"accessed") == 0)
      byAccess = true;
    else if (broom::CompareNoCase(ageBy.value(), L"modified") != 0)
      return skip(L"ageBy=\"" + std::wstring(ageBy.value()) + L"\" is neither \"modified\" nor \"accessed\"");
  }
  return true;
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
