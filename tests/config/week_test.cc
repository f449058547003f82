// Weekday masks in text and in a UCI option.
#include <routerkit/uci_access.h>

#include <algorithm>

#include "uci_testutil.h"

namespace rk::test {
namespace {

TEST(Week, MaskToTextAtEverySize) {
  char out[40];
  for (int mask = 0; mask < 256; ++mask) {  // every set of days renders and reads back
    ASSERT_EQ(4 * __builtin_popcount(mask & 0x7f), getWeekString(out, 29, uint8_t(mask)));
    uint8_t back = 0;
    getWeekFlag(out, &back);
    ASSERT_EQ(mask & 0x7f, back) << out;
  }
  // Every size: whole days only, four bytes each ("Sun," or "Sat" and its
  // terminator); nothing is written behind the size.
  const std::string all = "Sun,Mon,Tue,Wed,Thu,Fri,Sat";
  for (int size = 1; size <= 36; ++size) {
    const int days = std::min(7, (size - 1) / 4);
    memset(out, '#', sizeof out);
    const int n = getWeekString(out, size, 0x7f);
    EXPECT_EQ(std::to_string(n) + " " + out, std::to_string(4 * days) + " " + all.substr(0, days ? 4 * days - 1 : 0));
    EXPECT_EQ(std::string(sizeof out - size, '#'), std::string(out + size, sizeof out - size)) << size;
  }
  EXPECT_EQ(-1, getWeekString(out, 0, 1));
  EXPECT_EQ(-1, getWeekString(nullptr, 8, 1));
}

TEST(Week, TextToMask) {
  RK_REQUIRE_NAMESPACE();
  SyslogCapture log;
  struct { const char *text; uint8_t before, after; std::vector<std::string> logged; } rows[] = {
      {"Sun,Mon,Tue,Wed,Thu,Fri,Sat", 0, 0x7f, {}},
      {"sat fri thu wed tue mon sun", 0, 0x7f, {}},
      {"sU Sa tH tU", 0, 0x55, {}},
      {"M,T,W,F,S,1,2", 0, 0, {}},
      {"Sx,Mon", 0, 0x02, {"E [getWeekValue:N]error week(Sx,Mon)"}},
      {"Tx Xyz,12", 0, 0, {"E [getWeekValue:N]error week(Tx Xyz,12)",
                           "E [getWeekValue:N]error week(Xyz,12)", "E [getWeekValue:N]error week(12)"}},
      {",Mon,, Tue ,", 0, 0x06, {}},
      {"Mon\tTue", 0, 0x02, {}},
      {"Mon", 0x40, 0x42, {}},
      {"", 0x40, 0x40, {}},
  };
  for (const auto &r : rows) {
    uint8_t mask = r.before;
    EXPECT_EQ(0, getWeekFlag(r.text, &mask));
    EXPECT_EQ(r.after, mask) << r.text;
    EXPECT_EQ(r.logged, log.TakeNormalized()) << r.text;
  }
  EXPECT_EQ(-1, getWeekFlag(nullptr, &rows[0].before));
  EXPECT_EQ(-1, getWeekFlag("Mon", nullptr));
}

TEST_F(UciFiles, WeekOptionInUci) {
  put("sched", "config rule 'r'\n\toption days 'Mon,Fri'\n");
  load("sched");
  uci_section *s = section("r");
  uint8_t mask = 0x40;
  StderrCapture out(1);
  const int results[] = {uciGetWeek(ctx_, s, "days", &mask), uciGetWeek(ctx_, s, "nope", &mask),
                         uciGetWeek(ctx_, s, "days", nullptr)};
  EXPECT_EQ(out.Stop(), "week=Mon,Fri\nweek=Mon,Fri\n");  // printed on standard output
  EXPECT_EQ(std::vector<int>(std::begin(results), std::end(results)), (std::vector<int>{0, -1, -1}));
  EXPECT_EQ(0x62, mask);
  EXPECT_EQ(0, uciSetWeek(ctx_, pkg_, s, "days", 0x41));
  EXPECT_EQ(text("r", "days"), "Sun,Sat");
  EXPECT_EQ(0, uciSetWeek(ctx_, pkg_, s, "days", 0));  // an empty value: libuci deletes
  EXPECT_EQ(text("r", "days"), "<absent>");
}

}  // namespace
}  // namespace rk::test
