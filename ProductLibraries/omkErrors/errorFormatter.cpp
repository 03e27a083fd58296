#include "errorFormatter.h"

#include <stdio.h>

namespace omk_errors {
namespace {

enum class Length { None, Char, Short, Long, LongLong, Int64, Int32, Size, Wide, LongDouble };

struct Placeholder {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool zero = false;
    bool alternate = false;
    int width = -1;
    int precision = -1;
    Length length = Length::None;
    wchar_t conversion = 0;
};

// Bits of an integer conversion as printf would fetch them from the stack.
int BitsOf(Length length, wchar_t conversion) {
    if (conversion == L'p') return 64;
    switch (length) {
        case Length::Char: return 8;
        case Length::Short: return 16;
        case Length::LongLong:
        case Length::Int64:
        case Length::Size: return 64;
        default: return 32;  // int and long are 32 bits on Windows
    }
}

void Pad(std::wstring& out, size_t count, wchar_t fill) { out.append(count, fill); }

void PutField(std::wstring& out, const Placeholder& ph, const std::wstring& body) {
    size_t width = ph.width > 0 ? static_cast<size_t>(ph.width) : 0;
    if (body.size() >= width) {
        out += body;
    } else if (ph.left) {
        out += body;
        Pad(out, width - body.size(), L' ');
    } else {
        Pad(out, width - body.size(), L' ');
        out += body;
    }
}

void PutInteger(std::wstring& out, const Placeholder& ph, unsigned long long raw, bool rawSigned) {
    const int bits = BitsOf(ph.length, ph.conversion);
    const bool isSigned = (ph.conversion == L'd' || ph.conversion == L'i');
    unsigned long long mask = bits == 64 ? ~0ULL : ((1ULL << bits) - 1);
    unsigned long long bitsValue = raw & mask;
    bool negative = false;
    unsigned long long magnitude = bitsValue;
    if (isSigned) {
        unsigned long long signBit = 1ULL << (bits - 1);
        if (bitsValue & signBit) {
            negative = true;
            magnitude = (~bitsValue + 1) & mask;
        }
    }
    (void)rawSigned;

    unsigned base = 10;
    bool upper = false;
    switch (ph.conversion) {
        case L'x': base = 16; break;
        case L'X': case L'p': base = 16; upper = true; break;
        case L'o': base = 8; break;
        default: break;
    }
    std::wstring digits;
    const wchar_t* table = upper ? L"0123456789ABCDEF" : L"0123456789abcdef";
    for (unsigned long long v = magnitude; v != 0; v /= base) digits.insert(digits.begin(), table[v % base]);
    int minDigits = ph.precision >= 0 ? ph.precision : 1;
    if (ph.conversion == L'p') minDigits = 16;
    if (digits.size() < static_cast<size_t>(minDigits)) digits.insert(0, minDigits - digits.size(), L'0');
    if (ph.precision == 0 && magnitude == 0 && ph.conversion != L'p') digits.clear();

    std::wstring prefix;
    if (isSigned) {
        if (negative) prefix = L"-";
        else if (ph.plus) prefix = L"+";
        else if (ph.space) prefix = L" ";
    }
    if (ph.alternate && magnitude != 0) {
        if (ph.conversion == L'x') prefix += L"0x";
        else if (ph.conversion == L'X') prefix += L"0X";
        else if (ph.conversion == L'o' && digits[0] != L'0') digits.insert(0, 1, L'0');
    }
    size_t width = ph.width > 0 ? static_cast<size_t>(ph.width) : 0;
    if (ph.zero && !ph.left && ph.precision < 0 && prefix.size() + digits.size() < width)
        digits.insert(0, width - prefix.size() - digits.size(), L'0');
    PutField(out, ph, prefix + digits);
}

std::wstring WidenNarrow(const char* text, int precision) {
    int bytes = 0;
    while (text[bytes] != '\0' && (precision < 0 || bytes < precision)) ++bytes;
    if (bytes == 0) return std::wstring();
    UINT codePage = CP_UTF8;
    int chars = MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, text, bytes, nullptr, 0);
    if (chars <= 0) {
        codePage = CP_ACP;
        chars = MultiByteToWideChar(codePage, 0, text, bytes, nullptr, 0);
    }
    if (chars <= 0) return std::wstring();
    std::wstring wide(static_cast<size_t>(chars), L'\0');
    MultiByteToWideChar(codePage, codePage == CP_UTF8 ? MB_ERR_INVALID_CHARS : 0, text, bytes, &wide[0], chars);
    return wide;
}

std::wstring StringOf(const OMK_ERROR_ARG& arg, int precision) {
    std::wstring text;
    if (arg.kind == OMK_ARG_WIDE_STRING) {
        if (arg.value.ws == nullptr) {
            text = L"(null)";
        } else {
            size_t n = 0;
            while (arg.value.ws[n] != L'\0' && (precision < 0 || n < static_cast<size_t>(precision))) ++n;
            return std::wstring(arg.value.ws, n);
        }
    } else if (arg.kind == OMK_ARG_NARROW_STRING) {
        if (arg.value.s == nullptr) text = L"(null)";
        else return WidenNarrow(arg.value.s, precision);
    }
    if (precision >= 0 && text.size() > static_cast<size_t>(precision)) text.resize(precision);
    return text;
}

// A number given where text was expected is shown as the number.
std::wstring NumberAsText(const OMK_ERROR_ARG& arg) {
    wchar_t buffer[64];
    switch (arg.kind) {
        case OMK_ARG_SIGNED: _snwprintf(buffer, 63, L"%I64d", arg.value.i); break;
        case OMK_ARG_UNSIGNED: _snwprintf(buffer, 63, L"%I64u", arg.value.u); break;
        case OMK_ARG_POINTER: _snwprintf(buffer, 63, L"%016I64X", arg.value.u); break;
        case OMK_ARG_FLOATING: _snwprintf(buffer, 63, L"%g", arg.value.d); break;
        default: buffer[0] = L'\0'; break;
    }
    buffer[63] = L'\0';
    return buffer;
}

unsigned long long RawBits(const OMK_ERROR_ARG& arg) {
    if (arg.kind == OMK_ARG_FLOATING) return static_cast<unsigned long long>(static_cast<long long>(arg.value.d));
    return arg.value.u;  // signed values are stored sign-extended
}

void PutFloating(std::wstring& out, const Placeholder& ph, double value) {
    wchar_t flagText[32];
    int n = 0;
    flagText[n++] = L'%';
    if (ph.left) flagText[n++] = L'-';
    if (ph.plus) flagText[n++] = L'+';
    if (ph.space) flagText[n++] = L' ';
    if (ph.zero) flagText[n++] = L'0';
    if (ph.alternate) flagText[n++] = L'#';
    flagText[n] = L'\0';
    wchar_t buffer[512];
    wchar_t full[64];
    int width = ph.width > 200 ? 200 : ph.width;
    int precision = ph.precision > 100 ? 100 : ph.precision;
    if (width >= 0 && precision >= 0) _snwprintf(full, 63, L"%s%d.%d%c", flagText, width, precision, ph.conversion);
    else if (width >= 0) _snwprintf(full, 63, L"%s%d%c", flagText, width, ph.conversion);
    else if (precision >= 0) _snwprintf(full, 63, L"%s.%d%c", flagText, precision, ph.conversion);
    else _snwprintf(full, 63, L"%s%c", flagText, ph.conversion);
    full[63] = L'\0';
    int written = _snwprintf(buffer, 511, full, value);
    buffer[511] = L'\0';
    if (written >= 0) out += buffer;
}

// Parses flags, width, precision and length after '%'. Returns false when the
// text is not a placeholder this formatter knows.
bool ParsePlaceholder(const wchar_t*& p, Placeholder& ph, const OMK_ERROR_ARG* args, int argCount, int& next,
                      bool& missingArgument) {
    for (;; ++p) {
        if (*p == L'-') ph.left = true;
        else if (*p == L'+') ph.plus = true;
        else if (*p == L' ') ph.space = true;
        else if (*p == L'0') ph.zero = true;
        else if (*p == L'#') ph.alternate = true;
        else break;
    }
    auto starValue = [&](int& target) {
        if (next >= argCount) {
            missingArgument = true;
            return;
        }
        const OMK_ERROR_ARG& a = args[next++];
        if (a.kind == OMK_ARG_SIGNED || a.kind == OMK_ARG_UNSIGNED) target = static_cast<int>(a.value.i);
    };
    if (*p == L'*') {
        starValue(ph.width);
        if (ph.width < -1) {
            ph.left = true;
            ph.width = -ph.width;
        }
        ++p;
    } else {
        while (*p >= L'0' && *p <= L'9') {
            ph.width = (ph.width < 0 ? 0 : ph.width) * 10 + (*p - L'0');
            if (ph.width > 100000) ph.width = 100000;
            ++p;
        }
    }
    if (*p == L'.') {
        ++p;
        ph.precision = 0;
        if (*p == L'*') {
            starValue(ph.precision);
            ++p;
        } else {
            while (*p >= L'0' && *p <= L'9') {
                ph.precision = ph.precision * 10 + (*p - L'0');
                if (ph.precision > 100000) ph.precision = 100000;
                ++p;
            }
        }
    }
    if (p[0] == L'I' && p[1] == L'6' && p[2] == L'4') { ph.length = Length::Int64; p += 3; }
    else if (p[0] == L'I' && p[1] == L'3' && p[2] == L'2') { ph.length = Length::Int32; p += 3; }
    else if (p[0] == L'I') { ph.length = Length::Size; p += 1; }
    else if (p[0] == L'h' && p[1] == L'h') { ph.length = Length::Char; p += 2; }
    else if (p[0] == L'h') { ph.length = Length::Short; p += 1; }
    else if (p[0] == L'l' && p[1] == L'l') { ph.length = Length::LongLong; p += 2; }
    else if (p[0] == L'l') { ph.length = Length::Long; p += 1; }
    else if (p[0] == L'z' || p[0] == L'j' || p[0] == L't') { ph.length = Length::Size; p += 1; }
    else if (p[0] == L'w') { ph.length = Length::Wide; p += 1; }
    else if (p[0] == L'L') { ph.length = Length::LongDouble; p += 1; }

    switch (*p) {
        case L'd': case L'i': case L'u': case L'x': case L'X': case L'o': case L'p':
        case L'c': case L'C': case L's': case L'S': case L'Z':
        case L'e': case L'E': case L'f': case L'F': case L'g': case L'G': case L'a': case L'A':
            ph.conversion = *p++;
            return true;
        default:
            return false;
    }
}

}  // namespace

