// What objects take that nobody answers: the heap of one of each class, over four hundred,
// and the memory of a whole client with ten of each. Lines of "NAME bytes".

#include <com/catalogue.hpp>

#include <malloc.h>
#include <systemd/sd-bus.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace
{

constexpr const char* service = "com.example.Nobody";
sd_bus* bus = nullptr;

std::string PathOf(size_t number)
{
    return "/com/example/object/" + std::to_string(number);
}

template <class Class>
std::shared_ptr<void> Make(size_t number)
{
    if constexpr (requires { Class(PathOf(number), service, true); })
    {
        return std::make_shared<Class>(PathOf(number), service, true);
    }
    else if constexpr (requires { Class(service, PathOf(number)); })
    {
        return std::make_shared<Class>(service, PathOf(number));
    }
    else
    {
        return std::make_shared<Class>(PathOf(number));
    }
}

// Until every reply is in.
void Settle()
{
    int waiting = 0;
    do
    {
        while (sd_bus_process(bus, nullptr) > 0)
        {
        }
        sd_bus_message* reply = nullptr;
        sd_bus_call_method(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId",
                           nullptr, &reply, "");
        sd_bus_message_unref(reply);
        waiting = sd_bus_process(bus, nullptr);
    } while (waiting > 0);
}

size_t Heap()
{
    malloc_trim(0);
    return mallinfo2().uordblks;
}

using Objects = std::vector<std::shared_ptr<void>>;

template <class Class>
void Fill(Objects& objects, size_t count)
{
    for (size_t i = 0; i < count; ++i)
    {
        objects.push_back(Make<Class>(i));
    }
    Settle();
}

template <class Class>
void PrintHeap(const char* name)
{
    constexpr size_t count = 400;
    Objects objects;
    objects.reserve(2 * count);
    Fill<Class>(objects, 1); // what is made once
    const size_t before = Heap();
    Fill<Class>(objects, count);
    std::printf("%s %zu\n", name, (Heap() - before) / count);
    objects.clear();
    Settle();
}

// The field of /proc/self/status, in bytes.
size_t Status(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
    {
        if (line.starts_with(field + ":"))
        {
            return std::strtoul(line.c_str() + field.size() + 1, nullptr, 10) * 1024;
        }
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (sd_bus_default_system(&bus) < 0)
    {
        static_cast<void>(std::fprintf(stderr, "no bus\n"));
        return 1;
    }
    if (argc > 1 && std::strcmp(argv[1], "heap") == 0)
    {
        catalogue::EveryClass([]<class Class>(const char* name) { PrintHeap<Class>(name); });
    }
    else
    {
        Objects objects;
        catalogue::EveryClass([&]<class Class>(const char*) { Fill<Class>(objects, 10); });
        std::printf("private %zu\nshared %zu\n", Status("RssAnon"), Status("RssFile"));
    }
    sd_bus_flush_close_unref(bus);
    return 0;
}
