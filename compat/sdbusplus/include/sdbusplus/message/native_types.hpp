#pragma once

/**
 * @file
 * The types that C++ has none for.
 */

#include <string>
#include <utility>

#pragma GCC visibility push(default)

namespace sdbusplus
{
namespace message
{

/** Text that travels as an object path. Its syntax is not checked. */
struct object_path
{
    std::string str;

    object_path() = default;
    object_path(const object_path&) = default;
    object_path(object_path&&) = default;
    object_path& operator=(const object_path&) = default;
    object_path& operator=(object_path&&) = default;
    ~object_path() = default;

    object_path(const std::string& text) : str(text) {}
    object_path(std::string&& text) noexcept : str(std::move(text)) {}

    operator const std::string&() const noexcept { return str; }

    friend bool operator==(const object_path&, const object_path&) = default;
    friend bool operator==(const object_path& l, const std::string& r) { return l.str == r; }
    friend bool operator<(const object_path& l, const object_path& r) { return l.str < r.str; }
    friend bool operator<(const object_path& l, const std::string& r) { return l.str < r; }
    friend bool operator<(const std::string& l, const object_path& r) { return l < r.str; }
};

} // namespace message
} // namespace sdbusplus

#pragma GCC visibility pop
