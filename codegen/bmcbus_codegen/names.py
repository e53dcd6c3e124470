"""Which names D-Bus allows and which C++ leaves free."""

import errno
import re
import signal

_LONGEST = 255
_ELEMENT = re.compile(r"[A-Za-z_][A-Za-z0-9_]*\Z", re.ASCII)

KEYWORDS = frozenset(
    """
    alignas alignof and and_eq asm auto bitand bitor bool break case catch char char8_t char16_t
    char32_t class compl concept const consteval constexpr constinit const_cast continue co_await
    co_return co_yield decltype default delete do double dynamic_cast else enum explicit export
    extern false float for friend goto if inline int long mutable namespace new noexcept not not_eq
    nullptr operator or or_eq private protected public register reinterpret_cast requires return
    short signed sizeof static static_assert static_cast struct switch template this thread_local
    throw true try typedef typeid typename union unsigned using virtual void volatile wchar_t while
    xor xor_eq
    """.split()
)

# Names that the generated code says itself; a class or namespace of that name would hide them.
SPOKEN = frozenset(
    """
    std bmcbus bmcbus_tables sdbusplus client interface label propertyNames properties alternatives argumentTypes
    BMCBUS_EXPORT BMCBUS_LOCAL
    int8_t uint8_t int16_t uint16_t int32_t uint32_t int64_t uint64_t size_t
    """.split()
)

# What common headers define as macros cannot be the name of a C++ entity: the errors and signals of
# this system, and these.
MACROS = frozenset(
    """
    assert errno offsetof va_arg va_copy va_end va_start EOF NULL BUFSIZ stdin stdout stderr linux
    unix major minor makedev environ sigmask CHAR_BIT RAND_MAX EXIT_SUCCESS EXIT_FAILURE NAN INFINITY
    HUGE_VAL M_PI M_E
    """.split()
) | {*errno.errorcode.values(), *(name for name in dir(signal) if name.isupper())}
_MACRO = re.compile(
    r"(?:PRI|SCN)[diouxX](?:8|16|32|64|MAX|PTR|FAST\d+|LEAST\d+)"  # <cinttypes>
    r"|U?(?:INT\w*|CHAR|SCHAR|SHRT|LONG|LLONG)_(?:MAX|MIN|WIDTH|C)"  # <climits>, <cstdint>
    r"|(?:SIZE|SSIZE|PTRDIFF|WCHAR|PATH|NAME)_MAX|(?:BIG|LITTLE|PDP|BYTE)_ENDIAN"
    r"|(?:DBL|FLT|LDBL|SD_BUS|SD_EVENT|PTHREAD)_[A-Z0-9_]+"
    r"|s[aiv]_[a-z]+|sched_priority",  # <signal.h>, <sched.h>
    re.ASCII,
)

# Members that every class of a kind has, besides the ones made from the description.
_REGISTRY = """
    Create Make Lookup Save Unsave Release Cleanup Ready SignalCount Path AddCallback Get Callback
    Tables fields about active class_mutex object_mutex path ready signal_count callbacks anchor
    """
CACHE_MEMBERS = frozenset(
    (
        _REGISTRY
        + """
    Variant SetByName SetByNameLocked useDatacache InitialGetAll ServiceIsSet
    GetServiceAsyncCallback GetPropertiesAsyncCallback ObjectCallbackChanged ObjectCallbackAdded
    ObjectCallbackRemoved properties_changed_match interfaces_added_match interfaces_removed_match
    service use_async use_datacache
    """
    ).split()
)
SIGNAL_MEMBERS = frozenset((_REGISTRY + " ObjectCallback match").split())
DIRECT_MEMBERS = frozenset(
    """
    Variant Service Path GetByName GetByNameLocked SetByName SetByNameLocked target
    """.split()
)

# Parameters, of templates too, which would hide the class.
SIGNAL_WORDS = frozenset("at callback user_data".split())
CACHE_WORDS = SIGNAL_WORDS | frozenset("owner async Text Other".split())
DIRECT_WORDS = frozenset(["Text"])

CACHE_PREFIXES = ("Get_", "Set_", "SetLocked_")
DIRECT_PREFIXES = ("Get_", "GetLocked_", "Set_", "SetLocked_")


def member_problem(name):
    """Says what is wrong with the name of a member, property or argument, or gives None."""
    if not name:
        return "is empty"
    if len(name) > _LONGEST:
        return f"is longer than {_LONGEST} characters"
    if not _ELEMENT.match(name):
        return "may hold only letters, digits and underscores and may not begin with a digit"
    return None


def interface_problem(name):
    """Says what is wrong with the name of an interface, or gives None."""
    if not name:
        return "is empty"
    if len(name) > _LONGEST:
        return f"is longer than {_LONGEST} characters"
    elements = name.split(".")
    if len(elements) < 2:
        return "needs at least two elements with a dot between them"
    if not all(_ELEMENT.match(element) for element in elements):
        return (
            "may hold only elements of letters, digits and underscores that do not begin with a "
            "digit"
        )
    return None


def scope_problem(name):
    """Says why the name cannot be that of a class or namespace, or gives None."""
    if name in KEYWORDS:
        return f"'{name}' is a C++ keyword"
    if name in SPOKEN:
        return f"'{name}' is a name that the generated code needs itself"
    if name in MACROS or _MACRO.fullmatch(name):
        return f"'{name}' is a macro of the C library"
    return None


def free_name(name, taken):
    """The name itself, or with as many underscores behind it as make it free."""
    blocked = KEYWORDS | SPOKEN | MACROS
    while name in blocked or name in taken:
        name += "_"
    return name
