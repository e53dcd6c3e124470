// The switch that lets cached proxies be made without waiting.

#include <property_match.hpp>

constinit bool PropertyMatch_use_async = false;