void FormatErrorText(std::wstring& out, const wchar_t* format, const OMK_ERROR_ARG* args, int argCount) {
    if (format == nullptr) {
        out += L"(null format)";
        return;
    }
    if (args == nullptr) argCount = 0;
    int next = 0;
    const wchar_t* p = format;
    while (*p != L'\0') {
        if (*p != L'%') {
            out += *p++;
            continue;
        }
        const wchar_t* start = p++;
        if (*p == L'%') {
            out += L'%';
            ++p;
            continue;
        }
        Placeholder ph;
        bool missing = false;
        int nextBefore = next;
        if (!ParsePlaceholder(p, ph, args, argCount, next, missing)) {
            // Not a conversion we know (or '%' at the end): keep the text as written.
            next = nextBefore;
            out.append(start, p);
            continue;
        }
        if (missing || next >= argCount) {
            out.append(start, p);  // no argument for it: shown unfilled
            continue;
        }
        const OMK_ERROR_ARG& arg = args[next++];
        const bool isText = arg.kind == OMK_ARG_WIDE_STRING || arg.kind == OMK_ARG_NARROW_STRING;
        switch (ph.conversion) {
            case L's': case L'S': case L'Z':
                PutField(out, ph, isText ? StringOf(arg, ph.precision) : NumberAsText(arg));
                break;
            case L'c': case L'C':
                if (isText) {
                    PutField(out, ph, StringOf(arg, 1));
                } else if (ph.length == Length::Short || (ph.conversion == L'C' && ph.length != Length::Long &&
                                                          ph.length != Length::Wide)) {
                    char narrow[2] = {static_cast<char>(arg.value.u & 0xFF), '\0'};
                    PutField(out, ph, narrow[0] ? WidenNarrow(narrow, -1) : std::wstring(1, L'\0'));
                } else {
                    PutField(out, ph, std::wstring(1, static_cast<wchar_t>(arg.value.u & 0xFFFF)));
                }
                break;
            case L'e': case L'E': case L'f': case L'F': case L'g': case L'G': case L'a': case L'A':
                if (isText) PutField(out, ph, StringOf(arg, -1));
                else PutFloating(out, ph, arg.kind == OMK_ARG_FLOATING ? arg.value.d
                                                                         : static_cast<double>(arg.value.i));
                break;
            default:
                if (isText) PutField(out, ph, StringOf(arg, -1));
                else PutInteger(out, ph, RawBits(arg), arg.kind == OMK_ARG_SIGNED);
                break;
        }
    }
}

}  // namespace omk_errors
