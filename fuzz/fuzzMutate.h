// The mutations every campaign draws on: a seeded generator, byte-level
// changes, changes that know XML's shape (elements, attributes, numbers,
// nesting), encodings and sizes, and hostile text for strings.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace omkfuzz {

// SplitMix64: the same seed gives the same inputs on every machine.
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t Next();
    // 0 .. n-1 (0 when n is 0).
    size_t Below(size_t n) { return n == 0 ? 0 : static_cast<size_t>(Next() % n); }
    bool OneIn(size_t n) { return Below(n) == 0; }
    // Mostly small, now and then up to `max`: a power of two chosen evenly, then a value below it.
    size_t Size(size_t max);
    template <typename T>
    const T& Pick(const std::vector<T>& from) { return from[Below(from.size())]; }

private:
    uint64_t state_;
};

// The generator of input `index` of a campaign run with `seed`.
Random InputRandom(uint64_t seed, uint64_t index);

// Numbers and texts that break parsers: boundaries, signs, blanks, formats, markup.
const std::vector<std::string>& InterestingNumbers();
const std::vector<std::string>& InterestingTexts();

// One random byte-level change: flip, set, insert, delete, duplicate, splice
// from `other`, truncate.
void MutateBytes(Random& random, std::string& bytes, const std::string& other);

// One random change that keeps to XML's shape where it can: an element
// duplicated, dropped or moved; an attribute or element text replaced by an
// interesting value; a number changed; a known element or attribute inserted;
// markup characters, entities, comments, CDATA or processing instructions put in.
// `names` are element and attribute names worth inserting.
void MutateXml(Random& random, std::string& text, const std::vector<std::string>& names);

// One change of encoding: byte-order marks, UTF-16 either way, invalid UTF-8
// sequences, zero bytes, a different encoding declaration.
void MutateEncoding(Random& random, std::string& text);

// Makes the text large (up to `maxBytes`) or deep: a repeated element, one huge
// text, attribute or comment, or many nested elements around part of it.
void Grow(Random& random, std::string& text, size_t maxBytes);

// `count` stacked changes of the kinds above, drawn with the given weights
// (bytes, xml, encoding; growth is separate).
void Mutate(Random& random, std::string& text, const std::string& other, const std::vector<std::string>& names,
            int count);

// Hostile UTF-16 text: empty, huge, format characters, markup, lone
// surrogates, zero characters inside, non-characters.
std::wstring RandomWideText(Random& random, size_t maxChars);

}  // namespace omkfuzz
