#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <ostream>
#include <random>
#include <utility>
#include <vector>

#include "tests/runner/RunnerWorld.h"
#include "tests/support/Discs.h"

namespace fs = std::filesystem;
using namespace kxtest;
using testing::HasSubstr;
using testing::IsEmpty;

// Discs through the runner: folders and images, whole and damaged.

namespace {

// What the program that makes the images puts behind the last file.
constexpr std::uintmax_t kImagePadding = std::uintmax_t{150} * 2048;

class Discs : public testing::Test {
 protected:
  Discs() { world.root().install("udfserve"); }

  // Two title sets with menus: the second is the longer one, of two parts.
  DvdFolder makeDvd(const std::string& name,
                    DvdFolder::Names names = DvdFolder::Names::Capital) const {
    DvdFolder dvd(world.media(name), names);
    makeVob(dvd.file("VIDEO_TS.VOB"), 0.4, "white");
    dvd.addTitleSet(1, {"blue"}, 1);
    dvd.addTitleSet(2, {"red", "green"}, 2);
    return dvd;
  }

  // One part whose time stamps begin anew in the middle, as where scenes were joined.
  DvdFolder makeDvdOfTwoTimes(const std::string& name) const {
    DvdFolder dvd(world.media(name));
    dvd.addTitleSet(1, {"red"}, 3);
    makeVob(world.media("next.vob"), 2, "green");
    writeFile(dvd.part(1, 1), readFile(dvd.part(1, 1)) + readFile(world.media("next.vob")));
    dvd.writeTable(1);
    return dvd;
  }

  BluRayFolder makeBluRay(const std::string& name) const {
    BluRayFolder disc(world.media(name));
    disc.addStream("00000", 0.5, "blue");
    disc.addStream("00007", 3, "red");
    disc.addStream("00009", 1, "blue");
    return disc;
  }

  std::string imageOf(const std::string& folder, Image kind) const {
    const std::string image = folder + "." + nameOf(kind) + ".iso";
    return makeImage(folder, image, kind) ? image : "";
  }

  void expectMainTitle(const KxDBTaskParam& row, double seconds) {
    ASSERT_EQ(row.status, JOB_DONE) << world.reason(row.id);
    const std::string result = kxJobOutputs(row)[0].path;
    const auto facts = probe(result);
    ASSERT_TRUE(facts) << result;
    EXPECT_NEAR(facts->seconds, seconds, 0.5);
    EXPECT_EQ(facts->videoCodec, "h264");
    EXPECT_EQ(facts->audioCodec, "aac");
    EXPECT_TRUE(decodesClean(result));
    EXPECT_EQ(colourAt(result, 0.3), "red");
    expectNothingLeft();
  }

  void expectDvdTitle(const KxDBTaskParam& row) {
    expectMainTitle(row, 4);
    EXPECT_EQ(colourAt(kxJobOutputs(row)[0].path, 3), "green");
  }

  void expectNothingLeft() {
    EXPECT_THAT(world.leftovers(), IsEmpty());
    EXPECT_THAT(mountsBelow(world.root().path()), IsEmpty());
    const std::string mounts = world.root().path() + "/run/xcode/iso";
    EXPECT_TRUE(!fs::exists(mounts) || fs::is_empty(mounts));
    EXPECT_THAT(childPrograms(), IsEmpty());
    EXPECT_EQ(world.registrations(), 0U);
  }

  // Runs a job that has to fail, soon, and without a trace.
  std::string reasonOfFailure(const std::string& source) {
    const auto begin = std::chrono::steady_clock::now();
    const KxDBTaskParam row = world.run(source, PROFILE_240P);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
    EXPECT_EQ(row.status, JOB_ERROR);
    EXPECT_FALSE(fs::exists(kxJobOutputs(row)[0].path));
    expectNothingLeft();
    return world.reason(row.id);
  }

  RunnerWorld world;
  RecordingLog log;
};

class DiscImages : public Discs, public testing::WithParamInterface<Image> {
 protected:
  void SetUp() override {
    if (!canMountImages()) GTEST_SKIP() << "mounting is not possible here";
  }
};

}  // namespace

TEST_F(Discs, ADvdFolderBecomesOneVideoOfItsMainTitle) {
  const DvdFolder dvd = makeDvd("Film");
  expectDvdTitle(world.run(dvd.top(), PROFILE_240P));
}

TEST_F(Discs, ADvdFolderMayHaveItsNamesInSmallLetters) {
  const DvdFolder dvd = makeDvd("film", DvdFolder::Names::Small);
  expectDvdTitle(world.run(dvd.top() + "/", PROFILE_240P));
}

TEST_F(Discs, TheIndexOfADvdStandsForTheDisc) {
  const DvdFolder dvd = makeDvd("Film");
  expectDvdTitle(world.run(dvd.file("VIDEO_TS.IFO"), PROFILE_240P));
}

