; The setup program. An installation is exchanged as a whole: everything is unpacked beside it, what is there is moved
; aside, and moved back if anything goes wrong before the new one has been looked at.
;
; Given by packaging/make-setup: VERSION ("1.2.0-7-gabc"), NUMBERS ("1.2.0.7"), FILES (the folder of what is installed,
; with its list files.txt), LIST (the File lines for it), NEEDED_KB, OUTPUT; DOCTOR if kestra-ctl.exe is among the files;
; SIGN: a command that signs one file; QUICK: compress less.
Unicode true
Target amd64-unicode
!ifdef QUICK
  SetCompressor zlib
!else
  SetCompressor /SOLID lzma
!endif
SetDateSave off
RequestExecutionLevel admin
ManifestDPIAware true
ManifestSupportedOS all

!include LogicLib.nsh
!include MUI2.nsh
!include FileFunc.nsh
!include WordFunc.nsh
!include TextFunc.nsh
!include WinVer.nsh
!include x64.nsh
!include nsDialogs.nsh

!define PRODUCT "Kestra Capture"
!define PUBLISHER "The Kestra Capture authors"
!define MODULE "KestraCapture.dll"
!define APPS_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\KestraCapture"
!define VIDEO_FILTER "{53F0624A-8497-4A4C-9451-011C49B274FA}"
!define AUDIO_FILTER "{47BAFEE0-4F9B-4115-AA9F-8964A23B53E9}"
!define VIDEO_CATEGORY "{860BB310-5D01-11D0-BD3B-00A0C911CE86}"
!define AUDIO_CATEGORY "{33D9A762-90C8-11D0-BD43-00A0C911CE86}"

; Exit codes; docs/setup.md says the same.
!define EXIT_RESTART 3010
!define EXIT_NEWER 10
!define EXIT_NOT_WRITABLE 11
!define EXIT_DISK_FULL 12
!define EXIT_IN_USE 13
!define EXIT_NOT_REGISTERED 14
!define EXIT_NOT_WORKING 15
!define EXIT_SYSTEM 16
!define EXIT_ALREADY_RUNNING 17

Name "${PRODUCT}"
BrandingText "${PRODUCT} ${VERSION}"
OutFile "${OUTPUT}"
InstallDir "$PROGRAMFILES64\${PRODUCT}"
InstallDirRegKey HKLM "${APPS_KEY}" InstallLocation
ShowInstDetails hide
ShowUninstDetails hide
VIProductVersion "${NUMBERS}"
VIFileVersion "${NUMBERS}"
VIAddVersionKey ProductName "HD-SDI Kestra"
VIAddVersionKey ProductVersion "${VERSION}"
VIAddVersionKey FileVersion "${VERSION}"
VIAddVersionKey FileDescription "Setup of the Kestra capture driver"
VIAddVersionKey CompanyName "${PUBLISHER}"
VIAddVersionKey LegalCopyright "${PUBLISHER}, MIT licence"
!ifdef SIGN
  !uninstfinalize '${SIGN} "%1"'
!endif

Var logFile
Var failure     ; in plain words; empty as long as all is well
Var exitCode
Var line        ; of a list of files
Var oldFolder   ; of the version that is installed; empty: there is none
Var saved       ; where its files are while they are exchanged; empty: they have not been moved
Var incoming    ; where the new files are until they are moved into place; empty: nowhere
Var placed      ; 1: new files may be in place
Var replaced    ; where a stranger's files of the same names are meanwhile; empty: there is no such folder
Var registering ; 1: the new module may be registered
Var undone      ; 1: after a failure
Var parents     ; the topmost folder that was made for this installation; empty: all were there

