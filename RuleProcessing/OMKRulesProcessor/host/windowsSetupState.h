// The Windows image state, for the start-up log only.
#pragma once

#include <windows.h>

// Fills `buffer` (MAX_PATH characters) with the image state from the registry
// or, failing that, from "<Windows>\Setup\State\State.ini". 0, 87 for a null
// buffer, 13 when no state text was found, or another error.
DWORD GetWindowsSetupState(wchar_t* buffer);
