#include "fuzzMutate.h"

#include <algorithm>

namespace omkfuzz {

uint64_t Random::Next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

size_t Random::Size(size_t max) {
    int bits = 0;
    while (bits < 62 && (static_cast<size_t>(1) << (bits + 1)) <= max) ++bits;
    size_t limit = static_cast<size_t>(1) << Below(static_cast<size_t>(bits) + 1);
    return std::min(max, Below(limit + 1));
}

Random InputRandom(uint64_t seed, uint64_t index) {
    Random mix(seed * 0x100000001B3ull ^ (index + 1) * 0xC2B2AE3D27D4EB4Full);
    return Random(mix.Next());
}

const std::vector<std::string>& InterestingNumbers() {
    static const std::vector<std::string> numbers = {
        "0",          "1",           "-1",          "2",          "30",        "127",         "128",
        "255",        "256",         "32767",       "32768",      "65535",     "65536",       "2147483647",
        "2147483648", "-2147483648", "-2147483649", "4294967295", "4294967296", "99999999999999999999",
        " 7",         "\t 12abc",    "+5",          "--3",        "0x10",      "1e9",         "1.5",
        "",           "\xD9\xA3",           "00000000000000000000000000000001"};
    return numbers;
}

const std::vector<std::string>& InterestingTexts() {
    static const std::vector<std::string> texts = {
        "",          "1",          "0",          "yes",        "true",       "All",        "Laptops",
        "Desktops",  "laptops",    "Series:",    "Series: X",  "Model:",     "Model:?Wine", "Model: ",
        "%s%n%ls%n", "%999999d",   "&amp;",      "&lt;&gt;",   "&#0;",       "&#xD800;",   "&#x10FFFF;",
        "&bogus;",   "<",          "]]>",        "\"'",        "\xEF\xBF\xBF", "\xF0\x9F\x98\x80",
        "OMKCollectorRules", "omkcollectorrules", "OMKActionLog", "EventRules", "Notify", "Collect",
        "{6B1D2C3A-8E4F-4A51-9C7D-0E2F3A4B5C61}", "{6b1d2c3a-8e4f-4a51-9c7d-0e2f3a4b5c61}",
        "C:\\Windows\\x.txt", "..\\..\\x", "CON", "omkActionLog.txt", std::string(300, 'A')};
    return texts;
}

namespace {

// Positions of every `<` that starts an element (not a closing tag, comment or declaration).
std::vector<size_t> ElementStarts(const std::string& text) {
    std::vector<size_t> starts;
    for (size_t at = text.find('<'); at != std::string::npos; at = text.find('<', at + 1)) {
        if (at + 1 < text.size() && text[at + 1] != '/' && text[at + 1] != '!' && text[at + 1] != '?') {
            starts.push_back(at);
        }
    }
    return starts;
}

bool IsNameChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == ':' ||
           c == '-' || c == '.';
}

// The end (one past) of the element starting at `start`: its matching close
// tag by name, or its `/>`, or npos when not found.
size_t ElementEnd(const std::string& text, size_t start) {
    size_t nameEnd = start + 1;
    while (nameEnd < text.size() && IsNameChar(text[nameEnd])) ++nameEnd;
    const std::string name = text.substr(start + 1, nameEnd - start - 1);
    size_t tagEnd = text.find('>', nameEnd);
    if (tagEnd == std::string::npos || name.empty()) return std::string::npos;
    if (text[tagEnd - 1] == '/') return tagEnd + 1;
    int depth = 1;
    for (size_t at = text.find(name, tagEnd); at != std::string::npos; at = text.find(name, at + name.size())) {
        if (at + name.size() >= text.size() || IsNameChar(text[at + name.size()])) continue;
        if (at >= 2 && text[at - 2] == '<' && text[at - 1] == '/') {
            if (--depth == 0) {
                size_t close = text.find('>', at);
                return close == std::string::npos ? std::string::npos : close + 1;
            }
        } else if (at >= 1 && text[at - 1] == '<') {
            size_t open = text.find('>', at);
            if (open != std::string::npos && text[open - 1] != '/') ++depth;
        }
    }
    return std::string::npos;
}

// Spans of attribute values ("..." after `=`) and of element texts (between `>` and `<`).
std::vector<std::pair<size_t, size_t>> ValueSpans(const std::string& text, bool attributes) {
    std::vector<std::pair<size_t, size_t>> spans;
    if (attributes) {
        for (size_t at = text.find("=\""); at != std::string::npos; at = text.find("=\"", at + 2)) {
            size_t end = text.find('"', at + 2);
            if (end == std::string::npos) break;
            spans.emplace_back(at + 2, end);
        }
    } else {
        for (size_t at = text.find('>'); at != std::string::npos; at = text.find('>', at + 1)) {
            size_t end = text.find('<', at + 1);
            if (end == std::string::npos) break;
            if (end > at + 1 || (at + 1 < text.size() && text[at + 1] == '<')) spans.emplace_back(at + 1, end);
        }
    }
    return spans;
}

std::string RandomBytes(Random& random, size_t count) {
    std::string bytes(count, '\0');
    for (char& c : bytes) c = static_cast<char>(random.Next());
    return bytes;
}

}  // namespace

