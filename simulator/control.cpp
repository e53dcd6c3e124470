// Each method of the control interface changes how the other services answer, or has them leave,
// return and announce; nothing here knows what they serve.

#include "control.hpp"

#include "descriptions.hpp"

#include <algorithm>

namespace simulator
{

using bmcbus::testing::Call;
using bmcbus::testing::CallError;
using bmcbus::testing::Faults;
using bmcbus::testing::Object;
using bmcbus::testing::Service;
using bmcbus::testing::Value;

namespace
{

// A method without results.
template <class Act>
void Serve(Object& object, const std::string& method, Act act)
{
    object.OnCall(method,
                  [act](const Call& call) -> std::vector<Value>
                  {
                      act(call);
                      return {};
                  });
}

} // namespace

Control::Control(const std::vector<Service*>& known, Step step, Plug plug, sd_event* loop) :
    service({"com.tamm.bmc.Simulator"}, {.loop = loop})
{
    for (Service* each : known)
    {
        services.push_back(std::make_unique<Served>(*each));
        each->Intercept(
            [&faults = services.back()->faults](const Call& call, sd_bus_message* message)
            { return faults.Handle(call, message); });
    }
    Object& object =
        service.AddObject("/com/tamm/bmc/simulator", {Describe("com.tamm.bmc.Simulator")});
    Serve(object, "Step", [step = std::move(step)](const Call&) { step(); });
    ServePlugs(object, plug);
    ServeLife(object);
    ServeAnswers(object);
    ServeAnnouncements(object);
}

void Control::ServePlugs(Object& object, const Plug& plug)
{
    const auto serve = [&](const char* method, bool present)
    {
        Serve(object, method,
              [plug, present](const Call& call)
              {
                  const auto slot = call.arguments[0].Get<std::string>();
                  if (!plug(slot, present))
                  {
                      throw CallError(SD_BUS_ERROR_INVALID_ARGS,
                                      "There is no memory module to " +
                                          std::string(present ? "plug into" : "unplug from") +
                                          " slot " + slot + ".");
                  }
              });
    };
    serve("PlugDimm", true);
    serve("UnplugDimm", false);
}

void Control::ServeLife(Object& object)
{
    // An orderly service takes leave of its objects, and announces them when it is back.
    Serve(object, "StopService",
          [this](const Call& call)
          {
              Service& stopped = Named(call).service;
              for (const std::string& path : stopped.Paths())
              {
                  Object& leaving = stopped.ObjectAt(path);
                  leaving.EmitInterfacesRemoved(leaving.Interfaces());
              }
              stopped.Stop();
          });
    Serve(object, "CrashService", [this](const Call& call) { Named(call).service.Crash(); });
    Serve(object, "StartService",
          [this](const Call& call)
          {
              if (Service& stopped = Named(call).service; !stopped.Connected())
              {
                  stopped.Start();
                  for (const std::string& path : stopped.Paths())
                  {
                      stopped.ObjectAt(path).EmitInterfacesAdded();
                  }
              }
          });
}

void Control::ServeAnswers(Object& object)
{
    // Each has the service and the method first.
    const auto serve = [&](const char* method, auto describe)
    {
        Serve(object, method,
              [this, describe](const Call& call)
              {
                  Faults::Rule rule{.member = call.arguments[1].Get<std::string>()};
                  describe(call, rule);
                  try
                  {
                      Named(call).faults.Add(rule);
                  }
                  catch (const std::invalid_argument& refused)
                  {
                      throw CallError(SD_BUS_ERROR_INVALID_ARGS, refused.what());
                  }
              });
    };
    serve("AnswerError",
          [](const Call& call, Faults::Rule& rule)
          {
              rule.kind = Faults::Kind::error;
              rule.errorName = call.arguments[2].Get<std::string>();
              rule.errorText = "as it was asked for";
          });
    serve("AnswerText",
          [](const Call& call, Faults::Rule& rule)
          {
              rule.kind = Faults::Kind::values;
              rule.values = {call.arguments[2]};
              if (rule.member == "Get") // a property travels in a variant
              {
                  rule.values = {Value::Variant(call.arguments[2])};
              }
          });
    serve("AnswerLate",
          [](const Call& call, Faults::Rule& rule)
          {
              rule.kind = Faults::Kind::delay;
              rule.time = std::chrono::milliseconds(call.arguments[2].Get<uint32_t>());
          });
    serve("AnswerNothing",
          [](const Call&, Faults::Rule& rule) { rule.kind = Faults::Kind::silence; });
    Serve(object, "AnswerAll", [this](const Call& call) { Named(call).faults.Remove(); });
}

void Control::ServeAnnouncements(Object& object)
{
    Serve(object, "AnnounceRemoved",
          [this](const Call& call) {
              ObjectOf(call).EmitInterfacesRemoved(
                  call.arguments[1].Get<std::vector<std::string>>());
          });
    Serve(object, "AnnounceAdded",
          [this](const Call& call) { ObjectOf(call).EmitInterfacesAdded(); });
}

Control::Served& Control::Named(const Call& call) const
{
    const auto name = call.arguments[0].Get<std::string>();
    const auto found =
        std::find_if(services.begin(), services.end(),
                     [&](const auto& served) { return served->service.Names().front() == name; });
    if (found == services.end())
    {
        throw CallError(SD_BUS_ERROR_INVALID_ARGS, "The simulator has no service " + name + ".");
    }
    return **found;
}

Object& Control::ObjectOf(const Call& call) const
{
    const auto path = call.arguments[0].Get<std::string>();
    for (const auto& served : services)
    {
        const std::vector<std::string> paths = served->service.Paths();
        if (std::find(paths.begin(), paths.end(), path) == paths.end())
        {
            continue;
        }
        if (!served->service.Connected())
        {
            throw CallError(SD_BUS_ERROR_FAILED,
                            "The service " + served->service.Names().front() + " is down.");
        }
        return served->service.ObjectAt(path);
    }
    throw CallError(SD_BUS_ERROR_INVALID_ARGS, "The simulator has no object " + path + ".");
}

} // namespace simulator
