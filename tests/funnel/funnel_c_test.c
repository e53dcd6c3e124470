/* The plain data of the funnel is there for C programs too, under the same names. */

#include <threadfunnel.hpp>

int main(void)
{
    const pthread_t self = pthread_self();
    if (funnel_tid_valid || owc_tid_valid || TF_alternate_log_source != 0)
    {
        return 1;
    }
    TF_alternate_log_source = 300;
    owc_tid = self;
    owc_tid_valid = true;
    return pthread_equal(owc_tid, self) && !pthread_equal(funnel_tid, self) ? 0 : 2;
}
