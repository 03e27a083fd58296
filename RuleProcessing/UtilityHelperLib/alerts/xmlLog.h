// One alert file on disk: created with its XML declaration, root element and
// service tag, or appended to by writing over its closing root tag; checked
// before use and moved aside when it is not XML or has reached 4 MiB.
// Used by the engine thread only, one handle at a time, within one alert.
#pragma once

#include <windows.h>

#include <stdio.h>

// Characters of XMLLOG_HANDLE::filePath.
constexpr int XMLLOG_PATH_CHARS = 261;
// Characters of the header and tag texts of XMLLOG_HANDLE.
constexpr int XMLLOG_TEXT_CHARS = 512;
// A file of this size or more is backed up before it is used.
constexpr LONGLONG XMLLOG_BACKUP_SIZE = 0x400000;

// An open alert file. Allocated zero-filled by xmlLogOpen, freed by
// xmlLogClose; counted in g_allocCount while it lives.
typedef struct XMLLOG_HANDLE {
    FILE* fp;                               // binary stream; the writers put CR LF on disk for "\n"
    wchar_t filePath[XMLLOG_PATH_CHARS];    // "<folder>\<file name>"
    wchar_t header[XMLLOG_TEXT_CHARS];      // the XML declaration line
    wchar_t openingTag[XMLLOG_TEXT_CHARS];  // "<TolvaneAlerts>\n"
    wchar_t closingTag[XMLLOG_TEXT_CHARS];  // "</TolvaneAlerts>\n"
} XMLLOG_HANDLE;

// Opens the alert file `fileName` in `dirName` for one alert: a new (or
// nearly empty) file gets the header, root and service tag; an existing one is
// positioned on its closing root tag, which the next write overwrites.
// `openXmlTag` is ignored (the root is always "TolvaneAlerts"). Null on
// failure, after a report to the error log.
XMLLOG_HANDLE* xmlLogOpen(const wchar_t* dirName, const wchar_t* openXmlTag, const wchar_t* fileName);

// Builds a handle for the file and, when the file exists, checks it: a file
// that does not load as XML or has reached 4 MiB is copied to a time-stamped
// backup and deleted. Null when the arguments are null or the backup failed.
XMLLOG_HANDLE* xmlLogInitHandle(const wchar_t* dirName, const wchar_t* fileName);

// Writes "<ServiceTag>", g_serviceTag in UTF-8, "</ServiceTag>". 1 or 0.
int writeServiceTag(XMLLOG_HANDLE* handle);

// Writes finished text to the stream in UTF-8 as a format with no arguments:
// "%%" comes out as one "%" (no caller escapes "%"); any other conversion,
// having no argument, is written as it stands; "\n" reaches the disk as CR LF.
// The bytes do not depend on the C runtime's locale. Nothing for a null
// stream or text; a failed write is left in the stream's error indicator,
// which the next xmlLogWriteUTF8String and xmlLogClose report.
void xmlLogWriteString(FILE* stream, const wchar_t* format);

// Writes the UTF-8 form of `wideText` (at most 1023 bytes) byte for byte, by
// the rules of xmlLogWriteString. 0 without writing for a null handle or text
// or a text too long to convert; 0 also when this or an earlier write to the
// stream failed (a full disk).
int xmlLogWriteUTF8String(XMLLOG_HANDLE* handle, const wchar_t* wideText);

// Writes "\t</Alert>\n" and the closing root tag, closes the stream and frees
// the handle. When a write since the open or the close itself failed, the file
// is not whole and "xmlLogClose: Error writing closing tag ..." is reported. A
// null handle is ignored.
void xmlLogClose(XMLLOG_HANDLE* handle);
