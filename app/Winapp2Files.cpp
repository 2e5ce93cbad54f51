#include "app/Winapp2Files.h"

#include <windows.h>

#include "app/Session.h"
#include "core/Handles.h"
#include "core/Names.h"

namespace host {

namespace {

const wchar_t kSettingsKey[] = L"SOFTWARE\\Broom\\Engine";
const wchar_t kSettingValue[] = L"LoadWinapp2";

bool IsFile(const std::wstring& path) {
  DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && !(attributes & FILE_ATTRIBUTE_DIRECTORY);
}

}  // namespace

std::wstring PortableDataFolder() {
  const std::wstring exe = ExeFolder();
  return IsFile(exe + L"\\portable.txt") ? exe + L"\\Data" : std::wstring();
}

std::wstring DataWinapp2(const std::wstring& dataFolder) { return dataFolder + L"\\Winapp2.ini"; }
std::wstring ShippedWinapp2() { return ExeFolder() + L"\\winapp2\\Winapp2.ini"; }

std::wstring BundledWinapp2(const std::wstring& dataFolder) {
  if (IsFile(DataWinapp2(dataFolder))) return DataWinapp2(dataFolder);
  if (IsFile(ShippedWinapp2())) return ShippedWinapp2();
  return std::wstring();
}

bool Winapp2SettingOn() {
  DWORD value = 1, size = sizeof value;
  if (RegGetValueW(HKEY_CURRENT_USER, kSettingsKey, kSettingValue, RRF_RT_REG_DWORD, nullptr, &value, &size) !=
      ERROR_SUCCESS)
    return true;
  return value != 0;
}

bool SetWinapp2Setting(bool on) {
  broom::unique_hkey key;
  if (RegCreateKeyExW(HKEY_CURRENT_USER, kSettingsKey, 0, nullptr, 0, KEY_SET_VALUE, nullptr, key.addressof(),
                      nullptr) != ERROR_SUCCESS)
    return false;
  DWORD value = on ? 1 : 0;
  return RegSetValueExW(key.get(), kSettingValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                        sizeof value) == ERROR_SUCCESS;
}

std::wstring LoadBundledWinapp2(CSession& session, const std::vector<std::wstring>& given) {
  if (!Winapp2SettingOn()) return std::wstring();
  const std::wstring file = BundledWinapp2(session.UserDataFolder());
  if (file.empty()) return file;
  for (const std::wstring& other : given)
    if (broom::SamePath(FullPath(other), file)) return std::wstring();
  session.LoadWinapp2Files({file});
  return file;
}

}  // namespace host
