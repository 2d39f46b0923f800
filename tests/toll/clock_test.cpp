#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "toll/toll_tables.h"

namespace torvex {
namespace {

TEST(ClockParse, EveryMinuteOfTheHorizonRoundTrips) {
    char text[32];
    for (int h = 0; h < 30; ++h) {
        for (int m = 0; m < 60; ++m) {
            std::snprintf(text, sizeof text, "%02d:%02d", h, m);
            ASSERT_EQ(parse_clock_minutes(text), h * 60 + m) << text;
            std::snprintf(text, sizeof text, "%d:%02d:00", h, m);
            ASSERT_EQ(parse_clock_minutes(text), h * 60 + m) << text;
        }
    }
}

// Past the plain forms above: seconds with fractions, one-digit minutes, surrounding blanks, no
// hour limit, a day prefix and the two words in any case.
TEST(ClockParse, AcceptedForms) {
    EXPECT_FLOAT_EQ(parse_clock_minutes("7:30:30"), 450.5f);
    EXPECT_FLOAT_EQ(parse_clock_minutes("08:00:59.5"), 480.0f + 59.5f / 60.0f);
    EXPECT_FLOAT_EQ(parse_clock_minutes("08:00:07."), 480.0f + 7.0f / 60.0f);
    EXPECT_FLOAT_EQ(parse_clock_minutes("08:00:.5"), 480.0f + 0.5f / 60.0f);
    EXPECT_EQ(parse_clock_minutes("23:59:59.999"), 23 * 60 + 59 + 59.999f / 60.0f);
    EXPECT_EQ(parse_clock_minutes("12:5"), 725.0f);
    EXPECT_EQ(parse_clock_minutes(" \t08:15\r\n"), 495.0f);
    EXPECT_EQ(parse_clock_minutes("100:00"), 6000.0f);
    EXPECT_EQ(parse_clock_minutes("1@02:00"), 1560.0f);
    EXPECT_EQ(parse_clock_minutes("2@00:00:30"), 2880.5f);
    for (const char* noon : {"NOON", " noon ", "NoOn"})
        EXPECT_EQ(parse_clock_minutes(noon), 720.0f);
    for (const char* midnight : {"midnight\r", "MIDNIGHT"})
        EXPECT_EQ(parse_clock_minutes(midnight), 0.0f);
}

TEST(ClockParse, RefusedForms) {
    for (const char* bad :
         {"",         "  \t\r\n", "480",          "8.5",      "8:60",   "08:00:60.0", "1:2:3:4",
          "8:0a",     "8::00",    ":30",          "8:",       "8:3.5",  "8.0:30",     "8:00:1.2.3",
          "8:00:1e1", "@8:00",    "1@2@8:00",     "1.5@8:00", "-1:00",  "+8:00",      "8:00 am",
          "8 :00",    "noon2",    "NOONMIDNIGHT", "1@noon",   "\xff:00"}) {
        EXPECT_EQ(parse_clock_minutes(bad), -1.0f) << "'" << bad << "'";
    }
}

}  // namespace
}  // namespace torvex
