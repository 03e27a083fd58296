// OMKActionLog: the product's action plugin. Each action of a fired rule
// appends one UTF-8 line (time, the action's Severity, the rule, its alert)
// to the file that its configuration block names in the product's log folder:
//
//   <ActionConfig Type="OMKActionLog">
//     <Log>omkActionLog.txt</Log>   file name only: a path is refused
//     <MaxSize>1048576</MaxSize>    optional: at this size the file becomes
//   </ActionConfig>                 "<name>.bak" and a new one starts
//
// Support reads it to follow what the rules did on a machine.
#define OMK_ACTION_PLUGIN_EXPORTS
#include <windows.h>

#include <stdio.h>
#include <wchar.h>

#include <map>
#include <string>

#include "omkErrors.h"
#include "omkPluginSdk.h"

namespace {

// The error log's own limit, and the range a configuration may choose from.
constexpr unsigned long long kDefaultMaxSize = 1024 * 1024;
constexpr unsigned long long kMinMaxSize = 1024;
constexpr unsigned long long kMaxMaxSize = 1024 * 1024 * 1024;
constexpr unsigned int kBadConfiguration = ERROR_BAD_CONFIGURATION;
constexpr unsigned int kNameChars = 128;

// Why the plugin cannot act, 0 once it is configured.
unsigned int g_configError = ERROR_INVALID_STATE;
std::wstring g_logPath;
unsigned long long g_maxSize = kDefaultMaxSize;
// Severity of each action element seen, so that an element is parsed once.
std::map<std::wstring, std::wstring> g_severities;

unsigned int Refuse(const wchar_t* what, const wchar_t* detail) {
    OMK_ReportError(0, L"omkActionLog!Action_Initialize: %ws %ws", what, detail);
    return kBadConfiguration;
}

bool IsReservedDeviceName(const std::wstring& name) {
    std::wstring stem = name.substr(0, name.find(L'.'));
    for (const wchar_t* device : {L"CON", L"PRN", L"AUX", L"NUL"}) {
        if (_wcsicmp(stem.c_str(), device) == 0) return true;
    }
    return stem.size() == 4 && (_wcsnicmp(stem.c_str(), L"COM", 3) == 0 || _wcsnicmp(stem.c_str(), L"LPT", 3) == 0) &&
           stem[3] >= L'1' && stem[3] <= L'9';
}

// A file name that stays in the log folder: no folder part, no drive, no
// stream, no device, no name of "." or "..".
bool IsPlainFileName(const std::wstring& name) {
    if (name.empty() || name == L"." || name == L"..") return false;
    for (wchar_t c : name) {
        if (c < 32 || wcschr(L"\\/:*?\"<>|", c) != nullptr) return false;
    }
    return !IsReservedDeviceName(name);
}

unsigned int Configure(const wchar_t* configXml) {
    g_logPath.clear();
    g_severities.clear();
    if (configXml == nullptr) return Refuse(L"the rule file has no", L"<ActionConfig Type=\"OMKActionLog\"> block");
    wchar_t name[kNameChars];
    switch (OmkSdk_ReadConfigText(configXml, L"Log", nullptr, name, kNameChars)) {
        case 0: break;
        case ERROR_NOT_FOUND: return Refuse(L"<ActionConfig> has no <Log> file name:", configXml);
        case ERROR_INSUFFICIENT_BUFFER: return Refuse(L"<Log> is longer than 127 characters:", configXml);
        default: return Refuse(L"<ActionConfig> is not well-formed XML:", configXml);
    }
    wchar_t folder[MAX_PATH];
    unsigned int result = OmkSdk_GetFolder(OMK_FOLDER_LOG, folder, MAX_PATH);
    if (result != 0) {
        OMK_ReportError(0, L"omkActionLog!Action_Initialize: the product's log folder is not known (error %u)", result);
        return result;
    }
    if (!IsPlainFileName(name)) {
        OMK_ReportError(0, L"omkActionLog!Action_Initialize: <Log> \"%ws\" is refused: give a file name for the log "
                           L"folder %ws, without a path",
                        name, folder);
        return kBadConfiguration;
    }
    wchar_t sizeText[64];
    unsigned long long maxSize = kDefaultMaxSize;
    result = OmkSdk_ReadConfigNumber(configXml, L"MaxSize", nullptr, kMaxMaxSize, &maxSize);
    if (result == ERROR_NOT_FOUND) {
        maxSize = kDefaultMaxSize;
    } else if (result != 0 || maxSize < kMinMaxSize) {
        OmkSdk_ReadConfigText(configXml, L"MaxSize", nullptr, sizeText, ARRAYSIZE(sizeText));
        OMK_ReportError(0, L"omkActionLog!Action_Initialize: <MaxSize> \"%ws\" is not a number of bytes from %I64u to "
                           L"%I64u",
                        sizeText, kMinMaxSize, kMaxMaxSize);
        return kBadConfiguration;
    }
    std::wstring path = std::wstring(folder) + L"\\" + name;
    // Room for the backup's name as well.
    if (path.size() + 4 >= MAX_PATH) return Refuse(L"<Log> makes too long a path:", path.c_str());
    g_logPath = path;
    g_maxSize = maxSize;
    return 0;
}

const std::wstring& SeverityOf(const wchar_t* actionXml) {
    std::wstring key = actionXml != nullptr ? actionXml : L"";
    auto found = g_severities.find(key);
    if (found != g_severities.end()) return found->second;
    wchar_t severity[64];
    if (OmkSdk_ReadConfigText(actionXml, nullptr, L"Severity", severity, ARRAYSIZE(severity)) != 0 ||
        severity[0] == L'\0') {
        wcscpy(severity, L"-");
    }
    return g_severities.emplace(key, severity).first->second;
}

HANDLE OpenForAppend(const std::wstring& path) {
    return CreateFileW(path.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                       FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Appends the bytes, first moving a file that reached the limit to its backup,
// as the error log does. 0 or the Windows error.
DWORD Append(const std::string& bytes) {
    HANDLE file = OpenForAppend(g_logPath);
    if (file == INVALID_HANDLE_VALUE) return GetLastError();
    LARGE_INTEGER size = {};
    if (GetFileSizeEx(file, &size) && static_cast<unsigned long long>(size.QuadPart) >= g_maxSize) {
        CloseHandle(file);
        const std::wstring backup = g_logPath + L".bak";
        // A failed move keeps the line in the current file: nothing is lost.
        if (!MoveFileExW(g_logPath.c_str(), backup.c_str(), MOVEFILE_REPLACE_EXISTING)) {
            OMK_ReportError(0, L"omkActionLog!Action_Execute: MoveFileExW(%ws) err=%lu", backup.c_str(), GetLastError());
        }
        file = OpenForAppend(g_logPath);
        if (file == INVALID_HANDLE_VALUE) return GetLastError();
    }
    DWORD written = 0;
    DWORD error = 0;
    if (!WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr)) error = GetLastError();
    else if (written != bytes.size()) error = ERROR_WRITE_FAULT;
    CloseHandle(file);
    return error;
}

std::string ToUtf8(const std::wstring& text) {
    int bytes = WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                    nullptr);
    if (bytes <= 0) return std::string();
    std::string utf8(static_cast<size_t>(bytes), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.c_str(), static_cast<int>(text.size()), &utf8[0], bytes, nullptr, nullptr);
    return utf8;
}

const wchar_t* OrDash(const wchar_t* text) { return text != nullptr ? text : L"-"; }

unsigned int Execute(const RULE* rule, const wchar_t* actionXml) {
    if (g_configError != 0) return g_configError;
    if (rule == nullptr) return ERROR_INVALID_PARAMETER;
    SYSTEMTIME now;
    GetSystemTime(&now);
    wchar_t stamp[32];
    _snwprintf(stamp, 31, L"%04u-%02u-%02uT%02u:%02u:%02uZ", now.wYear, now.wMonth, now.wDay, now.wHour, now.wMinute,
               now.wSecond);
    stamp[31] = L'\0';
    std::wstring line = std::wstring(stamp) + L" " + SeverityOf(actionXml) + L" rule=\"" + OrDash(rule->name) +
                        L"\" ruleGuid=" + OrDash(rule->ruleGuid) + L" alertId=" + rule->alertGuid + L" alertFile=" +
                        rule->alertFileName + L"\r\n";
    DWORD error = Append(ToUtf8(line));
    if (error != 0) {
        OMK_ReportError(0, L"omkActionLog!Action_Execute: cannot append to %ws err=%lu", g_logPath.c_str(), error);
    }
    return error;
}

}  // namespace

extern "C" {

// A wrong configuration is reported here and disables this plugin's actions,
// each of which then fails with the reason; the service still starts, so that
// every other rule, plugin and alert goes on working.
unsigned int WINAPI Action_Initialize(const wchar_t* configXml) {
    return OmkSdk_Guard("omkActionLog!Action_Initialize", [&] {
        g_configError = Configure(configXml);
        return 0u;
    });
}

void WINAPI Action_BeginEvaluation(void) {}

unsigned int WINAPI Action_Execute(RULE* rule, const wchar_t* actionXml) {
    return OmkSdk_Guard("omkActionLog!Action_Execute", [&] { return Execute(rule, actionXml); });
}

unsigned int WINAPI Action_EndEvaluation(void) { return 0; }

void WINAPI Action_CloseDll(void) {
    OmkSdk_Guard("omkActionLog!Action_CloseDll", [] {
        g_severities.clear();
        return 0u;
    });
}
}
