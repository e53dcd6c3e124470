#pragma once

// The fuzzer's bytes as D-Bus values: any type, any content, right more often than not.

#include <bmcbus/testing/value.hpp>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace fuzz
{

namespace kit = bmcbus::testing;

// A name and the type that belongs to it.
struct Word
{
    std::string name;
    std::string type;
};

class Input
{
  public:
    // `words` are the names that matter to what is tested; they outlive this object.
    Input(const uint8_t* data, size_t size, const std::vector<Word>& words);

    bool Left() { return bytes.remaining_bytes() > 0; }

    // 0 to limit - 1.
    size_t Below(size_t limit);

    // True once in so many times; false when the bytes have run out.
    bool OnceIn(size_t times);

    // Valid UTF-8, mostly short.
    std::string Text();

    // One of the words, something close to one, or any text.
    std::string Name();

    // A complete type.
    std::string Type(size_t depth = 0);

    // A value of that type.
    kit::Value Of(const std::string& type, size_t depth = 0);

    // Names with values, a{sv}: some names known, some twice, some values of a wrong type.
    kit::Value PropertyMap();

    // These arguments; sometimes one is missing, too many or of another type.
    std::vector<kit::Value> Bent(std::vector<kit::Value> arguments);

  private:
    std::vector<kit::Value> Elements(const std::string& type, size_t depth);
    kit::Value Array(const std::string& element, size_t depth);
    std::string PathText();

    FuzzedDataProvider bytes;
    const std::vector<Word>& words;
};

} // namespace fuzz
