; Broom's setup. scripts/make-packages.sh builds it with makensis and these
; definitions: VERSION, PUBLISHER, TARGET (x86-unicode or amd64-unicode),
; ICON, OUTFILE, SIZE_KB (the installed size), FILES and UNFILES (generated
; lists of the File commands that install the program folder and of the
; commands that remove exactly those files again), MSI_UPGRADE_CODE (the
; MSI's, to tell that it is installed).
;
; Command line: /S silent; /ALLUSERS for every user (Program Files, elevated),
; /CURRENTUSER (the default: %LOCALAPPDATA%\Programs\Broom, no elevation);
; /PATH puts the folder on the PATH, /NOPATH keeps it off (the default, or
; what the installation being upgraded had); /D=FOLDER, last, the folder.

Target ${TARGET}
ManifestDPIAware true
ManifestSupportedOS all
RequestExecutionLevel user
SetCompressor /SOLID lzma

!include MUI2.nsh
!include LogicLib.nsh
!include FileFunc.nsh
!include WordFunc.nsh
!include nsDialogs.nsh
!include WinMessages.nsh

!define UNINST_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\Broom"
!define USER_ENV "Environment"
!define MACHINE_ENV "SYSTEM\CurrentControlSet\Control\Session Manager\Environment"
; ReadRegStr cuts values at this many characters: a PATH this long or longer
; may have been cut, and is left as it is rather than written back shorter.
!define PATH_LIMIT 1000
!if ${TARGET} == amd64-unicode
  !define PROGRAM_FILES "$PROGRAMFILES64"
!else
  !define PROGRAM_FILES "$PROGRAMFILES32"
!endif

Name "Broom"
OutFile "${OUTFILE}"
BrandingText "Broom ${VERSION}"
ShowInstDetails show
ShowUninstDetails show

VIProductVersion "${VERSION}.0"
VIAddVersionKey "ProductName" "Broom"
VIAddVersionKey "CompanyName" "${PUBLISHER}"
VIAddVersionKey "FileDescription" "Broom setup"
VIAddVersionKey "FileVersion" "${VERSION}"
VIAddVersionKey "ProductVersion" "${VERSION}"
VIAddVersionKey "LegalCopyright" "${PUBLISHER}"

Var AllUsers   ; 1: every user, Program Files, HKLM
Var OnPath     ; 1: the program folder goes on the PATH
Var DirGiven   ; 1: /D= named the folder
Var Elevated   ; 1: started again with administrator rights by a setup without them
Var RadioAll
Var PathBox

!define MUI_ICON "${ICON}"
!define MUI_UNICON "${ICON}"
!define MUI_ABORTWARNING
!define MUI_FINISHPAGE_RUN "$INSTDIR\broomw.exe"
!define MUI_FINISHPAGE_RUN_TEXT "Start Broom"
Page custom ModePage ModePageLeave
!define MUI_PAGE_CUSTOMFUNCTION_PRE DirectoryPre
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_PAGE_FINISH
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE "English"

; $0 = 1 when the process has administrator rights (an elevated token, or
; an administrator without UAC), else 0.
!macro IS_ADMIN un
Function ${un}IsAdmin
  UserInfo::GetAccountType
  Pop $0
  ${If} $0 == "Admin"
    StrCpy $0 1
  ${Else}
    StrCpy $0 0
  ${EndIf}
FunctionEnd
!macroend
!insertmacro IS_ADMIN ""
!insertmacro IS_ADMIN "un."

; The shell folders and registry hive of the chosen mode, and the folder:
; the one /D= gave, else where this mode's installation already is, else
; the mode's default.
Function SetMode
  ${If} $AllUsers == 1
    SetShellVarContext all
    StrCpy $1 "${PROGRAM_FILES}\Broom"
  ${Else}
    SetShellVarContext current
    StrCpy $1 "$LOCALAPPDATA\Programs\Broom"
  ${EndIf}
  ${If} $DirGiven != 1
    ReadRegStr $0 SHCTX "${UNINST_KEY}" "InstallLocation"
    ${If} $0 != ""
      StrCpy $INSTDIR $0
    ${Else}
      StrCpy $INSTDIR $1
    ${EndIf}
  ${EndIf}
FunctionEnd

; The MSI installs into the same folder for every user: one of the two at a time.
Function RefuseBesideMsi
  System::Call 'msi::MsiEnumRelatedProductsW(w "${MSI_UPGRADE_CODE}", i 0, i 0, w .r1) i .r0'
  ${If} $0 == 0
    MessageBox MB_ICONSTOP|MB_OK "Broom is installed for every user from its MSI package. Remove that installation under Apps first, or install a newer MSI." /SD IDOK
    SetErrorLevel 2
    Quit
  ${EndIf}
FunctionEnd

; Starts this setup again with administrator rights for every user and
; ends this one; a silent setup waits for it and exits with 0 when the
; installation for every user is there in this version, 2 otherwise.
Function RunElevated
  ; a setup started again that still has no rights would start yet another
  StrCmp $Elevated 1 failed
  StrCpy $0 "/ALLUSERS /ELEVATED"
  IfSilent 0 +2
    StrCpy $0 "/S $0"
  ${If} $OnPath == 1
    StrCpy $0 "$0 /PATH"
  ${Else}
    StrCpy $0 "$0 /NOPATH"
  ${EndIf}
  ${If} $DirGiven == 1
    StrCpy $0 "$0 /D=$INSTDIR"
  ${EndIf}
  ClearErrors
  IfSilent 0 interactive
    ExecShellWait "runas" "$EXEPATH" "$0"
    IfErrors failed
    SetShellVarContext all
    ReadRegStr $1 SHCTX "${UNINST_KEY}" "DisplayVersion"
    StrCmp $1 "${VERSION}" 0 failed
    SetErrorLevel 0
    Quit
  interactive:
    ExecShell "runas" "$EXEPATH" "$0"
    IfErrors failed
    Quit
  failed:
    MessageBox MB_ICONSTOP|MB_OK "Installing Broom for every user needs administrator rights." /SD IDOK
    SetErrorLevel 2
    Quit
FunctionEnd

Function .onInit
  ${GetParameters} $R0
  StrCpy $AllUsers 0
  ${GetOptions} $R0 "/ALLUSERS" $R1
  IfErrors +2
    StrCpy $AllUsers 1
  ${GetOptions} $R0 "/CURRENTUSER" $R1
  IfErrors +2
    StrCpy $AllUsers 0
  StrCpy $Elevated 0
  ${GetOptions} $R0 "/ELEVATED" $R1
  IfErrors +2
    StrCpy $Elevated 1
  ; Without a word either way the PATH stays as the installation being
  ; upgraded had it (SetMode reads that hive); off for a new one.
  StrCpy $OnPath ""
  ${GetOptions} $R0 "/PATH" $R1
  IfErrors +2
    StrCpy $OnPath 1
  ${GetOptions} $R0 "/NOPATH" $R1
  IfErrors +2
    StrCpy $OnPath 0
  ; Without an InstallDir attribute $INSTDIR is empty unless /D= set it.
  StrCpy $DirGiven 0
  ${If} $INSTDIR != ""
    StrCpy $DirGiven 1
  ${EndIf}
  Call SetMode
  ${If} $OnPath == ""
    ReadRegDWORD $OnPath SHCTX "${UNINST_KEY}" "OnPath"
    ${If} $OnPath != 1
      StrCpy $OnPath 0
    ${EndIf}
  ${EndIf}
  ${If} $AllUsers == 1
    Call RefuseBesideMsi
    Call IsAdmin
    ${If} $0 != 1
      Call RunElevated
    ${EndIf}
  ${EndIf}
FunctionEnd

Function ModePage
  ; a setup started again with administrator rights was told the mode already
  ${If} $Elevated == 1
    Abort
  ${EndIf}
  !insertmacro MUI_HEADER_TEXT "Choose who uses Broom" "Broom can be installed for you alone or for every user of this computer."
  nsDialogs::Create 1018
  Pop $0
  ${NSD_CreateLabel} 0 0 100% 20u "Install Broom for:"
  Pop $0
  ${NSD_CreateRadioButton} 10u 22u 100% 12u "Only &me (no administrator rights needed)"
  Pop $1
  ${NSD_CreateRadioButton} 10u 38u 100% 12u "&Everyone who uses this computer (needs administrator rights)"
  Pop $RadioAll
  ${If} $AllUsers == 1
    ${NSD_Check} $RadioAll
  ${Else}
    ${NSD_Check} $1
  ${EndIf}
  ${NSD_CreateCheckbox} 0 70u 100% 12u "Add broom.exe to the &PATH, so that a command prompt finds it"
  Pop $PathBox
  ${If} $OnPath == 1
    ${NSD_Check} $PathBox
  ${EndIf}
  nsDialogs::Show
FunctionEnd

Function ModePageLeave
  ${NSD_GetState} $RadioAll $0
  ${If} $0 == ${BST_CHECKED}
    StrCpy $AllUsers 1
  ${Else}
    StrCpy $AllUsers 0
  ${EndIf}
  ${NSD_GetState} $PathBox $0
  ${If} $0 == ${BST_CHECKED}
    StrCpy $OnPath 1
  ${Else}
    StrCpy $OnPath 0
  ${EndIf}
  Call SetMode
  ${If} $AllUsers == 1
    Call RefuseBesideMsi
    Call IsAdmin
    ${If} $0 != 1
      Call RunElevated
    ${EndIf}
  ${EndIf}
FunctionEnd

Function DirectoryPre
  ; an upgrade stays where the installation is
  ReadRegStr $0 SHCTX "${UNINST_KEY}" "InstallLocation"
  ${If} $0 != ""
  ${AndIf} $0 == $INSTDIR
    Abort
  ${EndIf}
FunctionEnd

; Adds $INSTDIR to the PATH of the mode's hive ($AllUsers), unless it is there.
Function AddToPath
  ${If} $AllUsers == 1
    ReadRegStr $0 HKLM "${MACHINE_ENV}" "Path"
  ${Else}
    ReadRegStr $0 HKCU "${USER_ENV}" "Path"
  ${EndIf}
  StrLen $1 $0
  ${If} $1 >= ${PATH_LIMIT}
    DetailPrint "The PATH is too long for the setup to change safely; add $INSTDIR to it yourself."
    MessageBox MB_ICONEXCLAMATION|MB_OK "The PATH is too long for the setup to change safely. Add $INSTDIR to it yourself." /SD IDOK
    Return
  ${EndIf}
  ${WordAdd} $0 ";" "+$INSTDIR" $0
  ${If} $AllUsers == 1
    WriteRegExpandStr HKLM "${MACHINE_ENV}" "Path" $0
  ${Else}
    WriteRegExpandStr HKCU "${USER_ENV}" "Path" $0
  ${EndIf}
  SendMessage ${HWND_BROADCAST} ${WM_SETTINGCHANGE} 0 "STR:Environment" /TIMEOUT=5000
  DetailPrint "Added $INSTDIR to the PATH"
FunctionEnd

Section "Broom"
  SectionIn RO
  ; An installation of this mode is removed by its own uninstaller first, so
  ; that no file an older version had and this one dropped stays behind.
  ReadRegStr $1 SHCTX "${UNINST_KEY}" "InstallLocation"
  ${If} $1 != ""
  ${AndIf} ${FileExists} "$1\uninstall.exe"
    DetailPrint "Removing the installed version from $1"
    ExecWait '"$1\uninstall.exe" /S /UPGRADE _?=$1' $2
    Delete "$1\uninstall.exe"
    RMDir "$1"
  ${EndIf}

  SetOutPath "$INSTDIR"
  !include "${FILES}"
  SetOutPath "$INSTDIR"
  WriteUninstaller "$INSTDIR\uninstall.exe"
  CreateShortcut "$SMPROGRAMS\Broom.lnk" "$INSTDIR\broomw.exe" "" "$INSTDIR\broomw.exe" 0 SW_SHOWNORMAL "" "Clean up files and registry entries programs leave behind"

  WriteRegStr SHCTX "${UNINST_KEY}" "DisplayName" "Broom"
  WriteRegStr SHCTX "${UNINST_KEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr SHCTX "${UNINST_KEY}" "Publisher" "${PUBLISHER}"
  WriteRegStr SHCTX "${UNINST_KEY}" "DisplayIcon" "$INSTDIR\broomw.exe,0"
  WriteRegStr SHCTX "${UNINST_KEY}" "InstallLocation" "$INSTDIR"
  WriteRegStr SHCTX "${UNINST_KEY}" "UninstallString" '"$INSTDIR\uninstall.exe"'
  WriteRegStr SHCTX "${UNINST_KEY}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
  WriteRegDWORD SHCTX "${UNINST_KEY}" "EstimatedSize" ${SIZE_KB}
  WriteRegDWORD SHCTX "${UNINST_KEY}" "NoModify" 1
  WriteRegDWORD SHCTX "${UNINST_KEY}" "NoRepair" 1
  WriteRegDWORD SHCTX "${UNINST_KEY}" "OnPath" $OnPath
  ${If} $OnPath == 1
    Call AddToPath
  ${EndIf}
SectionEnd

; The uninstaller serves the installation it sits in: for every user when
; the machine's entry names its folder, else for the current user.
Var UpgradeRun

Function un.onInit
  ${GetParameters} $R0
  StrCpy $UpgradeRun 0
  ${GetOptions} $R0 "/UPGRADE" $R1
  IfErrors +2
    StrCpy $UpgradeRun 1
  StrCpy $Elevated 0
  ${GetOptions} $R0 "/ELEVATED" $R1
  IfErrors +2
    StrCpy $Elevated 1
  StrCpy $AllUsers 0
  SetShellVarContext all
  ReadRegStr $0 SHCTX "${UNINST_KEY}" "InstallLocation"
  ${If} $0 == $INSTDIR
    StrCpy $AllUsers 1
    Call un.IsAdmin
    ${If} $0 != 1
    ${AndIf} $Elevated != 1
      ; started again with administrator rights, from its own folder (this
      ; copy of it runs from the temporary folder)
      StrCpy $0 "/ELEVATED"
      IfSilent 0 +2
        StrCpy $0 "/S $0"
      ClearErrors
      ExecShell "runas" "$INSTDIR\uninstall.exe" "$0"
      IfErrors 0 +3
        MessageBox MB_ICONSTOP|MB_OK "Removing Broom for every user needs administrator rights." /SD IDOK
        SetErrorLevel 2
      Quit
    ${EndIf}
  ${Else}
    SetShellVarContext current
  ${EndIf}
FunctionEnd

; Takes $INSTDIR off the PATH of the mode's hive, where it is there.
Function un.RemoveFromPath
  ${If} $AllUsers == 1
    ReadRegStr $0 HKLM "${MACHINE_ENV}" "Path"
  ${Else}
    ReadRegStr $0 HKCU "${USER_ENV}" "Path"
  ${EndIf}
  StrLen $1 $0
  ${If} $1 >= ${PATH_LIMIT}
    DetailPrint "The PATH is too long for the uninstaller to change safely; take $INSTDIR off it yourself."
    Return
  ${EndIf}
  ${un.WordAdd} $0 ";" "-$INSTDIR" $1
  ${If} $1 == $0
    Return
  ${EndIf}
  ${If} $AllUsers == 1
    WriteRegExpandStr HKLM "${MACHINE_ENV}" "Path" $1
  ${ElseIf} $1 == ""
    DeleteRegValue HKCU "${USER_ENV}" "Path"
  ${Else}
    WriteRegExpandStr HKCU "${USER_ENV}" "Path" $1
  ${EndIf}
  SendMessage ${HWND_BROADCAST} ${WM_SETTINGCHANGE} 0 "STR:Environment" /TIMEOUT=5000
  DetailPrint "Took $INSTDIR off the PATH"
FunctionEnd

Section "Uninstall"
  ; Exactly the files this version installed, and the folders they leave
  ; empty: whatever else is in the folder stays.
  !include "${UNFILES}"
  Delete "$INSTDIR\uninstall.exe"
  RMDir "$INSTDIR"
  Delete "$SMPROGRAMS\Broom.lnk"
  Call un.RemoveFromPath
  DeleteRegKey SHCTX "${UNINST_KEY}"
  ${If} $UpgradeRun == 1
    Return
  ${EndIf}
  ${If} ${FileExists} "$INSTDIR\*.*"
    DetailPrint "$INSTDIR still holds files that Broom did not install, and stays."
  ${EndIf}
  ; the data folder is always the user's own, whichever mode was installed
  SetShellVarContext current
  StrCpy $0 "$LOCALAPPDATA\Broom"
  DetailPrint "Your Broom data stays in $0 and in the registry under HKEY_CURRENT_USER\Software\Broom."
  MessageBox MB_ICONINFORMATION|MB_OK "Broom was removed.$\r$\n$\r$\nYour data stays: quarantined files, the protected list, the cookies to keep, logs and settings are in$\r$\n$0$\r$\nand the settings in the registry under HKEY_CURRENT_USER\Software\Broom. Delete them yourself when you no longer need them; a quarantine holds the only copy of the files moved into it." /SD IDOK
SectionEnd
