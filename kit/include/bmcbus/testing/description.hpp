#pragma once

/**
 * @file
 * Interfaces as their introspection XML describes them.
 *
 * Plain data; any thread may use it. Reading files blocks as file access does.
 */

#include <string>
#include <string_view>
#include <vector>

namespace bmcbus::testing
{

/** An argument of a method or signal. */
struct Argument
{
    std::string name; /**< may be empty */
    std::string type; /**< one complete D-Bus type */
};

/** A property. */
struct PropertyDescription
{
    /**
     * What the service announces when the value changes: as the property is annotated
     * (org.freedesktop.DBus.Property.EmitsChangedSignal), else as its interface is.
     */
    enum class Emits
    {
        value,        /**< PropertiesChanged with the value (when nothing is annotated) */
        invalidation, /**< PropertiesChanged with the name alone */
        nothing       /**< no signal */
    };

    std::string name;           /**< on the bus */
    std::string type;           /**< one complete D-Bus type */
    bool readable = true;       /**< may be read over the bus */
    bool writable = false;      /**< may be written over the bus */
    Emits emits = Emits::value; /**< what a change announces */
};

/** A method. */
struct MethodDescription
{
    std::string name;          /**< on the bus */
    std::vector<Argument> in;  /**< what the caller sends */
    std::vector<Argument> out; /**< what the service answers */
};

/** A signal. */
struct SignalDescription
{
    std::string name;                /**< on the bus */
    std::vector<Argument> arguments; /**< in order */
};

/** One interface with its members in the order of the file. */
struct InterfaceDescription
{
    std::string name;                            /**< on the bus */
    std::vector<PropertyDescription> properties; /**< all of them */
    std::vector<MethodDescription> methods;      /**< all of them */
    std::vector<SignalDescription> signals;      /**< all of them */
    std::string xml; /**< the interface element, as introspection prints it */

    /** The member of that name, borrowed from this object, or null. */
    const PropertyDescription* Property(std::string_view member) const;
    /** The member of that name, borrowed from this object, or null. */
    const MethodDescription* Method(std::string_view member) const;
    /** The member of that name, borrowed from this object, or null. */
    const SignalDescription* Signal(std::string_view member) const;
};

/**
 * All interfaces of an introspection document, such as `busctl introspect --xml-interface` prints.
 *
 * @param xml     the document
 * @param origin  named in failures, usually the file
 *
 * Throws std::runtime_error that says what is wrong where.
 */
std::vector<InterfaceDescription> ParseDescription(std::string_view xml, const std::string& origin);

/** The same from a file. Throws std::runtime_error also when it cannot be read. */
std::vector<InterfaceDescription> LoadDescription(const std::string& file);

/**
 * Adds a folder in which FindInterface() looks, before those that were known.
 *
 * Any thread may call it.
 */
void AddInterfaceFolder(const std::string& folder);

/**
 * The description of interface @p name from the files of the system.
 *
 * Looks for `name.xml` and for `a/b/C/a.b.C.xml` in the folders given to AddInterfaceFolder(), then
 * in those of the environment variable BMCBUS_INTERFACE_PATH (separated by colons), then where
 * the library's own catalogue is installed. Throws std::runtime_error that lists the folders.
 */
InterfaceDescription FindInterface(const std::string& name);

} // namespace bmcbus::testing
