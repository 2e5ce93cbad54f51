#pragma once
// Identifiers of broomw.exe's resources and controls, shared by broomw.rc,
// the window's sources and the tests that drive it.

#define IDR_ACCELERATORS 100
#define IDD_CONFIRM 101
#define IDD_PROTECTED 102
#define IDD_QUARANTINE 103
#define IDD_RUNNING 104
#define IDD_ABOUT 105
#define IDD_COOKIES 106

// Commands, also the identifiers of their buttons.
#define IDC_SCAN 1001
#define IDC_STOP 1002
#define IDC_CLEAN 1003
#define IDC_PROTECTED 1004
#define IDC_QUARANTINE 1005
#define IDC_FOCUS_TREE 1006
#define IDC_FOCUS_RESULTS 1007
#define IDC_ABOUT 1008
#define IDC_COOKIES 1009

// Controls of the main window.
#define IDC_TREE 1101
#define IDC_DESCRIPTION 1102
#define IDC_STATUS 1103
#define IDC_PROGRESS 1104
#define IDC_RESULTS 1105
#define IDC_BARS 1106
#define IDC_FILES 1107
#define IDC_TOTAL 1108
#define IDC_FOLDER 1109

// The confirmation before cleaning.
#define IDC_CONFIRM_TEXT 1201
#define IDC_CONFIRM_QUARANTINE 1202
#define IDC_CONFIRM_MARKS 1203
#define IDC_CONFIRM_OVERWRITE 1204

// The protected-path dialog.
#define IDC_PROT_LIST 1301
#define IDC_PROT_PATH 1302
#define IDC_PROT_BROWSE 1303
#define IDC_PROT_ADD 1304
#define IDC_PROT_REMOVE 1305

// The quarantine dialog.
#define IDC_Q_LIST 1401
#define IDC_Q_RESTORE 1402
#define IDC_Q_PURGE 1403
#define IDC_Q_STATUS 1404

// the window menu's command that forgets remembered definition sources (below 0xF000)
#define IDM_FORGET_SOURCES 0x0110
// Before cleaning, the programs that run and hold ticked items.
#define IDC_RUN_TEXT 1501
#define IDC_RUN_LIST 1502
#define IDC_RUN_CLOSE 1503
#define IDC_RUN_SKIP 1504

// The About box.
#define IDC_ABOUT_TEXT 1511
#define IDC_ABOUT_WINAPP2 1512

// The Cookies dialog.
#define IDC_COOKIES_FOUND 1601
#define IDC_COOKIES_KEPT 1602
#define IDC_COOKIES_KEEP 1603
#define IDC_COOKIES_UNKEEP 1604
#define IDC_COOKIES_STATUS 1605
