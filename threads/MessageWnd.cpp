#include "threads/MessageWnd.h"

#include <psapi.h>

#include <map>

#include "core/Exceptions.h"
#include "core/Handles.h"

namespace {

struct ClassEntry {
  SWindowClassRecord* record;
  int users;
};

// The process-wide class table and its lock.
broom::critical_section& TableLock() {
  static broom::critical_section lock;
  return lock;
}
std::map<CString, ClassEntry>& Table() {
  static std::map<CString, ClassEntry> table;
  return table;
}

LRESULT CALLBACK SharedWindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam) {
  auto* window = reinterpret_cast<CMessageWnd*>(GetWindowLongPtrW(hwnd, 0));
  if (!window) return DefWindowProcW(hwnd, msg, wParam, lParam);  // during CreateWindowExW
  return window->WindowProc(msg, wParam, lParam);
}

SWindowClassRecord* RegisterClassEntry(const wchar_t* name, HMODULE module) {
  broom::critical_section_lock lock(TableLock());
  auto found = Table().find(CString(name));
  if (found != Table().end()) {
    ++found->second.users;
    return found->second.record;
  }
  WNDCLASSEXW wc = {};
  wc.cbSize = sizeof wc;
  wc.lpfnWndProc = &SharedWindowProc;
  wc.cbWndExtra = sizeof(void*);
  wc.hInstance = module;
  wc.lpszClassName = name;
  ATOM atom = RegisterClassExW(&wc);
  if (!atom) throw Win32Exception(L"RegisterClassEx failed");
  auto* record = new SWindowClassRecord{atom, CString(name), module};
  Table()[CString(name)] = ClassEntry{record, 1};
  return record;
}

void ReleaseClassEntry(SWindowClassRecord* record) {
  broom::critical_section_lock lock(TableLock());
  auto found = Table().find(record->name);
  if (found == Table().end() || --found->second.users > 0) return;
  UnregisterClassW(record->name.GetString(), record->module);
  Table().erase(found);
  delete record;
}

}  // namespace

LRESULT CMessageWnd::WindowProc(UINT msg, WPARAM wParam, LPARAM lParam) {
  return DefWindowProcW(m_hwnd, msg, wParam, lParam);
}

CMessageWnd::~CMessageWnd() { Destroy(); }

void CMessageWnd::Create(const wchar_t* className, HMODULE module) {
  if (m_hwnd) throw Exception(L"Window already created");
  SWindowClassRecord* record = RegisterClassEntry(className, module);
  HWND hwnd = CreateWindowExW(0, className, L"", WS_DISABLED, CW_USEDEFAULT, 0, CW_USEDEFAULT, 0, HWND_MESSAGE,
                              nullptr, record->module, nullptr);
  if (!hwnd) {
    Win32Exception failure(L"CreateWindowEx failed");
    ReleaseClassEntry(record);
    throw failure;
  }
  m_hwnd = hwnd;
  m_class = record;
  SetWindowLongPtrW(hwnd, 0, reinterpret_cast<LONG_PTR>(this));
}

void CMessageWnd::Destroy() {
  if (m_hwnd) {
    SetWindowLongPtrW(m_hwnd, 0, 0);
    DestroyWindow(m_hwnd);
    m_hwnd = nullptr;
  }
  if (m_class) {
    ReleaseClassEntry(m_class);
    m_class = nullptr;
  }
}

int CMessageWnd::ClassUsers(const wchar_t* className) {
  broom::critical_section_lock lock(TableLock());
  auto found = Table().find(CString(className));
  return found == Table().end() ? 0 : found->second.users;
}

CProcessModules::CProcessModules() : m_process(GetCurrentProcess()) {
  HMODULE handles[1024];
  DWORD needed = 0;
  if (!EnumProcessModules(m_process, handles, sizeof handles, &needed)) return;
  if (needed > sizeof handles) throw "too many modules";
  for (DWORD i = 0; i < needed / sizeof(HMODULE); ++i) {
    MODULEINFO info = {};
    if (!GetModuleInformation(m_process, handles[i], &info, sizeof info)) continue;
    m_modules.push_back(Module{handles[i], info.lpBaseOfDll, info.SizeOfImage, info.EntryPoint});
  }
}

HMODULE CProcessModules::FindModule(const void* address) const {
  auto at = static_cast<const char*>(address);
  for (const auto& m : m_modules) {
    auto base = static_cast<const char*>(m.base);
    if (at >= base && at < base + m.size) return m.handle;
  }
  return nullptr;
}
