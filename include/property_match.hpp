#pragma once

/**
 * @file
 * A switch for users of cached proxies.
 */

#include <bmcbus/export.h>

/**
 * For programs that choose between blocking and asynchronous creation in one place: set it, and
 * pass it as `use_async`. False at load. The library itself neither reads nor writes it, and it is
 * a plain variable: set it before other threads read it.
 *
 * @code
 * auto* fans = FanReporting::Create(path, PropertyMatch_use_async);
 * @endcode
 */
extern BMCBUS_EXPORT bool PropertyMatch_use_async;
