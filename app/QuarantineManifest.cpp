#include "app/QuarantineManifest.h"

#include <wincrypt.h>

#include <nlohmann/json.hpp>

#include <climits>
#include <map>
#include <set>

#include "app/HostError.h"
#include "app/QuarantineDatabase.h"
#include "app/Text.h"
#include "core/Handles.h"
#include "core/Names.h"
#include "registry/RegistryPath.h"

namespace host {

namespace {

constexpr unsigned __int64 kMaxManifestBytes = 64 * 1024 * 1024;
constexpr size_t kMaxPath = MAX_PATH;  // characters, as the engine counts them
constexpr size_t kMaxRegistryPath = 32767;

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
  if (broom::IsBelow(path, folder)) return L"lies inside the quarantine folder";
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

// Why a stored name is not a plain file name of the quarantine folder.
std::wstring BadStored(const std::wstring& name, const std::wstring& folder) {
  if (name.empty()) return L"is empty";
  if (name.find(L'\\') != std::wstring::npos || name.find(L'/') != std::wstring::npos)
    return L"is not a plain file name (it holds a separator)";
  std::wstring why = BadName(name);
  if (!why.empty()) return why;
  if (broom::SamePath(name, CQuarantineManifest::kName)) return L"is the manifest's own name";
  if (broom::SamePath(name, std::wstring(CQuarantineManifest::kName) + L".tmp"))
    return L"is the name of the manifest's temporary copy";
  if (broom::SamePath(name, CQuarantineManifest::kIncomingName)) return L"is the name of a copy still being made";
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
    if (e.database) text += std::string(1, '\0') + "database:" + Utf8(e.checksum);
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

// "sha256:" and 64 lower-case hex digits.
bool IsDigest(const std::string& text) {
  if (text.size() != 7 + 64 || text.compare(0, 7, "sha256:") != 0) return false;
  for (size_t i = 7; i < text.size(); ++i)
    if (!((text[i] >= '0' && text[i] <= '9') || (text[i] >= 'a' && text[i] <= 'f'))) return false;
  return true;
}

std::wstring Field(size_t index, const char* field) {
  return L"entry " + std::to_wstring(index + 1) + L": '" + Wide(field) + L"'";
}

}  // namespace

// 0 when something is at path, else the error that says it is not.
DWORD Probe(const std::wstring& path) {
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES ? ERROR_SUCCESS : GetLastError();
}
bool IsMissing(DWORD probe) { return probe == ERROR_FILE_NOT_FOUND || probe == ERROR_PATH_NOT_FOUND; }
bool PathExists(const std::wstring& path) { return Probe(path) == ERROR_SUCCESS; }

// CON, NUL, COM1 and the like open a device whatever folder they stand in,
// also with an extension or trailing spaces.
bool IsDeviceName(const std::wstring& name) {
  std::wstring base = name.substr(0, name.find(L'.'));
  while (!base.empty() && base.back() == L' ') base.pop_back();
  for (const wchar_t* device : {L"CON", L"PRN", L"AUX", L"NUL", L"CONIN$", L"CONOUT$"})
    if (broom::SamePath(base, device)) return true;
  if (base.size() != 4 || !(broom::SamePath(base.substr(0, 3), L"COM") || broom::SamePath(base.substr(0, 3), L"LPT")))
    return false;
  const wchar_t digit = base[3];
  return (digit >= L'0' && digit <= L'9') || digit == 0xB9 || digit == 0xB2 || digit == 0xB3;
}

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

std::wstring CQuarantineManifest::Child(const std::wstring& name) const {
  return m_folder.back() == L'\\' ? m_folder + name : m_folder + L"\\" + name;
}

bool CQuarantineManifest::Load() {
  m_entries.clear();
  const std::wstring manifest = Path();
  broom::unique_hfile file(CreateFileW(manifest.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) {
    DWORD error = GetLastError();
    if (IsMissing(error)) return false;
    throw CHostError{exitUsage, L"the quarantine manifest " + Quoted(manifest) + L" cannot be read (" +
                                    SystemMessage(error) + L"); nothing was moved: close the program that holds it or "
                                    L"check its permissions, then run the command again"};
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
  return true;
}

void CQuarantineManifest::Damaged(const std::wstring& what, const std::wstring& fix) const {
  throw CHostError{exitUsage, L"the quarantine manifest " + Quoted(Path()) + L" is damaged: " + what +
                                  L"; nothing was moved: " +
                                  (fix.empty() ? L"correct the manifest or move the files back by hand" : fix) +
                                  L", then run the command again"};
}

void CQuarantineManifest::Validate(const std::string& bytes) {
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

  std::map<std::wstring, size_t, broom::PathLess> byStored, byOriginal;
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
      if (!kind->is_string() || (*kind != "file" && *kind != "registry" && *kind != "database"))
        Damaged(Field(i, "kind") + L" is not \"file\", \"registry\" or \"database\"");
      entry.registry = *kind == "registry";
      entry.database = *kind == "database";
    }
    auto after = e.find("checksum");
    if (entry.database) {
      // without it a restore could not tell whether the browser wrote since
      if (after == e.end()) Damaged(Field(i, "checksum") + L" is missing from a database entry");
      if (!after->is_string() || !IsDigest(after->get<std::string>()))
        Damaged(Field(i, "checksum") + L" is not a \"sha256:\" checksum");
      entry.checksum = Wide(after->get<std::string>());
    } else if (after != e.end()) {
      Damaged(Field(i, "checksum") + L" belongs to a database entry only");
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

    std::wstring why = WhyNotOriginal(entry.original, entry.registry);
    if (!why.empty()) Damaged(Field(i, "original") + L" " + why + L" (" + Quoted(entry.original, 80) + L")");
    why = BadStored(entry.stored, m_folder);
    const std::wstring_view name(entry.stored);
    if (why.empty() && entry.registry && !(name.size() >= 4 && broom::SamePath(name.substr(name.size() - 4), L".reg")))
      why = L"is not the name of a registry export (.reg)";
    if (why.empty() && entry.database && m_folder.size() + 1 + entry.stored.size() + 8 > kMaxPath)
      why = L"leaves no room for its -journal within 260 characters";
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

  // A database's copy has its -wal and -journal beside it under its name.
  std::map<std::wstring, size_t, broom::PathLess> companions;
  for (size_t i = 0; i < m_entries.size(); ++i) {
    if (!m_entries[i].database) continue;
    for (const wchar_t* suffix : kDatabaseCompanions) {
      const std::wstring name = m_entries[i].stored + suffix;
      auto other = byStored.find(name);
      if (other != byStored.end())
        Damaged(Field(other->second, "stored") + L" " + Quoted(name, 80) + L" is the name of entry " +
                std::to_wstring(i + 1) + L"'s database copy's " + (suffix + 1) + L" file");
      companions.emplace(name, i);
    }
  }

  // What is in the folder must be what the manifest lists: a file nobody
  // lists would be left behind, and a short (8.3) name could stand for
  // another file, the manifest itself included.
  std::vector<SListed> listed;
  if (!ListFolder(m_folder, listed))
    throw CHostError{exitUsage, L"the quarantine folder " + Quoted(m_folder) + L" cannot be listed (" +
                                    SystemMessage(GetLastError()) + L"); nothing was moved: run the command again"};
  const std::wstring temp = std::wstring(kName) + L".tmp";
  std::map<std::wstring, const SListed*, broom::PathLess> byName;
  for (const SListed& item : listed) byName.emplace(item.name, &item);
  for (const SQuarantineEntry& entry : m_entries) {
    if (byName.count(entry.stored)) continue;
    for (const SListed& item : listed)
      if (!item.shortName.empty() && broom::SamePath(item.shortName, entry.stored))
        Damaged(Field(static_cast<size_t>(byStored[entry.stored]), "stored") + L" " + Quoted(entry.stored, 80) +
                L" is the short name of " + Quoted(item.name, 80) + L", not a name of its own");
  }
  for (const SListed& item : listed) {
    if (broom::SamePath(item.name, kName) || broom::SamePath(item.name, temp) || byStored.count(item.name) ||
        companions.count(item.name))
      continue;
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

std::wstring CQuarantineManifest::WhyNotOriginal(const std::wstring& path, bool registry) const {
  return registry ? BadRegistryOriginal(path) : BadOriginal(path, m_folder);
}

bool CQuarantineManifest::StoredReachable(const SQuarantineEntry& entry, const wchar_t* what,
                                          std::wstring& reason) const {
  const DWORD probe = Probe(Child(entry.stored));
  if (probe == ERROR_SUCCESS) return true;
  reason = IsMissing(probe) ? L"it is no longer in the quarantine folder"
                            : std::wstring(what) + L" cannot be reached (" + SystemMessage(probe) + L")";
  return false;
}

bool CQuarantineManifest::IsOwnName(const std::wstring& name) {
  return broom::SamePath(name, kName) || broom::SamePath(name, std::wstring(kName) + L".tmp") ||
         broom::SamePath(name, kIncomingName);
}

bool CQuarantineManifest::TrySave(std::wstring& error) const {
  nlohmann::json entries = nlohmann::json::array();
  for (const SQuarantineEntry& e : m_entries) {
    nlohmann::json entry = {{"original", Utf8(e.original)}, {"stored", Utf8(e.stored)}, {"size", e.size}};
    if (e.registry) entry["kind"] = "registry";
    if (e.database) {
      entry["kind"] = "database";
      entry["checksum"] = Utf8(e.checksum);
    }
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

  const std::wstring temp = Path() + L".tmp";
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
  if (!MoveFileExW(temp.c_str(), Path().c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    error = L"cannot replace the quarantine manifest in " + Quoted(m_folder) + L" (" + SystemMessage(GetLastError()) +
            L"); the latest list is in " + kName + L".tmp";
    return false;
  }
  return true;
}

bool CQuarantineManifest::Record(const SQuarantineEntry& entry, std::wstring& error) {
  m_entries.push_back(entry);
  if (TrySave(error)) return true;
  m_entries.pop_back();
  return false;
}

}  // namespace host
