; VelmoraPhoneSetup.exe: installs Velmora Phone for the current user, without
; administrator rights, into %LOCALAPPDATA%\Programs\Velmora Phone.
;
; Built by the Windows build (target velphone_setup), which passes:
;   APP_EXE   the stripped velphone.exe to install
;   ICON      the application icon (.ico)
;   OUTFILE   where to write the installer
;   VERSION   the version, major.minor.patch
;
; Command line (besides NSIS's own /S for silent and /D=folder):
;   installer:   /AUTOSTART    start Velmora Phone with Windows (in the tray)
;                /NOAUTOSTART  do not (the default keeps what the last install chose)
;   uninstaller: /DELETEDATA   also delete the user's data folder, %APPDATA%\Velmora Phone
;                              (kept otherwise)

Unicode true
Target amd64-unicode
ManifestDPIAware true
SetCompressor /SOLID lzma
RequestExecutionLevel user

!ifndef APP_EXE
  !error "APP_EXE: the velphone.exe to install (makensis -DAPP_EXE=...)"
!endif
!ifndef ICON
  !error "ICON: the application icon (makensis -DICON=...)"
!endif
!ifndef VERSION
  !define VERSION 1.0.0
!endif
!ifndef OUTFILE
  !define OUTFILE VelmoraPhoneSetup.exe
!endif

!define PRODUCT "Velmora Phone"
!define COMPANY "Velmora"
!define EXE "velphone.exe"
!define UNINSTALLER "uninstall.exe"
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\VelmoraPhone"
!define RUN_KEY "Software\Microsoft\Windows\CurrentVersion\Run"
!define RUN_VALUE "Velmora Phone"
; What the running phone is known by (app/win/app_win.h).
!define WINDOW_CLASS "VelmoraPhoneWindow"
!define INSTANCE_MUTEX "Local\VelmoraPhone.SingleInstance"
; How long the phone gets to un-register and quit when asked, in milliseconds.
!define EXIT_WAIT_MS 15000

!include MUI2.nsh
!include LogicLib.nsh
!include FileFunc.nsh
!include Sections.nsh
!include nsDialogs.nsh

Name "${PRODUCT}"
OutFile "${OUTFILE}"
InstallDir "$LOCALAPPDATA\Programs\${PRODUCT}"
InstallDirRegKey HKCU "${UNINSTALL_KEY}" "InstallLocation"
BrandingText "${PRODUCT} ${VERSION}"
ShowInstDetails nevershow
ShowUninstDetails nevershow

VIProductVersion "${VERSION}.0"
VIFileVersion "${VERSION}.0"
VIAddVersionKey /LANG=1033 "ProductName" "${PRODUCT}"
VIAddVersionKey /LANG=1033 "CompanyName" "${COMPANY}"
VIAddVersionKey /LANG=1033 "FileDescription" "${PRODUCT} Setup"
VIAddVersionKey /LANG=1033 "FileVersion" "${VERSION}"
VIAddVersionKey /LANG=1033 "ProductVersion" "${VERSION}"
VIAddVersionKey /LANG=1033 "LegalCopyright" "Copyright (C) ${COMPANY}"

!define MUI_ICON "${ICON}"
!define MUI_UNICON "${ICON}"
!define MUI_ABORTWARNING
!define MUI_COMPONENTSPAGE_NODESC
!define MUI_WELCOMEPAGE_TEXT "Setup will install ${PRODUCT} ${VERSION} for your Windows account. It needs no administrator rights.$\r$\n$\r$\nIf ${PRODUCT} is running, Setup closes it first. Your account, contacts, call history and settings are kept.$\r$\n$\r$\nClick Next to continue."
!define MUI_FINISHPAGE_RUN "$INSTDIR\${EXE}"
!define MUI_FINISHPAGE_RUN_TEXT "Start ${PRODUCT} now"

!insertmacro MUI_PAGE_WELCOME
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_COMPONENTS
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_PAGE_FINISH

UninstPage custom un.KeepDataPage un.KeepDataPageLeave
!insertmacro MUI_UNPAGE_INSTFILES

!insertmacro MUI_LANGUAGE "English"

; ---- The running phone ------------------------------------------------------

; Leaves 1 in $R9 when a phone of this user session runs (its single-instance
; mutex exists), else 0.
!macro PhoneRunning
  System::Call 'kernel32::OpenMutexW(i 0x00100000, i 0, w "${INSTANCE_MUTEX}") p .R9'
  ${If} $R9 P<> 0
    System::Call 'kernel32::CloseHandle(p R9)'
    StrCpy $R9 1
  ${Else}
    StrCpy $R9 0
  ${EndIf}
!macroend

; Stops a running phone before its files are replaced or removed: asks it to
; un-register and quit (velphone.exe --exit), waits for it, and ends it only
; if it has not gone after EXIT_WAIT_MS. Uses $R5-$R9; aborts when the phone
; cannot be stopped.
!macro StopRunningPhone
  !insertmacro PhoneRunning
  ${If} $R9 = 1
    DetailPrint "Closing ${PRODUCT}..."
    ; A handle on the phone's process (synchronize, terminate, query), to
    ; wait for the process itself: the mutex goes a moment before the
    ; executable is free to replace. The phone is asked to quit by the
    ; executable it runs from, which need not be the one in $INSTDIR.
    StrCpy $R8 0
    StrCpy $R7 "$INSTDIR\${EXE}"
    FindWindow $R6 "${WINDOW_CLASS}"
    ${If} $R6 P<> 0
      System::Call 'user32::GetWindowThreadProcessId(p R6, *i .R5)'
      System::Call 'kernel32::OpenProcess(i 0x00101001, i 0, i R5) p .R8'
      ${If} $R8 P<> 0
        System::Call 'kernel32::QueryFullProcessImageNameW(p R8, i 0, w .R6, *i ${NSIS_MAX_STRLEN}) i .R5'
        ${If} $R5 <> 0
          StrCpy $R7 $R6
        ${EndIf}
      ${EndIf}
    ${EndIf}
    ${If} ${FileExists} $R7
      ExecWait '"$R7" --exit'
    ${EndIf}
    StrCpy $R5 0
    ${Do}
      !insertmacro PhoneRunning
      ${IfThen} $R9 = 0 ${|} ${ExitDo} ${|}
      ${IfThen} $R5 >= ${EXIT_WAIT_MS} ${|} ${ExitDo} ${|}
      Sleep 100
      IntOp $R5 $R5 + 100
    ${Loop}
    ${If} $R9 = 0
    ${AndIf} $R8 P<> 0
      System::Call 'kernel32::WaitForSingleObject(p R8, i 5000) i .R6'
      ${If} $R6 <> 0
        StrCpy $R9 1
      ${EndIf}
    ${EndIf}
    ${If} $R9 = 1
      MessageBox MB_OKCANCEL|MB_ICONEXCLAMATION "${PRODUCT} is still running and did not close when asked.$\r$\n$\r$\nChoose OK to end it now, or Cancel to stop." /SD IDOK IDOK +2
        Abort "${PRODUCT} is still running."
      ${If} $R8 P= 0
        FindWindow $R6 "${WINDOW_CLASS}"
        ${If} $R6 P<> 0
          System::Call 'user32::GetWindowThreadProcessId(p R6, *i .R5)'
          System::Call 'kernel32::OpenProcess(i 0x00100001, i 0, i R5) p .R8'
        ${EndIf}
      ${EndIf}
      ${If} $R8 P<> 0
        System::Call 'kernel32::TerminateProcess(p R8, i 1)'
        System::Call 'kernel32::WaitForSingleObject(p R8, i 5000)'
      ${EndIf}
      !insertmacro PhoneRunning
      ${If} $R9 = 1
        ${If} $R8 P<> 0
          System::Call 'kernel32::CloseHandle(p R8)'
        ${EndIf}
        Abort "${PRODUCT} is still running; close it and try again."
      ${EndIf}
    ${EndIf}
    ${If} $R8 P<> 0
      System::Call 'kernel32::CloseHandle(p R8)'
    ${EndIf}
  ${EndIf}
!macroend

; ---- Install ----------------------------------------------------------------

Section "${PRODUCT}" SecProgram
  SectionIn RO
  !insertmacro StopRunningPhone
  SetOutPath "$INSTDIR"
  SetOverwrite on
  File "/oname=${EXE}" "${APP_EXE}"
  WriteUninstaller "$INSTDIR\${UNINSTALLER}"

  CreateShortcut "$SMPROGRAMS\${PRODUCT}.lnk" "$INSTDIR\${EXE}" "" "$INSTDIR\${EXE}" 0 SW_SHOWNORMAL "" "Make and answer calls"

  WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayName" "${PRODUCT}"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "Publisher" "${COMPANY}"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\${EXE},0"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKCU "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\${UNINSTALLER}"'
  WriteRegStr HKCU "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\${UNINSTALLER}" /S'
  WriteRegDWORD HKCU "${UNINSTALL_KEY}" "NoModify" 1
  WriteRegDWORD HKCU "${UNINSTALL_KEY}" "NoRepair" 1
  ${GetSize} "$INSTDIR" "/S=0K" $0 $1 $2
  IntFmt $0 "0x%08X" $0
  WriteRegDWORD HKCU "${UNINSTALL_KEY}" "EstimatedSize" "$0"
SectionEnd

Section "Start with Windows" SecAutostart
  WriteRegStr HKCU "${RUN_KEY}" "${RUN_VALUE}" '"$INSTDIR\${EXE}" --minimized'
SectionEnd

Section "-Autostart off"
  ${IfNot} ${SectionIsSelected} ${SecAutostart}
    DeleteRegValue HKCU "${RUN_KEY}" "${RUN_VALUE}"
  ${EndIf}
SectionEnd

Function .onInit
  ; Unless told, keep what the last install chose for starting with Windows.
  ClearErrors
  ReadRegStr $0 HKCU "${RUN_KEY}" "${RUN_VALUE}"
  ${IfNot} ${Errors}
    !insertmacro SelectSection ${SecAutostart}
  ${Else}
    !insertmacro UnselectSection ${SecAutostart}
  ${EndIf}
  ${GetParameters} $1
  ClearErrors
  ${GetOptions} $1 "/AUTOSTART" $0
  ${IfNot} ${Errors}
    !insertmacro SelectSection ${SecAutostart}
  ${EndIf}
  ClearErrors
  ${GetOptions} $1 "/NOAUTOSTART" $0
  ${IfNot} ${Errors}
    !insertmacro UnselectSection ${SecAutostart}
  ${EndIf}
FunctionEnd

; ---- Uninstall --------------------------------------------------------------

Var DeleteData    ; 1: the data folder goes too (/DELETEDATA, or the box ticked)
Var DeleteDataBox

; Removes HKCU\Software\Classes\<scheme> when its open command starts our
; executable: the phone registers itself there for sip:, tel: and callto: links.
!macro RemoveUrlHandler SCHEME
  ClearErrors
  ReadRegStr $0 HKCU "Software\Classes\${SCHEME}\shell\open\command" ""
  ${IfNot} ${Errors}
    Push $0
    Push "$INSTDIR\${EXE}"
    Call un.Contains
    Pop $1
    ${If} $1 = 1
      DeleteRegKey HKCU "Software\Classes\${SCHEME}"
    ${EndIf}
  ${EndIf}
!macroend

; Pushes 1 when the first string contains the second (case-blind), else 0.
; Stack in: text, part (part on top).
Function un.Contains
  Exch $R1 ; part
  Exch
  Exch $R0 ; text
  Push $R2
  Push $R3
  Push $R4
  Push $R5
  StrLen $R2 $R1
  StrCpy $R3 0
  StrCpy $R4 0
  ${Do}
    StrCpy $R0 $R0 "" $R3
    ${IfThen} $R0 == "" ${|} ${ExitDo} ${|}
    StrCpy $R5 $R0 $R2
    ${If} $R5 == $R1 ; StrCmp is case-blind
      StrCpy $R4 1
      ${ExitDo}
    ${EndIf}
    StrCpy $R3 1
  ${Loop}
  StrCpy $R0 $R4
  Pop $R5
  Pop $R4
  Pop $R3
  Pop $R2
  Pop $R1
  Exch $R0
FunctionEnd

Section "un.${PRODUCT}"
  !insertmacro StopRunningPhone

  Delete "$SMPROGRAMS\${PRODUCT}.lnk"
  DeleteRegValue HKCU "${RUN_KEY}" "${RUN_VALUE}"
  !insertmacro RemoveUrlHandler "sip"
  !insertmacro RemoveUrlHandler "sips"
  !insertmacro RemoveUrlHandler "tel"
  !insertmacro RemoveUrlHandler "callto"
  DeleteRegKey HKCU "${UNINSTALL_KEY}"

  ; Only our own files: the folder goes when nothing else is in it, so a
  ; folder chosen by hand (say, one holding other files) keeps the rest.
  Delete "$INSTDIR\${EXE}"
  ; This runs from a copy in the temp folder; the uninstaller it was started
  ; from may not have exited yet and still hold its file. Retried for up to 10 s.
  StrCpy $R1 0
  ${Do}
    ClearErrors
    Delete "$INSTDIR\${UNINSTALLER}"
    ${IfNot} ${Errors}
    ${OrIf} $R1 >= 100
      ${ExitDo}
    ${EndIf}
    Sleep 100
    IntOp $R1 $R1 + 1
  ${Loop}
  RMDir "$INSTDIR"
SectionEnd

Section "-un.Data"
  ${If} $DeleteData = 1
    RMDir /r "$APPDATA\${PRODUCT}"
  ${EndIf}
SectionEnd

Function un.onInit
  StrCpy $DeleteData 0
  ${GetParameters} $1
  ClearErrors
  ${GetOptions} $1 "/DELETEDATA" $0
  ${IfNot} ${Errors}
    StrCpy $DeleteData 1
  ${EndIf}
FunctionEnd

; The uninstaller's first page: what goes, what stays, and the box that
; deletes the user's data too.
Function un.KeepDataPage
  !insertmacro MUI_HEADER_TEXT "Uninstall ${PRODUCT}" "Remove ${PRODUCT} from this computer."
  nsDialogs::Create 1018
  Pop $0
  ${NSD_CreateLabel} 0 0 100% 48u "${PRODUCT} will be removed from $INSTDIR.$\r$\n$\r$\nYour account, contacts, call history, recordings and settings stay in $APPDATA\${PRODUCT} for a later install, unless you tick the box below."
  Pop $0
  ${NSD_CreateCheckbox} 0 56u 100% 12u "Also delete my contacts, call history and settings"
  Pop $DeleteDataBox
  ${If} $DeleteData = 1
    ${NSD_Check} $DeleteDataBox
  ${EndIf}
  GetDlgItem $0 $HWNDPARENT 1
  SendMessage $0 ${WM_SETTEXT} 0 "STR:&Uninstall"
  nsDialogs::Show
FunctionEnd

Function un.KeepDataPageLeave
  ${NSD_GetState} $DeleteDataBox $0
  ${If} $0 = ${BST_CHECKED}
    StrCpy $DeleteData 1
  ${Else}
    StrCpy $DeleteData 0
  ${EndIf}
FunctionEnd
