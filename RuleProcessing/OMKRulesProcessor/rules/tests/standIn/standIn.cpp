#include <wchar.h>

#include "cdef.h"
#include "systemIdentity.h"

DWORD g_standInChassis = CT_DESKTOP;
const wchar_t* g_standInModel = L"Wine";

DWORD GetChassisType() {
    return g_standInChassis;
}

int GetModel(wchar_t* model) {
    if (g_standInModel == nullptr) return 0;
    wcsncpy(model, g_standInModel, OMK_MODEL_CHARS);
    return 1;
}

CDef& CDef::GetInstance() {
    static CDef instance{};
    return instance;
}
