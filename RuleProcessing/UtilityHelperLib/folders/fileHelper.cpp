#include "fileHelper.h"

#include <new>
#include <string>

namespace {

bool IsDirectory(const wchar_t* path) {
    DWORD attributes = GetFileAttributesW(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Length of the leading part that is never created: "\\server\share" or "\\?\C:".
size_t UncRootLength(const std::wstring& path) {
    if (path.compare(0, 2, L"\\\\") != 0) return 0;
    size_t at = 1;
    for (int separators = 0; separators < 2 && at != std::wstring::npos; ++separators) at = path.find(L'\\', at + 1);
    return at == std::wstring::npos ? path.size() : at;
}

}  // namespace

DWORD CFileHelper::MakeDirectory(const wchar_t* path, LPSECURITY_ATTRIBUTES securityAttributes) {
    if (path == nullptr || path[0] == L'\0') return ERROR_INVALID_PARAMETER;
    if (IsDirectory(path)) return ERROR_SUCCESS;

    try {
        std::wstring whole(path);
        while (whole.size() > 1 && whole.back() == L'\\') whole.pop_back();
        // Walk from the root down; folders that already exist are passed over, as
        // CreateDirectoryW refuses a drive root or a share with an access error.
        const size_t rootLength = UncRootLength(whole);
        for (size_t at = rootLength + 1; at <= whole.size(); ++at) {
            if (at < whole.size() && whole[at] != L'\\') continue;
            std::wstring part = whole.substr(0, at);
            if (part.back() == L':' || part.back() == L'\\' || IsDirectory(part.c_str())) continue;
            if (!CreateDirectoryW(part.c_str(), securityAttributes)) {
                DWORD error = GetLastError();
                // A part that appeared meanwhile counts only if it is a folder:
                // a file of that name makes the path unusable.
                if (error == ERROR_ALREADY_EXISTS && !IsDirectory(part.c_str())) return ERROR_DIRECTORY;
                if (error != ERROR_ALREADY_EXISTS) return error;
            }
        }
    } catch (const std::bad_alloc&) {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    return ERROR_SUCCESS;
}