TEST_F(Discs, ADvdTitleMayBeginItsTimeAnewInTheMiddleOfAPart) {
  const DvdFolder dvd = makeDvdOfTwoTimes("Film");
  const KxDBTaskParam row = world.run(dvd.top(), PROFILE_240P);
  expectMainTitle(row, 5);
  EXPECT_EQ(colourAt(kxJobOutputs(row)[0].path, 4), "green");
}

TEST_F(Discs, ADvdTitleMayBeCutIntoPartsAnywhere) {
  const DvdFolder dvd(world.media("Film"));
  dvd.addTitleSet(1, {"red"}, 4);
  const std::string whole = readFile(dvd.part(1, 1));
  const size_t cut = whole.size() / 2048 / 2 * 2048;
  writeFile(dvd.part(1, 1), whole.substr(0, cut));
  writeFile(dvd.part(1, 2), whole.substr(cut));
  dvd.writeTable(1);
  expectMainTitle(world.run(dvd.top(), PROFILE_240P), 4);
}

TEST_F(Discs, ABluRayFolderBecomesOneVideoOfItsMainStream) {
  const BluRayFolder disc = makeBluRay("Film");
  expectMainTitle(world.run(disc.top(), PROFILE_240P), 3);
}

TEST_F(Discs, ABluRayFolderMayHaveItsNamesInSmallLetters) {
  const BluRayFolder disc = makeBluRay("film");
  fs::rename(disc.file("STREAM"), disc.file("stream"));
  fs::rename(disc.top() + "/BDMV", disc.top() + "/bdmv");
  expectMainTitle(world.run(disc.top(), PROFILE_240P), 3);
}

TEST_F(Discs, SoundThatBeginsLateIsFound) {
  world.root().install("ffmpeg");
  const DvdFolder dvd(world.media("Film"));
  ASSERT_TRUE(run({"ffmpeg",
                   "-v",
                   "error",
                   "-f",
                   "lavfi",
                   "-i",
                   "color=red:s=64x48:r=25:d=16",
                   "-itsoffset",
                   "13",
                   "-f",
                   "lavfi",
                   "-i",
                   "sine=d=3",
                   "-map",
                   "0",
                   "-map",
                   "1",
                   "-c:v",
                   "mpeg2video",
                   "-c:a",
                   "ac3",
                   "-f",
                   "vob",
                   dvd.part(1, 1)}));
  dvd.writeTable(1);
  const KxDBTaskParam row = world.run(dvd.top(), PROFILE_240P | PROFILE_AUDIO);
  expectMainTitle(row, 16);
  EXPECT_TRUE(probe(world.media("Video2audio/Film.mp3")));
  fs::copy_file(dvd.part(1, 1), world.media("film.vob"));
  const KxDBTaskParam file = world.run(world.media("film.vob"), PROFILE_240P);
  expectMainTitle(file, 16);
}

TEST_F(Discs, TheSoundOfADiscIsExtractedFromItsMainTitle) {
  const DvdFolder dvd = makeDvd("Film");
  const KxDBTaskParam row = world.run(dvd.top(), PROFILE_AUDIO);
  ASSERT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  const auto facts = probe(world.media("Video2audio/Film.mp3"));
  ASSERT_TRUE(facts);
  EXPECT_NEAR(facts->seconds, 4, 0.5);
  expectNothingLeft();
}

TEST_F(Discs, SubtitlesOfADiscAreRefusedWithTheReason) {
  const DvdFolder dvd = makeDvd("Film");
  const KxDBTaskParam row =
      world.run(dvd.top(), PROFILE_240P, [](KxDBTaskParam& job) { job.sid = 0; });
  EXPECT_EQ(row.status, JOB_ERROR);
  EXPECT_EQ(world.reason(row.id),
            "the subtitles of a disc are stored as pictures and hold no text");
  expectNothingLeft();
}

TEST_F(Discs, ASubtitleFileIsDrawnOnADisc) {
  const DvdFolder dvd = makeDvd("Film");
  writeFile(world.media("Film.srt"), "1\n00:00:00,000 --> 00:00:09,000\nHELLO\n\n");
  const auto size = [&](const std::function<void(KxDBTaskParam&)>& change) {
    fs::remove_all(world.media("@Transcode"));
    const KxDBTaskParam row = world.run(dvd.top(), PROFILE_240P, change);
    expectDvdTitle(row);
    return fs::file_size(kxJobOutputs(row)[0].path);
  };
  const auto plain = size({});
  EXPECT_GT(size([this](KxDBTaskParam& job) {
              job.subtitle = world.media("Film.srt");
              job.subSize = 60;
            }),
            plain);
}

