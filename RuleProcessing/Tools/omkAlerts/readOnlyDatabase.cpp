#include "readOnlyDatabase.h"

#include "storedAlert.h"

namespace omkalerts {

ReadOnlyDatabase::ReadOnlyDatabase() {
    InitSqliteLib();
}

ReadOnlyDatabase::~ReadOnlyDatabase() {
    if (opened_) AlertDb_CloseReadOnly();
    FreeSqliteLib();
}

std::wstring ReadOnlyDatabase::Resolve(const std::wstring& path) {
    if (!path.empty()) return path;
    wchar_t own[MAX_PATH * 2];
    return AlertDb_GetPath(own, MAX_PATH * 2) != 0 ? std::wstring(own) : std::wstring();
}

bool ReadOnlyDatabase::Open(const std::wstring& path, std::string* problem) {
    const std::wstring file = Resolve(path);
    const DWORD attributes = file.empty() ? INVALID_FILE_ATTRIBUTES : GetFileAttributesW(file.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        *problem = file.empty() ? "this machine has no product data folder, so no alert database"
                                : "there is no alert database at " + Utf8(file);
        return false;
    }
    opened_ = AlertDb_OpenReadOnly(file.c_str()) != 0;
    if (!opened_ || !AlertDb_GetSummary(&summary_)) {
        *problem = "cannot read the alert database: " + LastDatabaseError();
        return false;
    }
    return true;
}

std::string LastDatabaseError() {
    wchar_t text[1024];
    AlertDb_GetLastErrorText(text, 1024);
    std::string message = Utf8(text);
    // "AlertDb_OpenReadOnly: opening ... failed": the function's name means nothing to the reader.
    const size_t colon = message.find(": ");
    if (colon != std::string::npos && message.compare(0, 8, "AlertDb_") == 0) message.erase(0, colon + 2);
    return message;
}

}  // namespace omkalerts
