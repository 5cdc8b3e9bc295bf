#include "tools/FfmpegArguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tools/PackedSound.h"

using kxtools::adaptConcatList;
using kxtools::Words;
using testing::ElementsAre;

namespace {

// The adapted words without what is put in front of every input.
Words adapted(const Words& words) {
  Words result = kxtools::adaptArguments(words, [](const std::string& path) { return path; });
  for (auto at = result.begin(); at != result.end();) {
    const bool limit = *at == "-protocol_whitelist" || *at == "-format_whitelist";
    at = limit ? result.erase(at, at + 2) : at + 1;
  }
  return result;
}

std::string optionOf(const Words& words, const std::string& name) {
  const Words result = kxtools::adaptArguments(words, [](const std::string& path) { return path; });
  const auto at = std::find(result.begin(), result.end(), name);
  return at == result.end() || at + 1 == result.end() ? "<absent>" : *(at + 1);
}

bool inList(const std::string& list, const std::string& name) {
  return ("," + list + ",").find("," + name + ",") != std::string::npos;
}

}  // namespace

TEST(FfmpegArguments, LeaveAnOrdinaryCommandAlone) {
  EXPECT_EQ(
      adapted({"-y", "-noautorotate", "-i", "/in.mp4", "-f", "mp4", "-c:v", "h264", "/out.mp4"}),
      (Words{"-nostdin", "-y", "-noautorotate", "-i", "/in.mp4", "-f", "mp4", "-c:v", "h264",
             "/out.mp4"}));
  EXPECT_EQ(adapted({}), Words{"-nostdin"});
  EXPECT_EQ(adapted({"-hide_banner", "-encoders"}),
            (Words{"-nostdin", "-hide_banner", "-encoders"}));
}

TEST(FfmpegArguments, DropTheDurationRepair) {
  EXPECT_EQ(adapted({"-i", "/in.mp4", "-t", "10", "-fix_duration", "10", "/out.mp4"}),
            (Words{"-nostdin", "-i", "/in.mp4", "-t", "10", "/out.mp4"}));
}

TEST(FfmpegArguments, NameTheMatroskaFormatAsTheEncoderDoes) {
  EXPECT_EQ(adapted({"-f", "mkv", "-i", "/in", "-f", "mkv", "/out.mkv"}),
            (Words{"-nostdin", "-f", "matroska", "-i", "/in", "-f", "matroska", "/out.mkv"}));
}

TEST(FfmpegArguments, TakeTheSoundThatWasEncodedForPiecesAsItIs) {
  EXPECT_EQ(adapted({"-f", "concat", "-i", "/w/merge_list", "-i", "/w/reAudio.mp4", "-c:v", "copy",
                     "-c:a", "aac", "-ac", "2", "-ar", "64000", "/out.mp4"}),
            (Words{"-nostdin", "-f", "concat", "-safe", "0", "-i", "/w/merge_list", "-i",
                   "/w/reAudio.mp4", "-c:v", "copy", "-c:a", "copy", "/out.mp4"}));
  for (const Words& other :
       {Words{"-i", "/w/reAudio.mp4", "-c:a", "aac", "/out.mp4"},
        Words{"-f", "concat", "-i", "/list", "-i", "/w/other.mp4", "-c:a", "aac", "/out.mp4"}})
    EXPECT_EQ(optionOf(other, "-c:a"), "aac");
}

TEST(FfmpegArguments, DropASamplingRateThatTheEncoderRefuses) {
  EXPECT_EQ(adapted({"-i", "/in", "-ar", "128000", "-c:a", "aac", "/out.mp4"}),
            (Words{"-nostdin", "-i", "/in", "-c:a", "aac", "/out.mp4"}));
  EXPECT_EQ(adapted({"-i", "/in", "-f", "mp4", "-ar", "64000", "-ar", "128000", "/out.mp4"}),
            (Words{"-nostdin", "-i", "/in", "-f", "mp4", "-ar", "64000", "/out.mp4"}));
  EXPECT_EQ(adapted({"-i", "/in", "-c:a", "mp3", "-ar", "96000", "/o"}),
            (Words{"-nostdin", "-i", "/in", "-c:a", "mp3", "/o"}));
}

TEST(FfmpegArguments, KeepASamplingRateThatTheEncoderTakes) {
  const Words rate = {"-i", "/in", "-c:a", "aac", "-ar", "44100", "/out.mp4"};
  EXPECT_EQ(adapted(rate).size(), rate.size() + 1);
  const Words unknown = {"-i", "/in", "-c:a", "pcm_s16le", "-ar", "128000", "/out.wav"};
  EXPECT_EQ(adapted(unknown).size(), unknown.size() + 1);
}

TEST(FfmpegArguments, LookAtEachOutputByItself) {
  EXPECT_EQ(adapted({"-i", "/in", "-c:a", "aac", "-ar", "128000", "/a.mp4", "-c:a", "flac", "-ar",
                     "128000", "/b.flac"}),
            (Words{"-nostdin", "-i", "/in", "-c:a", "aac", "/a.mp4", "-c:a", "flac", "-ar",
                   "128000", "/b.flac"}));
}

TEST(FfmpegArguments, NeverReadTheTerminal) {
  EXPECT_EQ(adapted({"-stdin", "-i", "/in", "/out"}), (Words{"-nostdin", "-i", "/in", "/out"}));
}

