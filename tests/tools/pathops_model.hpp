#pragma once

// A second, slow description of the text operations: the words of the rules turned into code one
// after the other. Shares nothing with the product; compared with it over random keys.

#include <cctype>
#include <string>
#include <vector>

namespace model
{

inline bool LetterOrDigit(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x80 && std::isalnum(byte) != 0;
}

inline std::string NormalizeSlashes(std::string s)
{
    for (size_t run = s.find("//"); run != std::string::npos; run = s.find("//"))
    {
        s.erase(run, 1);
    }
    if (s.ends_with('/'))
    {
        s.erase(s.size() - 1);
    }
    return s;
}

inline std::string LowerCase(std::string s)
{
    for (char& c : s)
    {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x80 && std::isupper(byte) != 0)
        {
            c = static_cast<char>(std::tolower(byte));
        }
    }
    return s;
}

inline std::string Underscores(std::string s)
{
    for (char& c : s)
    {
        if (!LetterOrDigit(c))
        {
            c = '_';
        }
    }
    return s;
}

inline std::vector<std::string> Split(const std::string& s, char separator)
{
    std::vector<std::string> pieces(1);
    for (const char c : s)
    {
        if (c == separator)
        {
            pieces.emplace_back();
        }
        else
        {
            pieces.back() += c;
        }
    }
    return pieces;
}

inline std::string StandardKey(const std::string& key)
{
    const std::string lower = LowerCase(key);
    if (lower.find('|') != std::string::npos)
    {
        return StandardKey(Split(lower, '|').back());
    }
    std::string result;
    if (lower.find(':') != std::string::npos)
    {
        for (const std::string& piece : Split(lower, ':'))
        {
            result.insert(0, Underscores(piece) + "/");
        }
        while (result.starts_with('/'))
        {
            result.erase(0, 1);
        }
        return NormalizeSlashes(result);
    }
    if (lower.find('#') != std::string::npos)
    {
        for (const std::string& piece : Split(lower, '#'))
        {
            result += piece.empty() ? "" : "/" + Underscores(piece);
        }
        return NormalizeSlashes(result.empty() ? result : result.substr(1));
    }
    return NormalizeSlashes(Underscores(lower));
}

inline std::string ManagerKey(const std::string& key)
{
    std::string result;
    for (const char* c = key.c_str(); *c != '\0'; ++c)
    {
        result += *c == '#' ? std::string("/") : Underscores(std::string(1, *c));
    }
    return NormalizeSlashes(LowerCase(result));
}

inline std::string InsertKey(const std::string& path, const std::string& key)
{
    std::string fragment = StandardKey(key);
    if (!fragment.starts_with('/'))
    {
        fragment = "/" + fragment;
    }
    for (size_t p = path.size(); p-- > 0;)
    {
        if (path[p] == '/')
        {
            return path.substr(0, p) + fragment + path.substr(p);
        }
    }
    return path + fragment;
}

} // namespace model
