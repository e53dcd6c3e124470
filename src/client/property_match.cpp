#include <property_match.hpp>

constinit bool PropertyMatch_use_async = false;
