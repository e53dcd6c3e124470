#pragma once

// Threads of the kit take no signals: those are the test's.

#include <csignal>
#include <thread>
#include <utility>

namespace bmcbus::testing
{

// A thread on which no signal of the program is delivered.
template <class Body>
std::thread QuietThread(Body&& body)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread(std::forward<Body>(body));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

} // namespace bmcbus::testing
