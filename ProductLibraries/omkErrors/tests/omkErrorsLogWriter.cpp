// Second process for the concurrency test: logWriter <log path> <tag> <count>.
#include <stdlib.h>

#include "omkErrors.h"

int wmain(int argc, wchar_t** argv) {
    if (argc != 4) return 2;
    OMK_SetErrorLogName(argv[1]);
    int count = _wtoi(argv[3]);
    for (int i = 0; i < count; ++i) OMK_ReportError(0, L"line %s %d end", argv[2], i);
    return 0;
}
