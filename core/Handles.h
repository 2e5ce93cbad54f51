#pragma once
// Holders for every kind of Windows handle the engine acquires. Each holder
// closes only a valid handle, and closing keeps the caller's last-error value.
#include <windows.h>
#include <bcrypt.h>
#include <objbase.h>
#include <oleauto.h>
#include <winhttp.h>

#include <utility>

// SQLite is linked into the engine only; these are its own declarations.
struct sqlite3;
struct sqlite3_stmt;
extern "C" int sqlite3_close_v2(sqlite3*);
extern "C" int sqlite3_finalize(sqlite3_stmt*);

namespace broom {

template <class Policy>
class unique_resource {
 public:
  using pointer = typename Policy::pointer;

  unique_resource() noexcept = default;
  explicit unique_resource(pointer value) noexcept : m_value(value) {}
  ~unique_resource() { reset(); }
  unique_resource(unique_resource&& other) noexcept : m_value(other.release()) {}
  unique_resource& operator=(unique_resource&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  unique_resource(const unique_resource&) = delete;
  unique_resource& operator=(const unique_resource&) = delete;

  pointer get() const noexcept { return m_value; }
  bool valid() const noexcept { return m_value != Policy::invalid(); }
  explicit operator bool() const noexcept { return valid(); }

  // For calls that fill an out-parameter; drops what was held first.
  pointer* addressof() noexcept {
    reset();
    return &m_value;
  }
  pointer release() noexcept { return std::exchange(m_value, Policy::invalid()); }
  void reset(pointer value = Policy::invalid()) noexcept {
    pointer old = std::exchange(m_value, value);
    if (old != Policy::invalid()) {
      DWORD lastError = GetLastError();
      Policy::close(old);
      SetLastError(lastError);
    }
  }

 private:
  pointer m_value = Policy::invalid();
};

namespace policy {
struct null_handle {
  using pointer = HANDLE;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { CloseHandle(h); }
};
struct file_handle {
  using pointer = HANDLE;
  static pointer invalid() { return INVALID_HANDLE_VALUE; }
  static void close(pointer h) { CloseHandle(h); }
};
struct find_handle {
  using pointer = HANDLE;
  static pointer invalid() { return INVALID_HANDLE_VALUE; }
  static void close(pointer h) { FindClose(h); }
};
struct reg_key {
  using pointer = HKEY;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { RegCloseKey(h); }
};
struct window {
  using pointer = HWND;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { DestroyWindow(h); }
};
struct module {
  using pointer = HMODULE;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { FreeLibrary(h); }
};
struct cotaskmem {
  using pointer = void*;
  static pointer invalid() { return nullptr; }
  static void close(pointer p) { CoTaskMemFree(p); }
};
struct local_mem {
  using pointer = HLOCAL;
  static pointer invalid() { return nullptr; }
  static void close(pointer p) { LocalFree(p); }
};
struct bstr {
  using pointer = BSTR;
  static pointer invalid() { return nullptr; }
  static void close(pointer p) { SysFreeString(p); }
};
struct event_source {
  using pointer = HANDLE;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { DeregisterEventSource(h); }
};
struct bcrypt_alg {
  using pointer = BCRYPT_ALG_HANDLE;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { BCryptCloseAlgorithmProvider(h, 0); }
};
struct bcrypt_hash {
  using pointer = BCRYPT_HASH_HANDLE;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { BCryptDestroyHash(h); }
};
struct winhttp {
  using pointer = HINTERNET;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { WinHttpCloseHandle(h); }
};
struct sqlite_db {
  using pointer = sqlite3*;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { sqlite3_close_v2(h); }
};
struct sqlite_stmt {
  using pointer = sqlite3_stmt*;
  static pointer invalid() { return nullptr; }
  static void close(pointer h) { sqlite3_finalize(h); }
};
}  // namespace policy

using unique_handle = unique_resource<policy::null_handle>;   // events, threads, processes
using unique_event = unique_resource<policy::null_handle>;
using unique_thread = unique_resource<policy::null_handle>;
using unique_hfile = unique_resource<policy::file_handle>;    // CreateFileW
using unique_hfind = unique_resource<policy::find_handle>;    // FindFirstFileW
using unique_hkey = unique_resource<policy::reg_key>;
using unique_hwnd = unique_resource<policy::window>;
using unique_hmodule = unique_resource<policy::module>;
using unique_cotaskmem = unique_resource<policy::cotaskmem>;
using unique_hlocal = unique_resource<policy::local_mem>;
using unique_bstr = unique_resource<policy::bstr>;         // SysAllocString, a COM call's BSTR out-parameter
using unique_event_source = unique_resource<policy::event_source>;  // RegisterEventSourceW
using unique_bcrypt_alg = unique_resource<policy::bcrypt_alg>;    // BCryptOpenAlgorithmProvider
using unique_bcrypt_hash = unique_resource<policy::bcrypt_hash>;  // BCryptCreateHash
using unique_winhttp = unique_resource<policy::winhttp>;          // WinHttpOpen, WinHttpConnect, WinHttpOpenRequest (link winhttp)
using unique_sqlite = unique_resource<policy::sqlite_db>;         // sqlite3_open_v2 (engine only)
using unique_sqlite_stmt = unique_resource<policy::sqlite_stmt>;  // sqlite3_prepare_v2 (engine only)

// Balances a successful CoInitializeEx on the same thread.
class unique_couninitialize {
 public:
  unique_couninitialize() noexcept = default;
  explicit unique_couninitialize(bool active) noexcept : m_active(active) {}
  ~unique_couninitialize() { reset(); }
  unique_couninitialize(unique_couninitialize&& o) noexcept : m_active(std::exchange(o.m_active, false)) {}
  unique_couninitialize& operator=(unique_couninitialize&& o) noexcept {
    if (this != &o) {
      reset();
      m_active = std::exchange(o.m_active, false);
    }
    return *this;
  }
  void reset() noexcept {
    if (std::exchange(m_active, false)) CoUninitialize();
  }
  void release() noexcept { m_active = false; }

