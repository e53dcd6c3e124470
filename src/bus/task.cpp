// What coroutines report to the log: an exception that nobody awaits, and a coroutine that the
// compiler got wrong.

#include <bmcbus/task.hpp>

#include "log.hpp"

#include <cstdlib>

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
