#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "KxMediainfo.h"
#include "tests/support/TestSupport.h"

namespace fs = std::filesystem;
using kxtest::RecordingLog;
using kxtest::TempDir;
using kxtest::writeFile;
using testing::ElementsAre;

namespace {

// A VIDEO_TS folder of files that have nothing but a name and a size.
class DvdStructure {
 public:
  explicit DvdStructure(const std::string& index = "VIDEO_TS.IFO") {
    fs::create_directory(m_dir / "VIDEO_TS");
    add(index, 10);
    m_index = folder() + index;
  }
  void add(const std::string& name, size_t bytes) const {
    writeFile(folder() + name, std::string(bytes, 'x'));
  }
  std::string folder() const { return m_dir / "VIDEO_TS/"; }
  const std::string& index() const { return m_index; }

 private:
  TempDir m_dir;
  std::string m_index;
};

class BluRayStructure {
 public:
  explicit BluRayStructure(const std::string& streamFolder = "STREAM") {
    fs::create_directories(folder() + streamFolder);
    writeFile(index(), "INDX");
  }
  void add(const std::string& name, size_t bytes) const {
    writeFile(streams() + name, std::string(bytes, 'x'));
  }
  std::string folder() const { return m_dir / "BDMV/"; }
  std::string streams() const { return folder() + "STREAM/"; }
  std::string index() const { return folder() + "index.bdmv"; }

 private:
  TempDir m_dir;
};

}  // namespace

TEST(KxDvd, TheLargestSetInTotalGivesTheSampleNotTheOneWithTheLargestFile) {
  const DvdStructure disc;
  disc.add("VTS_01_1.VOB", 900);
  disc.add("VTS_02_1.VOB", 600);
  disc.add("VTS_02_2.VOB", 500);
  KxDvd dvd;
  ASSERT_EQ(dvd.init(disc.index()), 0);
  EXPECT_EQ(dvd.getSampleVideoPath(), disc.folder() + "VTS_02_1.VOB");
  EXPECT_EQ(dvd.getSampleDvd().size, 1100);
  EXPECT_EQ(dvd.getSampleDvd().cntNo, 2);
  EXPECT_EQ(dvd.getSampleDvd().VTS, "02");
  EXPECT_EQ(dvd.getSampleDvd().vobPath, disc.folder());
  EXPECT_EQ(dvd.getSampleDvd().vobVTSPrefix, "VTS");
  EXPECT_EQ(dvd.getSampleDvd().vobSuffix, ".VOB");
}

TEST(KxDvd, AnIndexFileInLowerCaseIsAcceptedAndNamesKeepTheirCase) {
  const DvdStructure disc("video_ts.ifo");
  disc.add("vts_01_1.vob", 100);
  KxDvd dvd;
  ASSERT_EQ(dvd.init(disc.index()), 0);
  EXPECT_EQ(dvd.getSampleVideoPath(), disc.folder() + "vts_01_1.vob");
  EXPECT_EQ(dvd.getSampleDvd().vobVTSPrefix, "vts");
  EXPECT_EQ(dvd.getSampleDvd().vobSuffix, ".vob");
}

TEST(KxDvd, TheBackupIndexIsNotTakenForADvd) {
  const DvdStructure disc("VIDEO_TS.BUP");
  disc.add("VTS_01_1.VOB", 100);
  RecordingLog log;
  KxDvd dvd;
  EXPECT_EQ(dvd.init(disc.index()), 1);
  EXPECT_TRUE(log.has(5, "KxMediainfo", "VIDEO_TS.BUP is not dvd\n"));
  EXPECT_EQ(dvd.getSampleVideoPath(), "");
}

TEST(KxDvd, AnEmptyPathFails) {
  RecordingLog log;
  KxDvd dvd;
  EXPECT_EQ(dvd.init(""), 1);
  EXPECT_TRUE(log.has(5, "KxMediainfo", "fullpath is empty\n"));
}

TEST(KxDvd, AFolderThatCannotBeOpenedFails) {
  const TempDir dir;
  RecordingLog log;
  KxDvd dvd;
  EXPECT_EQ(dvd.init(dir / "gone/VIDEO_TS.IFO"), 1);
  EXPECT_TRUE(log.has("path=" + dir / "gone/" + ", name=VIDEO_TS.IFO\n"));
  EXPECT_TRUE(log.has("can not open dir " + dir / "gone/" + "\n"));
}

