#pragma once

/**
 * @file
 * The class of a value of any D-Bus type. Include `<bmcbus/variant.hpp>`.
 */

#include <bmcbus/export.h>
#include <bmcbus/signature.hpp>
#include <bmcbus/unix_fd.hpp>
#include <bmcbus/wire.hpp>

#include <bit>
#include <compare>
#include <concepts>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace bmcbus
{

/** How a C++ type lies in a Variant; for those that can be there. */
template <class T>
struct Stored;
/// @cond internal
template <class List>
struct StoredList;
template <class List>
struct StoredNumbers;
/// @endcond

/**
 * The C++ types that a Variant is made of and gives back: bool, the integers of 8 (unsigned), 16,
 * 32 and 64 bits, double, std::string, ObjectPath, Signature, UnixFd, vectors and lists (arrays),
 * maps (dictionaries), tuples (structs). Where `v` stands in a type, Variant or a std::variant
 * stands in the C++ type.
 */
template <class T>
concept Storable = requires(const T& value)
{
    Stored<T>::Make(value);
};

/**
 * One value of any D-Bus type, or none.
 *
 * Made from a C++ value and read back as one:
 * @code
 * using Options = std::map<std::string, bmcbus::Variant>;       // a{sv}
 * Options options = {{"Speed", 115200U}, {"Name", "ttyS0"}};
 * options["Speed"].Get<uint32_t>();                             // 115200
 * options["Speed"].As<uint64_t>();                              // the same: nothing is lost
 * options["Name"].Get<bool>();                                  // throws, naming "s" and "b"
 * bmcbus::Variant(options).Text();                              // a{sv} 2 "Name" s "ttyS0" "Speed"
 * u 115200
 * @endcode
 *
 * What a Variant holds does not change, but for assignment; copies share the contents of
 * containers, so copying is cheap. Numbers, and text of up to 15 characters, take no memory besides
 * the object. Dictionaries are in the order of their keys, and of equal keys the first counts,
 * whatever the order in which they came.
 *
 * Containers nest 64 deep at most. Nothing here blocks or touches a connection. One object is used
 * by one thread at a time like a std::string; copies are independent.
 */
class BMCBUS_EXPORT Variant
{
  public:
    /** A view of values in a row, as long as the variant lives and keeps its value. */
    struct Sequence
    {
        /** The values and their type. @{ */
        std::string_view signature;
        std::span<const Variant> items;

        size_t size() const { return items.size(); }
        auto begin() const { return items.begin(); }
        auto end() const { return items.end(); }
        const Variant& operator[](size_t index) const { return items[index]; }
        /** @} */
    };

    /** Elements of an array of anything but numbers; `signature` is the type of each. */
    struct Array : Sequence
    {
    };

    /** The fields of a struct, at least one; `signature` is that of all fields, e.g. "sv". */
    struct Struct : Sequence
    {
    };

    /** A dictionary in ascending order of its keys; `signature` is that of an entry, e.g. "sv". */
    struct Dictionary
    {
        std::string_view signature;     ///< of an entry
        std::span<const Variant> items; ///< key, value, key, value...

        /** Entries by number. @{ */
        size_t size() const { return items.size() / 2; }
        const Variant& Key(size_t index) const { return items[2 * index]; }
        const Variant& Value(size_t index) const { return items[2 * index + 1]; }
        /** @} */

        /** The value of @p key, borrowed; null where there is none. */
        BMCBUS_EXPORT const Variant* Find(const Variant& key) const;
    };

    /** No value; it does not travel. */
    Variant() noexcept;
    /** Copies are independent; what was moved from has no value. @{ */
    Variant(const Variant& other);
    Variant(Variant&& other) noexcept;
    Variant& operator=(const Variant& other);
    Variant& operator=(Variant&& other) noexcept;
    /** @} */
    ~Variant();

    /**
     * From a C++ value, whose type decides about the signature; a std::variant gives what it holds.
     *
     * Throws std::invalid_argument for a container with an element without a value, and where the
     * nesting becomes too deep.
     */
    template <class T>
    requires(!std::same_as<T, Variant> && Storable<T>) Variant(const T& value) :
        Variant(Stored<T>::Make(value))
    {
    }

    /** From text, as a string. */
    Variant(const char* text);
    /** From text, as a string. */
    Variant(std::string_view text);

    /** A `v` that holds @p content: needed only where one stands within another directly. */
    static Variant MakeNested(Variant content);

    /**
     * Containers of a type that is known at run time only. Where @p element, @p key or @p value is
     * "v", any value fits; else its signature must be the given one.
     *
     * Throw std::invalid_argument for what does not fit together.
     */
    static Variant MakeArray(std::string_view element, std::vector<Variant> items);
    /** The same for a dictionary. */
    static Variant MakeDictionary(std::string_view key, std::string_view value,
                                  std::vector<std::pair<Variant, Variant>> entries);
    /** The fields' own types make the struct's. */
    static Variant MakeStruct(std::vector<Variant> fields);

    /** Whether there is a value. */
    bool HasValue() const noexcept { return type_ != '\0'; }

    /** The type's signature, e.g. "a{sv}"; empty without a value. */
    std::string Signature() const;

    /** Whether the value is of C++ type @p T exactly. A Variant holds every value. */
    template <Storable T>
    bool Holds() const
    {
        T value{};
        return Get(value);
    }

    /**
     * The value as C++ type @p T, which must be its type exactly.
     *
     * Throws std::invalid_argument, naming both signatures.
     */
    template <Storable T>
    T Get() const
    {
        T value{};
        if (!Get(value))
        {
            Mismatch(client::Wire<T>::signature.c_str());
        }
        return value;
    }

    /** The same without a throw: false leaves @p value alone. */
    template <Storable T>
    bool Get(T& value) const
    {
        T read{};
        if (!Stored<T>::Take(*this, read))
        {
            return false;
        }
        value = std::move(read);
        return true;
    }

    /**
     * The same value as another type, if nothing is lost: numbers where the new type has that very
     * number, text as object path or signature where it is one, a nested `v` for its content,
     * containers element by element.
     *
     * Throws std::invalid_argument, naming both signatures.
     */
    Variant As(std::string_view signature) const;

    /** The same as C++ type @p T. */
    template <Storable T>
    T As() const
    {
        return As(client::Wire<T>::signature.c_str()).template Get<T>();
    }

    /**
     * Type and content as busctl prints them, e.g. `as 2 "one" "two"`; text is escaped as in C.
     * Empty without a value.
     */
    std::string Text() const;

    /**
     * Calls @p visitor with what is there and gives its result: std::monostate, bool, one of the
     * numbers, const std::string&, const ObjectPath&, const Signature&, const UnixFd&, a
     * std::span<const T> for an array of numbers, const Array&, const Dictionary&, const Struct&,
     * and const Variant& for the content of a nested `v`. What is passed lasts for the call.
     */
    template <class Visitor>
    decltype(auto) Visit(Visitor&& visitor) const;

    /** Equal types and equal contents; a NaN equals another. */
    friend bool operator==(const Variant& a, const Variant& b) noexcept
    {
        return std::is_eq(Compare(a, b));
    }

    /** By signature, then by content, containers element by element; a NaN is above all numbers. */
    friend std::weak_ordering operator<=>(const Variant& a, const Variant& b) noexcept
    {
        return Compare(a, b);
    }

  private:
    template <class T>
    friend struct Stored;
    template <class List>
    friend struct StoredList;
    template <class List>
    friend struct StoredNumbers;
    friend struct VariantInside;

    struct Node;

    // Basic values; the bits of a number are widened with its sign.
    static Variant Number(char type, uint64_t bits) noexcept;
    static Variant OfText(char type, std::string text) noexcept;
    static Variant OfDescriptor(UnixFd fd);
    static Variant OfNumbers(char type, const void* data, size_t bytes);
    // A container whose items are known to fit; a dictionary's lie key, value, key, value.
    static Variant OfItems(std::string signature, std::vector<Variant> items);
    BMCBUS_LOCAL static Variant OfNode(std::shared_ptr<const Node> node) noexcept;

    template <class T>
    T NumberAs() const noexcept
    {
        if constexpr (std::same_as<T, double>)
        {
            return std::bit_cast<double>(bits_);
        }
        else
        {
            return static_cast<T>(bits_);
        }
    }
    template <class T>
    std::span<const T> Numbers() const noexcept
    {
        const std::span<const std::byte> raw = Raw();
        return {reinterpret_cast<const T*>(raw.data()), raw.size() / sizeof(T)};
    }
    const UnixFd& Descriptor() const noexcept;
    std::span<const std::byte> Raw() const noexcept;
    std::span<const Variant> Items() const noexcept;
    std::string_view NodeSignature() const noexcept;
    bool HasSignature(std::string_view signature) const noexcept;
    [[noreturn]] void Mismatch(const char* wanted) const;
    static std::weak_ordering Compare(const Variant& a, const Variant& b) noexcept;

    BMCBUS_LOCAL void Copy(const Variant& other);
    BMCBUS_LOCAL void Move(Variant& other) noexcept;
    BMCBUS_LOCAL void Drop() noexcept;
    bool IsText() const noexcept { return type_ == 's' || type_ == 'o' || type_ == 'g'; }
    bool IsNode() const noexcept
    {
        return type_ == 'a' || type_ == '(' || type_ == 'v' || type_ == 'h';
    }

    union
    {
        uint64_t bits_;
        std::string text_;
        std::shared_ptr<const Node> node_;
    };
    char type_; // the signature's first character; none without a value
};

template <class Visitor>
decltype(auto) Variant::Visit(Visitor&& visitor) const
{
    switch (type_)
    {
        case 'b':
            return visitor(NumberAs<bool>());
        case 'y':
            return visitor(NumberAs<uint8_t>());
        case 'n':
            return visitor(NumberAs<int16_t>());
        case 'q':
            return visitor(NumberAs<uint16_t>());
        case 'i':
            return visitor(NumberAs<int32_t>());
        case 'u':
            return visitor(NumberAs<uint32_t>());
        case 'x':
            return visitor(NumberAs<int64_t>());
        case 't':
            return visitor(NumberAs<uint64_t>());
        case 'd':
            return visitor(NumberAs<double>());
        case 's':
            return visitor(text_);
        case 'o':
            return visitor(static_cast<const ObjectPath&>(ObjectPath(text_)));
        case 'g':
            return visitor(static_cast<const bmcbus::Signature&>(bmcbus::Signature(text_)));
        case 'h':
            return visitor(Descriptor());
        case 'v':
            return visitor(Items().front());
        case '(':
            return visitor(static_cast<const Struct&>(
                Struct{{NodeSignature().substr(1, NodeSignature().size() - 2), Items()}}));
        case 'a':
            break;
        default:
            return visitor(std::monostate());
    }
    const std::string_view element = NodeSignature().substr(1);
    switch (element.front())
    {
        case 'y':
            return visitor(Numbers<uint8_t>());
        case 'n':
            return visitor(Numbers<int16_t>());
        case 'q':
            return visitor(Numbers<uint16_t>());
        case 'i':
            return visitor(Numbers<int32_t>());
        case 'u':
            return visitor(Numbers<uint32_t>());
        case 'x':
            return visitor(Numbers<int64_t>());
        case 't':
            return visitor(Numbers<uint64_t>());
        case 'd':
            return visitor(Numbers<double>());
        case '{':
            return visitor(static_cast<const Dictionary&>(
                Dictionary{element.substr(1, element.size() - 2), Items()}));
        default:
            return visitor(static_cast<const Array&>(Array{{element, Items()}}));
    }
}

namespace client
{

/** Reading gives the content of the `v`; appending no value throws `bmcbus::Error` (EINVAL). */
template <>
struct Wire<Variant>
{
    static constexpr bool flat = false;
    static constexpr auto signature = Letter('v');

    BMCBUS_EXPORT static bool Read(sd_bus_message* message, Variant& value);
    BMCBUS_EXPORT static void Append(sd_bus_message* message, const Variant& value);
};

} // namespace client

} // namespace bmcbus
