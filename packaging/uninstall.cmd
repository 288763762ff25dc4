@echo off
rem Takes back what install.cmd did; the folder can be deleted afterwards.
setlocal
set "module=%~dp0KestraCapture.dll"
regsvr32 /u /s "%module%"
if errorlevel 1 goto failed
echo Kestra Capture Video and Kestra Capture Audio are no longer registered.
exit /b 0
:failed
echo %module% could not be unregistered. Please run this file as administrator.
exit /b 1
