#include "environment.h"
#include "local_time.h"
#include "test_files.h"

#include <gtest/gtest.h>

namespace {

int hour_in(const char* zone) {
    EXPECT_EQ(environment_set("TZ", zone), 0);
    return local_time(0).tm_hour;
}

TEST(LocalTimeTest, IsThatOfTheZoneThatIsSetNow) {
    EXPECT_TRUE(passes_in_own_process([] {
        EXPECT_EQ(hour_in("AAA-3"), 3);
        EXPECT_EQ(hour_in("BBB9"), 15);
        const std::tm local = local_time(0);
        EXPECT_EQ(local.tm_year, 69);
        EXPECT_EQ(local.tm_mon, 11);
        EXPECT_EQ(local.tm_mday, 31);
    }));
}

TEST(LocalTimeTest, WhileTheEnvironmentIsBeingChangedTheZoneOfBeforeIsUsedAndNothingWaits) {
    EXPECT_TRUE(passes_in_own_process([] {
        EXPECT_EQ(hour_in("AAA-3"), 3);
        EXPECT_EQ(environment_set("TZ", "BBB9"), 0);
        {
            const auto changing = environment_try_lock();
            EXPECT_EQ(local_time(0).tm_hour, 3);
        }
        EXPECT_EQ(local_time(0).tm_hour, 15);
    }));
}

} // namespace
