// Runs without a MainThread: what happens before main and after the cache's own static
// destructor, and the start-up switch that must be read before threads exist.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "basicutil/Logger.h"
#include "basicutil/Regex.h"

using namespace morvek;

namespace {

bool checking_exit = false;

// Registered before the static handle below exists, so it runs after that handle's destructor.
void afterStaticHandle() {
  if (!checking_exit) return;
  RegexCacheCounts counts = regexCacheCounts();
  bool clean = regexCacheState() == REGEX_CACHE_DESTROYED && counts.live == 0 &&
               counts.young == 0 && counts.old == 0;
  _exit(clean ? 42 : 3);
}

RegexCacheState state_before_static = [] {
  atexit(afterStaticHandle);
  return regexCacheState();
}();
// Built before the cache's static constructor ran, so it is destroyed after its destructor.
Regex static_handle("static (handle)");

TEST(RegexStatic, HandleOutlivesTheCache) {
  ASSERT_EQ(state_before_static, REGEX_CACHE_UNITIALIZED);
  EXPECT_EQ(regexCacheState(), REGEX_CACHE_INITIALIZED);
  EXPECT_TRUE(static_handle.matches("static handle", nullptr, MATCH_FULL));
  {
    // A retired pattern, which the cache's destructor must free.
    Regex("retired before exit");
  }
  EXPECT_EXIT(
      {
        checking_exit = true;
        exit(0);
      },
      testing::ExitedWithCode(42), "");
}

TEST(RegexStatic, Re2SwitchIsAStateOnly) {
  struct Case {
    const char *value;  // null: unset
    Re2RegexState state;
    bool complains;
  } cases[] = {
      {nullptr, RE2_ENABLED, false}, {"", RE2_ENABLED, false},       {"no", RE2_DISABLED, false},
      {"0", RE2_DISABLED, false},    {"False", RE2_DISABLED, false}, {"Yes", RE2_ENABLED, false},
      {"1", RE2_ENABLED, false},     {"maybe", RE2_DISABLED, true},
  };
  Logger log("RegexTest");
  for (const Case &c : cases) {
    SCOPED_TRACE(c.value ? c.value : "(unset)");
    if (c.value != nullptr) {
      setenv("MORVEK_RE2_REGEXES", c.value, 1);
    } else {
      unsetenv("MORVEK_RE2_REGEXES");
    }
    resetRe2RegexStateForTesting();
    testing::internal::CaptureStderr();
    initRe2RegexState(log);
    EXPECT_EQ(readRe2RegexState(), c.state);  // read once: no second complaint
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(re2RegexState(), c.state);
    std::string complaint = std::string("Can't parse MORVEK_RE2_REGEXES setting of \"") +
                            (c.value ? c.value : "") + "\", disabling re2\n";
    EXPECT_EQ(err.find(complaint) != std::string::npos, c.complains) << err;
    if (c.complains) {
      EXPECT_EQ(err.find(complaint), err.rfind(complaint));
    }
    EXPECT_NE(err.find(c.state == RE2_ENABLED ? "RE2 library enabled" : "RE2 library disabled"),
              std::string::npos);
  }
  unsetenv("MORVEK_RE2_REGEXES");
}

}  // namespace
