#include "app/ProfileRun.h"

#include "app/HostError.h"
#include "app/Text.h"
#include "core/Exceptions.h"
#include "scandefs/ConfigValues.h"

namespace host {

namespace {

// The engine's names of a user's shell folders, and the names the hive's
// Explorer keys give them.
const std::pair<const wchar_t*, const wchar_t*> kFolderNames[] = {
    {L"DESKTOP", L"Desktop"},
    {L"DESKTOPDIRECTORY", L"Desktop"},
    {L"PROGRAMS", L"Programs"},
    {L"PERSONAL", L"Personal"},
    {L"MYDOCUMENTS", L"Personal"},
    {L"FAVORITES", L"Favorites"},
    {L"STARTUP", L"Startup"},
    {L"RECENT", L"Recent"},
    {L"SENDTO", L"SendTo"},
    {L"STARTMENU", L"Start Menu"},
    {L"MYMUSIC", L"My Music"},
    {L"MYVIDEO", L"My Video"},
    {L"MYPICTURES", L"My Pictures"},
    {L"NETHOOD", L"NetHood"},
    {L"PRINTHOOD", L"PrintHood"},
    {L"TEMPLATES", L"Templates"},
    {L"INTERNET_CACHE", L"Cache"},
    {L"COOKIES", L"Cookies"},
    {L"HISTORY", L"History"},
    {L"ADMINTOOLS", L"Administrative Tools"},
    {L"CDBURN_AREA", L"CD Burning"},
    {L"DOWNLOADS", L"{374DE290-123F-4565-9164-39C4925E467B}"},
};

// Sets a name for the engine and for this process's environment alike; an
// empty value makes it unknown to both.
void Take(const wchar_t* name, const std::wstring& value, bool environment) {
  if (!CScopedMap::OverrideGlobal(name, value.empty() ? nullptr : value.c_str()))
    throw CHostError{exitUsage, L"cannot take on another profile: this run has read its own folders already"};
  if (environment) SetEnvironmentVariableW(name, value.empty() ? nullptr : value.c_str());
}

}  // namespace

std::wstring DescribeProfile(const SUserProfile& profile) {
  return profile.folder + L" (" + profile.userName + L")";
}

CProfileRun::CProfileRun(const std::wstring& sid) {
  std::vector<SUserProfile> all = CUserProfiles::List();
  for (const SUserProfile& profile : all)
    if (_wcsicmp(profile.sid.c_str(), sid.c_str()) == 0) m_profile = profile;
  if (m_profile.sid.empty())
    throw CHostError{exitUsage, L"the profile list of this PC holds no person's profile " + Quoted(sid)};
  if (m_profile.current) return;  // this process's own folders and HKCU are that user's

  try {
    m_hive.reset(new CUserHive(m_profile));
  } catch (CBaseException& e) {
    std::wstring why = e.GetAppMessage().GetString();
    const std::wstring system = e.GetErrorMessage().GetString();
    if (!system.empty()) why += L" (" + system + L")";
    throw CHostError{exitUsage, L"the registry of " + DescribeProfile(m_profile) + L" cannot be used: " + why};
  }
  const SUserFolders folders = m_hive->Folders(&m_notes);

  // A person's three application data folders sit where Windows puts them
  // unless the hive moves them.
  auto folder = [&](const wchar_t* name, const wchar_t* usual) {
    std::wstring path = folders.Folder(name);
    return path.empty() && usual ? m_profile.folder + usual : path;
  };
  const std::wstring appData = folder(L"AppData", L"\\AppData\\Roaming");
  const std::wstring localAppData = folder(L"Local AppData", L"\\AppData\\Local");
  std::wstring temp = folders.Variable(L"TEMP");
  if (temp.empty()) temp = localAppData + L"\\Temp";
  std::wstring tmp = folders.Variable(L"TMP");
  if (tmp.empty()) tmp = temp;
  const size_t slash = m_profile.userName.find(L'\\');
  const std::wstring user = slash == std::wstring::npos ? m_profile.userName : m_profile.userName.substr(slash + 1);
  const bool drive = m_profile.folder.size() >= 2 && m_profile.folder[1] == L':';

  Take(L"USERPROFILE", m_profile.folder, true);
  Take(L"PROFILE", m_profile.folder, false);
  Take(L"APPDATA", appData, true);
  Take(L"LOCALAPPDATA", localAppData, true);
  Take(L"LOCALLOWAPPDATA", folder(L"{A520A1A4-1780-4FF6-BD18-167343C5AF16}", L"\\AppData\\LocalLow"), false);
  Take(L"TEMP", temp, true);
  Take(L"TMP", tmp, true);
  Take(L"USERNAME", user, true);
  Take(L"HOMEDRIVE", drive ? m_profile.folder.substr(0, 2) : std::wstring(), true);
  Take(L"HOMEPATH", drive ? m_profile.folder.substr(2) : std::wstring(), true);
  for (const auto& name : kFolderNames) Take(name.first, folders.Folder(name.second), false);

  // Last, as nothing after it may fail: the destructor, which undoes it, only runs for a made object.
  LONG rc = RegOpenKeyExW(HKEY_USERS, m_hive->Name().c_str(), 0, KEY_ALL_ACCESS, m_key.addressof());
  if (rc == ERROR_SUCCESS) rc = RegOverridePredefKey(HKEY_CURRENT_USER, m_key.get());
  if (rc != ERROR_SUCCESS) {
    m_key.reset();
    throw CHostError{exitUsage, L"the registry of " + DescribeProfile(m_profile) + L" cannot stand for HKCU (" +
                                    SystemMessage(static_cast<DWORD>(rc)) + L")"};
  }
}

CProfileRun::~CProfileRun() {
  // HKCU is given back before the key closes and the hive unloads (the
  // members go in that order)
  if (m_key) RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
}

}  // namespace host
