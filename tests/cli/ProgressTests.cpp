// The texts that a terminal shows while work goes on.

#include <gtest/gtest.h>

#include <chrono>

#include "Progress.h"

namespace VarnScripts {
namespace {

TEST(DownloadText, TellsBytesAndPercent) {
  EXPECT_EQ(downloadText(0, 0), "Downloading 0 B");
  EXPECT_EQ(downloadText(1023, 0), "Downloading 1023 B");
  EXPECT_EQ(downloadText(1024, 4096), "Downloading 1.0 KiB of 4.0 KiB (25 %)");
  EXPECT_EQ(downloadText(1572864, 3145728), "Downloading 1.5 MiB of 3.0 MiB (50 %)");
  EXPECT_EQ(downloadText(1073741824, 1073741824), "Downloading 1.0 GiB of 1.0 GiB (100 %)");
}

TEST(DownloadText, AWrongTotalIsLeftOut) {
  EXPECT_EQ(downloadText(2048, 1024), "Downloading 2.0 KiB");
}

TEST(RunText, TellsSecondsAgainstTheLimit) {
  EXPECT_EQ(runText(std::chrono::seconds(12), std::chrono::seconds(600)),
            "Script is running: 12 s of at most 600 s");
}

}  // namespace
}  // namespace VarnScripts
