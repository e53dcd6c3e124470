#pragma once

// Values for tests: any type, different for every index.

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace sample
{

// A round of values. Booleans can only differ between two members over several rounds.
inline constexpr unsigned int rounds = 8;

template <class T>
struct Maker;

// The value number `index` of type T, in `round`. Never the value-initialised one, except for
// booleans.
template <class T>
T Make(unsigned int index, unsigned int round = 0)
{
    return Maker<T>::Make(index, round);
}

template <class T>
struct Maker
{
    static_assert(std::is_arithmetic_v<T>);

    static T Make(unsigned int index, unsigned int round)
    {
        if constexpr (std::is_same_v<T, bool>)
        {
            return ((index >> round) & 1U) != 0;
        }
        else if constexpr (sizeof(T) == 1)
        {
            return static_cast<T>(1 + (index + 97 * round) % 255);
        }
        else if constexpr (std::is_floating_point_v<T>)
        {
            return static_cast<T>(index + 1000 * round) + 0.25;
        }
        else
        {
            // The upper byte is taken, too, and signed types are negative every other time.
            const T value = static_cast<T>((T{1} << (8 * sizeof(T) - 3)) + static_cast<T>(index) +
                                           static_cast<T>(1000 * round));
            return std::is_signed_v<T> && index % 2 == 1 ? static_cast<T>(-value) : value;
        }
    }
};

template <>
struct Maker<std::string>
{
    static std::string Make(unsigned int index, unsigned int round)
    {
        return "text " + std::to_string(round) + "/" + std::to_string(index) + " \u00e9";
    }
};

template <class T>
struct Maker<std::vector<T>>
{
    static std::vector<T> Make(unsigned int index, unsigned int round)
    {
        return {sample::Make<T>(index, round), sample::Make<T>(index + 1, round),
                sample::Make<T>(index + 101, round)};
    }
};

template <class K, class V>
struct Maker<std::map<K, V>>
{
    static std::map<K, V> Make(unsigned int index, unsigned int round)
    {
        return {{sample::Make<K>(index, round), sample::Make<V>(index, round)},
                {sample::Make<K>(index + 1, round), sample::Make<V>(index + 7, round)}};
    }
};

template <class... T>
struct Maker<std::tuple<T...>>
{
    static std::tuple<T...> Make(unsigned int index, unsigned int round)
    {
        return Fields(index, round, std::index_sequence_for<T...>());
    }

  private:
    template <size_t... I>
    static std::tuple<T...> Fields([[maybe_unused]] unsigned int index,
                                   [[maybe_unused]] unsigned int round, std::index_sequence<I...>)
    {
        return {sample::Make<T>(index + static_cast<unsigned int>(I), round)...};
    }
};

} // namespace sample
