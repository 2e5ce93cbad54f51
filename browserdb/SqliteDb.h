#pragma once
// A SQLite connection and its statements for the browser-database code.
// Internal to the engine: SQLite is linked into broomcore.dll only.
#include <sqlite3.h>

#include <cstdint>
#include <set>
#include <string>

#include "core/Handles.h"

namespace broom {
namespace browserdb {

std::string Utf8(const std::wstring& text);
std::wstring WideFromUtf8(const char* text, size_t length);

class CStatement {
 public:
  // SQLITE_OK or the error; a statement that fails to prepare holds nothing.
  int Prepare(sqlite3* db, const char* sql);
  // SQLITE_ROW, SQLITE_DONE or the error.
  int Step() { return sqlite3_step(m_stmt.get()); }
  int BindText(int index, const std::string& text) {
    return sqlite3_bind_text(m_stmt.get(), index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
  }
  int64_t Int(int column) const { return sqlite3_column_int64(m_stmt.get(), column); }
  // The column as UTF-8 text; empty for NULL.
  std::string Text(int column) const;
  sqlite3_stmt* get() const { return m_stmt.get(); }

 private:
  unique_sqlite_stmt m_stmt;
};

class CSqliteDb {
 public:
  // Opens an existing database (never creates one). readOnly opens it for
  // reading; immutable also tells SQLite the file cannot change, so it takes
  // no lock and makes no -wal or -shm file. Extended result codes.
  int Open(const std::wstring& path, bool readOnly, bool immutable);
  void Close() { m_db.reset(); }
  sqlite3* get() const { return m_db.get(); }

  // Runs statements whose rows do not matter.
  int Exec(const char* sql);
  // The first column of the first row; SQLITE_DONE when there is no row.
  int QueryInt(const char* sql, int64_t& out);
  int QueryText(const char* sql, std::string& out);
  // The lower-cased column names of a table (not a view); exists is false
  // and columns empty when there is no such table.
  int Columns(const std::string& table, bool& exists, std::set<std::string>& columns);
  int64_t Changes() const { return sqlite3_changes64(m_db.get()); }

 private:
  unique_sqlite m_db;
};

}  // namespace browserdb
}  // namespace broom
