; SPDX-FileCopyrightText: 2026 The Quillmere developers
; SPDX-License-Identifier: MIT
;
; The installer for Windows x64: makensis -DVERSION=… -DCONTENT=folder -DOUTPUT=file installer.nsi
;
; Options of the installer, which docs/windows.md explains: /S /RADIOS=networks /APPLICATIONS=networks /NOSTART /D=folder;
; of the uninstaller: /S /DATA. Exit codes: 0 done, 1 cancelled, 2 failed.

Unicode true
Target amd64-unicode
ManifestSupportedOS all
RequestExecutionLevel admin
SetCompressor /SOLID lzma
SetDateSave off
SetOverwrite on

!include FileFunc.nsh
!include LogicLib.nsh
!include nsDialogs.nsh
!include StrFunc.nsh
!include WordFunc.nsh
!include x64.nsh
${Using:StrFunc} StrStr
${Using:StrFunc} UnStrStr

!define SERVICE "Quill Mere"
!define REGISTERED "SYSTEM\CurrentControlSet\Services\${SERVICE}"
!define UNINSTALL "Software\Microsoft\Windows\CurrentVersion\Uninstall\Quillmere"

Name "Quillmere ${VERSION}"
OutFile "${OUTPUT}"
InstallDir "C:\Quillmere"
VIProductVersion "${VERSION}"
VIAddVersionKey FileDescription "Installs Quillmere, the list of radios and their IP addresses"
VIAddVersionKey FileVersion "${VERSION}"
VIAddVersionKey ProductName "Quillmere"
VIAddVersionKey ProductVersion "${VERSION}"
VIAddVersionKey LegalCopyright "The Quillmere developers, MIT licence"

Page directory
Page custom networksPage networksPageLeft
Page instfiles
UninstPage uninstConfirm
UninstPage instfiles

Var radios
Var applications
Var radiosField
Var applicationsField
Var start
Var output
Var registered ; whose program the service has: "" no service, "here" this folder's, or else a path

; Runs a command; $0 is its exit code, $output what it printed.
!macro Run COMMAND
    DetailPrint `${COMMAND}`
    nsExec::ExecToStack `${COMMAND}`
    Pop $0
    Pop $output
!macroend
!define Run "!insertmacro Run"

!macro Fail TEXT
    MessageBox MB_ICONSTOP|MB_OK `${TEXT}` /SD IDOK
    SetErrorLevel 2
    Abort `${TEXT}`
!macroend
!define Fail "!insertmacro Fail"

!macro ReadRegistered
    ReadRegStr $registered HKLM "${REGISTERED}" ImagePath
    ${If} $registered == "$INSTDIR\quillmere.exe"
    ${OrIf} $registered == '"$INSTDIR\quillmere.exe"'
        StrCpy $registered "here"
    ${EndIf}
!macroend

; Stops the service of the program in the folder, and waits until it has stopped. $1: "running", if it was.
!macro StopService Un
    StrCpy $1 ""
    ${If} ${FileExists} "$INSTDIR\quillmere.exe"
        ${Run} '"$INSTDIR\quillmere.exe" -version'
        ${${Un}StrStr} $2 $output "is installed and running"
        ${If} $2 != ""
            StrCpy $1 "running"
            ${Run} '"$INSTDIR\quillmere.exe" -terminate'
            StrCpy $3 0
            ${Do}
                ${Run} '"$INSTDIR\quillmere.exe" -version'
                ${${Un}StrStr} $2 $output "is installed and running"
                ${If} $2 == ""
                    ${Break}
                ${EndIf}
                Sleep 500
                IntOp $3 $3 + 1
            ${LoopWhile} $3 < 120
            ${If} $2 != ""
                ${Fail} "The service does not stop."
            ${EndIf}
        ${EndIf}
    ${EndIf}
!macroend

; The value of an option in $R0, up to the next blank: GetOptions would end it at the "/" of a network.
!macro GetNetworks OPTION VARIABLE
    ${StrStr} $R1 $R0 "${OPTION}"
    ${If} $R1 != ""
        StrLen $R2 "${OPTION}"
        StrCpy $R1 $R1 "" $R2
        ${WordFind} "$R1" " " "+1" ${VARIABLE}
    ${EndIf}
!macroend