void MutateBytes(Random& random, std::string& bytes, const std::string& other) {
    const size_t size = bytes.size();
    switch (random.Below(7)) {
        case 0:
            if (size > 0) bytes[random.Below(size)] ^= static_cast<char>(1 << random.Below(8));
            break;
        case 1:
            if (size > 0) bytes[random.Below(size)] = static_cast<char>(random.Next());
            break;
        case 2:
            bytes.insert(random.Below(size + 1), RandomBytes(random, 1 + random.Size(64)));
            break;
        case 3:
            if (size > 0) {
                size_t at = random.Below(size);
                bytes.erase(at, 1 + random.Size(size - at - 1));
            }
            break;
        case 4:
            if (size > 0) {
                size_t at = random.Below(size);
                std::string chunk = bytes.substr(at, 1 + random.Size(std::min<size_t>(size - at - 1, 4096)));
                bytes.insert(random.Below(size + 1), chunk);
            }
            break;
        case 5:
            if (!other.empty()) {
                size_t from = random.Below(other.size());
                std::string chunk = other.substr(from, 1 + random.Size(other.size() - from - 1));
                size_t at = random.Below(size + 1);
                bytes.replace(at, random.Size(size - at), chunk);
            }
            break;
        default:
            bytes.resize(random.Below(size + 1));
            break;
    }
}

