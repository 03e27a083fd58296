// Whole-file reads and UTF-8 <-> UTF-16 conversion. Files are UTF-8 without a
// byte-order mark; in memory text is UTF-16. Every block returned is counted in
// g_allocCount and freed by the caller with free(), counting down.
#pragma once

#include <windows.h>

// Size of the output buffer WcharToUtf8 writes into.
constexpr int OMK_UTF8_BUFFER_BYTES = 1024;

// The file's bytes followed by one zero byte (file size + 1 bytes), or null.
// The file may be open elsewhere for reading and writing.
char* ReadMultiByteUtf8File(const wchar_t* path);

// Heap wide copy of zero-terminated UTF-8 text, or null. A BOM is kept as U+FEFF.
wchar_t* MultiByteUTF8_To_WideCHAR(const char* text);

// The whole file as heap wide text, or null.
wchar_t* ReadMultiByteUtf8FileIntoTCHARString(const wchar_t* path);

// Writes the UTF-8 form of `text` with its terminator into `buffer`
// (OMK_UTF8_BUFFER_BYTES bytes). Returns nonzero on success, 0 when the text
// does not fit or cannot be converted.
int WcharToUtf8(const wchar_t* text, char* buffer);
