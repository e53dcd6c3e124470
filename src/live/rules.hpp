#pragma once

// The match rules of a connection, each installed once however many want it. They are sent by hand,
// without a slot of sd-bus behind them: the hub's filter sees what they bring.

#include "live/entry.hpp"

#include <bmcbus/refs.hpp>

#include <map>

namespace bmcbus::live
{

class Rule
{
  public:
    bool refused() const { return state_ == State::Refused; }
    bool installed() const { return state_ == State::Installed; }
    const Failure& failure() const { return failure_; }

  private:
    friend class Rules;
    enum class State : uint8_t
    {
        Sent,
        Installed,
        Refused
    };

    class Rules* rules_ = nullptr;
    const std::string* text_ = nullptr;
    size_t uses_ = 0;
    State state_ = State::Sent;
    Failure failure_;
    Slot answer_;
};

class Rules
{
  public:
    explicit Rules(Hub& hub) : hub_(hub) {}
    ~Rules() { Forget(); }
    Rules(const Rules&) = delete;
    Rules& operator=(const Rules&) = delete;

    // One more use of the rule; the first sends it, and so does one after it was refused. Does not
    // wait.
    Rule* Use(const std::string& text);
    // One use less; the last takes the rule away. Leaves null, which stands for no rule.
    void Drop(Rule*& rule);

    // Sends it again if it was refused; null is none.
    void Retry(Rule* rule);

    // The connection has ended.
    void Forget() { rules_.clear(); }

    size_t size() const { return rules_.size(); }

  private:
    void Send(Rule& rule);
    static int OnAnswer(sd_bus_message* answer, void* rule, sd_bus_error* error) noexcept;

    Hub& hub_;
    std::map<std::string, Rule> rules_;
};

std::string OwnerRule(const std::string& name);
std::string PathChangesRule(const std::string& path);
std::string SignalRule(const std::string& path, const char* interface, const char* member);
std::string PathManagerRule(const std::string& path);
std::string BelowManagerRule(const std::string& root);
std::string ServiceChangesRule(const std::string& name, const char* interface);
std::string ServiceManagerRule(const std::string& name);

} // namespace bmcbus::live
