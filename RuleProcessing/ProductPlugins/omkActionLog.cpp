// OMKActionLog: the product's action plugin. Each action of a fired rule
// appends one UTF-8 line to "%ProgramData%\Varn\Orlemark\Log\omkActionLog.txt"
// naming the rule, the alert and the action, so support can follow what the
// rules did on a machine.
#define OMK_ACTION_PLUGIN_EXPORTS
#include <windows.h>

#include <stdio.h>
#include <wchar.h>

#include <string>

#include "omkPluginSdk.h"

namespace {

std::wstring g_logPath;

std::wstring DefaultLogPath() {
    wchar_t programData[MAX_PATH];
    DWORD n = GetEnvironmentVariableW(L"ProgramData", programData, MAX_PATH);
    std::wstring folder = (n > 0 && n < MAX_PATH) ? programData : L"C:\\ProgramData";
    folder += L"\\Varn";
    CreateDirectoryW(folder.c_str(), nullptr);
    folder += L"\\Orlemark";
    CreateDirectoryW(folder.c_str(), nullptr);
    folder += L"\\Log";
    CreateDirectoryW(folder.c_str(), nullptr);
    return folder + L"\\omkActionLog.txt";
}

void AppendLine(const std::wstring& line) {
    int bytes = WideCharToMultiByte(CP_UTF8, 0, line.c_str(), static_cast<int>(line.size()), nullptr, 0, nullptr,
                                    nullptr);
    if (bytes <= 0) return;
    std::string utf8(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, line.c_str(), static_cast<int>(line.size()), &utf8[0], bytes, nullptr, nullptr);
    HANDLE file = CreateFileW(g_logPath.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return;
    DWORD written = 0;
    WriteFile(file, utf8.data(), static_cast<DWORD>(utf8.size()), &written, nullptr);
    CloseHandle(file);
}

const wchar_t* OrDash(const wchar_t* text) { return text != nullptr ? text : L"-"; }

}  // namespace

extern "C" {

OMK_PLUGIN_EXPORT unsigned int WINAPI Action_Initialize(const wchar_t* /*configXml*/) {
    g_logPath = DefaultLogPath();
    return 0;
}

OMK_PLUGIN_EXPORT void WINAPI Action_BeginEvaluation(void) {}

OMK_PLUGIN_EXPORT unsigned int WINAPI Action_Execute(RULE* rule, const wchar_t* actionXml) {
    if (rule == nullptr) return ERROR_INVALID_PARAMETER;
    SYSTEMTIME now;
    GetSystemTime(&now);
    wchar_t stamp[32];
    _snwprintf(stamp, 31, L"%04u-%02u-%02uT%02u:%02u:%02uZ", now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute,
               now.wSecond);
    stamp[31] = L'\0';
    std::wstring line = std::wstring(stamp) + L" rule=\"" + OrDash(rule->name) + L"\" ruleGuid=" +
                        OrDash(rule->ruleGuid) + L" alertId=" + rule->alertGuid + L" alertFile=" +
                        rule->alertFileName + L" action=" + OrDash(actionXml) + L"\r\n";
    AppendLine(line);
    return 0;
}

OMK_PLUGIN_EXPORT unsigned int WINAPI Action_EndEvaluation(void) { return 0; }

OMK_PLUGIN_EXPORT void WINAPI Action_CloseDll(void) {}
}
