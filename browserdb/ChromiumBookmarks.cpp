#include "browserdb/ChromiumBookmarks.h"

#include <nlohmann/json.hpp>

#include <vector>

#include "core/Handles.h"

namespace broom {
namespace browserdb {

namespace {

constexpr LONGLONG kMaxBookmarkBytes = 256ll * 1024 * 1024;

// 0 with the bytes, ERROR_FILE_NOT_FOUND for a missing file, or the error.
DWORD ReadWhole(const std::wstring& path, std::string& bytes) {
  unique_hfile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!file) {
    DWORD error = GetLastError();
    return error == ERROR_PATH_NOT_FOUND ? ERROR_FILE_NOT_FOUND : error;
  }
  LARGE_INTEGER size{};
  if (!GetFileSizeEx(file.get(), &size)) return GetLastError();
  if (size.QuadPart > kMaxBookmarkBytes) return ERROR_FILE_TOO_LARGE;
  bytes.assign(static_cast<size_t>(size.QuadPart), '\0');
  DWORD read = 0;
  if (!bytes.empty() &&
      (!ReadFile(file.get(), &bytes[0], static_cast<DWORD>(bytes.size()), &read, nullptr) || read != bytes.size()))
    return GetLastError() ? GetLastError() : ERROR_READ_FAULT;
  return ERROR_SUCCESS;
}

void Collect(const nlohmann::json& root, std::unordered_set<std::string>& urls) {
  std::vector<const nlohmann::json*> pending{&root};
  while (!pending.empty()) {
    const nlohmann::json* node = pending.back();
    pending.pop_back();
    if (node->is_object()) {
      auto type = node->find("type");
      auto url = node->find("url");
      if (type != node->end() && url != node->end() && type->is_string() && *type == "url" && url->is_string())
        urls.insert(url->get<std::string>());
      for (const auto& member : node->items()) pending.push_back(&member.value());
    } else if (node->is_array()) {
      for (const auto& element : *node) pending.push_back(&element);
    }
  }
}

}  // namespace

bool ReadBookmarkedUrls(const std::wstring& profile, std::unordered_set<std::string>& urls, std::wstring& why) {
  for (const wchar_t* name : {L"Bookmarks", L"AccountBookmarks"}) {
    const std::wstring path = profile + L"\\" + name;
    std::string bytes;
    DWORD error = ReadWhole(path, bytes);
    if (error == ERROR_FILE_NOT_FOUND) continue;
    if (error != ERROR_SUCCESS) {
      why = L"'" + path + L"' cannot be read (Windows error " + std::to_wstring(error) + L")";
      return false;
    }
    nlohmann::json root = nlohmann::json::parse(bytes, nullptr, false);
    if (root.is_discarded() || !root.is_object()) {
      why = L"'" + path + L"' is not a bookmarks file Broom can read";
      return false;
    }
    Collect(root, urls);
  }
  return true;
}

}  // namespace browserdb
}  // namespace broom