!define MUI_ABORTWARNING
!define MUI_FINISHPAGE_NOAUTOCLOSE
!define MUI_WELCOMEPAGE_TITLE "${PRODUCT} ${VERSION}"
!define MUI_WELCOMEPAGE_TEXT "This installs the capture driver of the HD-SDI Kestra card: the devices Kestra Capture Video and Kestra Capture Audio for every application that records through DirectShow, and their documentation.$\r$\n$\r$\nApplications that have the driver open may stay open. The card's own kernel driver is not part of this."
!define MUI_FINISHPAGE_SHOWREADME "$INSTDIR\documentation\index.html"
!define MUI_FINISHPAGE_SHOWREADME_TEXT "Show the documentation"
!define MUI_FINISHPAGE_TEXT "The two devices are registered and were found to work. Applications list them from now on."
!define MUI_FINISHPAGE_TEXT_REBOOT "The devices are registered and work. Some application still has the former version open: it is removed at the next restart."
!insertmacro MUI_PAGE_WELCOME
!insertmacro MUI_PAGE_LICENSE "${FILES}/LICENSE.txt"
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_PAGE_FINISH
UninstPage custom un.askPage un.askPageLeave
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE English

; Appends a line to the log, which a text editor can show at any time.
!macro LogFunction un
Function ${un}log
    Exch $0
    Push $1
    Push $2
    Push $3
    Push $4
    Push $5
    Push $6
    Push $7
    Push $8
    DetailPrint "$0"
    ${GetTime} "" "L" $1 $2 $3 $4 $5 $6 $7
    ClearErrors
    FileOpen $8 "$logFile" a
    ${IfNot} ${Errors}
        FileSeek $8 0 END
        FileWriteUTF16LE /BOM $8 "$3-$2-$1 $5:$6:$7 $0$\r$\n"
        FileClose $8
    ${EndIf}
    ClearErrors
    Pop $8
    Pop $7
    Pop $6
    Pop $5
    Pop $4
    Pop $3
    Pop $2
    Pop $1
    Pop $0
FunctionEnd

Function ${un}openLog
    ${GetParameters} $0
    ClearErrors
    ${GetOptions} $0 "/LOG=" $logFile
    ${If} $logFile == ""
        StrCpy $logFile "$TEMP\KestraSetup.log"
    ${EndIf}
    ClearErrors
FunctionEnd

; Removes the folders from $0 upwards to $parents, as far as they are empty.
Function ${un}removeFolders
    ${DoWhile} $parents != ""
        ClearErrors
        RMDir "$0"
        ${If} ${Errors}
        ${OrIf} $0 == $parents
            ${ExitDo}
        ${EndIf}
        ${GetParent} "$0" $0
    ${Loop}
    ClearErrors
FunctionEnd
!macroend
!insertmacro LogFunction ""
!insertmacro LogFunction "un."
!macro Log text
    Push "${text}"
    Call log
!macroend
!define Log '!insertmacro Log'
!macro unLog text
    Push "${text}"
    Call un.log
!macroend
!define unLog '!insertmacro unLog'

; Notes what failed, if nothing has before.
!macro Note code text
    ${If} $failure == ""
        StrCpy $failure "${text}"
        StrCpy $exitCode ${code}
    ${EndIf}
!macroend
!define Note '!insertmacro Note'

; ForEachFile LIST FUNCTION: calls it with each line of the list in $line, until one notes a failure. A line that ends with a
; backslash is a folder; folders follow the files, the innermost first. Keeps $8 and $9.
!macro ForEachFile list function
    Push $8
    Push $9
    ClearErrors
    FileOpen $9 "${list}" r
    ${IfNot} ${Errors}
        ${Do}
            ClearErrors
            FileRead $9 $line
            ${If} ${Errors}
                ${ExitDo}
            ${EndIf}
            ${TrimNewLines} "$line" $line
            ${If} $line != ""
                Call ${function}
            ${EndIf}
        ${LoopUntil} $failure != ""
        FileClose $9
    ${EndIf}
    ClearErrors
    Pop $9
    Pop $8
!macroend
!define ForEachFile '!insertmacro ForEachFile'

; Refuses before anything was touched.
!macro Refuse code text
    ${Log} "${text}"
    MessageBox MB_OK|MB_ICONSTOP "${text}" /SD IDOK
    SetErrorLevel ${code}
    Quit
!macroend
!define Refuse '!insertmacro Refuse'

