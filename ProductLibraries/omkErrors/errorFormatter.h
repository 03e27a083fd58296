// The error log's own printf-like formatter: fills placeholders from typed
// arguments, so that no argument list can make it read what was not passed.
#pragma once

#include <string>

#include "omkErrors.h"

namespace omk_errors {

// Appends the formatted text to `out`. A placeholder without an argument, or
// one it does not understand, is copied as it stands.
void FormatErrorText(std::wstring& out, const wchar_t* format, const OMK_ERROR_ARG* args, int argCount);

}  // namespace omk_errors
