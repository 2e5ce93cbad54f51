#pragma once
// The ground the hostile winapp2 files run on: the folders they aim at,
// precious files in every one of them, a test folder whose files rules may
// delete (with links out of it), and listings of drive C and the prefix's
// Unix home to tell what a run deleted.
#include <windows.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace damage {

struct Folders {
  std::wstring windows, system32, sysWow64, programFiles, programFilesX86, programData, users, profile, publicDir,
      roaming, local, localLow;
  std::vector<std::pair<std::wstring, std::wstring>> known;  // Desktop, Documents, ...: name, path
  std::vector<std::pair<std::wstring, std::wstring>> otherKnown;  // Saved Games, Public Documents, ...
  std::wstring data;     // Broom's data folder, %LOCALAPPDATA%\Broom
  std::wstring test;     // C:\broomtest: what the rules may delete
  std::wstring outside;  // a folder outside drive C
  std::wstring home;     // the Unix home the prefix was made with, as Z:\...
};

// The folders of this prefix; false with the reason when it was not made
// for this part (its user folders lead out of the home damage.sh gave it).
bool FindFolders(Folders& f, std::string& why);

// A Unix symbolic link at link to target (Wine shows one to a folder as a
// reparse point, one to a file as a plain file).
bool MakeUnixSymlink(const std::wstring& target, const std::wstring& link);

// Names and sizes of everything below a folder; links are listed, never
// followed.
struct Entry {
  ULONGLONG size = 0;
  DWORD attributes = 0;
};
using Listing = std::map<std::wstring, Entry>;
void List(const std::wstring& folder, Listing& into, const std::vector<std::wstring>& skip);

class Ground {
 public:
  explicit Ground(const Folders& f) : m_f(f) {}
  // The precious files (again where one changed or went), Broom's
  // whitelist (keeping test\kept) and a quarantine, the test folder's files
  // and its links; false with the reason when something cannot be made.
  bool Lay(std::string& why);
  // What must keep its bytes: path, bytes.
  const std::map<std::wstring, std::string>& Precious() const { return m_precious; }
  // Files of the test folder no rule of the hostile files may take:
  // excluded, whitelisted, or cleaned only by an entry that is off.
  const std::vector<std::wstring>& Kept() const { return m_kept; }
  // The links out of the test folder, which stay links.
  const std::vector<std::wstring>& Links() const { return m_links; }
  // Everything on drive C but the test folder, Broom's logs and the tool's
  // own folder, and everything in the home and the outside folder.
  Listing Take() const;

 private:
  void LayFile(const std::wstring& path, const std::string& bytes);

  const Folders& m_f;
  std::map<std::wstring, std::string> m_precious;
  std::vector<std::wstring> m_kept, m_links;
  bool m_madeData = false;
};

}  // namespace damage