Function .onInit
    Call openLog
    ${Log} "Setup of ${PRODUCT} ${VERSION}"
    ${IfNot} ${RunningX64}
    ${OrIfNot} ${AtLeastWin10}
        ${Refuse} ${EXIT_SYSTEM} "${PRODUCT} needs Windows 10 or later, 64 bit."
    ${EndIf}
    System::Call 'kernel32::CreateMutexW(p 0, i 0, w "Global\KestraCaptureSetup") p.r0 ?e'
    Pop $1
    ${If} $1 = 183 ; it exists
        ${Refuse} ${EXIT_ALREADY_RUNNING} "Another setup of ${PRODUCT} is running. Please finish that one first."
    ${EndIf}
    ReadRegStr $oldFolder HKLM "${APPS_KEY}" InstallLocation
    ReadRegStr $1 HKLM "${APPS_KEY}" VersionNumbers
    ReadRegStr $2 HKLM "${APPS_KEY}" DisplayVersion
    ${If} $1 != ""
        ${Log} "Version $2 is installed in $oldFolder"
        ${VersionCompare} "$1" "${NUMBERS}" $0
        ${GetParameters} $3
        ClearErrors
        ${GetOptions} $3 "/FORCE" $4
        ${If} ${Errors}
        ${AndIf} $0 = 1
            ${Refuse} ${EXIT_NEWER} "The newer version $2 is installed, so version ${VERSION} was not. Remove that one first, or run this setup with /FORCE."
        ${EndIf}
    ${EndIf}
    ClearErrors
FunctionEnd

; $line: makes its folder below $0.
Function makeFolder
    StrCpy $1 $line "" -1
    ${If} $1 == "\"
        CreateDirectory "$0\$line"
        ${If} ${Errors}
            ${Note} ${EXIT_NOT_WRITABLE} "The folder $0\$line could not be made."
        ${EndIf}
    ${EndIf}
FunctionEnd

; $line: moves the file from $2 to $3, which has its folder; what is not there is passed over.
Function moveFile
    StrCpy $1 $line "" -1
    ${If} $1 != "\"
    ${AndIf} ${FileExists} "$2\$line"
        ClearErrors
        Rename "$2\$line" "$3\$line"
        ${If} ${Errors}
            ${Note} ${EXIT_IN_USE} "The file $2\$line is in use by another program. Please close that program and try again."
        ${EndIf}
    ${EndIf}
FunctionEnd

; $line: moves it back from $2 to $3. What an interrupted setup left in its place goes, also if somebody has loaded it: its
; name is needed.
Function moveFileBack
    StrCpy $1 $line "" -1
    ${If} $1 != "\"
    ${AndIf} ${FileExists} "$2\$line"
        ${GetParent} "$3\$line" $1
        CreateDirectory "$1"
        ${If} ${FileExists} "$3\$line"
            GetTempFileName $1 "$3"
            Delete "$1"
            Rename "$3\$line" "$1"
            Delete /REBOOTOK "$1"
        ${EndIf}
        Call moveFile
    ${EndIf}
FunctionEnd

; $line: moves it from $2 to $3, also if somebody has loaded it already; its name is needed.
Function takeBack
    Call moveFile
    StrCpy $failure ""
    Call removeEmptyFolder
FunctionEnd

; $line: removes it from $2, at the next restart if it is in use.
!macro RemoveFileFunction un
Function ${un}removeFile
    StrCpy $1 $line "" -1
    ${If} $1 == "\"
        RMDir "$2\$line"
    ${Else}
        Delete /REBOOTOK "$2\$line"
    ${EndIf}
FunctionEnd
!macroend
!insertmacro RemoveFileFunction ""
!insertmacro RemoveFileFunction "un."

Function isThere
    StrCpy $1 $line "" -1
    ${If} $1 != "\"
    ${AndIfNot} ${FileExists} "$2\$line"
        ${Note} ${EXIT_NOT_WORKING} "The file $2\$line is missing."
    ${EndIf}
FunctionEnd

; Finds in $0 a name below the folder $0 with the beginning $1 that is not taken.
Function unusedName
    StrCpy $3 1
    ${DoWhile} ${FileExists} "$0\$1.$3\*.*"
        IntOp $3 $3 + 1
    ${Loop}
    StrCpy $0 "$0\$1.$3"
FunctionEnd

; Runs regsvr32 with the options $0 on the module in the folder $1; its exit code in $0.
!macro RegisterFunction un
Function ${un}register
    ClearErrors
    ExecWait '"$SYSDIR\regsvr32.exe" /s $0 "$1\${MODULE}"' $0
    ${If} ${Errors}
        StrCpy $0 "it could not be started"
    ${EndIf}
    ClearErrors
