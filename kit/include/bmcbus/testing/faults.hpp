#pragma once

/**
 * @file
 * Wrong, late and missing answers.
 */

#include <bmcbus/testing/service.hpp>

#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace bmcbus::testing
{

/**
 * Rules that say which calls a service answers wrongly, and how.
 *
 * Belongs to the service's thread: use it inside Service::Run() and handlers, or through
 * FakeService, which does that. Give every call to Handle() from an Interceptor.
 */
class Faults
{
  public:
    /** What happens to a call. */
    enum class Kind
    {
        error,   /**< an error reply */
        values,  /**< a reply with any values at all */
        silence, /**< no reply, ever */
        hold,    /**< the right reply, when Release() is called */
        delay,   /**< the right reply, after a time */
        crash    /**< the connection ends at once */
    };

    /** One rule: which calls, what happens, how often. */
    struct Rule
    {
        std::string member;         /**< method name; "*" for every method */
        std::string argument = {};  /**< text that one of the arguments must be; empty: any call */
        std::string path = {};      /**< object that is called; empty: any */
        Kind kind = Kind::silence;  /**< what happens */
        std::string errorName = {}; /**< for error */
        std::string errorText = {}; /**< for error */
        std::vector<Value> values = {};      /**< for values */
        std::chrono::milliseconds time = {}; /**< for delay */
        size_t times = 0;                    /**< how many calls it hits; 0: all */
    };

    /** @param owner whose calls are handled; must outlive this object */
    explicit Faults(Service& owner);
    ~Faults();
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;

    /**
     * Adds a rule in front of the others; it replaces one for the same calls.
     *
     * An error that may not travel (see Service::ReplyError()) throws std::invalid_argument and
     * changes nothing.
     */
    void Add(Rule rule);

    /** Drops the rules for @p member (all when empty). Calls on hold stay so. */
    void Remove(const std::string& member = {});

    /** Applies the first rule that fits; false when none does and the call waits for its answer. */
    bool Handle(const Call& call, sd_bus_message* message);

    /** Answers the calls on hold in their order, with the values of this moment. */
    void Release();

    /** Forgets calls that are on hold or delayed; they are never answered. */
    void Drop();

    /** How many calls are on hold. */
    size_t Held() const;

  private:
    struct Waiting;

    bool Fits(const Rule& rule, const Call& call) const;
    void Delay(const Call& call, sd_bus_message* message, std::chrono::milliseconds time);

    Service& service;
    std::list<Rule> rules;
    std::list<std::unique_ptr<Waiting>> held;
    std::list<std::unique_ptr<Waiting>> delayed;
};

} // namespace bmcbus::testing
