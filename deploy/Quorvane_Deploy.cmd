@echo off
rem The deployment kit's one script. It runs Quorvane_Setup.exe of its own
rem folder for the account that runs it, keeps a log, and detects whether
rem every Add-In profile of the account holds a given payload.
rem
rem   Quorvane_Deploy.cmd install [tool options]     (Quorvane_Install.cmd)
rem   Quorvane_Deploy.cmd uninstall [tool options]   (Quorvane_Uninstall.cmd)
rem   Quorvane_Deploy.cmd logon [tool options]       (Quorvane_Logon.cmd)
rem   Quorvane_Deploy.cmd detect <payload identity> [tool options]
rem
rem install and uninstall end with the tool's exit code, except 1618 for its
rem 7 (another run holds the run lock: retry later) and 8 for the kit's own
rem failures. detect: exit 0 with a line of output when installed, exit 0
rem without output when not, the tool's exit code when it cannot tell.
setlocal EnableExtensions DisableDelayedExpansion
set "SELF=%~f0"
set "HERE=%~dp0"
set "TOOL=%~dp0Quorvane_Setup.exe"
set "KITEXE=%~dp0Quorvane_Kit.exe"
set "LOCALKIT=%LOCALAPPDATA%\Quorvane\Kit"
set "LOGDIR=%LOCALAPPDATA%\Quorvane\Logs"
set "LOG=%LOCALAPPDATA%\Quorvane\Logs\Quorvane_Deploy.log"
set "RECORD=HKCU\Software\KELDARO\Quorvane"
set "WORK=%TEMP%\Quorvane_Deploy_%RANDOM%%RANDOM%"
set "VERB=%~1"
set "ID="
set "TOOLCODE=none"
set "RESULT=0"
if /i "%VERB%"=="detect" (set "ID=%~2" & shift)
set "OPTIONS="
:options
shift
if "%~1"=="" goto :dispatch
set OPTIONS=%OPTIONS% "%~1"
goto :options

:dispatch
if /i "%VERB%"=="install" goto :install
if /i "%VERB%"=="uninstall" goto :uninstall
if /i "%VERB%"=="logon" goto :logon
if /i "%VERB%"=="detect" if not "%ID%"=="" goto :detect
echo Usage: Quorvane_Deploy.cmd install^|uninstall^|logon [tool options] ^| detect ^<payload identity^> [tool options] 1>&2
exit /b 2

:install
call :begin install
call :run "%KITEXE%" check "%HERE%."
if not "%CODE%"=="0" (set "RESULT=8" & goto :end)
call :first ID "%WORK%\out.txt"
call :run "%TOOL%" /install %OPTIONS%
call :result
if "%TOOLCODE%"=="0" call :keep
goto :end

:uninstall
call :begin uninstall
call :run "%TOOL%" /uninstall %OPTIONS%
call :result
if not "%TOOLCODE%"=="0" goto :end
reg delete "%RECORD%" /v PayloadId /f >nul 2>&1
rmdir /s /q "%LOCALKIT%" 2>nul
>> "%LOG%" echo Removed the payload record and %LOCALKIT%.
goto :end

:logon
rem Runs the install only when detection finds this package's payload
rem missing somewhere: a run that is not needed would still copy every
rem add-in and keep one more backup of it in every profile.
set "UP="
call :first ID "%HERE%AddIn\Quorvane_Payload.id"
if defined ID for /f "delims=" %%o in ('call "%SELF%" detect %ID% %OPTIONS%') do set "UP=%%o"
if not defined UP goto :install
call :begin logon
>> "%LOG%" echo %UP% Nothing to do.
goto :end

:detect
rem Installed when the record of the install wrapper names this payload, the
rem tool finds at least one installation and every add-in complete, and every
rem add-in holds this payload's stamp.
set "RECORDED="
for /f "tokens=2,*" %%a in ('reg query "%RECORD%" /v PayloadId 2^>nul') do set "RECORDED=%%b"
if not "%RECORDED%"=="%ID%" exit /b 0
mkdir "%WORK%" 2>nul
"%TOOL%" /status %OPTIONS% > "%WORK%\status.txt" 2>&1
set "CODE=%ERRORLEVEL%"
if "%CODE%"=="1" set "CODE=0" & goto :detected
if not "%CODE%"=="0" (type "%WORK%\status.txt" 1>&2 & goto :detected)
rem Every add-in listed must hold this payload's stamp.
"%KITEXE%" stamped %ID% "%WORK%\status.txt" > "%WORK%\stamped.txt" 2>&1
if errorlevel 1 goto :detected
call :first PROFILES "%WORK%\stamped.txt"
echo Quorvane payload %ID% is installed; Add-In profiles: %PROFILES%.
:detected
rmdir /s /q "%WORK%" 2>nul
exit /b %CODE%

:first
rem Sets the variable %1 to the first line of the file %2, or to nothing.
set "%~1="
if exist "%~2" for /f "usebackq delims=" %%s in ("%~2") do if not defined %~1 set "%~1=%%s"
exit /b 0

:begin
mkdir "%LOGDIR%" 2>nul
mkdir "%WORK%" 2>nul
call :clock
set "START=%MS%"
>> "%LOG%" echo %NOW% %1 start: "%TOOL%" for %USERDOMAIN%\%USERNAME%
exit /b 0

:run
rem Runs the command line given, its output to this script's output and to
rem the log; CODE gets its exit code.
%* > "%WORK%\out.txt" 2>&1
set "CODE=%ERRORLEVEL%"
type "%WORK%\out.txt"
type "%WORK%\out.txt" >> "%LOG%"
exit /b 0

:result
set "TOOLCODE=%CODE%"
set "RESULT=%CODE%"
if "%CODE%"=="7" set "RESULT=1618"
exit /b 0

:keep
rem What detection needs once the package is gone, then the record of the
rem payload, last, so that a record always has the pieces beside it.
mkdir "%LOCALKIT%" 2>nul
copy /y "%TOOL%" "%LOCALKIT%\Quorvane_Setup.exe" >nul 2>&1
if errorlevel 1 goto :keep_failed
copy /y "%SELF%" "%LOCALKIT%\Quorvane_Deploy.cmd" >nul 2>&1
if errorlevel 1 goto :keep_failed
copy /y "%KITEXE%" "%LOCALKIT%\Quorvane_Kit.exe" >nul 2>&1
if errorlevel 1 goto :keep_failed
reg add "%RECORD%" /v PayloadId /t REG_SZ /d "%ID%" /f >nul 2>&1
if errorlevel 1 goto :keep_failed
>> "%LOG%" echo Recorded payload %ID% in %RECORD%; detection kept in %LOCALKIT%.
exit /b 0
:keep_failed
set "TEXT=Cannot keep the detection in %LOCALKIT% or record the payload in %RECORD%."
echo %TEXT% 1>&2
>> "%LOG%" echo %TEXT%
set "RESULT=8"
exit /b 0

:clock
set "NOW=%DATE% %TIME%"
set "MS="
for /f "tokens=1-3" %%a in ('call "%KITEXE%" clock 2^>nul') do (set "NOW=%%a %%b" & set "MS=%%c")
exit /b 0

:end
call :clock
set "ELAPSED=unknown"
if defined START if defined MS for /f "delims=" %%e in ('call "%KITEXE%" elapsed %START% %MS%') do set "ELAPSED=%%e"
>> "%LOG%" echo %NOW% %VERB% end: tool exit %TOOLCODE%, exit %RESULT%, elapsed %ELAPSED%
rmdir /s /q "%WORK%" 2>nul
exit /b %RESULT%
