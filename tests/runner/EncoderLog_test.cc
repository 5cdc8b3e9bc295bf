#include "resources/EncoderLog.h"

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

using namespace kxtest;

namespace {

std::string complaint(const std::string& log) {
  const TempDir dir;
  writeFile(dir / "log", log);
  return runner::complaintOf(dir / "log");
}

}  // namespace

TEST(EncoderLog, StatisticsAndProgressAreNoReason) {
  EXPECT_EQ(complaint("[vp9 @ 0x55feca0054c0] Invalid frame marker\n"
                      "    Last message repeated 2 times\n"
                      "frame=    0 fps=0.0 q=0.0 Lsize=       1kB time=00:00:00.00\r"
                      "size=       1kB time=00:00:00.00 bitrate=N/A speed=   0x\r\n"
                      "video:0kB audio:0kB subtitle:0kB other streams:0kB muxing overhead: 17%\n"
                      "[libx264 @ 0x55ac77ca4280] mb I  I16..4: 100.0%  0.0%  0.0%\n"
                      "[libx264 @ 0x55ac77ca4280] kb/s:81.56\n"
                      "[aac @ 0x563786f0a5c0] Qavg: 65536.000\n"
                      "Exiting normally, received signal 15.\n"
                      "Error marking filters as finished\n"
                      "Conversion failed!\n"),
            "vp9: Invalid frame marker");
}

TEST(EncoderLog, AFullDiskIsTheReasonThoughStatisticsFollow) {
  EXPECT_EQ(complaint("Error writing trailer of /m/o.mp4: No space left on device\n"
                      "frame=   23 fps=0.0 q=-1.0 Lsize=     768kB time=00:00:00.81\n"
                      "video:1237kB audio:7kB subtitle:0kB muxing overhead: unknown\n"
                      "Error closing file /m/o.mp4: No space left on device\n"
                      "[libx264 @ 0x559de4095600] frame I:1     Avg QP:20.00  size: 82951\n"
                      "[libx264 @ 0x559de4095600] consecutive B-frames: 26.2% 40.5% 28.6%\n"
                      "[libx264 @ 0x559de4095600] direct mvs  spatial:98.6% temporal:1.4%\n"
                      "Conversion failed!\n"),
            "Error closing file /m/o.mp4: No space left on device");
}

TEST(EncoderLog, AFullDiskIsTheReasonAlsoWhenTheFileCannotBeBegun) {
  EXPECT_EQ(complaint("[libx264 @ 0x55d0c51d0a40] profile High, level 1.0\n"
                      "Could not write header for output file #0 (incorrect codec parameters ?): "
                      "No space left on device\n"
                      "Error initializing output stream 0:0 -- \nConversion failed!\n"),
            "Could not write header for output file #0: No space left on device");
}

TEST(EncoderLog, TheEncodersOwnLastWordIsTaken) {
  EXPECT_EQ(complaint("Output file is empty, nothing was encoded (check -ss / -t / -frames "
                      "parameters if used)\nConversion failed!\n"),
            "Output file is empty, nothing was encoded");
  EXPECT_EQ(complaint("Stream map '0:v:7' matches no streams.\n"
                      "To ignore this, add a trailing '?' to the map.\n"),
            "Stream map '0:v:7' matches no streams.");
}

TEST(EncoderLog, WhatAComponentSaidComesBeforeTheRepetitionOfIt) {
  const std::string repetition = "Error initializing output stream 0:0 -- Error while opening "
                                 "encoder for output stream #0:0\nConversion failed!\n";
  EXPECT_EQ(complaint("[libx264 @ 0x5] width not divisible by 2 (359x240)\n" + repetition),
            "libx264: width not divisible by 2 (359x240)");
  EXPECT_EQ(complaint("Something that was said earlier\n" + repetition),
            "Error initializing output stream 0:0 -- Error while opening encoder for output "
            "stream #0:0");
}

TEST(EncoderLog, NothingIsMadeOfNothing) {
  EXPECT_EQ(complaint(""), "");
  EXPECT_EQ(complaint("frame=1\n\n  Metadata:\n"), "");
  EXPECT_EQ(runner::complaintOf("/absent"), "");
}

TEST(EncoderLog, OnlyTheEndOfALongLogIsRead) {
  EXPECT_EQ(complaint("too long ago\n" + std::string(100000, '\n')), "");
  EXPECT_EQ(complaint(std::string(100000, '\n') + "\x1b[31mlate\n"), " [31mlate");
}
