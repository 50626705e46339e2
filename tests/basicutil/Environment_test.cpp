// "$NAME" expansion and the configuration-directory rule.
#include "basicutil/Environment.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <map>
#include <string>

namespace {

using morvek::expandEnvironment;
using morvek::Str;

TEST(EnvironmentExpand, ReferencesAndTheEtcRule) {
  std::map<std::string, std::string> vars{{"b", "B"},
                                          {"MORVEK_HOME", "/opt/mv"},
                                          {"MORVEK_ETC", "/etc/mv"},
                                          {"D", "$b"},
                                          {"x_1", "one"}};
  auto lookup = [&](const Str &name, Str &value) {
    auto it = vars.find(name);
    if (it == vars.end()) return false;
    value = it->second;
    return true;
  };
  struct Case {
    const char *in, *want;
  } cases[] = {
      // clang-format off
      {"a$c", "a$c"}, {"$", "$"}, {"$$b", "$B"}, {"$x_1.log", "one.log"},
      {"$D", "$b"},  // a value is not expanded again
      {"$MORVEK_HOME/etc/log.cfg", "/etc/mv/log.cfg"}, {"$MORVEK_HOME\\etc\\x", "/etc/mv\\x"},
      {"$MORVEK_HOME/etcetera", "/opt/mv/etcetera"},
      // clang-format on
  };
  for (const Case &c : cases) {
    EXPECT_EQ(expandEnvironment(c.in, strlen(c.in), lookup), c.want) << c.in;
  }
  vars.erase("MORVEK_ETC");
  EXPECT_EQ(expandEnvironment("$MORVEK_HOME/etc/a", 18, lookup), "$MORVEK_ETC/a");
  // The end of the given range ends the text: "/etc" cut short of its last byte is no match.
  EXPECT_EQ(expandEnvironment("$MORVEK_HOME/etc", 15, lookup), "/opt/mv/et");
  EXPECT_EQ(expandEnvironment(nullptr, 3, lookup), "");
}

TEST(EnvironmentExpand, DefaultLookupAndHome) {
  setenv("MV_TEST_VAR", "v", 1);
  unsetenv("MV_TEST_UNSET");
  EXPECT_EQ(expandEnvironment("[$MV_TEST_VAR][$MV_TEST_UNSET]"), "[v][$MV_TEST_UNSET]");
  Str rendered;
  morvek::EnvironmentVariable("MV_TEST_UNSET").appendTo(rendered);
  morvek::EnvironmentVariable::appendName(rendered, "X");
  EXPECT_EQ(rendered, "$X");

  ospath_builder b;
  setenv("MORVEK_HOME", "/h", 1);
  ASSERT_EQ(morvek::buildHomePath(&b, "etc/x"), 0);
  EXPECT_STREQ(b.buf, "/h/etc/x");
  unsetenv("MORVEK_HOME");
  ASSERT_EQ(morvek::buildHomePath(&b, "etc/x"), 0);
  EXPECT_STREQ(b.buf, "./etc/x");
  EXPECT_EQ(morvek::buildHomePath(&b, std::string(2000, 'x').c_str()), -1);
}

}  // namespace
