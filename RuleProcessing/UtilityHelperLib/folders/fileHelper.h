// Directory creation shared by the service.
#pragma once

#include <windows.h>

class CFileHelper {
public:
    // Creates `path` and every missing folder above it, each with `securityAttributes`
    // (may be null). Returns 0 when the folder exists afterwards (an existing folder
    // returns 0 at once; a part that appears meanwhile, ERROR_ALREADY_EXISTS, counts
    // as created), ERROR_DIRECTORY when a part exists as a file, otherwise the
    // Windows error of the first part that failed. Any thread.
    static DWORD MakeDirectory(const wchar_t* path, LPSECURITY_ATTRIBUTES securityAttributes);
};
