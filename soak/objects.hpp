#pragma once

// The cached proxies and subscribers that live at a moment.

#include "random.hpp"
#include "world.hpp"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace soak
{

// An object on the bus that has the interface of a class.
struct Place
{
    std::string path;
    std::string service;
};

// A value as an object keeps it, and how a value from the bus looks when it is kept.
struct Kept
{
    kit::Value value;
    kit::Value (*keep)(const kit::Value& sent);
};

// An object of any class; released with this one.
class Live
{
  public:
    virtual ~Live() = default;
    virtual std::vector<Kept> Values() = 0;
    virtual bool Ready() = 0;
    virtual uint32_t SignalCount() = 0;
    // It is the registry's alone from now on.
    virtual void Forget() = 0;

    const struct Kind* kind = nullptr;
    const Place* place = nullptr;
};

// A class.
struct Kind
{
    std::string interface;
    std::string signal; // empty: a cached proxy
    std::unique_ptr<Live> (*make)(Random& random, const Place& place);
    void (*makeForOneSignal)(const Place& place);
    void (*cleanup)();
    std::vector<Place> places = {};
};

class Objects
{
  public:
    // Finds where the classes' objects are.
    Objects(World& world, Random& random);
    ~Objects();
    Objects(const Objects&) = delete;
    Objects& operator=(const Objects&) = delete;

    void Create();
    void CreateOneOfEach();
    // One that releases itself when it is first called back.
    void CreateForOneSignal();
    // Releases one before its first read is answered.
    void CreateAndRelease();
    void Release();
    void ReleaseAll();

    // Takes the interface away from an object and gives it back, by signals alone.
    void AnnounceLossAndReturn();

    // Everything has arrived: each value must be the service's. Returns how many were compared.
    size_t Compare();

    // Reads what is kept; needs no bus.
    void ReadSome();

    std::vector<std::string> Services() const;
    const Place& Fans() const;

  private:
    using Sent = std::map<std::string, kit::Value>;

    void Create(Kind& kind);
    Kind& AnyCached();
    Kind& AnyKind();
    bool Up(const Place& place) const;
    void AwaitFirstReads();
    size_t Compare(Live& object, const std::vector<std::string>& names, const Sent& sent);
    Sent Properties(const Kind& kind, const Place& place);

    World& world;
    Random& random;
    std::vector<Kind> kinds;
    std::vector<std::unique_ptr<Live>> live;
};

} // namespace soak