 private:
  bool m_active = false;
};

// A slim reader/writer lock held exclusively while it is in scope.
class srw_exclusive {
 public:
  explicit srw_exclusive(SRWLOCK& lock) noexcept : m_lock(lock) { AcquireSRWLockExclusive(&m_lock); }
  ~srw_exclusive() { ReleaseSRWLockExclusive(&m_lock); }
  srw_exclusive(const srw_exclusive&) = delete;
  srw_exclusive& operator=(const srw_exclusive&) = delete;

 private:
  SRWLOCK& m_lock;
};

// One-off cleanup: runs the function when it leaves scope unless released.
template <class F>
class scope_exit_t {
 public:
  explicit scope_exit_t(F f) noexcept : m_f(std::move(f)) {}
  scope_exit_t(scope_exit_t&& o) noexcept : m_f(std::move(o.m_f)), m_active(std::exchange(o.m_active, false)) {}
  ~scope_exit_t() {
    if (m_active) m_f();
  }
  scope_exit_t(const scope_exit_t&) = delete;
  scope_exit_t& operator=(const scope_exit_t&) = delete;
  void release() noexcept { m_active = false; }

 private:
  F m_f;
  bool m_active = true;
};

template <class F>
scope_exit_t<F> scope_exit(F f) noexcept {
  return scope_exit_t<F>(std::move(f));
}

// Owns a critical section for its lifetime; lock with critical_section_lock.
class critical_section {
 public:
  critical_section() noexcept { InitializeCriticalSection(&m_cs); }
  ~critical_section() { DeleteCriticalSection(&m_cs); }
  critical_section(const critical_section&) = delete;
  critical_section& operator=(const critical_section&) = delete;
  CRITICAL_SECTION* get() noexcept { return &m_cs; }

 private:
  CRITICAL_SECTION m_cs;
};

class critical_section_lock {
 public:
  explicit critical_section_lock(CRITICAL_SECTION* cs) noexcept : m_cs(cs) { EnterCriticalSection(m_cs); }
  explicit critical_section_lock(critical_section& cs) noexcept : critical_section_lock(cs.get()) {}
  ~critical_section_lock() { LeaveCriticalSection(m_cs); }
  critical_section_lock(const critical_section_lock&) = delete;
  critical_section_lock& operator=(const critical_section_lock&) = delete;

 private:
  CRITICAL_SECTION* m_cs;
};

}  // namespace broom
