#include "local_time.h"

#include "environment.h"

std::tm local_time(std::time_t second) {
    {
        // localtime_r() alone would keep the zone of the first call for ever.
        const auto unchanged_environment = environment_try_lock();
        if (unchanged_environment) {
            ::tzset();
        }
    }
    std::tm local = {};
    (void)::localtime_r(&second, &local);
    return local;
}
