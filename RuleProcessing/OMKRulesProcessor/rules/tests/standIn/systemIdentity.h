// Stand-in for the machine identity helpers until they land: the same
// declarations, answering only from the test seam.
#pragma once

#include <windows.h>

#include <stddef.h>

constexpr int CT_UNKNOWN = 0;
constexpr int CT_DESKTOP = 1;
constexpr int CT_LAPTOP = 2;
constexpr size_t OMK_MODEL_CHARS = 256;

int GetModel(wchar_t* model);
int GetChassisType();
void SetModelForTest(const wchar_t* model);
void SetChassisTypeForTest(DWORD rawChassisType);
void ClearMachineIdentityForTest();
