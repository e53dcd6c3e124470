// Text operations over bytes, in ASCII whatever the locale, each in one pass.

#include <pathops.hpp>

#include <algorithm>
#include <stdexcept>
#include <string_view>

namespace
{

constexpr bool IsUpper(char c)
{
    return c >= 'A' && c <= 'Z';
}

constexpr bool IsLetterOrDigit(char c)
{
    return IsUpper(c) || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

constexpr char Lower(char c)
{
    return IsUpper(c) ? static_cast<char>(c - 'A' + 'a') : c;
}

constexpr char OrUnderscore(char c)
{
    return IsLetterOrDigit(c) ? c : '_';
}

// The standard library's own exception for a null pointer, which not every one of them throws.
std::string Text(const char* text)
{
    if (text == nullptr)
    {
        throw std::logic_error("basic_string: construction from null is not valid");
    }
    return text;
}

void AppendComponent(std::string& path, std::string_view component)
{
    if (component.empty())
    {
        return;
    }
    if (!path.empty())
    {
        path += '/';
    }
    for (const char c : component)
    {
        path += OrUnderscore(Lower(c));
    }
}

std::string Forwards(std::string_view key, char separator)
{
    std::string path;
    path.reserve(key.size());
    size_t start = 0;
    for (size_t end = key.find(separator); end != key.npos; end = key.find(separator, start))
    {
        AppendComponent(path, key.substr(start, end - start));
        start = end + 1;
    }
    AppendComponent(path, key.substr(start));
    return path;
}

std::string Backwards(std::string_view key, char separator)
{
    std::string path;
    path.reserve(key.size());
    for (size_t at = key.rfind(separator); at != key.npos; at = key.rfind(separator))
    {
        AppendComponent(path, key.substr(at + 1));
        key = key.substr(0, at);
    }
    AppendComponent(path, key);
    return path;
}

} // namespace

std::string DBU_normalize_slashes(const std::string& s)
{
    std::string result;
    result.reserve(s.size());
    for (const char c : s)
    {
        if (c != '/' || result.empty() || result.back() != '/')
        {
            result += c;
        }
    }
    if (!result.empty() && result.back() == '/')
    {
        result.pop_back();
    }
    return result;
}

std::string DBU_make_lower_case(const std::string& s)
{
    std::string result = s;
    std::transform(result.begin(), result.end(), result.begin(), Lower);
    return result;
}

std::string DBU_replace_with_underscore(const std::string& s)
{
    std::string result = s;
    std::transform(result.begin(), result.end(), result.begin(), OrUnderscore);
    return result;
}

std::string DBU_std_key_to_dbus_path_fragment(const std::string& key)
{
    std::string_view rest = key;
    rest.remove_prefix(rest.rfind('|') + 1); // npos + 1 is 0
    return rest.find(':') != rest.npos ? Backwards(rest, ':') : Forwards(rest, '#');
}

std::string DBU_std_key_to_dbus_path_fragment(const char* key)
{
    return DBU_std_key_to_dbus_path_fragment(Text(key));
}

std::string DBU_std_key_to_dbus_path_fragment_cfgmgr(const std::string& key)
{
    return DBU_std_key_to_dbus_path_fragment_cfgmgr_char(key.c_str());
}

std::string DBU_std_key_to_dbus_path_fragment_cfgmgr_char(const char* key)
{
    std::string path = key;
    for (char& c : path)
    {
        c = c == '#' ? '/' : OrUnderscore(Lower(c));
    }
    return DBU_normalize_slashes(path);
}

std::string DBU_insert_key(const std::string& path, const std::string& key)
{
    const std::string fragment = '/' + DBU_std_key_to_dbus_path_fragment(key);
    const size_t slash = path.rfind('/');
    return std::string(path).insert(slash == path.npos ? path.size() : slash, fragment);
}

std::string DBU_insert_key(const char* path, const char* key)
{
    return DBU_insert_key(Text(path), Text(key));
}

std::string DBU_insert_key(const char* path, const std::string& key)
{
    return DBU_insert_key(Text(path), key);
}
