@echo off
rem Registers the capture driver where this folder lies. For an administrator's command prompt, or "Run as administrator".
setlocal
set "module=%~dp0KestraCapture.dll"
regsvr32 /s "%module%"
if errorlevel 1 goto failed
reg query "HKCR\CLSID\{860BB310-5D01-11D0-BD3B-00A0C911CE86}\Instance\{53F0624A-8497-4A4C-9451-011C49B274FA}" >nul 2>&1
if errorlevel 1 goto failed
reg query "HKCR\CLSID\{33D9A762-90C8-11D0-BD43-00A0C911CE86}\Instance\{47BAFEE0-4F9B-4115-AA9F-8964A23B53E9}" >nul 2>&1
if errorlevel 1 goto failed
echo Kestra Capture Video and Kestra Capture Audio are registered. Leave this folder where it is.
exit /b 0
:failed
regsvr32 /u /s "%module%"
echo %module% could not be registered. Please run this file as administrator.
exit /b 1
