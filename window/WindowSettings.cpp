#include "window/WindowSettings.h"

#include "settings/RegSettings.h"

namespace broomw {

namespace {

const wchar_t kDefs[] = L"WindowDefinitionFolders";
const wchar_t kWinapp2[] = L"WindowWinapp2Files";
const wchar_t kPlacement[] = L"Placement";
const wchar_t kNotice[] = L"LastNotice";

std::vector<std::wstring> ReadList(CRegSettings& settings, const wchar_t* name) {
  std::vector<std::wstring> out;
  CRefPtr<IConstTArray<CString>> list = settings.GetMultiStringValue(name, false, nullptr);
  if (list)
    for (const CString& s : list->GetArray()) out.emplace_back(s.GetString(), static_cast<size_t>(s.GetLength()));
  return out;
}

void WriteList(CRegSettings& settings, const wchar_t* name, const std::vector<std::wstring>& list) {
  std::vector<CString> values;
  for (const std::wstring& s : list) values.emplace_back(s.c_str());
  settings.SetMultiStringValue(name, false, values, nullptr);
}

}  // namespace

SSources LoadSources() {
  SSources sources;
  try {
    CRegSettings settings(L"Broom", L"Engine");
    sources.defs = ReadList(settings, kDefs);
    sources.winapp2 = ReadList(settings, kWinapp2);
  } catch (int) {
    // a key that cannot be read remembers nothing
  }
  return sources;
}

void SaveSources(const SSources& sources) {
  try {
    CRegSettings settings(L"Broom", L"Engine");
    WriteList(settings, kDefs, sources.defs);
    WriteList(settings, kWinapp2, sources.winapp2);
  } catch (int) {
    // not remembered; this start still uses them
  }
}

bool NoticeIsNew(const std::wstring& text) {
  // FNV-1a of the text: stable between builds and starts
  unsigned long long hash = 14695981039346656037ull;
  for (wchar_t c : text) hash = (hash ^ static_cast<unsigned long long>(c)) * 1099511628211ull;
  unsigned long long stored = 0;
  unsigned long size = sizeof stored;
  try {
    CRegSettings settings(L"Broom", L"Window");
    if (settings.GetUserValue(kNotice, &stored, size, nullptr) == ERROR_SUCCESS && size == sizeof stored &&
        stored == hash)
      return false;
    settings.SetUserValue(kNotice, &hash, sizeof hash);
  } catch (int) {
    // nothing remembered: shown every time
  }
  return true;
}

bool LoadPlacement(WINDOWPLACEMENT& placement) {
  WINDOWPLACEMENT stored = {};
  unsigned long size = sizeof stored;
  try {
    CRegSettings settings(L"Broom", L"Window");
    if (settings.GetUserValue(kPlacement, &stored, size, nullptr) != ERROR_SUCCESS || size != sizeof stored)
      return false;
  } catch (int) {
    return false;
  }
  const RECT& r = stored.rcNormalPosition;
  if (stored.length != sizeof stored || r.right - r.left < 100 || r.bottom - r.top < 100) return false;
  placement = stored;
  return true;
}

void SavePlacement(const WINDOWPLACEMENT& placement) {
  try {
    WINDOWPLACEMENT copy = placement;
    CRegSettings(L"Broom", L"Window").SetUserValue(kPlacement, &copy, sizeof copy);
  } catch (int) {
  }
}

}  // namespace broomw