TEST(KxDvd, ADiscOfMenusOnlyHasNoSample) {
  const DvdStructure disc;
  disc.add("VIDEO_TS.VOB", 500);
  disc.add("VTS_01_0.VOB", 500);
  disc.add("VTS_01_0.IFO", 500);
  RecordingLog log;
  KxDvd dvd;
  EXPECT_EQ(dvd.init(disc.index()), 1);
  EXPECT_EQ(log.count("strCntNo <= 0, continue\n"), 1u);
  EXPECT_TRUE(log.has("the biggest VTS is empty"));
  EXPECT_EQ(dvd.getSampleVideoPath(), "");
  EXPECT_THAT(dvd.getTitleParts(), ElementsAre());
}

TEST(KxDvd, TheMenuOfASetDoesNotCountForItsSize) {
  const DvdStructure disc;
  disc.add("VTS_01_0.VOB", 5000);
  disc.add("VTS_01_1.VOB", 100);
  disc.add("VTS_02_1.VOB", 200);
  KxDvd dvd;
  ASSERT_EQ(dvd.init(disc.index()), 0);
  EXPECT_EQ(dvd.getSampleDvd().VTS, "02");
}

TEST(KxDvd, NamesThatDoNotParseAreSkippedAndLogged) {
  const DvdStructure disc;
  disc.add("VTS_01_1.VOB", 100);
  disc.add("VTS_01.VOB", 900);
  disc.add("VTS_01_x.VOB", 900);
  disc.add("VTS_ab_1.VOB", 900);
  disc.add("VTS_02_3000000000.VOB", 900);
  disc.add("._VTS_01_2.VOB", 900);
  disc.add("_VTS_01_1.VOB", 900);
  disc.add("VTS_03_-1.VOB", 900);
  RecordingLog log;
  KxDvd dvd;
  ASSERT_EQ(dvd.init(disc.index()), 0);
  EXPECT_EQ(dvd.getSampleVideoPath(), disc.folder() + "VTS_01_1.VOB");
  EXPECT_EQ(dvd.getSampleDvd().size, 100);
  for (const char* name :
       {"VTS_01.VOB", "VTS_01_x.VOB", "VTS_ab_1.VOB", "VTS_02_3000000000.VOB", "._VTS_01_2.VOB"})
    EXPECT_TRUE(log.has(std::string("can not parse the VTS or cntNo of ") + name + "\n")) << name;
  EXPECT_TRUE(log.has("can not parse file _VTS_01_1.VOB\n"));
  EXPECT_EQ(log.count("strCntNo <= 0, continue\n"), 1u);
}

TEST(KxDvd, APartThatCannotBeExaminedIsSkipped) {
  const DvdStructure disc;
  disc.add("VTS_01_1.VOB", 100);
  fs::create_symlink("nowhere", disc.folder() + "VTS_02_1.VOB");
  RecordingLog log;
  KxDvd dvd;
  ASSERT_EQ(dvd.init(disc.index()), 0);
  EXPECT_EQ(dvd.getSampleDvd().VTS, "01");
  EXPECT_TRUE(log.has("can not stat " + disc.folder() + "VTS_02_1.VOB\n"));
}

TEST(KxDvd, EverySetAndTheChoiceAreLogged) {
  const DvdStructure disc;
  disc.add("VTS_01_1.VOB", 10);
  disc.add("VTS_02_1.VOB", 20);
  RecordingLog log;
  KxDvd dvd;
  ASSERT_EQ(dvd.init(disc.index()), 0);
  EXPECT_TRUE(log.has("the map key 01, VTS=01, cntNo=1, size=10, vobPath=" + disc.folder() +
                      ", vobVTSPrefix=VTS,vobSuffix=.VOB\n"));
  EXPECT_TRUE(log.has("the map key 02, VTS=02, cntNo=1, size=20, vobPath=" + disc.folder() +
                      ", vobVTSPrefix=VTS,vobSuffix=.VOB\n"));
  EXPECT_TRUE(log.has(5, "KxMediainfo", "the biggest VTS=02\n"));
  for (const auto& line : log.lines()) EXPECT_EQ(line.func, "init");
}

