@echo off
rem Installs or removes the Orlemark rules processor on this machine.
rem
rem   omkInstall install [folder]    copy the product from this script's folder into
rem                                  [folder] (default "%ProgramFiles%\Varn\Orlemark"),
rem                                  create the service, register the COM class and the plugins
rem   omkInstall uninstall [folder]  stop and delete the service, remove the registrations
rem                                  and the installed files
rem
rem Run it as an administrator. Exit code 0 on success. Errors are checked with
rem "if errorlevel" after each step rather than "||", which Wine's cmd mis-handles.
setlocal
set "ACTION=%~1"
set "TARGET=%~2"
if "%TARGET%"=="" set "TARGET=%ProgramFiles%\Varn\Orlemark"
set "SOURCE=%~dp0"
set "SERVICE=OMKRulesProcessor"
set "KEYROOT=HKLM\Software\Varn Inc.\Orlemark"

if /i "%ACTION%"=="install" goto install
if /i "%ACTION%"=="uninstall" goto uninstall
echo usage: omkInstall install^|uninstall [folder]
exit /b 87

:install
echo Installing %SERVICE% into "%TARGET%"
if not exist "%TARGET%" mkdir "%TARGET%"
for %%F in (OMKRulesProcessor.exe omkErrors.dll omkDb.dll omkCollectorRules.dll omkActionLog.dll insvcAlerts.xml omkTolvaneReg.exe) do (
    copy /y "%SOURCE%%%F" "%TARGET%\%%F" >nul
    if errorlevel 1 goto failed
)
sc create %SERVICE% binPath= "%TARGET%\OMKRulesProcessor.exe" type= own start= auto DisplayName= "Orlemark rules processor" >nul
if errorlevel 1 goto failed
sc description %SERVICE% "Decides which Orlemark rules fire for collector events and stores the alerts." >nul 2>nul
rem Collectors reach the class through the service: CoCreateInstance starts it.
"%TARGET%\omkTolvaneReg.exe" /regservice "%TARGET%\OMKRulesProcessor.exe" %SERVICE%
if errorlevel 1 goto failed
reg add "%KEYROOT%\RulePlugin\OMKCollectorRules" /v DllPath /t REG_SZ /d "%TARGET%\omkCollectorRules.dll" /f >nul
if errorlevel 1 goto failed
reg add "%KEYROOT%\ActionPlugin\OMKActionLog" /v DllPath /t REG_SZ /d "%TARGET%\omkActionLog.dll" /f >nul
if errorlevel 1 goto failed
echo Installed. Start it with: net start %SERVICE%
exit /b 0

:uninstall
echo Removing %SERVICE% from "%TARGET%"
net stop %SERVICE% >nul 2>nul
sc delete %SERVICE% >nul 2>nul
if exist "%TARGET%\omkTolvaneReg.exe" "%TARGET%\omkTolvaneReg.exe" /unregister >nul 2>nul
reg delete "%KEYROOT%\RulePlugin\OMKCollectorRules" /f >nul 2>nul
reg delete "%KEYROOT%\ActionPlugin\OMKActionLog" /f >nul 2>nul
for %%F in (OMKRulesProcessor.exe omkErrors.dll omkDb.dll omkCollectorRules.dll omkActionLog.dll insvcAlerts.xml omkTolvaneReg.exe) do (
    if exist "%TARGET%\%%F" del /f /q "%TARGET%\%%F"
)
rmdir "%TARGET%" >nul 2>nul
echo Removed. Alert data in "%ProgramData%\Varn\Orlemark" is kept.
exit /b 0

:failed
echo Installation failed; run "omkInstall uninstall" to clean up.
exit /b 1
