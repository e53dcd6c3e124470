#pragma once

// What the programs of this folder share. A contender is chosen by who does the work and what it
// is:
//
//   PROGRAM library|floor|sdbus-c++|gdbus WHAT COUNT

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

namespace bench
{

// The command line; ends the process where it is another one.
struct Arguments
{
    Arguments(int argc, char** argv)
    {
        if (argc != 4)
        {
            static_cast<void>(std::fprintf(stderr, "usage: %s WHO WHAT COUNT\n", argv[0]));
            std::exit(2);
        }
        who = argv[1];
        what = argv[2];
        count = std::stol(argv[3]);
    }

    std::string who;
    std::string what;
    long count = 0;
};

// One operation.
using Work = std::function<void()>;

constexpr const char* propertiesInterface = "org.freedesktop.DBus.Properties";
constexpr int notBuiltIn = 77;

inline void Check(int result, const char* what)
{
    if (result < 0)
    {
        static_cast<void>(std::fprintf(stderr, "%s: %s\n", what, std::strerror(-result)));
        std::exit(1);
    }
}

inline void Check(bool right, const char* what)
{
    Check(right ? 0 : -EIO, what);
}

// What a user would take instead, each in a file of its own. Empty for work that it does not know.
Work SdbusCpp(const std::string& what);
Work GDBus(const std::string& what);

// The same for `count` asynchronous calls, some in flight at a time.
void SdbusCppCalls(long count);
void GDBusCalls(long count);

// Ends the process when there is no such contender.
inline Work Peer([[maybe_unused]] const std::string& who, [[maybe_unused]] const std::string& what)
{
    Work work;
#ifdef BENCH_SDBUSCPP
    work = who == "sdbus-c++" ? SdbusCpp(what) : work;
#endif
#ifdef BENCH_GDBUS
    work = who == "gdbus" ? GDBus(what) : work;
#endif
    if (!work)
    {
        std::exit(notBuiltIn);
    }
    return work;
}

inline void PeerCalls([[maybe_unused]] const std::string& who, [[maybe_unused]] long count)
{
#ifdef BENCH_SDBUSCPP
    if (who == "sdbus-c++")
    {
        return SdbusCppCalls(count);
    }
#endif
#ifdef BENCH_GDBUS
    if (who == "gdbus")
    {
        return GDBusCalls(count);
    }
#endif
    std::exit(notBuiltIn);
}

} // namespace bench