FunctionEnd
!macroend
!insertmacro RegisterFunction ""
!insertmacro RegisterFunction "un."

; Moves the files of the installed version back into place.
Function bringBack
    StrCpy $2 $saved
    StrCpy $3 $oldFolder
    StrCpy $4 $failure
    StrCpy $failure ""
    CreateDirectory "$oldFolder"
    StrCpy $0 $oldFolder
    ${ForEachFile} "$saved\files.txt" makeFolder
    ; The list goes last: as long as it is here, this can be done again.
    ${ForEachFile} "$saved\files.txt" moveBackButList
    StrCpy $line files.txt
    Call moveFileBack
    ${If} $failure != ""
        ${Log} "$failure"
    ${Else}
        RMDir /r "$saved"
    ${EndIf}
    StrCpy $failure $4
    StrCpy $saved ""
    DeleteRegValue HKLM "${APPS_KEY}" Exchanging
FunctionEnd
Function moveBackButList
    ${If} $line != "files.txt"
        Call moveFileBack
    ${EndIf}
FunctionEnd

; Moves a stranger's files back into place.
Function bringBackReplaced
    ${If} $replaced == ""
        Return
    ${EndIf}
    StrCpy $2 $replaced
    ${GetParent} "$replaced" $3
    StrCpy $4 $failure
    StrCpy $failure ""
    ${ForEachFile} "$replaced\replaced.txt" moveFileBack
    ${If} $failure != ""
        ${Log} "$failure"
    ${Else}
        RMDir /r "$replaced"
    ${EndIf}
    StrCpy $failure $4
    StrCpy $replaced ""
    DeleteRegValue HKLM "${APPS_KEY}" Replaced
FunctionEnd

; Leaves everything as it was before this setup ran, and says why.
Function giveUp
    ${If} $undone = 1
        Return
    ${EndIf}
    StrCpy $undone 1
    SetOutPath "$TEMP"
    ${If} $exitCode == ""
        StrCpy $exitCode ${EXIT_NOT_WRITABLE}
        StrCpy $failure "The files could not be written into $INSTDIR: the disk may be full, or the folder may be protected."
    ${EndIf}
    ${Log} "$failure"
    ${Log} "Undoing everything"
    StrCpy $R9 $failure
    StrCpy $failure ""
    ${If} $registering = 1
        StrCpy $0 "/u"
        StrCpy $1 $INSTDIR
        Call register
        Call forgetModule
    ${EndIf}
    ${If} $placed = 1
        StrCpy $2 $INSTDIR
        StrCpy $3 $incoming
        ${ForEachFile} "$PLUGINSDIR\files.txt" takeBack
    ${EndIf}
    ${If} $incoming != ""
        RMDir /r /REBOOTOK "$incoming"
        DeleteRegValue HKLM "${APPS_KEY}" Incoming
    ${EndIf}
    Call bringBackReplaced
    ${If} $saved != ""
        Call bringBack
        ${If} $registering = 1
            StrCpy $0 ""
            StrCpy $1 $oldFolder
            Call register
            ${Log} "The former version is registered again: $0"
        ${EndIf}
    ${EndIf}
    ${If} $oldFolder == ""
        DeleteRegKey HKLM "${APPS_KEY}"
        Call removeStartMenu
    ${EndIf}
    ${If} $oldFolder != $INSTDIR
        StrCpy $0 $INSTDIR
        Call removeFolders
    ${EndIf}
    StrCpy $failure $R9
    ${Log} "Everything was undone after this: $failure"
    SetErrorLevel $exitCode
    MessageBox MB_OK|MB_ICONSTOP "$failure$\r$\n$\r$\nEverything was undone. The log is $logFile." /SD IDOK
FunctionEnd

; A file that could not be unpacked ends the section without a word to it.
Function .onInstFailed
    Call giveUp
    SetErrorLevel $exitCode
FunctionEnd

!macro StopOnFailure
    ${If} $failure != ""
        Call giveUp
        Abort "$failure"
    ${EndIf}
!macroend
!define StopOnFailure '!insertmacro StopOnFailure'

