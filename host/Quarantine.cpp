#include "host/Quarantine.h"

#include <shlobj.h>
#include <shlwapi.h>
#include <wincrypt.h>

#include <nlohmann/json.hpp>

#include <map>
#include <set>

#include "clean/CleanableFolder.h"
#include "core/Handles.h"
#include "core/PathString.h"
#include "host/Console.h"

namespace host {

namespace {

constexpr unsigned __int64 kMaxManifestBytes = 64 * 1024 * 1024;
constexpr size_t kMaxPath = MAX_PATH;  // characters, as the engine counts them

bool SameName(const std::wstring& a, const std::wstring& b) {
  return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
         CSTR_EQUAL;
}

// Orders names as the file system compares them (case-insensitive).
struct NoCaseLess {
  bool operator()(const std::wstring& a, const std::wstring& b) const {
    return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()), TRUE) ==
           CSTR_LESS_THAN;
  }
};

// 0 when something is at path, else the error that says it is not.
DWORD Probe(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES ? ERROR_SUCCESS : GetLastError();
}
bool IsMissing(DWORD probe) { return probe == ERROR_FILE_NOT_FOUND || probe == ERROR_PATH_NOT_FOUND; }
bool PathExists(const std::wstring& path) { return Probe(path) == ERROR_SUCCESS; }

