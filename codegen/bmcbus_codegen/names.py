"""Which names D-Bus allows and which C++ leaves free."""

import errno
import re

_LONGEST = 255
_PRINTABLE = re.compile(r"[ !#-\[\]-~]+\Z", re.ASCII)
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
    std bmcbus bmcbus_tables sdbusplus client interface label propertyNames properties alternatives
    argumentTypes ClientCache ClientEdge ClientTypes BMCBUS_EXPORT BMCBUS_LOCAL
    int8_t uint8_t int16_t uint16_t int32_t uint32_t int64_t uint64_t size_t
    """.split()
)

# Common headers define these as macros, so no C++ entity can have the name.
MACROS = frozenset(
    """
    alloca assert be16toh be32toh be64toh BUFSIZ CSIGNAL EDEADLK EHWPOISON environ EOF
    EOPNOTSUPP errno EWOULDBLOCK FIOGETOWN FIOSETOWN htobe16 htobe32 htobe64 htole16 htole32
    htole64 HUGE_VAL INFINITY le16toh le32toh le64toh linux M_E M_PI major makedev minor
    MINSIGSTKSZ NAN NFDBITS NGREG NSIG NULL NZERO offsetof pthread_cleanup_pop
    pthread_cleanup_pop_restore_np pthread_cleanup_push pthread_cleanup_push_defer_np sa_handler
    sa_sigaction sched_priority sd_bus_error_has_names sd_id128_in_set si_addr si_addr_lsb
    si_arch si_band si_call_addr si_fd si_int si_lower si_overrun si_pid si_pkey si_ptr
    si_status si_stime si_syscall si_timerid si_uid si_upper si_utime si_value
    sigev_notify_attributes sigev_notify_function sigmask SIOCATMARK SIOCGPGRP SIOCSPGRP
    SOMAXCONN stderr stdin stdout strdupa strndupa unix va_arg va_copy va_end va_start
    WCONTINUED WCOREDUMP WCOREFLAG WEOF WEXITED WEXITSTATUS WIFCONTINUED WIFEXITED WIFSIGNALED
    WIFSTOPPED WNOHANG WNOWAIT WSTOPPED WSTOPSIG WTERMSIG WUNTRACED
    """.split()
)
_NUMBERED = frozenset(errno.errorcode.values())
_MACRO_PREFIXES = """
    ADJ AF AIO ATOMIC BC BIG BOOL BOOST BUS BYTE CHAR CHARCLASS CLD CLOCK CLOCKS CLONE CLOSE
    CMSG COLL CPU DELAYTIMER EPOLL EXIT EXPR F FD FILENAME FOPEN FP FPE HOST ILL IN INCLUDE INT
    INT16 INT32 INT64 INT8 INTMAX INTPTR IOV JSON L LC LINE LITTLE LLONG LOGIN LONG MAX MB MOD
    MQ MSG NAME NGROUPS NL P PATH PDP PF PIPE POLL PTHREAD PTRDIFF R RAND RE REG RENAME RTSIG
    RWF SA SCHAR SCHED SCM SD SEEK SEGV SEM SFD SHRT SHUT SI SIG SIGEV SIOCGSTAMP SIOCGSTAMPNS
    SIZE SO SOCK SOL SS SSIZE STA STDERR STDIN STDOUT SYS TEMP TIME TIMER TMP TRAP TTY UCHAR
    UINT UINT16 UINT32 UINT64 UINT8 UINTMAX UINTPTR UIO ULLONG ULONG USHRT W WAIT WCHAR WINT
    WORD X XATTR
    """.split()
_MACRO_PATTERNS = re.compile(
    rf"(?:{'|'.join(_MACRO_PREFIXES)})_(?:[A-Z0-9_]*[A-Z0-9])\Z|SYS_\w*[a-z0-9]\Z"
    r"|[LP]_tmp[a-z]+\Z|(?:PRI|SCN)[diouxX][A-Z]*[0-9]*\Z|(?:EPOLL|SIG)[A-Z0-9]+\Z",
    re.ASCII,
)

# Members that every class of a kind has, besides the ones made from the description.
_REGISTRY = """
    Create Make Lookup Save Unsave Release Cleanup CleanupThread Ready SignalCount Path AddCallback Get Callback
    Tables LiveTables fields about registry life active class_mutex object_mutex path ready signal_count
    callbacks anchor set_flags
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
    Values AllProperties Try_GetAll Async_GetAll Variant Service Path GetByName GetByNameLocked SetByName SetByNameLocked target
    """.split()
)

# Parameters, of templates too, which would hide the class.
SIGNAL_WORDS = frozenset("at callback user_data".split())
CACHE_WORDS = SIGNAL_WORDS | frozenset("owner async Text Other".split())
DIRECT_WORDS = frozenset("Text Then then options bus".split())

CACHE_PREFIXES = ("Get_", "Set_", "SetLocked_")
CALL_PREFIXES = ("Try_", "Async_")
DIRECT_PREFIXES = ("Get_", "GetLocked_", "Set_", "SetLocked_") + tuple(
    call + access for call in CALL_PREFIXES for access in ("Get_", "Set_")
)
METHOD_PREFIXES = ("Call_", "Result_") + CALL_PREFIXES


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


def property_problem(name):
    """The same for a property, whose name the bus leaves to the service."""
    if not name:
        return "is empty"
    if len(name) > _LONGEST:
        return f"is longer than {_LONGEST} characters"
    if not _PRINTABLE.match(name):
        return "may hold only printable characters of ASCII without quotes and backslashes"
    return None


def is_macro(name):
    """Whether a header that the generated code needs may define the name as a macro."""
    return name in MACROS or name in _NUMBERED or bool(_MACRO_PATTERNS.match(name))


def identifier(name):
    """The name with what C++ does not take replaced."""
    name = re.sub(r"[^A-Za-z0-9_]", "_", name, flags=re.ASCII)
    return name if name and not name[0].isdigit() else "_" + name


def scope_name(name, taken=frozenset()):
    """A name for a class, a namespace or a value: with underscores behind it until it is free."""
    name = identifier(name)
    while name in KEYWORDS or name in SPOKEN or name in taken or is_macro(name):
        name += "_"
    return name


def free_name(name, taken):
    """The name itself, or with as many underscores behind it as make it free."""
    name = identifier(name)
    while name in KEYWORDS or name in SPOKEN or name in MACROS or name in taken:
        name += "_"
    return name