TEST(KxDvd, AProbeIsLoggedStepByStep) {
  const DvdStructure disc;
  disc.add("VTS_01_0.VOB", 50);
  disc.add("VTS_01_1.VOB", 10);
  disc.add("VTS_01_x.VOB", 50);
  disc.add("VTS_02_1.VOB", 7);
  disc.add("_VTS_03_1.VOB", 50);
  fs::create_directory(disc.folder() + "VTS_04_1.VOB");
  RecordingLog log;
  KxDvd dvd;
  ASSERT_EQ(dvd.init(disc.index()), 0);
  const std::string place = ", vobPath=" + disc.folder() + ", vobVTSPrefix=VTS,vobSuffix=.VOB\n";
  EXPECT_THAT(log.texts(), ElementsAre("path=" + disc.folder() + ", name=VIDEO_TS.IFO\n",
                                       "strCntNo <= 0, continue\n",
                                       "can not parse the VTS or cntNo of VTS_01_x.VOB\n",
                                       "can not stat " + disc.folder() + "VTS_04_1.VOB\n",
                                       "can not parse file _VTS_03_1.VOB\n",
                                       "the map key 01, VTS=01, cntNo=1, size=10" + place,
                                       "the map key 02, VTS=02, cntNo=1, size=7" + place,
                                       "the biggest VTS=01\n"));
}

TEST(KxDvd, TheDumpLogsTheChosenSet) {
  const DvdStructure disc;
  disc.add("VTS_07_1.VOB", 10);
  KxDvd dvd;
  ASSERT_EQ(dvd.init(disc.index()), 0);
  RecordingLog log;
  dvd.dumpSampleDvdInfo();
  EXPECT_THAT(log.texts(),
              ElementsAre("m_inFile=" + disc.index() + "\n", "m_sampleDvd.size=10\n",
                          "m_sampleDvd.cntNo=1\n", "m_sampleDvd.VTS=07\n",
                          "m_sampleDvd.vobPath=" + disc.folder() + "\n",
                          "m_sampleDvd.vobVTSPrefix=VTS\n", "m_sampleDvd.vobSuffix=.VOB\n"));
}

TEST(KxDvd, ThePartsOfTheTitleComeInPlayingOrderAndGapsAreLeftOut) {
  const DvdStructure disc;
  disc.add("VTS_01_10.VOB", 10);
  disc.add("VTS_01_2.VOB", 10);
  disc.add("VTS_01_1.VOB", 10);
  disc.add("VTS_01_0.VOB", 10);
  KxDvd dvd;
  ASSERT_EQ(dvd.init(disc.index()), 0);
  EXPECT_EQ(dvd.getSampleDvd().cntNo, 10);
  EXPECT_THAT(dvd.getTitleParts(),
              ElementsAre(disc.folder() + "VTS_01_1.VOB", disc.folder() + "VTS_01_2.VOB",
                          disc.folder() + "VTS_01_10.VOB"));
}

TEST(KxDvd, AnotherInitForgetsTheFirstDisc) {
  const DvdStructure disc;
  disc.add("VTS_01_1.VOB", 10);
  KxDvd dvd;
  ASSERT_EQ(dvd.init(disc.index()), 0);
  ASSERT_EQ(dvd.init("/nowhere/else.mp4"), 1);
  EXPECT_EQ(dvd.getSampleVideoPath(), "");
}

TEST(KxBd, TheLargestStreamIsTheSample) {
  const BluRayStructure disc;
  disc.add("00000.m2ts", 10);
  disc.add("00001.M2TS", 300);
  disc.add("00002.m2ts", 20);
  disc.add("99999.bin", 900);
  RecordingLog log;
  KxBd bd;
  ASSERT_EQ(bd.init(disc.index()), 0);
  EXPECT_EQ(bd.getSampleVideoPath(), disc.streams() + "00001.M2TS");
  EXPECT_TRUE(log.has("checking STREAM ...\n"));
  EXPECT_TRUE(log.has("checking index.bdmv ...\n"));
  EXPECT_TRUE(log.has("the map key 00001.M2TS, streamPath=" + disc.streams() +
                      ", streamName=00001.M2TS, streamIdx=00001, size=300\n"));
  EXPECT_TRUE(log.has(5, "KxMediainfo", "the biggest stream is=00001.M2TS\n"));
  EXPECT_FALSE(log.hasPart("99999"));
}