void MutateXml(Random& random, std::string& text, const std::vector<std::string>& names) {
    std::vector<size_t> starts = ElementStarts(text);
    // Values and numbers more often than the rest: they keep the text well-formed.
    static const int kKinds[] = {0, 1, 2, 3, 3, 4, 4, 5, 5, 6, 7, 8};
    switch (kKinds[random.Below(12)]) {
        case 0:  // duplicate an element next to itself
        case 1: {  // drop one
            if (starts.empty()) break;
            size_t start = random.Pick(starts);
            size_t end = ElementEnd(text, start);
            if (end == std::string::npos) break;
            if (random.OneIn(2)) {
                text.insert(end, text.substr(start, end - start));
            } else {
                text.erase(start, end - start);
            }
            break;
        }
        case 2: {  // move an element into another place
            if (starts.size() < 2) break;
            size_t start = random.Pick(starts);
            size_t end = ElementEnd(text, start);
            if (end == std::string::npos) break;
            std::string element = text.substr(start, end - start);
            text.erase(start, end - start);
            std::vector<size_t> places = ElementStarts(text);
            text.insert(places.empty() ? 0 : random.Pick(places), element);
            break;
        }
        case 3:  // an attribute value
        case 4: {  // an element text
            auto spans = ValueSpans(text, random.OneIn(2));
            if (spans.empty()) break;
            auto span = random.Pick(spans);
            const std::string& value =
                random.OneIn(2) ? random.Pick(InterestingNumbers()) : random.Pick(InterestingTexts());
            text.replace(span.first, span.second - span.first, value);
            break;
        }
        case 5: {  // a digit run
            std::vector<std::pair<size_t, size_t>> runs;
            for (size_t i = 0; i < text.size();) {
                if (text[i] >= '0' && text[i] <= '9') {
                    size_t j = i;
                    while (j < text.size() && text[j] >= '0' && text[j] <= '9') ++j;
                    runs.emplace_back(i, j);
                    i = j;
                } else {
                    ++i;
                }
            }
            if (runs.empty()) break;
            auto run = random.Pick(runs);
            text.replace(run.first, run.second - run.first, random.Pick(InterestingNumbers()));
            break;
        }
        case 6: {  // a known element or attribute where a tag is
            if (names.empty()) break;
            const std::string& name = random.Pick(names);
            const std::string& value = random.Pick(InterestingTexts());
            std::string piece = random.OneIn(2) ? "<" + name + ">" + value + "</" + name + ">"
                                                : " " + name + "=\"" + value + "\"";
            size_t at = starts.empty() ? 0 : random.Pick(starts);
            if (piece[0] == ' ') {
                size_t nameEnd = at + 1;
                while (nameEnd < text.size() && IsNameChar(text[nameEnd])) ++nameEnd;
                text.insert(nameEnd, piece);
            } else {
                text.insert(at, piece);
            }
            break;
        }
        case 7: {  // markup in a random place
            static const std::vector<std::string> pieces = {
                "<", ">", "&", "\"", "'", "<!-- x -->", "<![CDATA[<x/>]]>", "<?pi x?>", "<!DOCTYPE x>",
                "<!DOCTYPE Tolvane [<!ENTITY e \"eeeeeeeeee\">]>", "&e;", "xmlns:x=\"urn:x\"", "x:",
                "</Rule>", "<Rule>", "/>", "=", "&#9;", "\r\n", "\t"};
            text.insert(random.Below(text.size() + 1), random.Pick(pieces));
            break;
        }
        default: {  // swap the names of two elements' start tags
            if (starts.size() < 2) break;
            size_t a = random.Pick(starts), b = random.Pick(starts);
            if (a > b) std::swap(a, b);
            size_t aEnd = a + 1, bEnd = b + 1;
            while (aEnd < text.size() && IsNameChar(text[aEnd])) ++aEnd;
            while (bEnd < text.size() && IsNameChar(text[bEnd])) ++bEnd;
            if (a == b || aEnd > b) break;
            std::string aName = text.substr(a + 1, aEnd - a - 1), bName = text.substr(b + 1, bEnd - b - 1);
            text.replace(b + 1, bName.size(), aName);
            text.replace(a + 1, aName.size(), bName);
            break;
        }
    }
}

void MutateEncoding(Random& random, std::string& text) {
    static const std::vector<std::string> invalid = {
        "\xC0\x80", "\xC1\xBF", "\xE0\x80\x80", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80",
        "\xFF", "\xFE", "\x80", "\xBF\xBF", "\xC3", "\xE2\x82", "\xEF\xBB\xBF", std::string(1, '\0'), "\x01\x1F"};
    switch (random.Below(6)) {
        case 0:
            text.insert(0, "\xEF\xBB\xBF");
            break;
        case 1:
        case 2: {  // UTF-16, little- or big-endian, with or without its mark (bytes widened as they are)
            const bool big = random.OneIn(2);
            std::string wide;
            if (random.OneIn(2)) wide = big ? "\xFE\xFF" : "\xFF\xFE";
            for (char c : text) {
                wide += big ? '\0' : c;
                wide += big ? c : '\0';
            }
            text.swap(wide);
            break;
        }
        case 3:
            for (size_t n = 1 + random.Below(4); n > 0; --n) text.insert(random.Below(text.size() + 1), random.Pick(invalid));
            break;
        case 4: {
            static const std::vector<std::string> encodings = {"UTF-16", "utf-16le", "ISO-8859-1", "windows-1252",
                                                               "UCS-4", "bogus", "", "UTF-8\" standalone=\"yes"};
            size_t at = text.find("encoding=\"");
            std::string declaration = "<?xml version=\"1.0\" encoding=\"" + random.Pick(encodings) + "\"?>";
            if (at != std::string::npos) {
                size_t end = text.find('"', at + 10);
                if (end != std::string::npos) text.replace(at + 10, end - at - 10, random.Pick(encodings));
            } else {
                text.insert(0, declaration);
            }
            break;
        }
        default: {  // a whole non-ASCII text somewhere
            static const std::vector<std::string> texts = {"\xC3\xA9\xC3\xA8", "\xE6\x97\xA5\xE6\x9C\xAC",
                                                           "\xF0\x9F\x98\x80", "\xEF\xBF\xBE", "\xE2\x80\xAE"};
            text.insert(random.Below(text.size() + 1), random.Pick(texts));
            break;
        }
    }
}

