#include <bmcbus/task.hpp>

#include "log.hpp"

#include <cstdlib>

// What a coroutine threw and nobody awaits still shows in the log.

namespace bmcbus::detail
{

void ReportUnawaited(const std::exception_ptr& thrown) noexcept
{
    try
    {
        std::rethrow_exception(thrown);
    }
    catch (const std::exception& error)
    {
        BMCBUS_LOG(error, "a task that nobody awaits threw: %s", error.what());
    }
    catch (...)
    {
        BMCBUS_LOG(error, "a task that nobody awaits threw something that is no std::exception");
    }
}

void ReportWrongFrame() noexcept
{
    BMCBUS_LOG(failure,
               "the compiler made a wrong frame for a coroutine, see bmcbus/task.hpp: give "
               "it a variable at its outermost level, or take co_await out of a condition");
    std::abort();
}

} // namespace bmcbus::detail
