#pragma once
// Where the hosts keep their data and find the community rules: a portable
// copy (portable.txt beside the program) keeps its data in Data beside it;
// the winapp2.ini a host loads by default is the copy in the data folder
// ('broom winapp2 update' puts it there), else the one shipped in winapp2
// beside the program.
#include <string>
#include <vector>

namespace host {

class CSession;

// ExeFolder()\Data when portable.txt is beside the program, else empty.
std::wstring PortableDataFolder();

std::wstring DataWinapp2(const std::wstring& dataFolder);  // DATA\Winapp2.ini
std::wstring ShippedWinapp2();                            // EXE\winapp2\Winapp2.ini
// The copy in use: the data folder's when it is there, else the shipped one,
// else empty.
std::wstring BundledWinapp2(const std::wstring& dataFolder);

// The setting HKCU\SOFTWARE\Broom\Engine, LoadWinapp2 (a DWORD): 0 turns the
// default load off; absent means on.
bool Winapp2SettingOn();
// False when the value could not be written.
bool SetWinapp2Setting(bool on);

// Loads the copy in use into the session, unless the setting is off or it is
// among the files given; the file loaded, or empty.
std::wstring LoadBundledWinapp2(CSession& session, const std::vector<std::wstring>& given);

}  // namespace host