TEST_F(Discs, SeveralProfilesOfADiscAreMadeAndFoundAgain) {
  world.configure("FANOUT=1\n");
  const DvdFolder dvd = makeDvd("Film");
  const KxDBTaskParam row = world.run(dvd.top(), PROFILE_240P | PROFILE_360P);
  expectDvdTitle(row);
  const auto made = fs::last_write_time(kxJobOutputs(row)[0].path);
  world.setEncoder("exit 1\n");
  EXPECT_EQ(world.run(dvd.top(), PROFILE_240P | PROFILE_360P).status, JOB_DONE);
  EXPECT_EQ(fs::last_write_time(kxJobOutputs(row)[0].path), made);
}

namespace {

// A card whose agent is the shipped one, with a software encoder in place of the hardware.
class DiscsOnACard : public Discs {
 public:
  DiscsOnACard() {
    for (const char* program : {"ffmpeg", "transcode_agent"}) world.root().install(program);
    world.setCards({"gpu0:maker:model:external:1"});
    setenv("KX_AGENT_ENCODER", "libx264", 1);
  }
  ~DiscsOnACard() override { unsetenv("KX_AGENT_ENCODER"); }

 protected:
  void expectDoneByTheCard(const KxDBTaskParam& row) {
    EXPECT_EQ(world.reason(row.id), "");
    EXPECT_TRUE(log.has(5, "KxTranscodeUnit2", "resId(gpu0) transcode success\n"));
    EXPECT_FALSE(log.hasPart("resId(sw_cpu)"));
  }
};

}  // namespace

TEST_F(DiscsOnACard, ADvdFolderIsDoneByTheCard) {
  const DvdFolder dvd = makeDvd("Film");
  const KxDBTaskParam row = world.run(dvd.top(), PROFILE_240P);
  expectDvdTitle(row);
  expectDoneByTheCard(row);
}

TEST_F(DiscsOnACard, ADvdTitleThatBeginsItsTimeAnewIsDoneByTheCard) {
  const DvdFolder dvd = makeDvdOfTwoTimes("Film");
  const KxDBTaskParam row = world.run(dvd.top(), PROFILE_240P);
  expectMainTitle(row, 5);
  expectDoneByTheCard(row);
}

TEST_F(DiscsOnACard, ABluRayFolderIsDoneByTheCard) {
  const BluRayFolder disc = makeBluRay("Film");
  const KxDBTaskParam row = world.run(disc.top(), PROFILE_240P);
  expectMainTitle(row, 3);
  expectDoneByTheCard(row);
}

TEST_F(DiscsOnACard, AnImageIsDoneByTheCard) {
  if (!canMountImages()) GTEST_SKIP() << "mounting is not possible here";
  const std::string image = imageOf(makeDvd("Film").top(), Image::Bridge);
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  const KxDBTaskParam row = world.run(image, PROFILE_240P);
  expectDvdTitle(row);
  expectDoneByTheCard(row);
}

INSTANTIATE_TEST_SUITE_P(Kinds, DiscImages,
                         testing::Values(Image::Bridge, Image::Udf, Image::Plain, Image::RockRidge),
                         [](const auto& kind) { return std::string(nameOf(kind.param)); });

TEST_P(DiscImages, OfADvdBecomeOneVideoOfItsMainTitle) {
  const std::string image = imageOf(makeDvd("Film").top(), GetParam());
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  expectDvdTitle(world.run(image, PROFILE_240P));
}

TEST_P(DiscImages, OfABluRayDiscBecomeOneVideoOfItsMainStream) {
  // Plain ISO 9660 has no place for the names of a Blu-ray disc.
  if (GetParam() == Image::Plain) GTEST_SKIP() << "there are no such discs";
  const std::string image = imageOf(makeBluRay("Film").top(), GetParam());
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  expectMainTitle(world.run(image, PROFILE_240P), 3);
}

TEST_P(DiscImages, MayHoldTheDiscInAFolder) {
  const DvdFolder dvd(world.media("Disc/FILM"));
  dvd.addTitleSet(1, {"red"}, 2);
  const std::string image = imageOf(world.media("Disc"), GetParam());
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  expectMainTitle(world.run(image, PROFILE_240P), 2);
}

TEST_P(DiscImages, GiveAllProfilesAndTheirSound) {
  world.configure("FANOUT=1\n");
  const std::string image = imageOf(makeDvd("Film").top(), GetParam());
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  const std::string capital = world.media("FILM.ISO");
  fs::rename(image, capital);
  const KxDBTaskParam row = world.run(capital, PROFILE_240P | PROFILE_360P | PROFILE_AUDIO);
  expectDvdTitle(row);
  EXPECT_NEAR(probe(kxJobOutputs(row)[1].path)->seconds, 4, 0.5);
  EXPECT_NEAR(probe(world.media("Video2audio/FILM.mp3"))->seconds, 4, 0.5);
}

