#include "xmlLog.h"

#include <objbase.h>
#include <msxml2.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <string>

#include "conventions.h"
#include "omkErrors.h"
#include "strHelper.h"
#include "textFileHelpers.h"
#include "xmlAccess.h"

namespace {

const wchar_t kRootTag[] = L"TolvaneAlerts";

const wchar_t* OrNull(const wchar_t* text) {
    return text != nullptr ? text : L"null";
}

// Size of the file opened without sharing; 0 when it cannot be opened or sized.
LARGE_INTEGER FileSizeOf(const wchar_t* path) {
    LARGE_INTEGER size;
    size.QuadPart = 0;
    HANDLE file =
        CreateFileW(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return size;
    if (!GetFileSizeEx(file, &size)) size.QuadPart = 0;
    CloseHandle(file);
    return size;
}

// Writes UTF-8 text as the file's bytes: each "\n" as CR LF, and "%%" as one
// "%" (the text passes the formatter's rules with no arguments; any other
// conversion, having no argument, is written as it stands). A failed write
// leaves the stream's error indicator set for the caller to find.
void WriteBytes(FILE* stream, const char* text) {
    std::string bytes;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '\n') bytes += '\r';
        bytes += *p;
        if (p[0] == '%' && p[1] == '%') ++p;
    }
    fwrite(bytes.data(), 1, bytes.size(), stream);
}

void FreeHandle(XMLLOG_HANDLE* handle) {
    if (handle->fp != nullptr) {
        fclose(handle->fp);
        handle->fp = nullptr;
    }
    --g_allocCount;
    free(handle);
}

// True when the file loads as XML, or cannot be read at all (then it is
// assumed good and left to the size check).
bool validateXmlFile(const wchar_t* path) {
    wchar_t* text = ReadMultiByteUtf8FileIntoTCHARString(path);
    if (text == nullptr) {
        OMK_ReportError(0, L"validateXmlFile: could not read file %ws - assuming good", path);
        return true;
    }
    IXMLDOMDocument* doc = LoadXML(text);
    if (doc == nullptr) {
        OMK_ReportError(0, L"validateXmlFile: XML from file %ws could not be loaded", path);
        free(text);
        --g_allocCount;
        return false;
    }
    doc->Release();
    CoUninitialize();
    free(text);
    --g_allocCount;
    return true;
}

// Copies the file to "<path up to its last dot>_MMDDYYYYhhmmss.xml" (local
// time) and deletes it, so the log starts again as a new file. A failed copy
// leaves the file alone.
bool xmlLogTakeBackup(const wchar_t* path) {
    wchar_t base[MAX_PATH];
    OmkFill(base, sizeof(base));
    CStrHelper::StrCopy(base, MAX_PATH, path);
    wchar_t* dot = wcsrchr(base, L'.');
    wchar_t backup[MAX_PATH];
    OmkFill(backup, sizeof(backup));
    HRESULT hr = E_INVALIDARG;
    if (dot != nullptr) {
        *dot = L'\0';
        SYSTEMTIME now;
        GetLocalTime(&now);
        hr = CStrHelper::StrPrintf(backup, MAX_PATH, L"%s_%02d%02d%04d%02d%02d%02d.xml", base, now.wMonth, now.wDay,
                                   now.wYear, now.wHour, now.wMinute, now.wSecond);
    }
    if (FAILED(hr)) {
        // No extension to cut, or no room for the stamp: there is no name to back up to.
        OMK_ReportError(0, L"xmlLogTakeBackup: Error 0x%x moving file %ws to %ws",
                        static_cast<unsigned>(ERROR_BAD_PATHNAME), path, L"null");
        return false;
    }
    if (!CopyFileW(path, backup, FALSE)) {
        OMK_ReportError(0, L"xmlLogTakeBackup: Error 0x%x moving file %ws to %ws", GetLastError(), path, backup);
        return false;
    }
    if (!DeleteFileW(path)) {
        OMK_ReportError(0, L"xmlLogTakeBackup: Error 0x%x deleting file %ws", GetLastError(), path);
        return false;
    }
    return true;
}

}  // namespace