void Grow(Random& random, std::string& text, size_t maxBytes) {
    const size_t target = std::min(maxBytes, static_cast<size_t>(1 + random.Size(maxBytes)));
    std::vector<size_t> starts = ElementStarts(text);
    switch (random.Below(4)) {
        case 0: {  // one element repeated
            if (starts.empty()) break;
            size_t start = random.Pick(starts);
            size_t end = ElementEnd(text, start);
            if (end == std::string::npos || end == start) break;
            std::string element = text.substr(start, end - start);
            std::string copies;
            while (copies.size() + text.size() < target) copies += element;
            text.insert(end, copies);
            break;
        }
        case 1: {  // one huge text or attribute value
            auto spans = ValueSpans(text, random.OneIn(2));
            if (spans.empty()) break;
            auto span = random.Pick(spans);
            text.insert(span.first, std::string(target, static_cast<char>('a' + random.Below(26))));
            break;
        }
        case 2:  // one huge comment
            text.insert(starts.empty() ? 0 : random.Pick(starts), "<!--" + std::string(target, '-' + 1) + "-->");
            break;
        default: {  // nesting: around an element, or inside one
            const size_t depth = 1 + random.Size(std::min<size_t>(target / 7, 200000));
            std::string open, close;
            for (size_t i = 0; i < depth; ++i) {
                open += "<n>";
                close += "</n>";
            }
            size_t at = starts.empty() ? 0 : random.Pick(starts);
            size_t end = ElementEnd(text, at);
            if (end == std::string::npos || random.OneIn(2)) {
                text.insert(at, open + close);
            } else {
                text.insert(end, close);
                text.insert(at, open);
            }
            break;
        }
    }
}

void Mutate(Random& random, std::string& text, const std::string& other, const std::vector<std::string>& names,
            int count) {
    for (int i = 0; i < count; ++i) {
        size_t kind = random.Below(10);
        if (kind < 2) {
            MutateBytes(random, text, other);
        } else if (kind < 9) {
            MutateXml(random, text, names);
        } else {
            MutateEncoding(random, text);
        }
    }
}

std::wstring RandomWideText(Random& random, size_t maxChars) {
    static const std::vector<std::wstring> pieces = {
        L"%s",      L"%n",      L"%ls",     L"%hs",      L"%S",       L"%999999d", L"<",       L">",
        L"&",       L"\"",      L"'",       L"]]>",      L"<!--",     L"\\",       L"/",       L"..",
        L"\r\n",    L"\t",      L"\x7F",    L"\xFFFE",   L"\xFFFF",   L"\xFEFF",   L"\xD800",  L"\xDC00",
        L"\xDBFF\xDFFF", L"\x202E", L"\x00E9", L"\x65E5\x672C", L"{6B1D2C3A-8E4F-4A51-9C7D-0E2F3A4B5C61}",
        L"OMKCollectorRules", L"Battery", L"CycleCount", L"4242", std::wstring(1, L'\0'), L" ", L""};
    std::wstring text;
    const size_t target = random.Size(maxChars);
    while (text.size() < target) {
        if (random.OneIn(3)) {
            text += random.Pick(pieces);
        } else {
            size_t run = 1 + random.Size(std::min<size_t>(target - text.size(), 4096));
            text.append(run, static_cast<wchar_t>(random.OneIn(4) ? 1 + random.Below(0xFFFE) : L'a' + random.Below(26)));
        }
    }
    if (text.size() > maxChars) text.resize(maxChars);
    return text;
}

}  // namespace omkfuzz
