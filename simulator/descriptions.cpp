// The introspection documents are built in and parsed at their first use.

#include "descriptions.hpp"

#include <map>

namespace simulator
{

// Written by embed.py: one introspection document per element, null at the end.
extern const char* const documents[];

const bmcbus::testing::InterfaceDescription& Describe(const std::string& interface)
{
    static const auto all = []
    {
        std::map<std::string, bmcbus::testing::InterfaceDescription> described;
        for (const char* const* document = documents; *document != nullptr; ++document)
        {
            for (auto& found : bmcbus::testing::ParseDescription(*document, "built-in description"))
            {
                described.emplace(found.name, found);
            }
        }
        return described;
    }();
    return all.at(interface);
}

} // namespace simulator