TEST(KxBd, AProbeIsLoggedStepByStep) {
  const BluRayStructure disc;
  disc.add("00002.m2ts", 9);
  disc.add("00001.m2ts", 30);
  disc.add("00003.m2ts.part", 50);
  RecordingLog log;
  KxBd bd;
  ASSERT_EQ(bd.init(disc.index()), 0);
  const std::string path = ", streamPath=" + disc.streams();
  EXPECT_THAT(log.texts(), ElementsAre("path=" + disc.folder() + ", name=index.bdmv\n",
                                       "checking STREAM ...\n", "checking index.bdmv ...\n",
                                       "the map key 00001.m2ts" + path +
                                           ", streamName=00001.m2ts, streamIdx=00001, size=30\n",
                                       "the map key 00002.m2ts" + path +
                                           ", streamName=00002.m2ts, streamIdx=00002, size=9\n",
                                       "the biggest stream is=00001.m2ts\n"));
  for (const auto& line : log.lines()) EXPECT_EQ(line.func, "init");
}

TEST(KxBd, AnIndexInAnotherLetterCaseIsAccepted) {
  const BluRayStructure disc;
  disc.add("00000.m2ts", 10);
  fs::rename(disc.index(), disc.folder() + "INDEX.BDMV");
  KxBd bd;
  EXPECT_EQ(bd.init(disc.folder() + "INDEX.BDMV"), 0);
}

TEST(KxBd, OtherNamesAreNotABluRayDisc) {
  const BluRayStructure disc;
  disc.add("00000.m2ts", 10);
  KxBd bd;
  EXPECT_EQ(bd.init(disc.folder() + "MovieObject.bdmv"), 1);
  EXPECT_EQ(bd.getSampleVideoPath(), "");
}

TEST(KxBd, AnEmptyPathFails) {
  RecordingLog log;
  KxBd bd;
  EXPECT_EQ(bd.init(""), 1);
  EXPECT_TRUE(log.has("fullpath is empty\n"));
}

TEST(KxBd, AFolderThatCannotBeOpenedFails) {
  const TempDir dir;
  RecordingLog log;
  KxBd bd;
  EXPECT_EQ(bd.init(dir / "gone/index.bdmv"), 1);
  EXPECT_TRUE(log.has("path=" + dir / "gone/" + ", name=index.bdmv\n"));
  EXPECT_TRUE(log.has("can not open dir " + dir / "gone/" + "\n"));
}

TEST(KxBd, WithoutAStreamFolderTheFormatIsIncorrect) {
  const BluRayStructure disc("OTHER");
  RecordingLog log;
  KxBd bd;
  EXPECT_EQ(bd.init(disc.index()), 1);
  EXPECT_TRUE(log.has("incorrect BD format\n"));
}

TEST(KxBd, AFileIsNoStreamFolder) {
  const BluRayStructure disc("OTHER");
  writeFile(disc.folder() + "STREAM", "x");
  RecordingLog log;
  KxBd bd;
  EXPECT_EQ(bd.init(disc.index()), 1);
  EXPECT_TRUE(log.has("incorrect BD format\n"));
}

TEST(KxBd, AStreamFolderOfAnotherPlaceIsNotOpened) {
  const BluRayStructure other;
  other.add("00000.m2ts", 10);
  const BluRayStructure disc("OTHER");
  fs::create_directory_symlink(other.streams(), disc.folder() + "STREAM");
  RecordingLog log;
  KxBd bd;
  EXPECT_EQ(bd.init(disc.index()), 1);
  EXPECT_TRUE(log.has("can not open dir " + disc.streams() + "\n"));
}

TEST(KxBd, AStreamFolderWithoutStreamsFails) {
  const BluRayStructure disc;
  disc.add("readme.txt", 10);
  KxBd bd;
  EXPECT_EQ(bd.init(disc.index()), 1);
  EXPECT_EQ(bd.getSampleVideoPath(), "");
}

TEST(KxBd, AStreamThatCannotBeExaminedIsSkipped) {
  const BluRayStructure disc;
  disc.add("00000.m2ts", 10);
  fs::create_symlink("nowhere", disc.streams() + "00001.m2ts");
  KxBd bd;
  ASSERT_EQ(bd.init(disc.index()), 0);
  EXPECT_EQ(bd.getSampleVideoPath(), disc.streams() + "00000.m2ts");
}
