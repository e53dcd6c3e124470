#pragma once

/**
 * @file
 * What failed bus calls throw.
 *
 * Stand-in for the library of this name, with the part of its interface that this project and its
 * callers use.
 */

#include <systemd/sd-bus.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#pragma GCC visibility push(default)

namespace sdbusplus
{
namespace exception
{

/** Base of all exceptions that carry a D-Bus error. */
struct exception : std::exception
{
    /** The D-Bus error name; null when there is none. */
    virtual const char* name() const noexcept = 0;

    /** The D-Bus error message; null when there is none. */
    virtual const char* description() const noexcept = 0;

    /** The errno that goes with the name, EIO for names that stand for none. */
    virtual int get_errno() const noexcept = 0;
};

/** Base of the exceptions that this library itself makes. */
struct internal_exception : exception
{
};

/** A failed sd-bus call or an error reply. Move-only. */
class SdBusError final : public internal_exception
{
  public:
    /**
     * From the number that a call returned, of either sign.
     *
     * @throws std::runtime_error for 0, which is no error
     */
    SdBusError(int number, const char* prefix)
    {
        sd_bus_error made{};
        sd_bus_error_set_errno(&made, number);
        if (!sd_bus_error_is_set(&made))
        {
            throw std::runtime_error("Failed to create SdBusError");
        }
        take(&made);
        describe(prefix);
    }

    /** Takes the contents of @p other over and leaves it reset. */
    SdBusError(sd_bus_error* other, const char* prefix)
    {
        take(other);
        describe(prefix);
    }

    SdBusError(const SdBusError&) = delete;
    SdBusError& operator=(const SdBusError&) = delete;

    SdBusError(SdBusError&& other) noexcept : text(std::move(other.text)) { take(&other.error); }

    SdBusError& operator=(SdBusError&& other) noexcept
    {
        if (this != &other)
        {
            sd_bus_error_free(&error);
            take(&other.error);
            text = std::move(other.text);
        }
        return *this;
    }

    ~SdBusError() override { sd_bus_error_free(&error); }

    const char* name() const noexcept override { return error.name; }

    const char* description() const noexcept override { return error.message; }

    int get_errno() const noexcept override { return sd_bus_error_get_errno(&error); }

    /** Prefix, name and message, as far as present, joined by ": ". */
    const char* what() const noexcept override { return text.c_str(); }

    /** The error itself, owned by this object. */
    const sd_bus_error* get_error() const noexcept { return &error; }

  private:
    // The bytes move: nothing of an sd_bus_error refers to where it lies.
    void take(sd_bus_error* other) noexcept
    {
        error = *other;
        *other = {};
    }

    void describe(const char* prefix)
    {
        try
        {
            text = prefix;
            for (const char* part : {error.name, error.message})
            {
                if (part != nullptr)
                {
                    text.append(": ").append(part);
                }
            }
        }
        catch (...)
        {
            sd_bus_error_free(&error);
            throw;
        }
    }

    sd_bus_error error{};
    std::string text;
};

} // namespace exception
} // namespace sdbusplus

#pragma GCC visibility pop