; What regsvr32 /u leaves of a module that cannot be loaded any more.
!macro ForgetFunctions un
Function ${un}forgetModule
    DeleteRegKey HKCR "CLSID\${VIDEO_CATEGORY}\Instance\${VIDEO_FILTER}"
    DeleteRegKey HKCR "CLSID\${AUDIO_CATEGORY}\Instance\${AUDIO_FILTER}"
    DeleteRegKey /ifempty HKCR "CLSID\${VIDEO_CATEGORY}\Instance"
    DeleteRegKey /ifempty HKCR "CLSID\${AUDIO_CATEGORY}\Instance"
    DeleteRegKey HKCR "CLSID\${VIDEO_FILTER}"
    DeleteRegKey HKCR "CLSID\${AUDIO_FILTER}"
    DeleteRegKey HKCR "CLSID\{8A2C2A69-416A-4DA2-B983-A7EC331515F4}"
    DeleteRegKey HKCR "CLSID\{775AF2A3-0280-40F2-BA54-7EB3AECC5BBD}"
    DeleteRegKey HKCR "CLSID\{09720913-2313-4CB3-A488-956D0260C606}"
    DeleteRegKey HKCR "TypeLib\{A5082433-4576-4FE3-9921-81CDD2F31C71}"
    DeleteRegKey HKCR "Interface\{7ED2B7D9-06D8-4184-B81B-2D4412862AB0}"
    DeleteRegKey HKCR "Interface\{302F2DA6-61DC-4C77-94B2-78BFE9185A80}"
    DeleteRegKey HKCR "Interface\{FB9A258E-9816-4DA8-AC3F-CD8038CCBADF}"
FunctionEnd

Function ${un}removeStartMenu
    SetShellVarContext all
    Delete "$SMPROGRAMS\${PRODUCT}\Documentation.lnk"
    Delete "$SMPROGRAMS\${PRODUCT}\Check the installation.lnk"
    RMDir "$SMPROGRAMS\${PRODUCT}"
FunctionEnd
!macroend
!insertmacro ForgetFunctions ""
!insertmacro ForgetFunctions "un."

; $0: a category, $1: a filter, $2: its name. As applications find it.
Function lookAtFilter
    ReadRegStr $3 HKCR "CLSID\$0\Instance\$1" CLSID
    ${If} $3 != $1
        ${Note} ${EXIT_NOT_WORKING} "The device $2 is not in the system's list of capture devices after registration."
    ${EndIf}
    ReadRegStr $3 HKCR "CLSID\$1\InprocServer32" ""
    ${If} $3 != "$INSTDIR\${MODULE}"
        ${Note} ${EXIT_NOT_WORKING} "The device $2 is registered with the file $3, not with $INSTDIR\${MODULE}."
    ${EndIf}
    ClearErrors
FunctionEnd

Function lookAtInstallation
    StrCpy $2 $INSTDIR
    ${ForEachFile} "$INSTDIR\files.txt" isThere
    StrCpy $0 "${VIDEO_CATEGORY}"
    StrCpy $1 "${VIDEO_FILTER}"
    StrCpy $2 "Kestra Capture Video"
    Call lookAtFilter
    StrCpy $0 "${AUDIO_CATEGORY}"
    StrCpy $1 "${AUDIO_FILTER}"
    StrCpy $2 "Kestra Capture Audio"
    Call lookAtFilter
    System::Call 'kernel32::LoadLibraryW(w "$INSTDIR\${MODULE}") p.r0 ?e'
    Pop $1
    ${If} $0 P= 0
        ${Note} ${EXIT_NOT_WORKING} "$INSTDIR\${MODULE} does not load (error $1)."
    ${Else}
        System::Call 'kernel32::FreeLibrary(p r0)'
    ${EndIf}
!ifdef DOCTOR
    ${If} $failure == ""
        nsExec::ExecToStack '"$INSTDIR\kestra-ctl.exe" doctor --installed'
        Pop $0
        Pop $1
        ; It writes UTF-8, and was read by the code page.
        System::Call 'kernel32::MultiByteToWideChar(i 65001, i 0, m r1, i -1, w .r2, i ${NSIS_MAX_STRLEN})'
        ${Log} "kestra-ctl doctor --installed: $0$\r$\n$2"
        ${If} $0 != 0
            ${Note} ${EXIT_NOT_WORKING} "The check of the installation failed; the log says where."
        ${EndIf}
    ${EndIf}
