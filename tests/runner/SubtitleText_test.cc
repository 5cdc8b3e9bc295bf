#include "resources/SubtitleText.h"

#include <gtest/gtest.h>

#include "tests/runner/RunnerWorld.h"

using namespace kxtest;
using runner::encodingOf;
using runner::readSubtitle;

namespace {

std::string wide(const std::string& ascii, bool bigEndian) {
  std::string bytes;
  for (const char c : ascii) {
    const char pair[2] = {bigEndian ? '\0' : c, bigEndian ? c : '\0'};
    bytes.append(pair, 2);
  }
  return bytes;
}

std::string read(const std::string& bytes) {
  const TempDir dir;
  writeFile(dir / "a.srt", bytes);
  const runner::SubtitleText text = readSubtitle(dir / "a.srt");
  return text.fault.empty() ? text.utf8 : text.fault;
}

void expectCompletedTimes(const std::string& end) {
  EXPECT_EQ(read("1" + end + "00:01:39 --> 00:01:41,04 X1:40" + end + "at 12:00:00" + end),
            "1" + end + "00:01:39,000 --> 00:01:41,04 X1:40" + end + "at 12:00:00" + end);
}

const std::string kTimes = "1\n00:00:00,000 --> 00:00:02,000\n";

}  // namespace

TEST(SubtitleText, IsReadInEveryEncodingThatIsMet) {
  EXPECT_EQ(read(kTimes + "Gr\xc3\xbc\xc3\x9f"
                          "e\n"),
            kTimes + "Gr\xc3\xbc\xc3\x9f"
                     "e\n");
  EXPECT_EQ(read("\xef\xbb\xbf" + kTimes + "caf\xc3\xa9\n"), kTimes + "caf\xc3\xa9\n");
  EXPECT_EQ(read(kTimes + "Gr\xfc\xdf"
                          "e, caf\xe9, \xe0 bient\xf4t\n"),
            kTimes + "Gr\xc3\xbc\xc3\x9f"
                     "e, caf\xc3\xa9, \xc3\xa0 bient\xc3\xb4t\n");
  EXPECT_EQ(read(kTimes + "\xc4\xe3\xba\xc3\xa3\xac\xca\xc0\xbd\xe7\n"),
            kTimes + "\xe4\xbd\xa0\xe5\xa5\xbd\xef\xbc\x8c\xe4\xb8\x96\xe7\x95\x8c\n");
  for (const bool bigEndian : {false, true}) {
    const std::string mark = bigEndian ? "\xfe\xff" : "\xff\xfe";
    const std::string plain = kTimes + "hello\n";
    std::string marked = mark;
    marked += wide(plain, bigEndian);
    EXPECT_EQ(read(marked), plain);
    EXPECT_EQ(read(wide(plain, bigEndian)), plain);
  }
}

TEST(SubtitleText, TimesWithoutFractionsGetThem) {
  for (const char* end : {"\n", "\r\n", "\r"}) expectCompletedTimes(end);
  EXPECT_EQ(read("1\n100:00:01 --> 100:00:02"), "1\n100:00:01,000 --> 100:00:02,000");
  for (const std::string same : {"00:00:01.500 --> 00:00:02,5", "--> 00:00", ":00:00 -->",
                                 "1:2:3 --> 4:5:6", "-->", "", "\n"})
    EXPECT_EQ(read(same), same);
  const TempDir dir;
  writeFile(dir / "a.srt", "1\n00:00:01 --> 00:00:02\nHELLO\n");
  EXPECT_TRUE(readSubtitle(dir / "a.srt").isChanged);
  EXPECT_FALSE(runner::isSubtitle(dir / "a.srt"));
  writeFile(dir / "a.srt", readSubtitle(dir / "a.srt").utf8);
  EXPECT_FALSE(readSubtitle(dir / "a.srt").isChanged);
  EXPECT_TRUE(runner::isSubtitle(dir / "a.srt"));
}

TEST(SubtitleText, EncodingsAreToldApart) {
  EXPECT_EQ(encodingOf(kTimes), "UTF-8");
  EXPECT_EQ(encodingOf("na\xefve r\xe9sum\xe9"), "WINDOWS-1252");
  EXPECT_EQ(encodingOf("\xd6\xd0\xce\xc4 text \xd7\xd6\xc4\xbb"), "GB18030");
  EXPECT_EQ(encodingOf("Gr\xfc\xdf"), "WINDOWS-1252");
  EXPECT_EQ(encodingOf("odd \x81 byte"), "ISO-8859-1");
}

TEST(SubtitleText, APlaylistIsNoSubtitle) {
  EXPECT_EQ(read("#EXTM3U\nhttp://host/a\n"), "the subtitle is a playlist");
  EXPECT_EQ(read("\xef\xbb\xbf"
                 "ffconcat version 1.0\nfile a\n"),
            "the subtitle is a playlist");
  EXPECT_EQ(readSubtitle("/absent.srt").fault, "the subtitle cannot be read");
}

TEST(SubtitleText, WhateverElseARendererWouldOpenIsNoSubtitle) {
  const TempDir dir;
  writeFile(dir / "good.srt", kTimes + "hello\n\n");
  EXPECT_TRUE(runner::isSubtitle(dir / "good.srt"));
  const std::pair<const char*, std::string> bad[] = {
      {"session.srt", "v=0\no=- 0 0 IN IP4 127.0.0.1\ns=x\nc=IN IP4 127.0.0.1\nt=0 0\n"
                      "m=video 5004 RTP/AVP 96\na=rtpmap:96 H264/90000\n"},
      {"list.srt", "#EXTM3U\n#EXTINF:1,\n/etc/passwd\n"},
      {"dash.srt", "<?xml version=\"1.0\"?>\n<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" "
                   "profiles=\"urn:mpeg:dash:profile:isoff-on-demand:2011\"></MPD>\n"},
      {"files.srt", "ffconcat version 1.0\nfile '/etc/passwd'\n"},
      {"notes.txt", "just some words\n"},
  };
  for (const auto& [name, text] : bad) {
    writeFile(dir / name, text);
    EXPECT_FALSE(runner::isSubtitle(dir / name)) << name;
  }
  makeClip(dir / "clip.srt.mp4");
  EXPECT_FALSE(runner::isSubtitle(dir / "clip.srt.mp4"));
}

TEST(SubtitleText, RealFilesGiveReadableText) {
  if (!mediaDir()) GTEST_SKIP() << "no folder of real media files";
  for (const auto& entry : std::filesystem::directory_iterator(*mediaDir() + "/subs")) {
    const runner::SubtitleText text = readSubtitle(entry.path());
    EXPECT_EQ(text.fault, "") << entry.path();
    EXPECT_EQ(text.utf8.find('\0'), std::string::npos) << entry.path() << " " << text.encoding;
    const TempDir dir;
    writeFile(dir / "a.srt", text.utf8);
    // One lacks the number of its first text, by which a reader knows what it has before it.
    EXPECT_EQ(runner::isSubtitle(dir / "a.srt"),
              entry.path().filename() != "missing-sequence-in.srt")
        << entry.path();
  }
}