Function .onInit
    ${IfNot} ${RunningX64}
        ${Fail} "Quillmere needs a 64-bit Windows."
    ${EndIf}
    SetRegView 64
    ${GetParameters} $R0
    !insertmacro GetNetworks "/RADIOS=" $radios
    !insertmacro GetNetworks "/APPLICATIONS=" $applications
    StrCpy $start "yes"
    ClearErrors
    ${GetOptions} $R0 "/NOSTART" $R1
    ${IfNot} ${Errors}
        StrCpy $start "no"
    ${EndIf}
    ; An upgrade goes where the program is, unless another folder is named.
    ReadRegStr $R1 HKLM "${UNINSTALL}" InstallLocation
    ${If} $R1 != ""
    ${AndIf} $INSTDIR == "C:\Quillmere"
        StrCpy $INSTDIR $R1
    ${EndIf}
    ${If} ${Silent}
        Call checkFolder
    ${EndIf}
FunctionEnd

; The service manager knows the path without quotation marks, and would try the part in front of a space first.
Function checkFolder
    ${StrStr} $R0 $INSTDIR " "
    ${If} $R0 != ""
        ${Fail} "The folder must have no space in its path: $INSTDIR"
    ${EndIf}
FunctionEnd

Function .onVerifyInstDir
    ${StrStr} $R0 $INSTDIR " "
    ${If} $R0 != ""
        Abort
    ${EndIf}
FunctionEnd

Function networksPage
    nsDialogs::Create 1018
    Pop $R0
    ${NSD_CreateLabel} 0 0 100% 36u "Neither port asks who is there. Windows Firewall lets in only the networks that you name, as 10.20.0.0/16, with commas between; where you name none, no rule is made."
    Pop $R0
    ${NSD_CreateLabel} 0 44u 100% 10u "Networks of the radios (UDP):"
    Pop $R0
    ${NSD_CreateText} 0 56u 100% 12u $radios
    Pop $radiosField
    ${NSD_CreateLabel} 0 78u 100% 10u "Networks of the applications (TCP):"
    Pop $R0
    ${NSD_CreateText} 0 90u 100% 12u $applications
    Pop $applicationsField
    nsDialogs::Show
FunctionEnd

Function networksPageLeft
    ${NSD_GetText} $radiosField $radios
    ${NSD_GetText} $applicationsField $applications
FunctionEnd

!macro DeleteRule NAME
    ${Run} '"$SYSDIR\netsh.exe" advfirewall firewall delete rule name="${NAME}"'
!macroend

; A rule of an earlier installation stays where no other network is named.
!macro LetIn NAME PROTOCOL NETWORKS
    ${If} "${NETWORKS}" != ""
        !insertmacro DeleteRule "${NAME}"
        ${Run} '"$SYSDIR\netsh.exe" advfirewall firewall add rule name="${NAME}" dir=in action=allow program="$INSTDIR\quillmere.exe" protocol=${PROTOCOL} remoteip="${NETWORKS}"'
        ${If} $0 != 0
            ${Fail} "The firewall does not take the rule for ${NETWORKS}: $output"
        ${EndIf}
    ${EndIf}
!macroend

