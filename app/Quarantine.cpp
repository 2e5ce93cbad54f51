#include "app/Quarantine.h"

#include <shlobj.h>
#include <shlwapi.h>
#include <wincrypt.h>

#include <nlohmann/json.hpp>

#include <climits>
#include <map>
#include <set>

#include "app/Text.h"
#include "clean/CleanableFolder.h"
#include "clean/FileSystemOps.h"
#include "core/Handles.h"
#include "core/PathString.h"
#include "registry/CleanableRegistry.h"
#include "registry/RegFile.h"
#include "registry/RegistryPath.h"

namespace host {

namespace {

constexpr unsigned __int64 kMaxManifestBytes = 64 * 1024 * 1024;
constexpr size_t kMaxPath = MAX_PATH;  // characters, as the engine counts them
constexpr size_t kMaxRegistryPath = 32767;
constexpr wchar_t kIncomingName[] = L"broom-incoming.tmp";  // a copy from another drive, until it is whole

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

// Why a recorded registry original is not a key or value path a restore
// may write to; empty when it is.
std::wstring BadRegistryOriginal(const std::wstring& path) {
  if (path.empty()) return L"is empty";
  if (path.size() > kMaxRegistryPath) return L"is longer than any registry path";
  for (wchar_t c : path)
    if (c < 0x20) return L"holds a control character";
  CRegistryPath parsed;
  if (!CRegistryPath::StartsWithHive(path.c_str()) || !parsed.Parse(path))
    return L"is not a registry path (HKCU\\..., HKLM\\...)";
  if (parsed.IsHiveRoot()) return L"is a hive root";
  if (parsed.Text() != path) return L"is not written as broom writes it (" + Quoted(parsed.Text(), 80) + L")";
  return std::wstring();
}

bool EndsWithNoCase(const std::wstring& text, const std::wstring& end) {
  return text.size() >= end.size() && SameName(text.substr(text.size() - end.size()), end);
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
  if (SameName(name, kIncomingName)) return L"is the name of a copy still being made";
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
    // the optional fields only when present, so older manifests keep their digest
    std::string text = Utf8(e.original) + '\0' + Utf8(e.stored) + '\0' + std::to_string(e.size);
    if (e.registry) text += std::string(1, '\0') + "registry";
    if (!e.item.empty()) text += std::string(1, '\0') + "item:" + Utf8(e.item);
    if (e.hasSource)
      text += std::string(1, '\0') + "source:" + Utf8(e.source.file) + '\0' + std::to_string(e.source.line) + '\0' +
              Utf8(e.source.kind) + '\0' + Utf8(e.source.text);
    text += '\n';
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

// Replaces path by the engine's first free "name (N).ext"; false when
// none fits in 260 characters.
bool FreeName(std::wstring& path) {
  try {
    CPathString free(path.c_str());
    CFileSystemOps::MakeFreeName(free);
    path.assign(free.GetBuffer(), free.GetLength());
    return true;
  } catch (...) {
    return false;
  }
}

// Both paths lie on one volume, as far as Windows can tell; false when unsure.
bool SameVolume(const std::wstring& a, const std::wstring& b) {
  wchar_t rootA[MAX_PATH + 1], rootB[MAX_PATH + 1], nameA[64], nameB[64];
  return GetVolumePathNameW(a.c_str(), rootA, MAX_PATH + 1) && GetVolumePathNameW(b.c_str(), rootB, MAX_PATH + 1) &&
         GetVolumeNameForVolumeMountPointW(rootA, nameA, 64) && GetVolumeNameForVolumeMountPointW(rootB, nameB, 64) &&
         SameName(nameA, nameB);
}

// A file name for a registry hit's export: the key's name, with the value's
// name after it, made safe for a file system, and .reg.
std::wstring ExportName(const CRegistryPath& path) {
  const std::wstring& subkey = path.Subkey();
  std::wstring name = subkey.substr(subkey.rfind(L'\\') == std::wstring::npos ? 0 : subkey.rfind(L'\\') + 1);
  if (path.HasValue()) name += L" " + (path.ValueName().empty() ? std::wstring(L"(Default)") : path.ValueName());
  for (wchar_t& c : name)
    if (c < 0x20 || wcschr(L"<>:\"/\\|?*", c)) c = L'_';
  if (name.size() > 100) name.resize(100);
  while (!name.empty() && (name.back() == L'.' || name.back() == L' ')) name.pop_back();
  if (name.empty()) name = L"registry";
  if (IsDeviceName(name + L".reg")) name = L"_" + name;
  return name + L".reg";
}

// The whole content of a file; false when it cannot be read.
bool ReadBytes(const std::wstring& path, std::string& out) {
  broom::unique_hfile file(
      CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER size = {};
  if (!file || !GetFileSizeEx(file.get(), &size) || size.QuadPart > 256 * 1024 * 1024) return false;
  out.assign(static_cast<size_t>(size.QuadPart), '\0');
  DWORD read = 0;
  return out.empty() || (::ReadFile(file.get(), &out[0], static_cast<DWORD>(out.size()), &read, nullptr) &&
                         read == out.size());
}

// The export in file reads back as a fresh export of the key does.
bool SameExport(const CCleanableRegistry& key, const std::wstring& file) {
  wchar_t folder[MAX_PATH + 1], fresh[MAX_PATH + 1];
  if (!GetTempPathW(MAX_PATH + 1, folder) || !GetTempFileNameW(folder, L"brm", 0, fresh)) return false;
  auto remove = broom::scope_exit([&] { DeleteFileW(fresh); });
  std::string written, expected;
  return key.Export(fresh, true) == 0 && ReadBytes(file, written) && ReadBytes(fresh, expected) &&
         written == expected;
}

// Deletes a file, or a folder with everything in it; a link is removed as a
// link, never followed. What is already gone counts as deleted.
bool DeleteTree(const std::wstring& path, DWORD& error) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) {
    error = GetLastError();
    return IsMissing(error);
  }
  const bool folder = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  if (folder && !(attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
    std::vector<SListed> listed;
    if (!ListFolder(path, listed)) {
      error = GetLastError();
      return false;
    }
    for (const SListed& item : listed)
      if (!DeleteTree(path + L"\\" + item.name, error)) return false;
  }
  if (attributes & FILE_ATTRIBUTE_READONLY) SetFileAttributesW(path.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY);
  if (folder ? RemoveDirectoryW(path.c_str()) : DeleteFileW(path.c_str())) return true;
  error = GetLastError();
  return false;
}

std::wstring Field(size_t index, const char* field) {
  return L"entry " + std::to_wstring(index + 1) + L": '" + Wide(field) + L"'";
}

}  // namespace

CQuarantine::CQuarantine(const std::wstring& folder, bool create) : m_folder(folder) {
  if (create) {
    int rc = SHCreateDirectoryExW(nullptr, m_folder.c_str(), nullptr);
    m_created = rc == ERROR_SUCCESS;
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

CQuarantine::~CQuarantine() {
  if (!m_created || !m_entries.empty()) return;
  // Only the manifest (and its .tmp) may be left in a folder that is removed.
  std::vector<SListed> listed;
  if (!ListFolder(m_folder, listed)) return;
  for (const SListed& item : listed)
    if (!SameName(item.name, kManifestName) && !SameName(item.name, std::wstring(kManifestName) + L".tmp")) return;
  DeleteFileW(ManifestPath().c_str());
  DeleteFileW((ManifestPath() + L".tmp").c_str());
  RemoveDirectoryW(m_folder.c_str());
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
    auto kind = e.find("kind");
    if (kind != e.end()) {
      if (!kind->is_string() || (*kind != "file" && *kind != "registry"))
        Damaged(Field(i, "kind") + L" is neither \"file\" nor \"registry\"");
      entry.registry = *kind == "registry";
    }
    auto item = e.find("item");
    if (item != e.end()) {
      if (!item->is_string()) Damaged(Field(i, "item") + L" is not a string");
      entry.item = Wide(item->get<std::string>());
    }
    auto source = e.find("source");
    if (source != e.end()) {
      if (!source->is_object()) Damaged(Field(i, "source") + L" is not a JSON object");
      for (const char* name : {"file", "kind", "text"}) {
        auto field = source->find(name);
        if (field == source->end()) continue;
        if (!field->is_string()) Damaged(Field(i, "source") + L"'s '" + Wide(name) + L"' is not a string");
        CString value(Wide(field->get<std::string>()).c_str());
        (name[0] == 'f' ? entry.source.file : name[0] == 'k' ? entry.source.kind : entry.source.text) = value;
      }
      auto line = source->find("line");
      if (line != source->end()) {
        if (!line->is_number_unsigned() || line->get<unsigned __int64>() > INT_MAX)
          Damaged(Field(i, "source") + L"'s 'line' is not a line number");
        entry.source.line = line->get<int>();
      }
      entry.hasSource = true;
    }

    std::wstring why = entry.registry ? BadRegistryOriginal(entry.original) : BadOriginal(entry.original, m_folder);
    if (!why.empty()) Damaged(Field(i, "original") + L" " + why + L" (" + Quoted(entry.original, 80) + L")");
    why = BadStored(entry.stored, m_folder);
    if (why.empty() && entry.registry && !EndsWithNoCase(entry.stored, L".reg"))
      why = L"is not the name of a registry export (.reg)";
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
  std::wstring why =
      CRegistryPath::StartsWithHive(path.c_str()) ? BadRegistryOriginal(path) : BadOriginal(path, m_folder);
  if (why.empty()) return why;
  return L"left in place: 'broom restore' could not put it back, since its path " + why;
}

bool CQuarantine::TrySave(std::wstring& error) const {
  nlohmann::json entries = nlohmann::json::array();
  for (const SQuarantineEntry& e : m_entries) {
    nlohmann::json entry = {{"original", Utf8(e.original)}, {"stored", Utf8(e.stored)}, {"size", e.size}};
    if (e.registry) entry["kind"] = "registry";
    if (!e.item.empty()) entry["item"] = Utf8(e.item);
    if (e.hasSource)
      entry["source"] = {{"file", Utf8(e.source.file)},
                         {"line", e.source.line},
                         {"kind", Utf8(e.source.kind)},
                         {"text", Utf8(e.source.text)}};
    entries.push_back(entry);
  }
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

bool CQuarantine::Record(const SQuarantineEntry& entry, std::wstring& error) {
  m_entries.push_back(entry);
  if (TrySave(error)) return true;
  m_entries.pop_back();
  return false;
}

DWORD CQuarantine::Add(const SHit& hit, const std::wstring& itemPath, const SOperationSource* source) {
  if (!hit.item) return kMoveException;
  SQuarantineEntry entry;
  entry.original = hit.path;
  entry.size = hit.size;
  entry.item = itemPath;
  if (source) {
    entry.hasSource = true;
    entry.source = *source;
  }
  return dynamic_cast<CCleanableRegistry*>(hit.item.Get()) ? AddRegistry(hit, entry) : AddFile(hit, entry);
}

DWORD CQuarantine::AddFile(const SHit& hit, SQuarantineEntry& entry) {
  std::wstring name = NameOf(hit.path);
  // The manifest's own names are never given to a quarantined file.
  if (SameName(name, kManifestName) || SameName(name, std::wstring(kManifestName) + L".tmp") ||
      SameName(name, kIncomingName))
    name = L"_" + name;
  std::wstring destination = Child(name);
  // An empty folder item moves itself (it makes the destination and goes);
  // everything else is renamed, which never leaves half a move behind.
  bool engine = dynamic_cast<CCleanableEmptyFolder*>(hit.item.Get()) != nullptr;
  DWORD result = kMoveException;
  // A free name may be taken before the move, so a few are tried.
  for (int attempt = 0; attempt < 5; ++attempt) {
    if (engine) {
      CPathString proposal;
      result = hit.item->Move(CString(destination.c_str()), nullptr, nullptr, false, proposal);
      if (result != kMoveDestinationExists || proposal.GetLength() == 0) break;
      destination.assign(proposal.GetBuffer(), proposal.GetLength());
      continue;
    }
    if (MoveFileExW(hit.path.c_str(), destination.c_str(), MOVEFILE_WRITE_THROUGH)) {
      result = kCleanDone;
      break;
    }
    DWORD error = GetLastError();
    if (error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS) {
      result = kMoveDestinationExists;
      if (!FreeName(destination)) break;
      continue;
    }
    if (error == ERROR_NOT_SAME_DEVICE) return CopyAcross(hit.path, destination, entry);
    // In use or denied: on one volume the engine's move, which can ask its
    // file-operations server, renames too.
    result = kQuarantineMoveFailed | (error & 0xFFFF);
    if (!SameVolume(hit.path, m_folder)) break;
    engine = true;
  }
  if (result != kCleanDone) return result;
  if (!PathExists(destination) || PathExists(hit.path)) return kMoveException;
  entry.stored = NameOf(destination);
  std::wstring error;
  if (!Record(entry, error)) {
    MoveFileExW(destination.c_str(), hit.path.c_str(), MOVEFILE_WRITE_THROUGH);
    throw CHostError{exitCleanFailures, error + L"; the files moved so far are in that folder, move them back by hand"};
  }
  return kCleanDone;
}

DWORD CQuarantine::CopyAcross(const std::wstring& source, std::wstring& destination, SQuarantineEntry& entry) {
  const DWORD attributes = GetFileAttributesW(source.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return kQuarantineMoveFailed | (GetLastError() & 0xFFFF);
  if (attributes & FILE_ATTRIBUTE_DIRECTORY) return kQuarantineFolderAcross;
  if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) return kQuarantineMoveFailed | ERROR_NOT_SUPPORTED;
  auto failed = [](DWORD error) { return kQuarantineMoveFailed | ((error ? error : ERROR_GEN_FAILURE) & 0xFFFF); };
  // Nobody may write or delete the file while it is copied: what is
  // compared is what goes, and the handle deletes that very file.
  broom::unique_hfile from(CreateFileW(source.c_str(), GENERIC_READ | DELETE | FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ,
                                       nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!from) return failed(GetLastError());
  const std::wstring temp = Child(kIncomingName);
  broom::unique_hfile to(
      CreateFileW(temp.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!to) return failed(GetLastError());
  std::wstring copy = temp;  // where the copy is now; removed unless kept
  bool keep = false;
  auto drop = broom::scope_exit([&] {
    if (keep) return;
    to.reset();
    SetFileAttributesW(copy.c_str(), FILE_ATTRIBUTE_NORMAL);
    DeleteFileW(copy.c_str());
  });

  std::vector<char> a(1 << 20), b(1 << 20);
  DWORD got = 0, put = 0;
  for (;;) {
    if (!::ReadFile(from.get(), a.data(), static_cast<DWORD>(a.size()), &got, nullptr)) return failed(GetLastError());
    if (got == 0) break;
    if (!WriteFile(to.get(), a.data(), got, &put, nullptr) || put != got) return failed(GetLastError());
  }
  FILETIME created, accessed, written;
  if (!FlushFileBuffers(to.get()) || !GetFileTime(from.get(), &created, &accessed, &written) ||
      !SetFileTime(to.get(), &created, &accessed, &written))
    return failed(GetLastError());
  // The copy is read back from its drive and compared with the file.
  LARGE_INTEGER zero = {};
  if (!SetFilePointerEx(from.get(), zero, nullptr, FILE_BEGIN) || !SetFilePointerEx(to.get(), zero, nullptr, FILE_BEGIN))
    return failed(GetLastError());
  for (;;) {
    DWORD gotA = 0, gotB = 0;
    if (!::ReadFile(from.get(), a.data(), static_cast<DWORD>(a.size()), &gotA, nullptr) ||
        !::ReadFile(to.get(), b.data(), static_cast<DWORD>(b.size()), &gotB, nullptr))
      return failed(GetLastError());
    if (gotA != gotB || memcmp(a.data(), b.data(), gotA) != 0) return kQuarantineCopyMismatch;
    if (gotA == 0) break;
  }
  to.reset();
  for (int attempt = 0;; ++attempt) {
    if (MoveFileExW(temp.c_str(), destination.c_str(), MOVEFILE_WRITE_THROUGH)) break;
    DWORD error = GetLastError();
    if ((error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS) || attempt == 4 || !FreeName(destination))
      return failed(error);
  }
  copy = destination;
  SetFileAttributesW(copy.c_str(), attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN |
                                                 FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE));
  entry.stored = NameOf(destination);
  std::wstring error;
  if (!Record(entry, error))
    throw CHostError{exitCleanFailures, error + L"; " + Quoted(source) +
                                            L" stays where it was, the files moved before it are in that folder"};

  // Only now the file goes; a read-only one loses that bit first.
  FILE_BASIC_INFO basic = {};
  if (attributes & FILE_ATTRIBUTE_READONLY) {
    basic.FileAttributes = (attributes & ~FILE_ATTRIBUTE_READONLY) ? (attributes & ~FILE_ATTRIBUTE_READONLY)
                                                                    : FILE_ATTRIBUTE_NORMAL;
    SetFileInformationByHandle(from.get(), FileBasicInfo, &basic, sizeof basic);
  }
  FILE_DISPOSITION_INFO disposition = {TRUE};
  if (!SetFileInformationByHandle(from.get(), FileDispositionInfo, &disposition, sizeof disposition)) {
    DWORD why = GetLastError();
    if (attributes & FILE_ATTRIBUTE_READONLY) {
      basic.FileAttributes = attributes;
      SetFileInformationByHandle(from.get(), FileBasicInfo, &basic, sizeof basic);
    }
    m_entries.pop_back();
    if (!TrySave(error)) {
      keep = true;  // the manifest on disk lists the copy: it stays as listed
      throw CHostError{exitCleanFailures, error + L"; " + Quoted(source) + L" could not be removed (" +
                                              SystemMessage(why) + L"), so both it and its copy exist"};
    }
    return failed(why);
  }
  from.reset();  // the file is deleted as its last handle closes
  keep = true;
  return kCleanDone;
}

DWORD CQuarantine::AddRegistry(const SHit& hit, SQuarantineEntry& entry) {
  auto* key = static_cast<CCleanableRegistry*>(hit.item.Get());
  entry.registry = true;
  entry.original = key->GetPath().Text();
  std::wstring destination = Child(ExportName(key->GetPath()));
  DWORD result = kRegistryExportFileExists;
  for (int attempt = 0; attempt < 5 && result == kRegistryExportFileExists; ++attempt) {
    result = key->Export(destination.c_str(), false);
    if (result == kRegistryExportFileExists && !FreeName(destination)) break;
  }
  if (result == kRegistryExportFileExists) return kMoveDestinationExists;
  if (result != 0) return result;
  // A second export must read the same: the file holds what is deleted.
  if (!SameExport(*key, destination)) {
    DeleteFileW(destination.c_str());
    return kQuarantineCopyMismatch;
  }
  entry.stored = NameOf(destination);
  std::wstring error;
  if (!Record(entry, error)) {
    DeleteFileW(destination.c_str());
    throw CHostError{exitCleanFailures, error + L"; the files moved so far are in that folder, move them back by hand"};
  }
  result = key->Clean(nullptr, nullptr);
  if (result == kCleanDone) return result;
  // Nothing deleted: the export goes too. Part of a tree deleted: it stays
  // listed, and a restore writes back what is missing.
  if (key->Exists() && SameExport(*key, destination)) {
    m_entries.pop_back();
    if (TrySave(error))
      DeleteFileW(destination.c_str());
    else
      m_entries.push_back(entry);
  }
  return result;
}

bool CQuarantine::ImportBack(const SQuarantineEntry& entry, std::wstring& reason) const {
  const std::wstring source = Child(entry.stored);
  const std::wstring kept = L"; its export stays as " + Quoted(entry.stored);
  DWORD probe = Probe(source);
  if (probe != ERROR_SUCCESS) {
    reason = IsMissing(probe) ? L"it is no longer in the quarantine folder"
                              : L"its export cannot be reached (" + SystemMessage(probe) + L")";
    return false;
  }
  SRegRestoreStats stats;
  const DWORD code = CRegFile::Restore(source.c_str(), false, &stats);
  if (code == kRegistryRestoreConflict) {
    reason = Plural(stats.conflicts, L"value holds", L"values hold") +
             L" other data now and was left as it is" + kept +
             L" (a registry editor file: merge it by hand to replace them)";
    return false;
  }
  if (code != 0) {
    reason = L"it cannot be written back: " + ExplainResult(code) + kept;
    return false;
  }
  SetFileAttributesW(source.c_str(), FILE_ATTRIBUTE_NORMAL);
  if (!DeleteFileW(source.c_str())) {
    reason = L"it is back in the registry, but its export cannot be removed (" + SystemMessage(GetLastError()) +
             L"); run 'broom restore' again to clear it";
    return false;
  }
  return true;
}

bool CQuarantine::MoveBack(const SQuarantineEntry& entry, std::wstring& reason) const {
  if (entry.registry) return ImportBack(entry, reason);
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

bool CQuarantine::DeleteAll(std::wstring& reason) {
  while (!m_entries.empty()) {
    const SQuarantineEntry& entry = m_entries.back();
    DWORD error = ERROR_SUCCESS;
    if (!DeleteTree(Child(entry.stored), error)) {
      reason = Quoted(entry.stored) + L" in it cannot be deleted (" + SystemMessage(error) + L")";
      std::wstring ignored;
      TrySave(ignored);  // what is gone is no longer listed
      return false;
    }
    m_entries.pop_back();
  }
  DeleteFileW(ManifestPath().c_str());
  DeleteFileW((ManifestPath() + L".tmp").c_str());
  if (!RemoveDirectoryW(m_folder.c_str())) {
    reason = L"the folder itself cannot be removed (" + SystemMessage(GetLastError()) + L")";
    return false;
  }
  return true;
}

}  // namespace host
