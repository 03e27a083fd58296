#include "textFileHelpers.h"

#include <stdlib.h>

#include "conventions.h"
#include "omkErrors.h"

char* ReadMultiByteUtf8File(const wchar_t* path) {
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        OMK_ReportError(0, L"ReadMultiByteUtf8File: Error 0x%x opening file for reading %ws", GetLastError(), path);
        return nullptr;
    }
    DWORD high = 0;
    DWORD size = GetFileSize(file, &high);
    if (size == INVALID_FILE_SIZE) {
        OMK_ReportError(0, L"ReadMultiByteUtf8File: Error 0x%x in GetFileSize %ws", GetLastError(), path);
        CloseHandle(file);
        return nullptr;
    }
    if (high != 0) {
        OMK_ReportError(0, L"ReadMultiByteUtf8File: File %ws too big 0x%x 0x%x", path, high, size);
        CloseHandle(file);
        return nullptr;
    }
    char* block = static_cast<char*>(malloc(static_cast<size_t>(size) + 1));
    if (block == nullptr) {
        OMK_ReportError(0, L"ReadMultiByteUtf8File: Error 0x%x allocating %d bytes of mem for file %ws",
                        GetLastError(), static_cast<int>(size + 1), path);
        CloseHandle(file);
        return nullptr;
    }
    OmkFill(block, static_cast<size_t>(size) + 1);
    ++g_allocCount;

    DWORD read = 0;
    if (!ReadFile(file, block, size, &read, nullptr)) {
        OMK_ReportError(0, L"ReadMultiByteUtf8File: Error 0x%x Reading %d bytes from file %ws", GetLastError(),
                        static_cast<int>(size), path);
        CloseHandle(file);
        free(block);
        --g_allocCount;
        return nullptr;
    }
    if (read != size) {
        OMK_ReportError(0, L"ReadMultiByteUtf8File: File %ws: req 0x%x read 0x%x bytes", path, size, read);
        CloseHandle(file);
        free(block);
        --g_allocCount;
        return nullptr;
    }
    block[size] = '\0';
    CloseHandle(file);
    return block;
}

wchar_t* MultiByteUTF8_To_WideCHAR(const char* text) {
    int needed = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    if (needed == 0) {
        OMK_ReportError(0, L"MultiByteUTF8_To_WideCHAR: failed to get reqLen");
        return nullptr;
    }
    int bytes = needed * static_cast<int>(sizeof(wchar_t));
    wchar_t* wide = static_cast<wchar_t*>(malloc(static_cast<size_t>(bytes)));
    if (wide == nullptr) {
        OMK_ReportError(0, L"MultiByteUTF8_To_WideCHAR: out of %d bytes of mem for WCHAR string", bytes);
        return nullptr;
    }
    OmkFill(wide, static_cast<size_t>(bytes));
    ++g_allocCount;
    if (MultiByteToWideChar(CP_UTF8, 0, text, -1, wide, needed) == 0) {
        OMK_ReportError(0, L"MultiByteUTF8_To_WideCHAR: failed to convert !");
        free(wide);  // not counted down: the balance keeps this block, as it always has
        return nullptr;
    }
    return wide;
}

wchar_t* ReadMultiByteUtf8FileIntoTCHARString(const wchar_t* path) {
    char* bytes = ReadMultiByteUtf8File(path);
    if (bytes == nullptr) {
        OMK_ReportError(0, L"ReadMultiByteUtf8FileIntoTCHARString: ReadMultiByteUtf8File %ws failed", path);
        return nullptr;
    }
    wchar_t* wide = MultiByteUTF8_To_WideCHAR(bytes);
    if (wide == nullptr) {
        OMK_ReportError(0, L"ReadMultiByteUtf8FileIntoTCHARString: File %ws: MultiByteUTF8_To_WideCHAR failed", path);
    }
    free(bytes);
    --g_allocCount;
    return wide;
}

int WcharToUtf8(const wchar_t* text, char* buffer) {
    return WideCharToMultiByte(CP_UTF8, 0, text, -1, buffer, OMK_UTF8_BUFFER_BYTES, nullptr, nullptr) != 0;
}
