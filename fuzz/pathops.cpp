// The text operations against their model, on any pair of texts.

#include "pathops_model.hpp"

#include <pathops.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace
{

void Expect(const std::string& got, const std::string& wanted)
{
    if (got != wanted)
    {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t cut = size == 0 ? 0 : data[0] % size;
    const std::string path = input.substr(0, cut);
    const std::string key = input.substr(cut);
    Expect(DBU_normalize_slashes(key), model::NormalizeSlashes(key));
    Expect(DBU_make_lower_case(key), model::LowerCase(key));
    Expect(DBU_replace_with_underscore(key), model::Underscores(key));
    Expect(DBU_std_key_to_dbus_path_fragment(key), model::StandardKey(key));
    const char* const text = key.c_str(); // ends at the first zero
    Expect(DBU_std_key_to_dbus_path_fragment(text), model::StandardKey(text));
    Expect(DBU_std_key_to_dbus_path_fragment_cfgmgr(key), model::ManagerKey(key));
    Expect(DBU_insert_key(path, key), model::InsertKey(path, key));
    return 0;
}
