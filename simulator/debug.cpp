// An object to try things with: what is written or told to it comes back as a signal.

#include "debug.hpp"

namespace simulator
{

Debug::Debug(const Model& machine, const Setting& setting) :
    Part("com.tamm.bmc.Debug", "/", setting),
    model(machine),
    object(Add("/com/tamm/bmc/debug", "com.tamm.bmc.debug.dataorigin",
               {{"originstring", "simulator"}, {"debugproperty", "nothing yet"}}))
{
    object.OnWrite("debugproperty",
                   [this](const Value& written) {
                       object.Emit("debugsignal", "debugproperty is " + written.Get<std::string>());
                   });
    // The text comes back, and becomes the origin.
    object.OnCall("debugmethod",
                  [this](const Call& call)
                  {
                      const auto text = call.arguments[0].Get<std::string>();
                      object.Set("originstring", text);
                      object.Emit("debugsignal", "debugmethod was told " + text);
                      return std::vector<Value>{text};
                  });
}

void Debug::Publish()
{
    object.Emit("debugsignal", "step " + std::to_string(model.steps));
}

} // namespace simulator