Section
    !insertmacro ReadRegistered
    ; "-install" takes a service that is registered for installed, wherever its program lies: the new files would never run.
    ${If} $registered != ""
    ${AndIf} $registered != "here"
        ${Fail} 'The service is installed already, from another folder: $registered. Uninstall it there first (sc.exe delete "${SERVICE}" where the program is gone), or install to that folder.'
    ${EndIf}
    !insertmacro StopService ""
    StrCpy $4 $start
    ${If} $registered == "here"
        StrCpy $4 "no" ; a service that was stopped on purpose stays stopped
        ${If} $1 == "running"
            StrCpy $4 "yes"
        ${EndIf}
    ${EndIf}
    ${If} ${FileExists} "$INSTDIR\quillmere.exe"
        ; Event Viewer may hold the old one open, which can be renamed all the same.
        Delete "$INSTDIR\quillmere-old.exe"
        Rename "$INSTDIR\quillmere.exe" "$INSTDIR\quillmere-old.exe"
    ${EndIf}
    ${If} ${FileExists} "$INSTDIR\quillmere-monitor.exe"
        ; So may a monitor that runs: it goes on as it is.
        Delete "$INSTDIR\quillmere-monitor-old.exe"
        Rename "$INSTDIR\quillmere-monitor.exe" "$INSTDIR\quillmere-monitor-old.exe"
    ${EndIf}
    SetOutPath $INSTDIR
    ClearErrors
    File /r "${CONTENT}\*"
    ${If} ${Errors}
        ${Fail} "The files could not be written to $INSTDIR."
    ${EndIf}
    ; What lies there runs with the rights of the service: users read and run, administrators write.
    ${Run} '"$SYSDIR\icacls.exe" "$INSTDIR" /inheritance:r /grant "*S-1-5-32-544:(OI)(CI)F" "*S-1-5-18:(OI)(CI)F" "*S-1-5-32-545:(OI)(CI)RX"'

    ${Run} '"$INSTDIR\quillmere.exe" -install'
    ${If} $0 != 0
        ${Fail} "The service could not be installed: $output"
    ${EndIf}
    ${If} $registered == ""
        ${Run} '"$SYSDIR\sc.exe" config "${SERVICE}" start= delayed-auto'
        ${Run} '"$SYSDIR\sc.exe" failure "${SERVICE}" reset= 86400 actions= restart/5000/restart/5000/restart/60000'
    ${EndIf}
    !insertmacro LetIn "${SERVICE} radios" UDP $radios
    !insertmacro LetIn "${SERVICE} applications" TCP $applications

    WriteUninstaller "$INSTDIR\uninstall.exe"
    WriteRegStr HKLM "${UNINSTALL}" DisplayName "Quillmere"
    WriteRegStr HKLM "${UNINSTALL}" DisplayVersion "${VERSION}"
    WriteRegStr HKLM "${UNINSTALL}" Publisher "The Quillmere developers"
    WriteRegStr HKLM "${UNINSTALL}" InstallLocation "$INSTDIR"
    WriteRegStr HKLM "${UNINSTALL}" UninstallString '"$INSTDIR\uninstall.exe"'
    WriteRegStr HKLM "${UNINSTALL}" QuietUninstallString '"$INSTDIR\uninstall.exe" /S'
    WriteRegDWORD HKLM "${UNINSTALL}" NoModify 1
    WriteRegDWORD HKLM "${UNINSTALL}" NoRepair 1

    ${If} $4 == "yes"
        ${Run} '"$INSTDIR\quillmere.exe"'
        ${If} $0 != 0
            ${Fail} "The service could not be started: $output"
        ${EndIf}
    ${EndIf}
SectionEnd

Var removesData

Function un.onInit
    SetRegView 64
    StrCpy $removesData "no"
    ${GetParameters} $R0
    ClearErrors
    ${GetOptions} $R0 "/DATA" $R1
    ${IfNot} ${Errors}
        StrCpy $removesData "yes"
    ${EndIf}
FunctionEnd

Section un.Quillmere
    !insertmacro DeleteRule "${SERVICE} radios"
    !insertmacro DeleteRule "${SERVICE} applications"
    !insertmacro ReadRegistered
    ${If} $registered != ""
    ${AndIf} $registered != "here"
        Goto keep ; service and data are another program's by now
    ${EndIf}
    !insertmacro StopService "Un"
    ${Run} '"$INSTDIR\quillmere.exe" -uninstall'
    ${If} $0 != 0
        ${Fail} "The service could not be removed: $output"
    ${EndIf}
    SetShellVarContext all ; $APPDATA is C:\ProgramData
    ${If} $removesData == "no"
        MessageBox MB_YESNO|MB_DEFBUTTON2 "Remove the configuration and the list of radios in $APPDATA\Brackwater\Quill Mere, too?" /SD IDNO IDNO keep
    ${EndIf}
    RMDir /r "$APPDATA\Brackwater\Quill Mere"
    RMDir "$APPDATA\Brackwater"
keep:
    SetOutPath $TEMP
    Delete "$INSTDIR\quillmere*.exe"
    Delete "$INSTDIR\LICENSE.txt"
    Delete "$INSTDIR\*.md"
    RMDir /r "$INSTDIR\docs"
    RMDir /r "$INSTDIR\wireshark"
    RMDir /r "$INSTDIR\examples"
    Delete "$INSTDIR\uninstall.exe"
    RMDir "$INSTDIR" ; what else lies there is not ours
    DeleteRegKey HKLM "${UNINSTALL}"
SectionEnd