TEST(FfmpegArguments, LimitEveryInputToLocalFiles) {
  EXPECT_EQ(optionOf({"-i", "/in", "/out"}, "-protocol_whitelist"), "file");
  EXPECT_EQ(optionOf({"-i", "concat:/a.vob|/b.vob", "/out"}, "-protocol_whitelist"), "file,concat");
  const Words two = kxtools::adaptArguments({"-i", "/a", "-i", "/b", "/out"},
                                            [](const std::string& path) { return path; });
  EXPECT_EQ(std::count(two.begin(), two.end(), "-protocol_whitelist"), 2);
}

TEST(FfmpegArguments, ReadFarIntoWhatDoesNotSayWhatItHolds) {
  for (const char* input : {"concat:/a.vob|/b.vob", "/a.VOB", "/a.mpg", "/a.Mpeg"}) {
    EXPECT_EQ(optionOf({"-i", input, "/out"}, "-probesize"), "64M") << input;
    EXPECT_EQ(optionOf({"-i", input, "/out"}, "-analyzeduration"), "120M") << input;
  }
  for (const char* input : {"/a.mp4", "/a.vob.mkv", "vob", "/"})
    EXPECT_EQ(optionOf({"-i", input, "/out"}, "-probesize"), "<absent>") << input;
}

TEST(FfmpegArguments, LeaveOutFormatsThatNameOtherFiles) {
  const std::string formats = optionOf({"-i", "/in", "/out"}, "-format_whitelist");
  for (const char* name : {"matroska", "mov", "mpegts", "avi", "flv", "asf", "rm", "wav", "mp3"})
    EXPECT_TRUE(inList(formats, name)) << name;
  for (const char* name : {"hls", "dash", "concat", "sdp", "rtsp", "imf", "image2", "lavfi",
                           "vobsub", "webm_dash_manifest"})
    EXPECT_FALSE(inList(formats, name)) << name;
}

TEST(FfmpegArguments, ReadAListOnlyWhenItIsAskedFor) {
  const Words list = {"-f", "concat", "-i", "/list.txt", "/out"};
  EXPECT_TRUE(inList(optionOf(list, "-format_whitelist"), "concat"));
  EXPECT_EQ(optionOf(list, "-safe"), "0");
  EXPECT_EQ(optionOf({"-i", "/list.txt", "-f", "concat", "/out"}, "-safe"), "<absent>");
  const Words converted =
      kxtools::adaptArguments(list, [](const std::string& path) { return path + ".new"; });
  EXPECT_NE(std::find(converted.begin(), converted.end(), "/list.txt.new"), converted.end());
}

TEST(FfmpegArguments, TakeTheSoundThatIsUnpackedInPlaceOfTheSourcesOwn) {
  const Words words = {"-y",    "-i",     "/a.3gp",        "-map",          "0:v:0", "-map",
                       "0:a:1", "-c:a",   "aac",           "-unpack_sound", "0.5",   "/a.mp4",
                       "-map",  "0:a:1?", "-unpack_sound", "0.5",           "/b.mp4"};
  ASSERT_TRUE(kxtools::asksForUnpacking(words));
  EXPECT_THAT(kxtools::withUnpackedSound(words, 7),
              ElementsAre("-y", "-i", "/a.3gp", "-itsoffset", "0.5", "-f", "amr", "-i", "pipe:7",
                          "-map", "0:v:0", "-map", "1:a:0", "-c:a", "aac", "/a.mp4", "-map",
                          "1:a:0?", "/b.mp4"));
  EXPECT_THAT(kxtools::unpackingWords(words),
              ElementsAre("-v", "error", "-i", "/a.3gp", "-map", "0:a:1?", "-c:a", "copy", "-f",
                          "amr", "pipe:1"));
  EXPECT_FALSE(kxtools::asksForUnpacking({"-i", "/a.3gp", "/a.mp4"}));
}

TEST(FfmpegArguments, TurnDoubleQuotesOfAListIntoSingleOnes) {
  EXPECT_EQ(adaptConcatList("file \"/a b/c.mp4\"\nfile \"/it's.mp4\"\n", "/w/"),
            "file '/a b/c.mp4'\nfile '/it'\\''s.mp4'\n");
  EXPECT_EQ(adaptConcatList("ffconcat version 1.0\n# file \"x\"\nduration 3\n", "/w/"),
            "ffconcat version 1.0\n# file \"x\"\nduration 3\n");
}

TEST(FfmpegArguments, CompleteRelativeNamesOfAList) {
  EXPECT_EQ(adaptConcatList("file \"b.mp4\"\nfile 'c.mp4'\nfile d\\ e.mp4\nfile '/f'\n", "/it's/"),
            "file '/it'\\''s/''b.mp4'\nfile '/it'\\''s/''c.mp4'\nfile '/it'\\''s/'d\\ e.mp4\nfile "
            "'/f'\n");
}

TEST(FfmpegArguments, AListInSingleQuotesNeedsNoAdapting) {
  EXPECT_FALSE(kxtools::needsAdapting("file '/a.mp4'\nfile b.mp4\n"));
  EXPECT_TRUE(kxtools::needsAdapting("file '/a.mp4'\nfile \"b.mp4\"\n"));
}