!endif
FunctionEnd

Section
    SetOutPath "$TEMP"
    InitPluginsDir

    ; A former run that was cut off in the middle of its exchange.
    ReadRegStr $saved HKLM "${APPS_KEY}" Exchanging
    ${If} $saved != ""
        ${If} ${FileExists} "$saved\files.txt"
            ${Log} "Bringing back what an interrupted setup had moved away"
            Call bringBack
        ${EndIf}
        StrCpy $saved ""
    ${EndIf}
    ReadRegStr $replaced HKLM "${APPS_KEY}" Replaced
    Call bringBackReplaced
    ReadRegStr $0 HKLM "${APPS_KEY}" Incoming
    ${If} $0 != ""
        RMDir /r "$0"
    ${EndIf}
    ClearErrors

    ${Log} "Installing into $INSTDIR"
    StrCpy $0 $INSTDIR
    ${DoUntil} ${FileExists} "$0\*.*"
        StrCpy $parents $0
        ${GetParent} "$0" $0
        ${If} $0 == ""
            ${ExitDo}
        ${EndIf}
    ${Loop}
    ${If} $oldFolder == $INSTDIR
        ReadRegStr $parents HKLM "${APPS_KEY}" MadeFolders
    ${EndIf}
    ClearErrors
    CreateDirectory "$INSTDIR"
    ${If} ${Errors}
        ${Note} ${EXIT_NOT_WRITABLE} "The folder $INSTDIR could not be made. Please choose another one, or check your rights."
    ${EndIf}
    ${StopOnFailure}
    StrCpy $0 $INSTDIR
    StrCpy $1 incoming
    Call unusedName
    StrCpy $incoming $0
    WriteRegStr HKLM "${APPS_KEY}" Incoming "$incoming"
    ClearErrors
    CreateDirectory "$incoming"
    ${If} ${Errors}
        ${Note} ${EXIT_NOT_WRITABLE} "The folder $INSTDIR cannot be written to. Please choose another one, or check your rights."
    ${EndIf}
    ${StopOnFailure}
    System::Call 'kernel32::GetDiskFreeSpaceExW(w "$INSTDIR\", *l.r0, p 0, p 0) i.r1'
    System::Int64Op $0 / 1024
    Pop $0
    ${If} $1 <> 0
    ${AndIf} $0 L< ${NEEDED_KB}
        ${Note} ${EXIT_DISK_FULL} "The disk is full: $INSTDIR needs ${NEEDED_KB} KB, and $0 KB are free."
    ${EndIf}
    ${StopOnFailure}
    SetOverwrite on
    AllowSkipFiles off
    !include "${LIST}"
    SetOutPath "$TEMP"
    ClearErrors
    WriteUninstaller "$incoming\Uninstall.exe"
    ${If} ${Errors}
        ${Note} ${EXIT_NOT_WRITABLE} "The file $incoming\Uninstall.exe could not be written."
    ${EndIf}
    ${StopOnFailure}

    ; From here on an exchange is under way.
    StrCpy $0 $oldFolder
    ${If} $0 == ""
        StrCpy $0 $INSTDIR
        StrCpy $oldFolder ""
    ${EndIf}
    StrCpy $1 former
    Call unusedName
    StrCpy $5 $0
    ${If} $oldFolder != ""
        CreateDirectory "$5"
        StrCpy $0 $5
        CopyFiles /SILENT "$oldFolder\files.txt" "$PLUGINSDIR\former.txt"
        ${ForEachFile} "$PLUGINSDIR\former.txt" makeFolder
        WriteRegStr HKLM "${APPS_KEY}" Exchanging "$5"
        StrCpy $saved $5
        StrCpy $2 $oldFolder
        StrCpy $3 $saved
        StrCpy $line files.txt
        Call moveFile
        ${ForEachFile} "$PLUGINSDIR\former.txt" moveFile
        ${StopOnFailure}
    ${EndIf}
    CopyFiles /SILENT "$incoming\files.txt" "$PLUGINSDIR\files.txt"
    ; Somebody else's files of the same names make way, all of them before the first of ours is there.
    StrCpy $0 $INSTDIR
    StrCpy $1 replaced
    Call unusedName
    CreateDirectory "$0"
    ${ForEachFile} "$PLUGINSDIR\files.txt" makeFolder
    CopyFiles /SILENT "$PLUGINSDIR\files.txt" "$0\replaced.txt"
    StrCpy $replaced $0
    WriteRegStr HKLM "${APPS_KEY}" Replaced "$replaced"
    StrCpy $2 $INSTDIR
    StrCpy $3 $replaced
    ${ForEachFile} "$PLUGINSDIR\files.txt" moveFile
    ${StopOnFailure}
    StrCpy $placed 1
    StrCpy $0 $INSTDIR
    ${ForEachFile} "$PLUGINSDIR\files.txt" makeFolder
    StrCpy $2 $incoming
    StrCpy $3 $INSTDIR
    ${ForEachFile} "$PLUGINSDIR\files.txt" placeFile
    ${StopOnFailure}

    ${Log} "Registering $INSTDIR\${MODULE}"
    StrCpy $registering 1
    StrCpy $0 ""
    StrCpy $1 $INSTDIR
    Call register
    ${If} $0 != 0
        ${Note} ${EXIT_NOT_REGISTERED} "$INSTDIR\${MODULE} could not be registered (regsvr32: $0)."
    ${EndIf}
    ${StopOnFailure}
    Call lookAtInstallation
    ${StopOnFailure}

    SetShellVarContext all
    CreateDirectory "$SMPROGRAMS\${PRODUCT}"
    CreateShortcut "$SMPROGRAMS\${PRODUCT}\Documentation.lnk" "$INSTDIR\documentation\index.html"
