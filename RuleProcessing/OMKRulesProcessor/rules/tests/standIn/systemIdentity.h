// Stand-in for the machine identity until the system identity helpers land.
#pragma once

#include <windows.h>

constexpr DWORD CT_DESKTOP = 1;
constexpr DWORD CT_LAPTOP = 2;
constexpr int OMK_MODEL_CHARS = 256;

DWORD GetChassisType();
int GetModel(wchar_t* model);

// What the stand-in reports; tests set it.
extern DWORD g_standInChassis;
extern const wchar_t* g_standInModel;  // null: the model cannot be read