std::wstring NameOf(const std::wstring& path) {
  size_t slash = path.find_last_of(L'\\');
  return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

std::wstring ParentOf(const std::wstring& path) {
  size_t slash = path.find_last_of(L'\\');
  return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

std::wstring Hex(DWORD code) {
  wchar_t text[16];
  swprintf(text, 16, L"0x%08lX", static_cast<unsigned long>(code));
  return text;
}

// CON, NUL, COM1 and the like open a device whatever folder they stand in,
// also with an extension or trailing spaces.
bool IsDeviceName(const std::wstring& name) {
  std::wstring base = name.substr(0, name.find(L'.'));
  while (!base.empty() && base.back() == L' ') base.pop_back();
  for (const wchar_t* device : {L"CON", L"PRN", L"AUX", L"NUL", L"CONIN$", L"CONOUT$"})
    if (SameName(base, device)) return true;
  if (base.size() != 4 || !(SameName(base.substr(0, 3), L"COM") || SameName(base.substr(0, 3), L"LPT"))) return false;
  const wchar_t digit = base[3];
  return (digit >= L'0' && digit <= L'9') || digit == 0xB9 || digit == 0xB2 || digit == 0xB3;
}

// Why one name is not a plain name that Windows keeps as written; empty
// when it is.
std::wstring BadName(const std::wstring& name) {
  if (name.empty()) return L"has an empty name (two backslashes in a row, or one at the end)";
  if (name == L"." || name == L"..") return L"holds a '.' or '..' name";
  for (wchar_t c : name) {
    if (c < 0x20) return L"holds a control character";
    if (c == L'*' || c == L'?') return std::wstring(L"holds the wildcard '") + c + L"'";
    if (c == L'<' || c == L'>' || c == L'"' || c == L'|' || c == L':' || c == L'/')
      return std::wstring(L"holds the character '") + c + L"', which no file name can hold";
  }
  if (name.back() == L'.' || name.back() == L' ') return L"has a name that ends in a dot or a space, which Windows drops";
  if (IsDeviceName(name)) return L"names the device " + Quoted(name);
  if (name.size() > 255) return L"has a name longer than 255 characters";
  return std::wstring();
}

// Why a recorded original is not an absolute local path a restore may
// write to; empty when it is.
std::wstring BadOriginal(const std::wstring& path, const std::wstring& folder) {
  if (path.empty()) return L"is empty";
  if (path.size() > kMaxPath) return L"is longer than 260 characters";
  for (wchar_t c : path)
    if (c < 0x20) return L"holds a control character";
  auto separator = [](wchar_t c) { return c == L'\\' || c == L'/'; };
  if (path.size() >= 2 && separator(path[0]) && separator(path[1])) return L"is a network or device path";
  if (path.find(L'/') != std::wstring::npos) return L"holds a forward slash";
  const bool letter = (path[0] >= L'A' && path[0] <= L'Z') || (path[0] >= L'a' && path[0] <= L'z');
  if (path.size() < 2 || !letter || path[1] != L':') return L"is a relative path";
  if (path.size() < 3 || path[2] != L'\\') return L"is relative to the current folder of drive " + path.substr(0, 2);
  if (path.size() == 3) return L"is a drive root, not a file";
  for (size_t start = 3;;) {
    size_t end = path.find(L'\\', start);
    std::wstring why = BadName(path.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start));
    if (!why.empty()) return why;
    if (end == std::wstring::npos) break;
    start = end + 1;
  }
  std::wstring inside = folder.back() == L'\\' ? folder : folder + L"\\";
  if (path.size() > inside.size() && SameName(path.substr(0, inside.size()), inside))
    return L"lies inside the quarantine folder";
  return std::wstring();
}

// Why a stored name is not a plain file name of the quarantine folder.
std::wstring BadStored(const std::wstring& name, const std::wstring& folder) {
  if (name.empty()) return L"is empty";
  if (name.find(L'\\') != std::wstring::npos || name.find(L'/') != std::wstring::npos)
    return L"is not a plain file name (it holds a separator)";
  std::wstring why = BadName(name);
  if (!why.empty()) return why;
  if (SameName(name, CQuarantine::kManifestName)) return L"is the manifest's own name";
  if (SameName(name, std::wstring(CQuarantine::kManifestName) + L".tmp"))
    return L"is the name of the manifest's temporary copy";
  if (folder.size() + 1 + name.size() > kMaxPath) return L"makes a path longer than 260 characters";
  return std::wstring();
}

// "sha256:" and the hex digest of the entries (original, stored and size
// of each, as the manifest holds them); empty when no digest can be made.
std::string EntriesDigest(const std::vector<SQuarantineEntry>& entries) {
  HCRYPTPROV provider = 0;
  if (!CryptAcquireContextW(&provider, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT)) return std::string();
  auto releaseProvider = broom::scope_exit([&] { CryptReleaseContext(provider, 0); });
  HCRYPTHASH hash = 0;
  if (!CryptCreateHash(provider, CALG_SHA_256, 0, 0, &hash)) return std::string();
  auto destroyHash = broom::scope_exit([&] { CryptDestroyHash(hash); });
  for (const SQuarantineEntry& e : entries) {
    std::string text = Utf8(e.original) + '\0' + Utf8(e.stored) + '\0' + std::to_string(e.size) + '\n';
    if (!CryptHashData(hash, reinterpret_cast<const BYTE*>(text.data()), static_cast<DWORD>(text.size()), 0))
      return std::string();
  }
  BYTE value[32];
  DWORD size = sizeof value;
  if (!CryptGetHashParam(hash, HP_HASHVAL, value, &size, 0) || size != sizeof value) return std::string();
  std::string digest = "sha256:";
  for (BYTE b : value) {
    digest += "0123456789abcdef"[b >> 4];
    digest += "0123456789abcdef"[b & 0xF];
  }
  return digest;
}

struct SListed {
  std::wstring name;
  std::wstring shortName;
};

// The folder's entries without "." and ".."; false when it cannot be listed.
bool ListFolder(const std::wstring& folder, std::vector<SListed>& out) {
  WIN32_FIND_DATAW data = {};
  std::wstring pattern = folder.back() == L'\\' ? folder + L"*" : folder + L"\\*";
  broom::unique_hfind find(FindFirstFileW(pattern.c_str(), &data));
  if (!find) return false;
  do {
    std::wstring name = data.cFileName;
    if (name != L"." && name != L"..") out.push_back(SListed{name, data.cAlternateFileName});
  } while (FindNextFileW(find.get(), &data));
  return true;
}

std::wstring Field(size_t index, const char* field) {
  return L"entry " + std::to_wstring(index + 1) + L": '" + Wide(field) + L"'";
}

}  // namespace

