#include "window/AboutDialog.h"

#include <string>
#include <vector>

#include "app/Text.h"
#include "app/Winapp2Files.h"
#include "core/Handles.h"
#include "window/Resource.h"

#ifndef BROOM_VERSION
#define BROOM_VERSION "0.0.0"
#endif

namespace broomw {

namespace {

// The file version of broomcore.dll as loaded, "1.2.3.4", or empty.
std::wstring EngineVersion() {
  HMODULE engine = GetModuleHandleW(L"broomcore.dll");
  wchar_t path[MAX_PATH + 1] = {};
  if (!engine || !GetModuleFileNameW(engine, path, MAX_PATH)) return std::wstring();
  DWORD ignored = 0, size = GetFileVersionInfoSizeW(path, &ignored);
  std::vector<BYTE> block(size);
  VS_FIXEDFILEINFO* info = nullptr;
  UINT length = 0;
  if (!size || !GetFileVersionInfoW(path, 0, size, block.data()) ||
      !VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&info), &length) || !info)
    return std::wstring();
  return std::to_wstring(HIWORD(info->dwFileVersionMS)) + L"." + std::to_wstring(LOWORD(info->dwFileVersionMS)) + L"." +
         std::to_wstring(HIWORD(info->dwFileVersionLS)) + L"." + std::to_wstring(LOWORD(info->dwFileVersionLS));
}

// "260730" from the "; Version:" line at the head of a winapp2.ini, or empty.
std::wstring Winapp2Version(const std::wstring& file) {
  broom::unique_hfile handle(
      CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  char head[512] = {};
  DWORD got = 0;
  if (!handle || !ReadFile(handle.get(), head, sizeof head - 1, &got, nullptr)) return std::wstring();
  std::string text(head, got);
  size_t at = text.find("Version:");
  if (at == std::string::npos) return std::wstring();
  at += 8;
  while (at < text.size() && text[at] == ' ') ++at;
  size_t end = at;
  while (end < text.size() && isalnum(static_cast<unsigned char>(text[end]))) ++end;
  return host::Wide(text.substr(at, end - at));
}

std::wstring AboutText(host::CSession& session) {
  const std::wstring winapp2 = host::BundledWinapp2(session.UserDataFolder());
  std::wstring text = L"Broom " BROOM_VERSION L", a cleaner for Windows PCs.\r\n";
  text += L"Engine (broomcore.dll): " + (EngineVersion().empty() ? L"unknown" : EngineVersion()) + L"\r\n";
  text += L"Data folder: " + session.UserDataFolder() + L"\r\n\r\n";
  text += L"Broom ships with these components, each under its own licence (full texts: NOTICES.txt and the "
          L"licenses folder beside broomw.exe):\r\n\r\n";
  text += L"pugixml: Copyright (c) 2006-2022 Arseny Kapoulkine. MIT License.\r\n";
  text += L"CLI11: Copyright 2017-2020 University of Cincinnati, Henry Schreiner. BSD 3-Clause License.\r\n";
  text += L"JSON for Modern C++ (nlohmann/json): Copyright 2013-2022 Niels Lohmann. MIT License.\r\n";
  text += L"SQLite: in the public domain (sqlite.org).\r\n";
  text += L"MinGW-w64 runtime: libstdc++ and libgcc, the Free Software Foundation, GPL 3 with the GCC Runtime "
          L"Library Exception 3.1; winpthreads, the mingw-w64 project, MIT License.\r\n\r\n";
  text += L"Winapp2.ini, the community rules";
  if (!winapp2.empty()) {
    std::wstring version = Winapp2Version(winapp2);
    if (!version.empty()) text += L", version " + version;
    text += L" (" + winapp2 + L")";
  } else {
    text += L" (not found beside Broom)";
  }
  text += L": the work of the Winapp2 project and its contributors, https://github.com/MoscaDotTo/Winapp2, "
          L"licensed under Creative Commons Attribution-ShareAlike 4.0 (CC BY-SA 4.0), "
          L"https://creativecommons.org/licenses/by-sa/4.0/. Broom ships it unchanged.\r\n";
  return text;
}

INT_PTR CALLBACK AboutProc(HWND dialog, UINT message, WPARAM wParam, LPARAM lParam) {
  switch (message) {
    case WM_INITDIALOG: {
      auto* session = reinterpret_cast<host::CSession*>(lParam);
      SetDlgItemTextW(dialog, IDC_ABOUT_TEXT, AboutText(*session).c_str());
      CheckDlgButton(dialog, IDC_ABOUT_WINAPP2, host::Winapp2SettingOn() ? BST_CHECKED : BST_UNCHECKED);
      return TRUE;
    }
    case WM_COMMAND:
      switch (LOWORD(wParam)) {
        case IDC_ABOUT_WINAPP2:
          if (!host::SetWinapp2Setting(IsDlgButtonChecked(dialog, IDC_ABOUT_WINAPP2) == BST_CHECKED))
            MessageBoxW(dialog, L"The setting could not be saved in HKCU\\SOFTWARE\\Broom\\Engine.", L"Broom",
                        MB_OK | MB_ICONERROR);
          return TRUE;
        case IDOK:
        case IDCANCEL:
          EndDialog(dialog, IDOK);
          return TRUE;
      }
      break;
  }
  return FALSE;
}

}  // namespace

void ShowAbout(HWND owner, host::CSession& session) {
  DialogBoxParamW(GetModuleHandleW(nullptr), MAKEINTRESOURCEW(IDD_ABOUT), owner, AboutProc,
                  reinterpret_cast<LPARAM>(&session));
}

}  // namespace broomw
