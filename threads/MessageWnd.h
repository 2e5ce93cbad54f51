#pragma once
// Message-only windows of the library's own classes. Classes are registered
// once per process through a table that counts their windows, and each
// window keeps a pointer to its object in its extra bytes.
#include <windows.h>
#include <unknwn.h>

#include <vector>

#include "atl/CString.h"
#include "core/Export.h"

struct SWindowClassRecord {
  ATOM atom = 0;
  CString name;
  HMODULE module = nullptr;
};

class BROOM_API CMessageWnd : public IUnknown {
 public:
  CMessageWnd() = default;
  CMessageWnd(const CMessageWnd&) = delete;
  CMessageWnd& operator=(const CMessageWnd&) = delete;

  virtual LRESULT WindowProc(UINT msg, WPARAM wParam, LPARAM lParam);
  // Destroys the window and releases its class.
  virtual ~CMessageWnd();

  // Registers (or shares) the class and creates the window on the calling
  // thread. Throws Exception "Window already created", Win32Exception
  // "RegisterClassEx failed" or "CreateWindowEx failed".
  void Create(const wchar_t* className, HMODULE module);
  void Destroy();
  HWND GetHwnd() const { return m_hwnd; }

  // How many windows use a class of the table; 0 when it is not registered.
  static int ClassUsers(const wchar_t* className);

 protected:
  HWND m_hwnd = nullptr;
  SWindowClassRecord* m_class = nullptr;
};

// The modules loaded in this process, to find which one holds an address.
class BROOM_API CProcessModules {
 public:
  struct Module {
    HMODULE handle;
    void* base;
    DWORD size;
    void* entryPoint;
  };

  // Throws a narrow "too many modules" text when more than 1024 are loaded.
  CProcessModules();
  HMODULE FindModule(const void* address) const;

  HANDLE m_process;
  std::vector<Module> m_modules;
};