!ifdef DOCTOR
    CreateShortcut "$SMPROGRAMS\${PRODUCT}\Check the installation.lnk" "$SYSDIR\cmd.exe" '/k ""$INSTDIR\kestra-ctl.exe" doctor"' \
        "$INSTDIR\kestra-ctl.exe"
!endif
    ClearErrors
    WriteRegStr HKLM "${APPS_KEY}" DisplayName "${PRODUCT}"
    WriteRegStr HKLM "${APPS_KEY}" DisplayVersion "${VERSION}"
    WriteRegStr HKLM "${APPS_KEY}" VersionNumbers "${NUMBERS}"
    WriteRegStr HKLM "${APPS_KEY}" Publisher "${PUBLISHER}"
    WriteRegStr HKLM "${APPS_KEY}" DisplayIcon "$INSTDIR\Uninstall.exe"
    WriteRegStr HKLM "${APPS_KEY}" InstallLocation "$INSTDIR"
    WriteRegStr HKLM "${APPS_KEY}" MadeFolders "$parents"
    WriteRegStr HKLM "${APPS_KEY}" UninstallString '"$INSTDIR\Uninstall.exe"'
    WriteRegStr HKLM "${APPS_KEY}" QuietUninstallString '"$INSTDIR\Uninstall.exe" /S'
    WriteRegDWORD HKLM "${APPS_KEY}" EstimatedSize ${NEEDED_KB}
    WriteRegDWORD HKLM "${APPS_KEY}" NoModify 1
    WriteRegDWORD HKLM "${APPS_KEY}" NoRepair 1
    ${If} ${Errors}
        ${Note} ${EXIT_NOT_WRITABLE} "The entry in the list of installed applications could not be written. Please check your rights."
    ${EndIf}
    ${StopOnFailure}

    ; The new version is in place and works; what follows cannot undo that.
    DeleteRegValue HKLM "${APPS_KEY}" Exchanging
    DeleteRegValue HKLM "${APPS_KEY}" Replaced
    DeleteRegValue HKLM "${APPS_KEY}" Incoming
    RMDir /r "$incoming"
    RMDir /r /REBOOTOK "$replaced"
    ${If} $saved != ""
        RMDir /r /REBOOTOK "$saved"
        StrCpy $2 $INSTDIR
        ${ForEachFile} "$PLUGINSDIR\former.txt" removeEmptyFolder
        ${If} $oldFolder != $INSTDIR
            StrCpy $2 $oldFolder
            ${ForEachFile} "$PLUGINSDIR\former.txt" removeFile
            RMDir "$oldFolder"
        ${EndIf}
    ${EndIf}
    ${If} ${RebootFlag}
        ${Log} "Done. Files of the former version that are still in use are removed at the next restart"
        SetErrorLevel ${EXIT_RESTART}
    ${Else}
        ${Log} "Done"
        SetErrorLevel 0
    ${EndIf}
