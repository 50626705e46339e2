#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "libzero/ospath-builder.h"

namespace {

std::string text(const ospath_builder &b) { return std::string(b.buf); }

TEST(OspathBuilder, ExactFitNeedsRoomForTheTerminator) {
  struct Case {
    size_t len;
    int finish;
  } cases[] = {{1022, 0}, {1023, 0}, {1024, -1}};
  for (const Case &c : cases) {
    ospath_builder b;
    ospath_builder_init(&b);
    std::string s(c.len, 'x');
    EXPECT_EQ(ospath_builder_appendn(&b, s.data(), s.size()), 1024 - c.len) << c.len;
    EXPECT_EQ(ospath_builder_finish(&b), c.finish) << c.len;
    EXPECT_EQ(ospath_builder_ok(&b) != 0, c.finish == 0) << c.len;
    if (c.finish == 0) {
      EXPECT_EQ(text(b), s);
    }
  }
}

TEST(OspathBuilder, OverflowIsStickyAndWritesNothingMore) {
  ospath_builder b;
  ospath_builder_init(&b);
  std::string big(1000, 'a');
  ospath_builder_append(&b, big.c_str());
  ospath_builder_append(&b, std::string(30, 'b').c_str());  // does not fit
  EXPECT_EQ(b.space_left, OSPATH_OVERFLOWED);
  // A later step that would fit on its own must not write either.
  char before = b.buf[1000];
  EXPECT_EQ(ospath_builder_appendc(&b, 'c'), OSPATH_OVERFLOWED);
  EXPECT_EQ(ospath_builder_append_number(&b, 7), OSPATH_OVERFLOWED);
  EXPECT_EQ(b.buf[1000], before);
  EXPECT_EQ(ospath_builder_finish(&b), -1);
  // Single-byte steps on a full buffer overflow too.
  ospath_builder_init(&b);
  EXPECT_EQ(ospath_builder_appendn(&b, std::string(1024, 'x').data(), 1024), 0u);
  EXPECT_EQ(ospath_builder_append_slash(&b), OSPATH_OVERFLOWED);
}

TEST(OspathBuilder, Numbers) {
  struct Case {
    long long v;
    const char *want;
  } cases[] = {{0, "0"}, {LLONG_MAX, "9223372036854775807"}, {LLONG_MIN, "-9223372036854775808"}};
  for (const Case &c : cases) {
    ospath_builder b;
    ospath_builder_init(&b);
    ospath_builder_append(&b, "n=");
    ospath_builder_append_number(&b, c.v);
    ASSERT_EQ(ospath_builder_finish(&b), 0);
    EXPECT_EQ(text(b), std::string("n=") + c.want);
  }
}

TEST(OspathBuilder, JoinAndBuild2) {
  ospath_builder b;
  EXPECT_EQ(ospath_join(&b, "a/", "b"), 0);
  EXPECT_EQ(text(b), "a//b");
  EXPECT_EQ(ospath_build2(&b, "/var/log", "/x.log"), 0);
  EXPECT_EQ(text(b), "/var/log/x.log");

  // 1022 + "/" + "c" leaves no room for the terminator.
  std::string a(1022, 'a');
  EXPECT_EQ(ospath_join(&b, a.c_str(), "c"), -1);
  EXPECT_EQ(ospath_join(&b, a.c_str(), ""), 0);
  // A first part that is too long overflows before anything is copied.
  std::string huge(1025, 'h');
  b.buf[0] = 'z';
  EXPECT_EQ(ospath_build2(&b, huge.c_str(), ""), -1);
  EXPECT_EQ(b.buf[0], 'z');
}

TEST(OspathBuilder, CopyLimit) {
  ospath_buf dst;
  memset(dst, 'z', sizeof dst);  // the terminator must be the copy's own
  EXPECT_EQ(ospath_copy(&dst, std::string(1023, 'q').c_str()), 0);
  EXPECT_EQ(std::string(dst).size(), 1023u);
  EXPECT_EQ(ospath_copy(&dst, std::string(1024, 'q').c_str()), -1);
}

}  // namespace
