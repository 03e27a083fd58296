// Reading the rule definition file from the install folder.
#include <stdlib.h>

#include "cdef.h"
#include "conventions.h"
#include "omkErrors.h"
#include "ruleParser.h"
#include "strHelper.h"
#include "textFileHelpers.h"

namespace {

const wchar_t kRuleFileName[] = L"insvcAlerts.xml";
// The path buffer: a full path and its terminator.
constexpr size_t kRuleFilePathChars = 261;

}  // namespace

#ifdef OMK_REPLAY_SEAMS
const wchar_t* g_replayRuleFile = nullptr;
#endif

DWORD Tolvane_LoadRuleDefinitions() {
    wchar_t path[kRuleFilePathChars];
    OmkFill(path, sizeof(path));
    // A path that does not fit leaves the buffer empty, and the read below reports it.
    CStrHelper::StrPrintf(path, kRuleFilePathChars, L"%ls\\%ls", CDef::GetInstance().FOLDER_OMK_INSTALL_LOCATION,
                          kRuleFileName);
#ifdef OMK_REPLAY_SEAMS
    if (g_replayRuleFile != nullptr) CStrHelper::StrCopy(path, kRuleFilePathChars, g_replayRuleFile);
#endif
    wchar_t* text = ReadMultiByteUtf8FileIntoTCHARString(path);
    if (text == nullptr) {
        OMK_ReportError(0, L"Tolvane_LoadRuleDefinitions: Failed to read file %ws", path);
        return RULES_READ_FAILED;
    }
    DWORD status = ParseRuleDefinitions(text);
    // The parser keeps its own copy.
    free(text);
    --g_allocCount;
    if (status != RULES_OK) {
        OMK_ReportError(0, L"Tolvane_LoadRuleDefinitions: ParseRuleDefinitions failed");
        return RULES_PARSE_FAILED;
    }
    DumpRules();
    return RULES_OK;
}
