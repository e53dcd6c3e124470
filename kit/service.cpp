// Everything that touches the connection runs on the loop's thread; the public members carry their
// work there.

#include "service_link.hpp"

#include "connect.hpp"

#include <algorithm>
#include <array>

namespace bmcbus::testing
{
namespace
{

void CheckPath(const std::string& path)
{
    if (sd_bus_object_path_is_valid(path.c_str()) <= 0)
    {
        throw std::invalid_argument("no object path: \"" + path + "\"");
    }
}

} // namespace

void Service::Answer(const Call& call, sd_bus_message* message)
{
    try
    {
        Reply(message, CallAnswer(*this, call).Make());
    }
    catch (const CallError& error)
    {
        AnswerFailure(message, error.Name(), error.what());
    }
    catch (const std::exception& error)
    {
        AnswerFailure(message, SD_BUS_ERROR_FAILED, error.what());
    }
}

void Service::Reply(sd_bus_message* call, const std::vector<Value>& values)
{
    sd_bus_message* raw = nullptr;
    Check(sd_bus_message_new_method_return(call, &raw), "sd_bus_message_new_method_return");
    const Owned<sd_bus_message> reply(raw);
    for (const Value& value : values)
    {
        value.Append(raw);
    }
    Check(sd_bus_send(nullptr, raw, nullptr), "sd_bus_send");
}

void Service::ReplyError(sd_bus_message* call, const std::string& name, const std::string& text)
{
    CheckError(name, text);
    const sd_bus_error error = SD_BUS_ERROR_MAKE_CONST(name.c_str(), text.c_str());
    // The caller or the bus may be gone; then nobody waits for the answer.
    static_cast<void>(sd_bus_reply_method_error(call, &error));
}

// --- life ---------------------------------------------------------------------------------------

Service::Service(std::vector<std::string> wellKnown, const Options& options) :
    names(std::move(wellKnown)), link(std::make_unique<Link>(*this, options))
{
    Start();
}

Service::~Service()
{
    if (link->home.Left())
    {
        Abandon(link);
        return;
    }
    link->loop->Run([this] { link->Disconnect(true); });
    link->loop.reset();
}

void Service::Start()
{
    OnThread([this] { link->Connect(); });
}

void Service::Stop()
{
    OnThread([this] { link->Disconnect(true); });
}

void Service::Crash()
{
    OnThread([this] { link->Disconnect(false); });
}

bool Service::Connected() const
{
    return OnThread([this] { return link->Up(); });
}

std::string Service::UniqueName() const
{
    return OnThread(
        [this]
        {
            const char* name = nullptr;
            const bool known = link->Up() && sd_bus_get_unique_name(link->bus.get(), &name) >= 0;
            return std::string(known ? name : "");
        });
}

void Service::ReleaseName(const std::string& name)
{
    OnThread(
        [&]
        {
            Check(sd_bus_release_name(link->Bus(), name.c_str()), "release name " + name);
            std::erase(names, name);
        });
}

void Service::AskForName(const std::string& name, uint64_t flags)
{
    OnThread(
        [&]
        {
            link->Ask(name, flags);
            std::erase(names, name);
            names.push_back(name);
        });
}

void Service::RequestName(const std::string& name)
{
    AskForName(name, 0);
}

void Service::TakeName(const std::string& name)
{
    AskForName(name, SD_BUS_NAME_REPLACE_EXISTING);
}

void Service::Intercept(Interceptor sees)
{
    OnThread([&] { interceptor = std::move(sees); });
}

void Service::Run(const std::function<void()>& work) const
{
    OnThread(work);
}

sd_bus* Service::Connection() const
{
    return link->bus.get();
}

sd_event* Service::EventLoop() const
{
    return link->loop->Event();
}

void Service::EmitRaw(const std::string& path, const std::string& interface,
                      const std::string& member, const std::vector<Value>& arguments)
{
    OnThread([&] { link->Send(path, interface, member, arguments); });
}

// --- objects ------------------------------------------------------------------------------------

Object& Service::AddObject(const std::string& path, const std::vector<std::string>& interfaces,
                           const NamedValues& values)
{
    std::vector<InterfaceDescription> descriptions;
    descriptions.reserve(interfaces.size());
    for (const std::string& interface : interfaces)
    {
        descriptions.push_back(FindInterface(interface));
    }
    return AddObject(path, std::move(descriptions), values);
}

Object& Service::AddObject(const std::string& path, std::vector<InterfaceDescription> interfaces,
                           const NamedValues& values)
{
    return OnThread(
        [&]() -> Object&
        {
            CheckPath(path);
            if (objects.contains(path))
            {
                throw std::invalid_argument("there is an object at " + path + " already");
            }
            std::unique_ptr<Object> object(new Object(*this, path));
            for (InterfaceDescription& interface : interfaces)
            {
                object->Insert(std::move(interface), {});
            }
            object->Store(values);
            Object& added = *objects.emplace(path, std::move(object)).first->second;
            first = first.empty() ? path : first;
            added.SendAdded(added.AllInterfaces());
            return added;
        });
}

void Service::RemoveObject(const std::string& path)
{
    OnThread(
        [&]
        {
            Object& object = ObjectAt(path);
            object.SendRemoved(object.Interfaces());
            objects.erase(path);
        });
}

Object& Service::ObjectAt(const std::string& path)
{
    return OnThread(
        [&]() -> Object&
        {
            const auto found = objects.find(path);
            if (found == objects.end())
            {
                throw std::invalid_argument("no object at " + path);
            }
            return *found->second;
        });
}

std::vector<std::string> Service::Paths() const
{
    return OnThread(
        [this]
        {
            std::vector<std::string> paths;
            for (const auto& [path, object] : objects)
            {
                paths.push_back(path);
            }
            return paths;
        });
}

bool Service::Answers(const std::string& method) const
{
    constexpr std::array standard = {"Get", "Set", "GetAll", "Introspect", "GetManagedObjects"};
    if (std::find(standard.begin(), standard.end(), method) != standard.end())
    {
        return true;
    }
    return OnThread(
        [&]
        {
            const auto has = [&](const auto& object) { return object.second->Answers(method); };
            return objects.empty() || std::any_of(objects.begin(), objects.end(), has);
        });
}

void Service::Manage(const std::string& root)
{
    OnThread(
        [&]
        {
            CheckPath(root);
            managers.insert(root);
        });
}

std::vector<std::string> Service::Managers() const
{
    return OnThread([this] { return std::vector(managers.begin(), managers.end()); });
}

void Service::Unmanage(const std::string& root)
{
    OnThread([&] { managers.erase(root); });
}

std::string Service::ManagerAbove(const std::string& path) const
{
    std::string nearest;
    for (const std::string& root : managers)
    {
        const std::string below = root == "/" ? root : root + "/";
        if (path.starts_with(below) && path != root && root.size() > nearest.size())
        {
            nearest = root;
        }
    }
    return nearest;
}

} // namespace bmcbus::testing
