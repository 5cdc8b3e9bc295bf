#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KxTranscoder.h"
#include "tests/support/TestSupport.h"

using testing::ElementsAre;

TEST(TranscodeParam, StartsWithItsDefaults) {
  const TranscodeParam p;
  for (const std::string& value :
       {p.m_inFile, p.m_outFile, p.m_pipeOutFile, p.m_seekTimeFile, p.m_fastStartFile, p.m_profile,
        p.m_ip, p.m_usrname, p.m_tag, p.m_subtitle, p.m_subColor, p.m_hlsTid, p.m_hlsPath})
    EXPECT_EQ(value, "");
  for (const bool value :
       {p.m_isPipeIn, p.m_isPipeOut, p.m_isFastStart, p.m_estResource, p.m_estTranscodeType,
        p.m_myfile, p.m_vIgnore, p.m_vCopy, p.m_noDAR, p.m_aIgnore, p.m_aCopy})
    EXPECT_FALSE(value);
  for (const int value :
       {p.m_formatId, p.m_totalDuration, p.m_seekTime, p.m_mode, p.m_vid, p.m_vBitrate,
        p.m_vFramerate, p.m_width, p.m_height, p.m_aCodecId, p.m_aid, p.m_aChannel, p.m_aSampleRate,
        p.m_aBitrate, p.m_subSize, p.m_subSeek})
    EXPECT_EQ(value, 0);
  EXPECT_EQ(p.m_vCodecId, 28);
  EXPECT_EQ(p.m_vProfile, -1);
  EXPECT_EQ(p.m_vLevel, 0.0);
  EXPECT_EQ(p.m_rotate, -1);
  EXPECT_EQ(p.m_sid, -1);
  EXPECT_TRUE(p.m_extraCmds.empty());
}

TEST(TranscodeParam, DumpWritesEveryFieldInOrder) {
  TranscodeParam p;
  p.m_inFile = "in";
  p.m_outFile = "out";
  p.m_isPipeOut = true;
  p.m_pipeOutFile = "pipe";
  p.m_formatId = 4;
  p.m_totalDuration = 5;
  p.m_seekTime = 6;
  p.m_seekTimeFile = "seek";
  p.m_isFastStart = true;
  p.m_fastStartFile = "fast";
  p.m_profile = "profile";
  p.m_estResource = true;
  p.m_myfile = true;
  p.m_mode = 3;
  p.m_extraCmds = {"-a", "b c"};
  p.m_ip = "1.2.3.4";
  p.m_usrname = "user";
  p.m_tag = "tag";
  p.m_vid = 1;
  p.m_vProfile = 77;
  p.m_vLevel = 4.1;
  p.m_vBitrate = 7;
  p.m_vFramerate = 8;
  p.m_vCopy = true;
  p.m_width = 9;
  p.m_height = 10;
  p.m_rotate = 90;
  p.m_noDAR = true;
  p.m_aCodecId = 86018;
  p.m_aid = 2;
  p.m_aChannel = 11;
  p.m_aSampleRate = 12;
  p.m_aBitrate = 13;
  p.m_aCopy = true;
  p.m_sid = 0;
  p.m_subtitle = "sub";
  p.m_subColor = "red";
  p.m_subSize = 14;
  p.m_subSeek = -15;
  p.m_hlsTid = "tid";
  p.m_hlsPath = "path";

  kxtest::RecordingLog log;
  p.dump();
  EXPECT_THAT(
      log.texts(),
      ElementsAre("dump transcodeParam options\n",
                  "m_inFile=in, m_outFile=out, m_isPipeIn=0, m_isPipeOut=1, m_pipeOutFile=pipe\n",
                  "m_formatId=4, m_totalDuration=5, m_seekTime=6, m_seekTimeFile=seek, "
                  "m_isFastStart=1, m_fastStartFile=fast\n",
                  "m_profile=profile, m_estResource=true, m_estTranscodeType=false, "
                  "m_myfile=true, m_mode=3\n",
                  "m_ip=1.2.3.4, m_usrname=user, m_tag=tag\n",
                  "m_vCodecId=28, m_vid=1, m_vProfile=77, m_vLevel=4.100000, m_vBitrate=7, "
                  "m_vFramerate=8, m_vIgnore=false\n",
                  "m_vCopy=true, m_width=9, m_height=10, m_rotate=90, m_noDAR=true\n",
                  "m_aCodecId=86018, m_aid=2, m_aChannel=11, m_aSampleRate=12, m_aBitrate=13, "
                  "m_aIgnore=false, m_aCopy=true\n",
                  "m_sid=0, m_subtitle=sub, m_subColor=red, m_subSize=14, m_subSeek=-15\n",
                  "m_hlsTid=tid, m_hlsPath=path\n", "unknow cmd: -a\n", "unknow cmd: b c\n"));
  for (const auto& line : log.lines()) {
    EXPECT_EQ(line.level, 5);
    EXPECT_EQ(line.source, "KxTranscoder");
    EXPECT_EQ(line.func, "dump");
  }
}
