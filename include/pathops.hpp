#pragma once

/**
 * @file
 * Turns structured keys into parts of D-Bus object paths.
 *
 * An object path allows only ASCII letters, digits, underscores and slashes. All functions return a
 * new string, take time proportional to the length of their arguments, depend on no locale, do not
 * fail on any text (`std::bad_alloc` apart), never block, and may be called from any thread.
 *
 * A letter or digit is always an ASCII one: bytes from 0x80 up never are.
 */

#include <bmcbus/export.h>

#include <stdexcept>
#include <string>

/**
 * Collapses every run of slashes to one and removes a trailing one.
 *
 * `/a//b/` gives `/a/b`; `/` and `//` give the empty text.
 */
BMCBUS_EXPORT std::string DBU_normalize_slashes(const std::string& s);

/** Turns the upper-case letters `A` to `Z` into lower-case ones. */
BMCBUS_EXPORT std::string DBU_make_lower_case(const std::string& s);

/** Replaces every byte that is not a letter or digit, slashes included, by an underscore. */
BMCBUS_EXPORT std::string DBU_replace_with_underscore(const std::string& s);

/**
 * The standard form of a key, in lower case, with underscores for what a path cannot hold.
 *
 * Of a key with pipes only the text after the last one counts. Then colons separate components that
 * are put in reverse order; without any colon, hashes separate components that stay in order. Empty
 * components are left out. Zero bytes are ordinary bytes.
 *
 * @code
 * DBU_std_key_to_dbus_path_fragment("Board|Fan:3");  // "3/fan"
 * DBU_std_key_to_dbus_path_fragment("a#b c");        // "a/b_c"
 * @endcode
 */
BMCBUS_EXPORT std::string DBU_std_key_to_dbus_path_fragment(const std::string& key);

/** As above for zero-terminated text; throws `std::logic_error` for a null pointer. */
BMCBUS_EXPORT std::string DBU_std_key_to_dbus_path_fragment(const char* key);

/**
 * The form of a configuration manager's key: lower case, hashes become slashes, everything else
 * that is not a letter or digit an underscore; slashes are normalized.
 *
 * `Foo#Bar.Baz` gives `foo/bar_baz`, and `#A##B#` gives `/a/b`. The key ends at its first zero
 * byte.
 */
BMCBUS_EXPORT std::string DBU_std_key_to_dbus_path_fragment_cfgmgr(const std::string& key);

/** As above; @p key must not be null. */
BMCBUS_EXPORT std::string DBU_std_key_to_dbus_path_fragment_cfgmgr_char(const char* key);

/**
 * Inserts the standard form of @p key in front of the last component of @p path.
 *
 * A path without a slash gets it appended; for an empty path it is the result. The empty key
 * inserts a lone slash.
 *
 * @code
 * DBU_insert_key("/xyz/sensors/speed", "Fan#One"); // "/xyz/sensors/fan/one/speed"
 * @endcode
 */
BMCBUS_EXPORT std::string DBU_insert_key(const std::string& path, const std::string& key);

/** As above for zero-terminated text; throws `std::logic_error` for a null pointer. */
BMCBUS_EXPORT std::string DBU_insert_key(const char* path, const char* key);

/** As above for a zero-terminated path; throws `std::logic_error` for a null pointer. */
BMCBUS_EXPORT std::string DBU_insert_key(const char* path, const std::string& key);