XMLLOG_HANDLE* xmlLogInitHandle(const wchar_t* dirName, const wchar_t* fileName) {
    if (dirName == nullptr || fileName == nullptr) {
        OMK_ReportError(0, L"xmlLogInitHandle: one or more args are null - dirName %ws fileName %ws openXmlTag %ws",
                        OrNull(dirName), OrNull(fileName), kRootTag);
        return nullptr;
    }
    XMLLOG_HANDLE* handle = static_cast<XMLLOG_HANDLE*>(calloc(1, sizeof(XMLLOG_HANDLE)));
    if (handle == nullptr) {
        OMK_ReportError(
            0, L"xmlLoxmlLogInitHandlegOpen: one or more args are null - dirName %ws fileName %ws openXmlTag %ws",
            dirName, fileName, kRootTag);
        return nullptr;
    }
    ++g_allocCount;
    CStrHelper::StrPrintf(handle->filePath, XMLLOG_PATH_CHARS, L"%s\\%s", dirName, fileName);
    CStrHelper::StrCopy(handle->header, XMLLOG_TEXT_CHARS, L"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n");
    CStrHelper::StrPrintf(handle->openingTag, XMLLOG_TEXT_CHARS, L"<%s>\n", kRootTag);
    CStrHelper::StrPrintf(handle->closingTag, XMLLOG_TEXT_CHARS, L"</%s>\n", kRootTag);

    HANDLE existing = CreateFileW(handle->filePath, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
    if (existing == INVALID_HANDLE_VALUE) return handle;  // a new file: nothing to check
    CloseHandle(existing);

    if (!validateXmlFile(handle->filePath)) {
        OMK_ReportError(0, L"xmlLogInitHandle, File %ws is possibly corrupt -taking backup", handle->filePath);
    } else {
        LARGE_INTEGER size = FileSizeOf(handle->filePath);
        if (size.QuadPart < XMLLOG_BACKUP_SIZE) return handle;
        OMK_ReportError(0, L"xmlLogInitHandle: File %ws size %I64d has reached/exceeded limit - taking backup",
                        handle->filePath, size.QuadPart);
    }
    if (!xmlLogTakeBackup(handle->filePath)) {
        FreeHandle(handle);
        return nullptr;
    }
    return handle;
}

XMLLOG_HANDLE* xmlLogOpen(const wchar_t* dirName, const wchar_t* openXmlTag, const wchar_t* fileName) {
    (void)openXmlTag;  // the root element is always the same
    XMLLOG_HANDLE* handle = xmlLogInitHandle(dirName, fileName);
    if (handle == nullptr) {
        OMK_ReportError(0, L"xmlLogOpen: xmlLogInitHandle failed - dirName %ws fileName %ws openXmlTag %ws",
                        OrNull(dirName), OrNull(fileName), kRootTag);
        return nullptr;
    }
    LARGE_INTEGER size = FileSizeOf(handle->filePath);
    if (size.HighPart != 0) OmkAssertLine(364, "xmlLog.cpp");
    DWORD bytes = size.LowPart;
    // Characters against bytes, deliberately coarse: a completed file is far
    // larger, and an empty or truncated stub is started again from scratch.
    DWORD threshold =
        static_cast<DWORD>(wcslen(handle->header) + wcslen(handle->openingTag) + wcslen(handle->closingTag));
    const wchar_t* mode = bytes > threshold ? L"r+" : L"w+";

    // Binary: the writers put CR LF on disk for "\n" themselves, byte for
    // byte, whatever locale the C runtime has been set to.
    errno_t error = _wfopen_s(&handle->fp, handle->filePath, mode[0] == L'r' ? L"r+b" : L"w+b");
    if (handle->fp == nullptr || error != 0) {
        FreeHandle(handle);
        return nullptr;
    }

    if (mode[0] == L'r') {
        // Back over "</TolvaneAlerts>" and the CR LF written after it (the
        // tag's "\n" and the CR before it): the next alert overwrites the
        // closing tag.
        DWORD position = bytes - static_cast<DWORD>(wcslen(handle->closingTag)) - 1;
        if (fseek(handle->fp, static_cast<long>(position), SEEK_SET) != 0) {
            FreeHandle(handle);
            return nullptr;
        }
        return handle;
    }

    if (handle->header[0] == L'\0') {
        OMK_ReportError(0, L"xmlLogOpen: Error writing header to File %ws %ws", handle->filePath, handle->header);
    } else {
        xmlLogWriteString(handle->fp, handle->header);
    }
    if (handle->openingTag[0] == L'\0') {
        OMK_ReportError(0, L"xmlLogOpen: Error writing opening tag to File %ws %ws", handle->filePath,
                        handle->openingTag);
    } else {
        xmlLogWriteString(handle->fp, handle->openingTag);
    }
    if (!writeServiceTag(handle)) {
        OMK_ReportError(0, L"xmlLogOpen: Error writing serviceTag %ws to File %ws", g_serviceTag, handle->filePath);
        FreeHandle(handle);
        return nullptr;
    }
    return handle;
}

int writeServiceTag(XMLLOG_HANDLE* handle) {
    wchar_t tag[4096];
    OmkFill(tag, sizeof(tag));
    CStrHelper::StrPrintf(tag, 4096, L"<%ws>", L"ServiceTag");
    if (handle == nullptr) {
        OMK_ReportError(0, L"writeServiceTag: Error writing %ws to file", tag);
        return 0;
    }
    xmlLogWriteString(handle->fp, tag);
    if (!xmlLogWriteUTF8String(handle, g_serviceTag)) {
        OMK_ReportError(0, L"writeServiceTag: xmlLogWriteUTF8String %ws failed", g_serviceTag);
        return 0;
    }
    CStrHelper::StrPrintf(tag, 4096, L"</%ws>", L"ServiceTag");
    xmlLogWriteString(handle->fp, tag);
    return ferror(handle->fp) ? 0 : 1;
}

void xmlLogWriteString(FILE* stream, const wchar_t* format) {
    if (stream == nullptr || format == nullptr) return;
    int n = WideCharToMultiByte(CP_UTF8, 0, format, -1, nullptr, 0, nullptr, nullptr);
    if (n <= 0) return;
    std::string utf8(static_cast<size_t>(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, format, -1, &utf8[0], n, nullptr, nullptr);
    WriteBytes(stream, utf8.c_str());
}

int xmlLogWriteUTF8String(XMLLOG_HANDLE* handle, const wchar_t* wideText) {
    if (handle == nullptr || wideText == nullptr || handle->fp == nullptr) return 0;
    char utf8[OMK_UTF8_BUFFER_BYTES];
    if (!WcharToUtf8(wideText, utf8)) {
        OMK_ReportError(0, L"%hs(): failed for %ls", "WcharToUtf8", wideText);
        return 0;
    }
    WriteBytes(handle->fp, utf8);
    // A failed write here or in the markup before it: the element is not whole.
    return ferror(handle->fp) ? 0 : 1;
}

void xmlLogClose(XMLLOG_HANDLE* handle) {
    if (handle == nullptr) return;
    wchar_t alertEnd[32];
    OmkFill(alertEnd, sizeof(alertEnd));
    CStrHelper::StrPrintf(alertEnd, 32, L"\t</%ws>\n", L"Alert");
    xmlLogWriteString(handle->fp, alertEnd);
    xmlLogWriteString(handle->fp, handle->closingTag);
    // Whatever failed since the open (a full disk) leaves the file without
    // its end: said here, and the store that reads it back will refuse it.
    bool written = handle->fp != nullptr && !ferror(handle->fp);
    if (handle->fp != nullptr && fclose(handle->fp) != 0) written = false;
    handle->fp = nullptr;
    if (!written) {
        OMK_ReportError(0, L"xmlLogClose: Error writing closing tag %ws to File %ws", handle->closingTag,
                        handle->filePath);
    }
    FreeHandle(handle);
}
