#include <wchar.h>

#include "systemIdentity.h"

namespace {
DWORD g_rawChassis = 3;
const wchar_t* g_model = L"Wine";
}  // namespace

int GetChassisType() {
    switch (g_rawChassis) {
        case 8:
        case 9:
        case 10:
        case 11:
        case 12:
        case 14:
        case 31:
        case 32:
        case 33:
            return CT_LAPTOP;
        default:
            return CT_DESKTOP;
    }
}

int GetModel(wchar_t* model) {
    if (g_model == nullptr) return 0;
    wcsncpy(model, g_model, OMK_MODEL_CHARS - 1);
    model[OMK_MODEL_CHARS - 1] = L'\0';
    return 1;
}

void SetModelForTest(const wchar_t* model) {
    g_model = model;
}
void SetChassisTypeForTest(DWORD rawChassisType) {
    g_rawChassis = rawChassisType;
}
void ClearMachineIdentityForTest() {}