namespace {

template <typename Disc>
struct Damage {
  const char* name;
  std::function<void(const Disc&)> apply;
  const char* reason;
};
template <typename Disc>
void PrintTo(const Damage<Disc>& damage, std::ostream* out) {
  *out << damage.name;
}

std::string noise(size_t size) {
  std::mt19937 random(17);
  std::string bytes(size, '\0');
  std::ranges::generate(bytes, [&random] { return static_cast<char>(random()); });
  return bytes;
}

void fillWithNoise(const std::string& path) {
  writeFile(path, noise(fs::file_size(path)));
}

void cutInHalf(const std::string& path) {
  fs::resize_file(path, fs::file_size(path) / 2);
}

class DamagedDvds : public Discs, public testing::WithParamInterface<Damage<DvdFolder>> {};
class DamagedBluRays : public Discs, public testing::WithParamInterface<Damage<BluRayFolder>> {};

const std::vector<Damage<DvdFolder>> kDvdDamages = {
    {"Empty",
     [](const DvdFolder& dvd) {
       fs::remove_all(dvd.top() + "/VIDEO_TS");
       fs::create_directory(dvd.top() + "/VIDEO_TS");
     },
     "the disc has no VIDEO_TS/VIDEO_TS.IFO"},
    {"BackupOfTheIndexOnly", [](const DvdFolder& dvd) { fs::remove(dvd.file("VIDEO_TS.IFO")); },
     "the disc has no VIDEO_TS/VIDEO_TS.IFO"},
    {"MenusOnly",
     [](const DvdFolder& dvd) {
       for (const auto& [set, part] : {std::pair{1, 1}, {2, 1}, {2, 2}})
         fs::remove(dvd.part(set, part));
     },
     "the DVD holds no part of a title"},
    {"FirstPartMissing", [](const DvdFolder& dvd) { fs::remove(dvd.part(2, 1)); },
     "a part of the DVD's main title is missing: VTS_02_1.VOB"},
    {"LastPartMissing", [](const DvdFolder& dvd) { fs::remove(dvd.part(2, 2)); },
     "the DVD's main title (title set 02) is cut off: "},
    {"LastPartAndTableMissing",
     [](const DvdFolder& dvd) {
       fs::remove(dvd.part(2, 2));
       fs::remove(dvd.file("VTS_02_0.IFO"));
     },
     "the DVD's main title (title set 02) is cut off: "},
    {"LastPartMissingAndTableDamaged",
     [](const DvdFolder& dvd) {
       fs::remove(dvd.part(2, 2));
       fillWithNoise(dvd.file("VTS_02_0.IFO"));
     },
     "the DVD's main title (title set 02) is cut off: "},
    {"PartCutOff", [](const DvdFolder& dvd) { cutInHalf(dvd.part(2, 2)); },
     "the DVD's main title (title set 02) is cut off: "},
    {"EmptyParts",
     [](const DvdFolder& dvd) {
       for (const auto& [set, part] : {std::pair{1, 1}, {2, 1}, {2, 2}})
         fs::resize_file(dvd.part(set, part), 0);
     },
     "the DVD's main title is empty"},
    {"Noise",
     [](const DvdFolder& dvd) {
       fillWithNoise(dvd.part(2, 1));
       fillWithNoise(dvd.part(2, 2));
     },
     "the source is not a media file that can be read"},
    {"NoiseInTheSecondPart", [](const DvdFolder& dvd) { fillWithNoise(dvd.part(2, 2)); },
     "the source is incomplete"},
};

const std::vector<Damage<BluRayFolder>> kBluRayDamages = {
    {"NoIndex", [](const BluRayFolder& disc) { fs::remove(disc.file("index.bdmv")); },
     "the disc has no BDMV/index.bdmv"},
    {"NoStreamFolder", [](const BluRayFolder& disc) { fs::remove_all(disc.file("STREAM")); },
     "the Blu-ray disc holds no stream"},
    {"NoStreams",
     [](const BluRayFolder& disc) {
       fs::remove_all(disc.file("STREAM"));
       fs::create_directory(disc.file("STREAM"));
     },
     "the Blu-ray disc holds no stream"},
    {"CutOff", [](const BluRayFolder& disc) { cutInHalf(disc.stream("00007")); },
     "the Blu-ray disc's main stream 00007.m2ts is cut off: "},
    {"CutOffWithBackupOfItsClip",
     [](const BluRayFolder& disc) {
       cutInHalf(disc.stream("00007"));
       fs::remove_all(disc.file("CLIPINF"));
     },
     "the Blu-ray disc's main stream 00007.m2ts is cut off: "},
    {"CutOffWithDamagedClip",
     [](const BluRayFolder& disc) {
       cutInHalf(disc.stream("00007"));
       fillWithNoise(disc.file("CLIPINF/00007.clpi"));
     },
     "the Blu-ray disc's main stream 00007.m2ts is cut off: "},
    {"Noise", [](const BluRayFolder& disc) { fillWithNoise(disc.stream("00007")); },
     "the source is not a media file that can be read"},
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Folders, DamagedDvds, testing::ValuesIn(kDvdDamages),
                         [](const auto& damage) { return std::string(damage.param.name); });
INSTANTIATE_TEST_SUITE_P(Folders, DamagedBluRays, testing::ValuesIn(kBluRayDamages),
                         [](const auto& damage) { return std::string(damage.param.name); });

TEST_P(DamagedDvds, FailWithTheReason) {
  const DvdFolder dvd = makeDvd("Film");
  GetParam().apply(dvd);
  EXPECT_THAT(reasonOfFailure(dvd.top()), HasSubstr(GetParam().reason));
}

TEST_P(DamagedBluRays, FailWithTheReason) {
  const BluRayFolder disc = makeBluRay("Film");
  GetParam().apply(disc);
  EXPECT_THAT(reasonOfFailure(disc.top()), HasSubstr(GetParam().reason));
}

TEST_F(Discs, TheFolderBelowTheDiscIsToldApart) {
  EXPECT_EQ(reasonOfFailure(makeDvd("Film", DvdFolder::Names::Small).top() + "/video_ts/"),
            "the disc is the folder that holds VIDEO_TS");
  EXPECT_EQ(reasonOfFailure(makeBluRay("Blue").top() + "/BDMV"),
            "the disc is the folder that holds BDMV");
}

TEST_F(Discs, DamagedTablesOfAWholeDiscDoNoHarm) {
  const DvdFolder dvd = makeDvd("Film");
  for (const char* name : {"VIDEO_TS.IFO", "VIDEO_TS.BUP", "VTS_01_0.IFO", "VTS_02_0.IFO"})
    fillWithNoise(dvd.file(name));
  expectDvdTitle(world.run(dvd.top(), PROFILE_240P));
  const BluRayFolder disc = makeBluRay("Blue");
  for (const char* name : {"index.bdmv", "CLIPINF/00007.clpi"}) fillWithNoise(disc.file(name));
  expectMainTitle(world.run(disc.top(), PROFILE_240P), 3);
}

TEST_F(Discs, WithoutAnyTableADvdIsTakenAsItIs) {
  const DvdFolder dvd = makeDvd("Film");
  for (const char* name : {"VTS_02_0.IFO", "VTS_02_0.BUP"}) fs::remove(dvd.file(name));
  expectDvdTitle(world.run(dvd.top(), PROFILE_240P));
}

TEST_F(Discs, FilesThatAreNoImagesFailWithTheReason) {
  const std::string image = world.media("disc.iso");
  const std::string reason = "the file is no disc image: it holds neither ISO 9660 nor UDF";
  for (const std::string& bytes : {std::string("text"), noise(1 << 20)}) {
    writeFile(image, bytes);
    EXPECT_EQ(reasonOfFailure(image), reason);
  }
  writeFile(image, "");
  EXPECT_EQ(reasonOfFailure(image), "the source is empty");
  makeClip(world.media("clip.mp4"), 320, 240, 0.4);
  fs::rename(world.media("clip.mp4"), image);
  EXPECT_EQ(reasonOfFailure(image), reason);
}

TEST_F(Discs, AnImageOfAnImpossibleSizeIsDamaged) {
  const std::string image = imageOf(makeDvd("Film").top(), Image::Plain);
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  std::string bytes = readFile(image);
  bytes.replace(16 * 2048 + 80, 4, "\xff\xff\xff\xff");
  writeFile(image, bytes);
  EXPECT_EQ(reasonOfFailure(image), "the disc image is damaged: no disc has its size");
}

TEST_F(Discs, AnImageOfAnotherNameIsToldWhatItNeeds) {
  const std::string image = imageOf(makeDvd("Film").top(), Image::Udf);
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  fs::rename(image, world.media("film.img"));
  EXPECT_EQ(reasonOfFailure(world.media("film.img")),
            "the source is a disc image, whose name has to end in .iso");
}

TEST_F(Discs, AnEmptyImageFailsWithTheReason) {
  const std::string image = world.media("disc.iso");
  if (!run({"mkudffs", "-b", "2048", image, "2048"})) GTEST_SKIP() << "no program to make UDF";
  EXPECT_THAT(
      reasonOfFailure(image),
      HasSubstr(canMountImages() ? "neither a DVD (VIDEO_TS) nor a Blu-ray" : "cannot be mounted"));
}

TEST_P(DiscImages, ThatAreCutOffFailWithTheReason) {
  const std::string image = imageOf(makeDvd("Film").top(), GetParam());
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  const auto data = fs::file_size(image) - kImagePadding;
  for (const auto left : {data * 9 / 10, data / 2, std::uintmax_t{60000}}) {
    fs::resize_file(image, left);
    EXPECT_THAT(reasonOfFailure(image), HasSubstr("the disc image is cut off: ")) << left;
  }
}

TEST_P(DiscImages, MayLackTheirPaddingButNothingElse) {
  const DvdFolder dvd = makeDvd("Film");
  const std::string image = imageOf(dvd.top(), GetParam());
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  fs::resize_file(image, fs::file_size(image) - kImagePadding / 2);
  expectDvdTitle(world.run(image, PROFILE_240P));

  const std::string unpadded = world.media("unpadded.iso");
  ASSERT_TRUE(makeImage(dvd.top(), unpadded, GetParam(), {"-no-pad"}));
  fs::resize_file(unpadded, fs::file_size(unpadded) - 40000);
  EXPECT_THAT(reasonOfFailure(unpadded), HasSubstr("cannot be read to its end"));
}

TEST_P(DiscImages, WithoutADiscFailWithTheReason) {
  fs::create_directory(world.media("data"));
  makeClip(world.media("data/clip.mp4"), 320, 240, 0.4);
  const std::string image = imageOf(world.media("data"), GetParam());
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  EXPECT_THAT(reasonOfFailure(image), HasSubstr("neither a DVD (VIDEO_TS) nor a Blu-ray disc"));
}

TEST_P(DiscImages, OfADamagedDiscFailWithTheReason) {
  const DvdFolder dvd = makeDvd("Film");
  fs::remove(dvd.part(2, 2));
  const std::string image = imageOf(dvd.top(), GetParam());
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  EXPECT_THAT(reasonOfFailure(image), HasSubstr("(title set 02) is cut off: "));
}

// Whatever a damaged image does to what reads it, the job ends and nothing stays.
TEST_P(DiscImages, WithNoiseAnywhereEndSoonAndLeaveNothing) {
  const DvdFolder dvd = makeDvd("Film");
  const std::string image = imageOf(dvd.top(), GetParam());
  if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  const std::string whole = readFile(image);
  std::mt19937 random(4);
  for (int round = 0; round < 6; ++round) {
    std::string bytes = whole;
    // In front are the structures: 16 to some 300 sectors of the file systems' own.
    for (int spot = 0; spot < 12; ++spot) {
      const size_t at = (16 + random() % 300) * 2048 + random() % 2048;
      for (size_t i = at; i < at + 40 && i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(random());
    }
    writeFile(image, bytes);
    const auto begin = std::chrono::steady_clock::now();
    const KxDBTaskParam row = world.run(image, PROFILE_240P);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
    if (row.status != JOB_DONE) {
      EXPECT_EQ(row.status, JOB_ERROR);
      EXPECT_NE(world.reason(row.id), "");
    }
    expectNothingLeft();
    fs::remove_all(world.media("@Transcode"));
  }
}

namespace {

// Images under a program that gets in their way.
class StoppedDiscs : public Discs {
 protected:
  void SetUp() override {
    if (!canMountImages()) GTEST_SKIP() << "mounting is not possible here";
    image = imageOf(makeDvd("Film").top(), Image::Bridge);
    if (image.empty()) GTEST_SKIP() << "no program to make disc images";
  }

  bool isMounted() const { return !mountsBelow(world.root().path()).empty(); }

  // Stops the job and waits for its end, which has to come within a second.
  void stopInTime(const KxDBTaskParam& job) {
    const auto begin = std::chrono::steady_clock::now();
    world.stop(job.id);
    ASSERT_TRUE(world.waitForUnits());
    const auto time = std::chrono::steady_clock::now() - begin;
    EXPECT_LT(time, std::chrono::seconds(1));
    RecordProperty("milliseconds", static_cast<int>(time / std::chrono::milliseconds(1)));
    EXPECT_EQ(world.row(job.id).status, JOB_WAITING);
    expectNothingLeft();
  }

  // Puts a script in front of the server of mounted images.
  void wrapServer(const std::string& body) const {
    const std::string path = world.root().file("/usr/local/medialibrary/bin/udfserve");
    fs::rename(path, path + ".real");
    world.root().script("/usr/local/medialibrary/bin/udfserve", body);
  }

  std::string image;
};

}  // namespace

TEST_F(StoppedDiscs, ReleaseTheImageWhenTheEncoderIsStopped) {
  world.setEncoder("exec ffmpeg -re \"$@\"\n");
  const KxDBTaskParam job = world.addJob(image, PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(world.waitForChild());
  EXPECT_TRUE(isMounted());
  stopInTime(job);
}

TEST_F(StoppedDiscs, ReleaseTheImageWhenSuspendedAndGoOnLater) {
  world.setEncoder("exec ffmpeg -re \"$@\"\n");
  const KxDBTaskParam job = world.addJob(image, PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(world.waitForChild());
  world.pending(job);
  EXPECT_TRUE(waitUntil([this] { return !isMounted(); }));
  world.setEncoder("exec ffmpeg \"$@\"\n");
  world.resume(job);
  ASSERT_TRUE(world.waitForUnits());
  expectDvdTitle(world.row(job.id));
}

TEST_F(StoppedDiscs, ReleaseTheImageWhenTheEncoderFails) {
  world.setEncoder("exit 3\n");
  EXPECT_THAT(reasonOfFailure(image), HasSubstr("the encoder ended with 3"));
}

TEST_F(StoppedDiscs, EndWhileTheImageIsBeingMounted) {
  wrapServer("echo x > " + world.media("begun") + "\nexec sleep 60\n");
  const KxDBTaskParam job = world.addJob(image, PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(waitUntil([this] { return fs::exists(world.media("begun")); }));
  stopInTime(job);
}

TEST_F(StoppedDiscs, EndWhileTheMountedImageDoesNotAnswer) {
  // The server stops dead as soon as it has mounted.
  wrapServer("\"$0.real\" \"$@\" &\n"
             "while ! grep -q \" $2 \" /proc/self/mountinfo; do :; done\n"
             "kill -STOP $!\necho x > " +
             world.media("stuck") + "\nwait\n");
  const KxDBTaskParam job = world.addJob(image, PROFILE_240P);
  world.start(job);
  ASSERT_TRUE(waitUntil([this] { return fs::exists(world.media("stuck")); }));
  stopInTime(job);
}

TEST_F(StoppedDiscs, EndWhenTheServerOfTheImageDies) {
  wrapServer("\"$0.real\" \"$@\" &\necho $! >> " + world.media("servers") + "\nwait\n");
  world.setEncoder("kill -KILL $(cat " + world.media("servers") + ")\nexec ffmpeg \"$@\"\n");
  EXPECT_NE(reasonOfFailure(image), "");
}

namespace {

// Discs that name files of others.
class HostileDiscs : public Discs {
 protected:
  HostileDiscs() : m_secret(m_elsewhere / "secret.vob") {
    makeVob(m_secret, 6, "green");
    // As it is shipped, with what keeps it from opening other files.
    world.root().install("ffmpeg");
  }

  // What comes of a disc must not show the secret.
  void expectNoSecret(const std::string& source) {
    const KxDBTaskParam row = world.run(source, PROFILE_240P);
    const std::string result = kxJobOutputs(row)[0].path;
    if (row.status == JOB_DONE) {
      EXPECT_EQ(colourAt(result, 0.2), "blue");
    } else {
      EXPECT_NE(world.reason(row.id), "");
      EXPECT_FALSE(fs::exists(result));
    }
    expectNothingLeft();
  }

  TempDir m_elsewhere;
  std::string m_secret;
};

}  // namespace

TEST_F(HostileDiscs, ALinkInADvdDoesNotLeadOutOfIt) {
  const DvdFolder dvd(world.media("Film"));
  dvd.addTitleSet(1, {"blue"}, 1);
  fs::create_symlink(m_secret, dvd.part(2, 1));
  expectNoSecret(dvd.top());
  fs::remove_all(world.media("@Transcode"));
  fs::remove(dvd.part(1, 1));
  EXPECT_THAT(reasonOfFailure(dvd.top()), HasSubstr("holds no part of a title"));
}

TEST_F(HostileDiscs, AFolderOfADiscDoesNotLeadOutOfIt) {
  const DvdFolder other(m_elsewhere / "other");
  fs::rename(m_secret, other.part(1, 1));
  fs::create_directory(world.media("Film"));
  fs::create_directory_symlink(other.top() + "/VIDEO_TS", world.media("Film/VIDEO_TS"));
  EXPECT_THAT(reasonOfFailure(world.media("Film")), HasSubstr("has no VIDEO_TS"));

  const BluRayFolder disc(world.media("Blue"));
  fs::create_directory(m_elsewhere / "streams");
  makeM2ts(m_elsewhere / "streams/00001.m2ts", 1, "green");
  fs::remove(disc.file("STREAM"));
  fs::create_directory_symlink(m_elsewhere / "streams", disc.file("STREAM"));
  EXPECT_THAT(reasonOfFailure(disc.top()), HasSubstr("holds no stream"));
}

TEST_F(HostileDiscs, ALinkWithinADiscIsFollowed) {
  const DvdFolder dvd(world.media("Film"));
  dvd.addTitleSet(1, {"red"}, 2);
  fs::rename(dvd.part(1, 1), dvd.file("TITLE.BIN"));
  fs::create_symlink("TITLE.BIN", dvd.part(1, 1));
  expectMainTitle(world.run(dvd.top(), PROFILE_240P), 2);
}

TEST_F(HostileDiscs, ALinkInAnImageDoesNotLeadOutOfIt) {
  const DvdFolder dvd(world.media("Film"));
  dvd.addTitleSet(1, {"blue"}, 1);
  fs::create_symlink(m_secret, dvd.part(2, 1));
  const std::string image = imageOf(dvd.top(), Image::RockRidge);
  if (image.empty() || !canMountImages()) GTEST_SKIP() << "no images here";
  expectNoSecret(image);
}

TEST_F(HostileDiscs, APlaylistOfADiscIsNotFollowed) {
  const BluRayFolder disc(world.media("Film"));
  disc.addStream("00001", 1, "blue");
  writeFile(disc.file("PLAYLIST/00000.mpls"), "MPLS0200../../../../../../" + m_secret);
  expectNoSecret(disc.top());
}

TEST_F(HostileDiscs, AStreamThatNamesOtherFilesIsRefused) {
  const std::string name = "file:" + m_secret;
  for (const std::string& text :
       {"#EXTM3U\n#EXT-X-TARGETDURATION:9\n#EXTINF:9,\n" + name + "\n#EXT-X-ENDLIST\n",
        "ffconcat version 1.0\nfile '" + m_secret + "'\n"}) {
    const BluRayFolder blue(world.media("Blue"));
    writeFile(blue.stream("00001"), text);
    EXPECT_NE(reasonOfFailure(blue.top()), "");
    const DvdFolder dvd(world.media("Film"));
    writeFile(dvd.part(1, 1), text);
    EXPECT_NE(reasonOfFailure(dvd.top()), "");
    // Behind a part that is what it should be.
    makeVob(dvd.part(1, 1), 1, "blue");
    writeFile(dvd.part(1, 2), text);
    expectNoSecret(dvd.top());
  }
}

TEST_F(HostileDiscs, APipeInADiscIsNotWaitedFor) {
  const DvdFolder dvd(world.media("Film"));
  dvd.addTitleSet(1, {"blue"}, 1);
  ASSERT_EQ(mkfifo(dvd.part(1, 2).c_str(), 0600), 0);
  const KxDBTaskParam row = world.run(dvd.top(), PROFILE_240P);
  ASSERT_EQ(row.status, JOB_DONE) << world.reason(row.id);
  EXPECT_NEAR(probe(kxJobOutputs(row)[0].path)->seconds, 1, 0.3);
  expectNothingLeft();
}

TEST_F(HostileDiscs, NamesAreNoOptions) {
  const DvdFolder dvd = makeDvd("-i -y -f");
  expectDvdTitle(world.run(dvd.top(), PROFILE_240P));
  const std::string image = world.media("-o allow_other,%s.iso");
  if (!canMountImages() || !makeImage(dvd.top(), image, Image::Udf)) GTEST_SKIP() << "no images";
  expectDvdTitle(world.run(image, PROFILE_240P));
}

TEST_F(HostileDiscs, AFolderThatCannotBeNamedToTheEncoderIsRefused) {
  const DvdFolder dvd = makeDvd("one|two");
  EXPECT_THAT(reasonOfFailure(dvd.top()), HasSubstr("must not hold a \"|\""));
  const BluRayFolder disc(world.media("three|four"));
  disc.addStream("00001", 2, "red");
  expectMainTitle(world.run(disc.top(), PROFILE_240P), 2);
}

TEST_F(Discs, RealDiscsGiveAVideoOrAReason) {
  if (!mediaDir()) GTEST_SKIP() << "no folder of real media files";
  for (const std::string kind : {"dvd", "bluray", "iso"}) {
    if (!fs::exists(*mediaDir() + "/" + kind)) continue;
    for (const auto& entry : fs::directory_iterator(*mediaDir() + "/" + kind)) {
      const std::string name = entry.path().filename();
      SCOPED_TRACE(name);
      const std::string source = world.media(name);
      ASSERT_TRUE(run({"cp", "-r", "--no-preserve=mode", entry.path(), source}));
      const KxDBTaskParam row = world.run(source, PROFILE_240P);
      const std::string reason = world.reason(row.id);
      printf("%-8s %-16s %s\n", kind.c_str(), name.c_str(),
             row.status == JOB_DONE ? "done" : reason.c_str());
      if (row.status == JOB_DONE) {
        EXPECT_TRUE(decodesClean(kxJobOutputs(row)[0].path));
      } else {
        EXPECT_EQ(row.status, JOB_ERROR);
        EXPECT_NE(reason, "");
      }
      expectNothingLeft();
    }
  }
}
