#include "browserdb/SqliteDb.h"

#include <windows.h>

namespace broom {
namespace browserdb {

std::string Utf8(const std::wstring& text) {
  if (text.empty()) return std::string();
  int length = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(length), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], length, nullptr, nullptr);
  return out;
}

std::wstring WideFromUtf8(const char* text, size_t length) {
  if (!text || !length) return std::wstring();
  int count = MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(length), nullptr, 0);
  std::wstring out(static_cast<size_t>(count), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text, static_cast<int>(length), &out[0], count);
  return out;
}

int CStatement::Prepare(sqlite3* db, const char* sql) {
  return sqlite3_prepare_v2(db, sql, -1, m_stmt.addressof(), nullptr);
}

std::string CStatement::Text(int column) const {
  const unsigned char* text = sqlite3_column_text(m_stmt.get(), column);
  if (!text) return std::string();
  return std::string(reinterpret_cast<const char*>(text), static_cast<size_t>(sqlite3_column_bytes(m_stmt.get(), column)));
}

namespace {

// A path as a file: URI, every byte outside the unreserved set escaped.
std::string FileUri(const std::wstring& path) {
  std::string utf8 = Utf8(path);
  std::string uri = "file:";
  if (utf8.size() >= 2 && utf8[1] == ':') uri += '/';
  for (unsigned char c : utf8) {
    if (c == '\\') c = '/';
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
        c == '_' || c == '~' || c == '/' || c == ':') {
      uri += static_cast<char>(c);
    } else {
      static const char kHex[] = "0123456789ABCDEF";
      uri += '%';
      uri += kHex[c >> 4];
      uri += kHex[c & 15];
    }
  }
  return uri;
}

}  // namespace

int CSqliteDb::Open(const std::wstring& path, bool readOnly, bool immutable) {
  m_db.reset();
  int flags = (readOnly ? SQLITE_OPEN_READONLY : SQLITE_OPEN_READWRITE) | SQLITE_OPEN_URI | SQLITE_OPEN_EXRESCODE;
  std::string name = FileUri(path);
  if (immutable) name += "?immutable=1";
  int rc = sqlite3_open_v2(name.c_str(), m_db.addressof(), flags, nullptr);
  if (rc != SQLITE_OK) {
    m_db.reset();
    return rc;
  }
  sqlite3_extended_result_codes(m_db.get(), 1);
  // a locked database is skipped at once, never waited for
  sqlite3_busy_timeout(m_db.get(), 0);
  return SQLITE_OK;
}

int CSqliteDb::Exec(const char* sql) { return sqlite3_exec(m_db.get(), sql, nullptr, nullptr, nullptr); }

int CSqliteDb::QueryInt(const char* sql, int64_t& out) {
  CStatement statement;
  int rc = statement.Prepare(m_db.get(), sql);
  if (rc != SQLITE_OK) return rc;
  rc = statement.Step();
  if (rc == SQLITE_ROW) {
    out = statement.Int(0);
    return SQLITE_OK;
  }
  return rc;
}

int CSqliteDb::QueryText(const char* sql, std::string& out) {
  CStatement statement;
  int rc = statement.Prepare(m_db.get(), sql);
  if (rc != SQLITE_OK) return rc;
  rc = statement.Step();
  if (rc == SQLITE_ROW) {
    out = statement.Text(0);
    return SQLITE_OK;
  }
  return rc;
}

int CSqliteDb::Columns(const std::string& table, bool& exists, std::set<std::string>& columns) {
  exists = false;
  columns.clear();
  CStatement kind;
  int rc = kind.Prepare(m_db.get(), "SELECT 1 FROM sqlite_schema WHERE type='table' AND name=?1 COLLATE NOCASE");
  if (rc != SQLITE_OK) return rc;
  kind.BindText(1, table);
  rc = kind.Step();
  if (rc == SQLITE_DONE) return SQLITE_OK;
  if (rc != SQLITE_ROW) return rc;
  exists = true;
  CStatement info;
  rc = info.Prepare(m_db.get(), "SELECT name FROM pragma_table_info(?1)");
  if (rc != SQLITE_OK) return rc;
  info.BindText(1, table);
  while ((rc = info.Step()) == SQLITE_ROW) {
    std::string name = info.Text(0);
    for (char& c : name)
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    columns.insert(name);
  }
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

}  // namespace browserdb
}  // namespace broom