std::wstring ExplainResult(DWORD code) {
  switch (code) {
    case kCleanDone:
      return L"done";
    case kCleanAlternateRemoved:
      return L"removed by the file-operations server's second method";
    case kCleanFailed:
      return L"could not be removed: it is in use, protected by access rights, or the removal failed (" + Hex(code) + L")";
    case kTruncateOpenFailed:
      return L"could not be opened to empty it: it is read-only, in use or access is denied (" + Hex(code) + L")";
    case kMoveDestinationExists:
      return L"a file of that name already exists at the destination (" + Hex(code) + L")";
    case kMoveException:
      return L"the move failed unexpectedly, for example because a path would exceed 260 characters (" + Hex(code) + L")";
    default:
      break;
  }
  if (code == kFolderNotEmpty)
    return L"the folder is not empty (something in it was kept or not removed), so it stays (" + Hex(code) + L")";
  if ((code & 0xFFFF0000) == kFolderFailed)
    return L"the empty folder could not be removed (Windows error " + std::to_wstring(code & 0xFFFF) + L", " + Hex(code) + L")";
  if ((code & 0xF8000000) == kCleanServerUnavailable) {
    // The creation HRESULT with bit 27 set and bits 29 and 30 cleared.
    DWORD hr = (code & 0x07FFFFFF) | 0x80000000;
    std::wstring why = hr == 0x80040154 ? L"it is not installed" : L"error " + Hex(hr);
    return L"Windows could not remove it and the fallback file-operations server could not be started (" + why +
           L"); it is probably in use or access is denied (" + Hex(code) + L")";
  }
  return L"the file-operations server reported error " + Hex(code);
}

