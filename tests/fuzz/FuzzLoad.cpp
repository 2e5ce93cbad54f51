#include "fuzz/FuzzLoad.h"

#include <windows.h>

#include <algorithm>
#include <new>
#include <stdexcept>
#include <vector>

#include "scandefs/ConfigStore.h"
#include "scandefs/XmlReader.h"
#include "winapp2/Winapp2Loader.h"

namespace fuzz {

const char* const kOutcomeNames[] = {
    "accepted", "rejected", "winapp2 loaded whole", "winapp2 loaded with lines skipped", "winapp2 refused whole",
    "BufferOverflowException",
    "PositionOutOfStringException", "CAtlException(E_INVALIDARG)", "InvalidSubstringException",
    "other library exception", "CAtlException(E_OUTOFMEMORY)", "other CAtlException", "std::bad_alloc",
    "std::exception", "unknown exception", "broken invariant", "memory past its ceiling"};
static_assert(sizeof kOutcomeNames / sizeof *kOutcomeNames == kOutcomes, "a name for every outcome");

std::string Narrow(const wchar_t* text) {
  int n = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
  std::string out(n > 0 ? n - 1 : 0, '\0');
  if (n > 1) WideCharToMultiByte(CP_UTF8, 0, text, -1, &out[0], n, nullptr, nullptr);
  return out;
}

namespace {

struct Hook : ILoadHook {
  explicit Hook(int mode) : m_mode(mode) {}
  void OnLoadComplete() override {}
  bool OnFileData(char*, unsigned long* size, bool) override {
    if (m_mode == 1) return false;
    if (m_mode == 2) *size -= std::min(*size, 7ul);
    return true;
  }
  int m_mode;
};

struct Localizer : ILocalizeStrings {
  CString Localize(const wchar_t* key, int) override {
    if (wcscmp(key, L"MANUAL_self") == 0) return CString(L"[$(self)]");
    if (wcscmp(key, L"MANUAL_a") == 0) return CString(L"$(");
    if (wcscmp(key, L"MANUAL_Browsers") == 0) return CString(L"Web browsers");
    return CString(L"?");
  }
};

// Every group of the tree, without recursion: the count, and the depth.
size_t Walk(IConfig* config, size_t& depth) {
  std::vector<CRefPtr<TIteratorIface<CScanGroup>>> stack(1);
  config->GetGroups(stack[0]);
  size_t groups = 0;
  depth = 0;
  while (!stack.empty()) {
    CRefPtr<TIteratorIface<CScanGroup>> it = stack.back();
    if (!it || it->AtEnd()) {
      stack.pop_back();
      continue;
    }
    CScanGroup* group = it->Current();
    it->Next();
    ++groups;
    depth = std::max(depth, stack.size());
    if (!group->GetName() || !group->GetDescription()) throw std::logic_error("a group without texts");
    stack.emplace_back();
    group->GetChildren(stack.back());
  }
  return groups;
}

// The lines of the text the loader decodes: UTF-16 after its BOM, else UTF-8.
size_t LineCount(const std::string& bytes) {
  size_t lines = 1;
  if (bytes.size() >= 2 && bytes[0] == '\xFF' && bytes[1] == '\xFE') {
    for (size_t i = 2; i + 1 < bytes.size(); i += 2) lines += bytes[i] == '\n' && bytes[i + 1] == '\0';
  } else {
    lines += static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\n'));
  }
  return lines;
}

// What a winapp2 load left, against its report; empty when all holds.
std::string CheckWinapp2(CConfigStore& store, const SWinapp2Report& report, const Input& in) {
  std::vector<SLoadNote> notes = store.TakeLoadNotes();
  if (!report.read) {
    // refused whole: one note that says why, and nothing of the file in the tree
    if (report.error.IsEmpty() || notes.size() != 1 || report.items || report.fileRules || report.registryRules)
      return "a refused file left " + std::to_string(notes.size()) + " notes and " + std::to_string(report.items) +
             " items";
    if (store.GetRoot().FindChild(CWinapp2Loader::kTopGroup)) return "a refused file left its group";
    return std::string();
  }
  if (notes.size() != report.skipped.size())
    return std::to_string(report.skipped.size()) + " skipped lines but " + std::to_string(notes.size()) + " notes";
  const size_t lines = LineCount(in.bytes);
  int last = 0;
  for (const SWinapp2Skip& skip : report.skipped) {
    if (skip.line < std::max(last, 1) || static_cast<size_t>(skip.line) > lines)
      return "a skipped line numbered " + std::to_string(skip.line) + " after " + std::to_string(last) + " of " +
             std::to_string(lines);
    if (skip.reason.IsEmpty()) return "a skipped line without a reason";
    last = skip.line;
  }
  if (report.items > report.entries || report.applicable > report.items)
    return std::to_string(report.entries) + " entries, " + std::to_string(report.items) + " items, " +
           std::to_string(report.applicable) + " applicable";
  unsigned items = 0, ops = 0;
  if (CScanGroup_imp* top = store.GetRoot().FindChild(CWinapp2Loader::kTopGroup)) {
    for (CScanGroup_imp& category : top->m_children)
      for (CScanGroup_imp& item : category.m_children) {
        ++items;
        if (item.m_scanOps.empty()) return "an item without rules";
        if (item.m_name.IsEmpty()) return "an item without a name";
        for (const CRefPtr<IScanOperation>& op : item.m_scanOps) {
          SOperationSource source;
          if (!store.GetOperationSource(op.Get(), source) || source.line < 1 || static_cast<size_t>(source.line) > lines)
            return "a rule without its line";
          ++ops;
        }
      }
  }
  if (items != report.items || ops != report.fileRules + report.registryRules)
    return "the tree holds " + std::to_string(items) + " items and " + std::to_string(ops) + " rules; the report says " +
           std::to_string(report.items) + " and " + std::to_string(report.fileRules + report.registryRules);
  return std::string();
}

}  // namespace

int LoadDefinitions(const std::wstring& folder, const Input& in, std::string& text) {
  Hook hook(in.hook);
  Localizer localizer;
  CRefPtr<IConfig> config = IConfig::NewConfig();
  try {
    bool loaded = config->Load(folder.c_str(), &hook, in.localizer ? &localizer : nullptr);
    std::vector<SLoadNote> notes = CConfigStore::Of(config)->TakeLoadNotes();
    size_t depth = 0;
    size_t groups = Walk(config, depth);
    // a file is read whole, or not at all and with a reason
    if (!loaded && (groups || notes.size() != 1 || notes[0].reason.IsEmpty()))
      text = "a rejected file left " + std::to_string(groups) + " groups and " + std::to_string(notes.size()) + " notes";
    else if (loaded && std::any_of(notes.begin(), notes.end(), [](const SLoadNote& n) { return n.reason.IsEmpty(); }))
      text = "an accepted file left a note without a reason";
    else if (depth > XmlReader::kMaxGroupDepth)
      text = "the tree is " + std::to_string(depth) + " levels deep";
    if (!text.empty()) return kBroken;
    return loaded ? kAccepted : kRejected;
  } catch (const BufferOverflowException&) {
    return kBufferOverflow;
  } catch (const PositionOutOfStringException&) {
    return kPositionOutOfString;
  } catch (const InvalidSubstringException&) {
    return kInvalidSubstring;
  } catch (const Exception& e) {
    text = Narrow(e.m_message.c_str());
    return kOtherLibrary;
  } catch (const CAtlException& e) {
    if (e.m_hr == E_INVALIDARG) return kInvalidArgument;
    text = "HRESULT " + std::to_string(static_cast<unsigned long>(e.m_hr));
    return e.m_hr == E_OUTOFMEMORY ? kOutOfMemory : kOtherAtl;
  } catch (const std::bad_alloc&) {
    return kBadAlloc;
  } catch (const std::exception& e) {
    text = e.what();
    return kStd;
  } catch (...) {
    return kUnknown;
  }
}

int LoadWinapp2(const std::wstring& file, const Input& in, std::string& text) {
  CRefPtr<IConfig> config = IConfig::NewConfig();
  CConfigStore& store = *CConfigStore::Of(config);
  try {
    SWinapp2Report report = CWinapp2Loader(store).Load(file.c_str());
    text = CheckWinapp2(store, report, in);
    if (!text.empty()) return kBroken;
    if (!report.read) return kWinapp2Refused;
    return report.skipped.empty() ? kWinapp2Whole : kWinapp2Skipped;
  } catch (const Exception& e) {
    text = "winapp2: " + Narrow(e.m_message.c_str());
    return kOtherLibrary;
  } catch (const CAtlException& e) {
    text = "winapp2: HRESULT " + std::to_string(static_cast<unsigned long>(e.m_hr));
    return e.m_hr == E_OUTOFMEMORY ? kOutOfMemory : kOtherAtl;
  } catch (const std::bad_alloc&) {
    return kBadAlloc;
  } catch (const std::exception& e) {
    text = std::string("winapp2: ") + e.what();
    return kStd;
  } catch (...) {
    return kUnknown;
  }
}

}  // namespace fuzz
