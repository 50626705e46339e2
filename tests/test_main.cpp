// Every test binary runs as a program of the library does: with its MainThread made first.
#include <gtest/gtest.h>

#include "basicutil/Thread.h"

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  // Death tests fork; re-executing keeps the child's threads sane.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  morvek::EmptyMainThread main_thread;
  return RUN_ALL_TESTS();
}
