// UTF-8 and UTF-16 texts, and UTC times as text, for the command-line tools
// (whose output and JSON are UTF-8 throughout).
#pragma once

#include <string>

std::string Utf8(const std::wstring& text);
std::wstring Wide(const std::string& utf8);

// A FILETIME number as "YYYY-MM-DDThh:mm:ssZ" (UTC); "" for 0 or a time
// that has no calendar date.
std::string IsoUtcText(unsigned long long fileTime);