SectionEnd

; $line: removes a folder of $2 if it is empty.
Function removeEmptyFolder
    StrCpy $1 $line "" -1
    ${If} $1 == "\"
        RMDir "$2\$line"
    ${EndIf}
FunctionEnd

; $line: moves it from the folder of new files into place.
Function placeFile
    Call moveFile
    ${If} $line != "files.txt"
    ${AndIf} $1 != "\"
    ${AndIfNot} ${FileExists} "$INSTDIR\$line"
        ${Note} ${EXIT_NOT_WRITABLE} "The file $INSTDIR\$line could not be written."
    ${EndIf}
FunctionEnd

Var alsoSettings ; 1: the user's settings go, too
Var askSettings

Function un.onInit
    Call un.openLog
    ${GetParameters} $0
    ClearErrors
    ${GetOptions} $0 "/SETTINGS" $1
    ${IfNot} ${Errors}
        StrCpy $alsoSettings 1
    ${EndIf}
    ClearErrors
FunctionEnd

Function un.askPage
    !insertmacro MUI_HEADER_TEXT "Remove ${PRODUCT}" "The devices, the program files and the documentation are removed."
    nsDialogs::Create 1018
    Pop $0
    ${NSD_CreateLabel} 0 0 100% 24u "${PRODUCT} ${VERSION} is removed from $INSTDIR. Applications that use it now keep it until they are closed."
    Pop $0
    ${NSD_CreateCheckbox} 0 34u 100% 12u "&Also remove my settings (formats and log)"
    Pop $askSettings
    ${If} $alsoSettings = 1
        ${NSD_Check} $askSettings
    ${EndIf}
    GetDlgItem $0 $HWNDPARENT 1
    SendMessage $0 ${WM_SETTEXT} 0 "STR:&Remove"
    nsDialogs::Show
FunctionEnd
Function un.askPageLeave
    ${NSD_GetState} $askSettings $alsoSettings
FunctionEnd

Section Uninstall
    SetOutPath "$TEMP"
    ${unLog} "Removing ${PRODUCT} ${VERSION} from $INSTDIR"
    InitPluginsDir
    ReadRegStr $parents HKLM "${APPS_KEY}" MadeFolders
    StrCpy $0 "/u"
    StrCpy $1 $INSTDIR
    Call un.register
    ${If} $0 != 0
        ${unLog} "regsvr32 /u: $0; its entries are removed one by one"
    ${EndIf}
    Call un.forgetModule
    Call un.removeStartMenu
    CopyFiles /SILENT "$INSTDIR\files.txt" "$PLUGINSDIR\files.txt"
    StrCpy $2 $INSTDIR
    ${ForEachFile} "$PLUGINSDIR\files.txt" un.removeFile
    DeleteRegKey HKLM "${APPS_KEY}"
    ${If} $alsoSettings = 1
        ${unLog} "Removing the settings"
        DeleteRegKey HKCU "Software\Quorvane\HD-SDI Kestra"
        DeleteRegKey HKCU "Software\Quorvane\TARNIS\SDK\Log"
        DeleteRegKey /ifempty HKCU "Software\Quorvane\TARNIS\SDK"
        DeleteRegKey /ifempty HKCU "Software\Quorvane\TARNIS"
        DeleteRegKey /ifempty HKCU "Software\Quorvane"
    ${EndIf}
    ${If} ${RebootFlag}
        RMDir /REBOOTOK "$INSTDIR"
        ${unLog} "Done. Files that are still in use are removed at the next restart"
        SetErrorLevel ${EXIT_RESTART}
    ${Else}
        StrCpy $0 $INSTDIR
        Call un.removeFolders
        ${unLog} "Done"
        SetErrorLevel 0
    ${EndIf}
SectionEnd