CQuarantine::CQuarantine(const std::wstring& folder, bool create) : m_folder(folder) {
  if (create) {
    int rc = SHCreateDirectoryExW(nullptr, m_folder.c_str(), nullptr);
    if (rc != ERROR_SUCCESS && rc != ERROR_ALREADY_EXISTS && rc != ERROR_FILE_EXISTS)
      throw CHostError{exitUsage, L"cannot create the quarantine folder " + Quoted(m_folder) + L"; choose a writable folder"};
    DWORD attributes = GetFileAttributesW(m_folder.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
      throw CHostError{exitUsage, Quoted(m_folder) + L" is not a folder; give --quarantine a new or an empty folder"};
  }
  const std::wstring manifest = ManifestPath();
  broom::unique_hfile file(CreateFileW(manifest.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) {
    DWORD error = GetLastError();
    if (!IsMissing(error))
      throw CHostError{exitUsage, L"the quarantine manifest " + Quoted(manifest) + L" cannot be read (" +
                                      SystemMessage(error) + L"); nothing was moved: close the program that holds it or "
                                      L"check its permissions, then run the command again"};
    std::vector<SListed> listed;
    if (!create) {
      std::wstring left = PathExists(manifest + L".tmp") ? L" (a list was left in " + std::wstring(kManifestName) +
                                                               L".tmp: rename it to " + kManifestName + L" to use it)"
                                                         : std::wstring();
      throw CHostError{exitUsage, Quoted(m_folder) + L" holds no quarantine manifest (" + kManifestName + L")" + left +
                                      L"; give the folder passed to 'broom clean --quarantine'"};
    }
    // A new quarantine starts empty, so that everything in it is listed.
    if (ListFolder(m_folder, listed) && !listed.empty())
      throw CHostError{exitUsage, Quoted(m_folder) + L" already holds " + Quoted(listed[0].name) +
                                      L" and no quarantine manifest; give --quarantine an empty or a new folder"};
    return;
  }
  LARGE_INTEGER size = {};
  if (!GetFileSizeEx(file.get(), &size) || static_cast<unsigned __int64>(size.QuadPart) > kMaxManifestBytes)
    Damaged(L"it is larger than 64 MB");
  std::string bytes(static_cast<size_t>(size.QuadPart), '\0');
  DWORD read = 0;
  if (!bytes.empty() &&
      (!::ReadFile(file.get(), &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr) || read != bytes.size()))
    throw CHostError{exitUsage, L"the quarantine manifest " + Quoted(manifest) + L" cannot be read (" +
                                    SystemMessage(GetLastError()) + L"); nothing was moved: run the command again"};
  file.reset();
  Validate(bytes);
}

std::wstring CQuarantine::Child(const std::wstring& name) const {
  return m_folder.back() == L'\\' ? m_folder + name : m_folder + L"\\" + name;
}

void CQuarantine::Damaged(const std::wstring& what, const std::wstring& fix) const {
  throw CHostError{exitUsage, L"the quarantine manifest " + Quoted(ManifestPath()) + L" is damaged: " + what +
                                  L"; nothing was moved: " +
                                  (fix.empty() ? L"correct the manifest or move the files back by hand" : fix) +
                                  L", then run the command again"};
}

void CQuarantine::Validate(const std::string& bytes) {
  using json = nlohmann::json;
  // Objects are checked for repeated keys (which one wins would be a
  // guess) and nesting is capped; neither needs the whole value built.
  std::vector<std::set<std::string>> keys;
  std::string repeated;
  bool tooDeep = false;
  json::parser_callback_t watch = [&](int depth, json::parse_event_t event, json& parsed) {
    switch (event) {
      case json::parse_event_t::object_start:
      case json::parse_event_t::array_start:
        if (depth > 8) {
          tooDeep = true;
          return false;
        }
        if (event == json::parse_event_t::object_start) keys.emplace_back();
        return true;
      case json::parse_event_t::object_end:
        if (!keys.empty()) keys.pop_back();
        return true;
      case json::parse_event_t::key:
        if (!keys.empty() && !keys.back().insert(parsed.get<std::string>()).second && repeated.empty())
          repeated = parsed.get<std::string>();
        return true;
      default:
        return true;
    }
  };
  json doc;
  try {
    doc = json::parse(bytes, watch, true);
  } catch (const json::parse_error& e) {
    Damaged(L"it is not valid JSON text (the first fault is at byte " + std::to_wstring(e.byte) + L")");
  }
  if (tooDeep) Damaged(L"it is nested deeper than a manifest ever is");
  if (!doc.is_object()) Damaged(L"it is not a JSON object");
  if (!repeated.empty()) Damaged(L"it holds the key " + Quoted(Wide(repeated), 40) + L" twice in one object");

  auto format = doc.find("format");
  if (format == doc.end()) Damaged(L"'format' is missing");
  if (!format->is_string() || format->get<std::string>() != "broom-quarantine")
    Damaged(L"'format' is not \"broom-quarantine\"");
  auto version = doc.find("version");
  if (version == doc.end()) Damaged(L"'version' is missing");
  if (!version->is_number_unsigned() || version->get<unsigned __int64>() != 1)
    Damaged(L"'version' is not 1, the only version this broom reads", L"use the broom that made the quarantine");
  auto entries = doc.find("entries");
  if (entries == doc.end()) Damaged(L"'entries' is missing");
  if (!entries->is_array()) Damaged(L"'entries' is not a list");

  std::map<std::wstring, size_t, NoCaseLess> byStored, byOriginal;
  for (size_t i = 0; i < entries->size(); ++i) {
    const json& e = (*entries)[i];
    if (!e.is_object()) Damaged(L"entry " + std::to_wstring(i + 1) + L" is not a JSON object");
    SQuarantineEntry entry;
    for (const char* name : {"original", "stored"}) {
      auto field = e.find(name);
      if (field == e.end()) Damaged(Field(i, name) + L" is missing");
      if (!field->is_string()) Damaged(Field(i, name) + L" is not a string");
      (name[0] == 'o' ? entry.original : entry.stored) = Wide(field->get<std::string>());
    }
    auto size = e.find("size");
    if (size == e.end()) Damaged(Field(i, "size") + L" is missing");
    if (!size->is_number_unsigned()) Damaged(Field(i, "size") + L" is not a whole number of bytes (0 or more)");
    entry.size = size->get<unsigned __int64>();

    std::wstring why = BadOriginal(entry.original, m_folder);
    if (!why.empty()) Damaged(Field(i, "original") + L" " + why + L" (" + Quoted(entry.original, 80) + L")");
    why = BadStored(entry.stored, m_folder);
    if (!why.empty()) Damaged(Field(i, "stored") + L" " + why + L" (" + Quoted(entry.stored, 80) + L")");
    auto stored = byStored.emplace(entry.stored, i);
    if (!stored.second)
      Damaged(L"entries " + std::to_wstring(stored.first->second + 1) + L" and " + std::to_wstring(i + 1) +
              L" have the same 'stored' name " + Quoted(entry.stored, 80));
    auto original = byOriginal.emplace(entry.original, i);
    if (!original.second)
      Damaged(L"entries " + std::to_wstring(original.first->second + 1) + L" and " + std::to_wstring(i + 1) +
              L" have the same 'original' " + Quoted(entry.original, 80));
    m_entries.push_back(entry);
  }

  // What is in the folder must be what the manifest lists: a file nobody
  // lists would be left behind, and a short (8.3) name could stand for
  // another file, the manifest itself included.
  std::vector<SListed> listed;
  if (!ListFolder(m_folder, listed))
    throw CHostError{exitUsage, L"the quarantine folder " + Quoted(m_folder) + L" cannot be listed (" +
                                    SystemMessage(GetLastError()) + L"); nothing was moved: run the command again"};
  const std::wstring temp = std::wstring(kManifestName) + L".tmp";
  std::map<std::wstring, const SListed*, NoCaseLess> byName;
  for (const SListed& item : listed) byName.emplace(item.name, &item);
  for (const SQuarantineEntry& entry : m_entries) {
    if (byName.count(entry.stored)) continue;
    for (const SListed& item : listed)
      if (!item.shortName.empty() && SameName(item.shortName, entry.stored))
        Damaged(Field(static_cast<size_t>(byStored[entry.stored]), "stored") + L" " + Quoted(entry.stored, 80) +
                L" is the short name of " + Quoted(item.name, 80) + L", not a name of its own");
  }
  for (const SListed& item : listed) {
    if (SameName(item.name, kManifestName) || SameName(item.name, temp) || byStored.count(item.name)) continue;
    std::wstring newer = PathExists(Child(temp)) ? L" (a newer list may be in " + temp + L")" : std::wstring();
    Damaged(Quoted(item.name, 80) + L" in the quarantine folder is not listed in it" + newer,
            L"move that file out of the folder if it was never quarantined, or add its entry to the manifest");
  }

  // A flipped letter leaves a path that passes every test above and points
  // somewhere else; the digest broom wrote catches it. Without one (an entry
  // fixed by hand) the checks above are all there is.
  auto checksum = doc.find("checksum");
  if (checksum != doc.end()) {
    const std::string digest = EntriesDigest(m_entries);
    if (!checksum->is_string() || (!digest.empty() && checksum->get<std::string>() != digest))
      Damaged(L"its entries do not match its 'checksum', so they were changed after broom wrote them",
              L"if the change was yours, delete the \"checksum\" line; otherwise move the files back by hand");
  }
}

std::wstring CQuarantine::CannotHold(const std::wstring& path) const {
  std::wstring why = BadOriginal(path, m_folder);
  if (why.empty()) return why;
  return L"left in place: 'broom restore' could not put it back, since its path " + why;
}

bool CQuarantine::TrySave(std::wstring& error) const {
  nlohmann::json entries = nlohmann::json::array();
  for (const SQuarantineEntry& e : m_entries)
    entries.push_back({{"original", Utf8(e.original)}, {"stored", Utf8(e.stored)}, {"size", e.size}});
  nlohmann::json manifest = {{"format", "broom-quarantine"}, {"version", 1}, {"entries", entries}};
  const std::string digest = EntriesDigest(m_entries);
  if (!digest.empty()) manifest["checksum"] = digest;
  std::string text = manifest.dump(2) + "\n";

  const std::wstring temp = ManifestPath() + L".tmp";
  {
    broom::unique_hfile file(
        CreateFileW(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file || !WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ||
        written != text.size() || !FlushFileBuffers(file.get())) {
      error = L"cannot write the quarantine manifest in " + Quoted(m_folder) + L" (" + SystemMessage(GetLastError()) +
              L")";
      return false;
    }
  }
  if (!MoveFileExW(temp.c_str(), ManifestPath().c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    error = L"cannot replace the quarantine manifest in " + Quoted(m_folder) + L" (" + SystemMessage(GetLastError()) +
            L"); the latest list is in " + kManifestName + L".tmp";
    return false;
  }
  return true;
}

void CQuarantine::Save() const {
  std::wstring error;
  if (!TrySave(error))
    throw CHostError{exitCleanFailures, error + L"; the files moved so far are in that folder, move them back by hand"};
}

DWORD CQuarantine::Add(const SHit& hit) {
  std::wstring name = NameOf(hit.path);
  // The manifest's own names are never given to a quarantined file.
  if (SameName(name, kManifestName) || SameName(name, std::wstring(kManifestName) + L".tmp")) name = L"_" + name;
  std::wstring destination = Child(name);
  DWORD result = kMoveException;
  // The proposal is free when made; another process may take it before the
  // move, so a few proposals are tried.
  for (int attempt = 0; attempt < 5; ++attempt) {
    CPathString proposal;
    result = hit.item->Move(CString(destination.c_str()), nullptr, nullptr, false, proposal);
    if (result != kMoveDestinationExists || proposal.GetLength() == 0) break;
    destination.assign(proposal.GetBuffer(), proposal.GetLength());
  }
  if (result != kCleanDone) return result;
  if (!PathExists(destination) || PathExists(hit.path)) return kMoveException;
  m_entries.push_back(SQuarantineEntry{hit.path, NameOf(destination), hit.size});
  Save();
  return kCleanDone;
}

bool CQuarantine::MoveBack(const SQuarantineEntry& entry, std::wstring& reason) const {
  const std::wstring source = Child(entry.stored);
  const std::wstring kept = L"; the quarantined copy stays as " + Quoted(entry.stored);
  DWORD probe = Probe(source);
  if (IsMissing(probe)) {
    reason = L"it is no longer in the quarantine folder";
    return false;
  }
  if (probe != ERROR_SUCCESS) {
    reason = L"its quarantined copy cannot be reached (" + SystemMessage(probe) + L")";
    return false;
  }
  probe = Probe(entry.original);
  if (probe == ERROR_SUCCESS) {
    reason = L"a file already exists at the original place" + kept;
    return false;
  }
  if (!IsMissing(probe)) {
    reason = L"the original place cannot be checked (" + SystemMessage(probe) + L")" + kept;
    return false;
  }
  const std::wstring parent = ParentOf(entry.original);
  if (parent.size() > 2 && !PathExists(parent)) {
    int rc = SHCreateDirectoryExW(nullptr, parent.c_str(), nullptr);
    if (rc != ERROR_SUCCESS && rc != ERROR_ALREADY_EXISTS && rc != ERROR_FILE_EXISTS) {
      reason = L"its folder " + Quoted(parent) + L" cannot be created (" + SystemMessage(static_cast<DWORD>(rc)) +
               L")" + kept;
      return false;
    }
  }
  // Without MOVEFILE_REPLACE_EXISTING the move fails rather than replace a
  // file that appeared since the check; the shell's move would replace it.
  if (!MoveFileExW(source.c_str(), entry.original.c_str(), MOVEFILE_WRITE_THROUGH)) {
    DWORD error = GetLastError();
    if (error != ERROR_NOT_SAME_DEVICE) {
      reason = error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS
                   ? L"a file already exists at the original place" + kept
                   : L"it cannot be moved back (" + SystemMessage(error) + L")" + kept;
      return false;
    }
    // Another drive: a copy that never replaces, then the quarantined file
    // goes; if it cannot go, the copy is taken back so one copy remains.
    if (!CopyFileExW(source.c_str(), entry.original.c_str(), nullptr, nullptr, nullptr, COPY_FILE_FAIL_IF_EXISTS)) {
      reason = L"it cannot be copied back (" + SystemMessage(GetLastError()) + L")" + kept;
      return false;
    }
    SetFileAttributesW(source.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (!DeleteFileW(source.c_str())) {
      std::wstring why = SystemMessage(GetLastError());
      SetFileAttributesW(entry.original.c_str(), FILE_ATTRIBUTE_NORMAL);
      reason = DeleteFileW(entry.original.c_str())
                   ? L"its quarantined copy cannot be removed (" + why + L")" + kept
                   : L"it was copied back, but its quarantined copy cannot be removed (" + why +
                         L"); both copies exist: compare them and delete the one in quarantine";
      return false;
    }
  }
  if (!PathExists(entry.original)) {
    reason = L"the move reported success, yet nothing is at the original place" +
             (PathExists(source) ? kept : std::wstring(L"; look for the file by hand"));
    return false;
  }
  if (PathExists(source)) {
    reason = L"it is back at the original place, but its quarantined copy is still there: compare them and delete the "
             L"one in quarantine";
    return false;
  }
  return true;
}

CQuarantine::SRestoreResult CQuarantine::RestoreAll() {
  SRestoreResult result;
  const std::vector<SQuarantineEntry> pending = m_entries;
  for (const SQuarantineEntry& entry : pending) {
    if (IsCancelRequested()) break;
    std::wstring reason;
    if (!MoveBack(entry, reason)) {
      result.failures.push_back(SRestoreFailure{entry, reason});
      continue;
    }
    ++result.files;
    result.bytes += entry.size;
    for (size_t i = 0; i < m_entries.size(); ++i) {
      if (m_entries[i].stored == entry.stored) {
        m_entries.erase(m_entries.begin() + static_cast<std::ptrdiff_t>(i));
        break;
      }
    }
    std::wstring error;
    if (!TrySave(error)) {
      result.stopped = error + L"; it still lists " + Quoted(entry.original) +
                       L", which was restored, and nothing more was moved";
      return result;
    }
  }
  if (m_entries.empty() && !IsCancelRequested()) {
    DeleteFileW(ManifestPath().c_str());
    RemoveDirectoryW(m_folder.c_str());  // only when nothing else is left in it
  }
  return result;
}

}  // namespace host
