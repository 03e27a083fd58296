#include "utf8Text.h"

#include <windows.h>

#include <stdio.h>

std::string Utf8(const std::wstring& text) {
    if (text.empty()) return std::string();
    int bytes = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string out(bytes > 0 ? static_cast<size_t>(bytes) : 0, '\0');
    if (bytes > 0) {
        WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &out[0], bytes, nullptr, nullptr);
    }
    return out;
}

std::wstring Wide(const std::string& utf8) {
    if (utf8.empty()) return std::wstring();
    int chars = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
    std::wstring out(chars > 0 ? static_cast<size_t>(chars) : 0, L'\0');
    if (chars > 0) MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), &out[0], chars);
    return out;
}

std::string IsoUtcText(unsigned long long fileTime) {
    FILETIME time = {static_cast<DWORD>(fileTime), static_cast<DWORD>(fileTime >> 32)};
    SYSTEMTIME utc;
    if (fileTime == 0 || !FileTimeToSystemTime(&time, &utc)) return std::string();
    char text[32];
    _snprintf(text, sizeof(text), "%04u-%02u-%02uT%02u:%02u:%02uZ", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
              utc.wMinute, utc.wSecond);
    text[sizeof(text) - 1] = '\0';
    return text;
}
