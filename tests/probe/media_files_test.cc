// Compares the probe with a table of real files, when a folder of them is there.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "KxMediainfo.h"
#include "tests/support/TestSupport.h"

namespace {

using Row = std::map<std::string, std::string>;

std::vector<std::string> split(const std::string& text, const std::string& separator) {
  std::vector<std::string> parts;
  size_t begin = 0;
  for (size_t end; (end = text.find(separator, begin)) != std::string::npos;
       begin = end + separator.size())
    parts.push_back(text.substr(begin, end - begin));
  parts.push_back(text.substr(begin));
  return parts;
}

// The items of a column that lists streams; "-" is an empty list.
std::vector<std::string> items(const std::string& column) {
  return column == "-" || column.empty() ? std::vector<std::string>() : split(column, "; ");
}

std::vector<Row> readTable(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::vector<std::string> names;
  std::vector<Row> rows;
  while (std::getline(in, line)) {
    const auto values = split(line, "\t");
    if (names.empty()) {
      names = values;
      continue;
    }
    Row row;
    for (size_t i = 0; i < names.size() && i < values.size(); ++i) row[names[i]] = values[i];
    rows.push_back(row);
  }
  return rows;
}

int32_t formatIdOf(const std::string& container) {
  static const std::map<std::string, int32_t> ids = {
      {"avi", 1},    {"asf", 2},           {"mpeg", 3}, {"mov,mp4,m4a,3gp,3g2,mj2", 4},
      {"mpegts", 5}, {"matroska,webm", 6}, {"flv", 7},  {"rm", 8}};
  const auto found = ids.find(container);
  return found == ids.end() ? 0 : found->second;
}

struct ExpectedVideo {
  int width;
  int height;
  int rotation;
  std::string aspect;
};

std::vector<ExpectedVideo> expectedVideos(const Row& row) {
  const auto streams = items(row.at("video"));
  const auto rotations = items(row.at("rotation_cw"));
  const auto aspects = items(row.at("SAR/DAR"));
  std::vector<ExpectedVideo> result;
  for (const std::string& text : streams) {
    if (text.find("[attached_pic]") != std::string::npos) continue;
    const auto size = split(split(text, " ").at(1), "x");
    const size_t i = result.size();
    result.push_back({std::atoi(size.at(0).c_str()), std::atoi(size.at(1).c_str()),
                      i < rotations.size() ? std::atoi(rotations[i].c_str()) : 0,
                      i < aspects.size() ? aspects[i] : ""});
  }
  return result;
}

std::string aspectText(const KxStream& video) {
  if (video.m_dar_num == 0) return "N/A/N/A";
  std::ostringstream text;
  text << video.m_sar_num << ":" << video.m_sar_den << "/" << video.m_dar_num << ":"
       << video.m_dar_den;
  return text.str();
}

void compareVideos(KxMediaInfo& info, const Row& row) {
  const auto expected = expectedVideos(row);
  ASSERT_EQ(info.getVideoTrackCount(), static_cast<int>(expected.size()));
  for (size_t i = 0; i < expected.size(); ++i) {
    const KxStream video = info.getVideoTrack(static_cast<int>(i));
    EXPECT_EQ(video.m_width, expected[i].width);
    EXPECT_EQ(video.m_height, expected[i].height);
    EXPECT_EQ(video.m_rotation, expected[i].rotation);
    EXPECT_EQ(aspectText(video), expected[i].aspect);
  }
}

void compareAudios(KxMediaInfo& info, const Row& row) {
  const auto expected = items(row.at("audio"));
  ASSERT_EQ(info.getAudioTrackCount(), static_cast<int>(expected.size()));
  for (size_t i = 0; i < expected.size(); ++i) {
    const auto words = split(expected[i], " ");
    const KxStream audio = info.getAudioTrack(static_cast<int>(i));
    EXPECT_EQ(std::to_string(audio.m_channels) + "ch", words.at(1));
    EXPECT_EQ(std::to_string(audio.m_samplerate), words.at(2));
  }
}

void compare(const std::string& path, const Row& row) {
  KxMediaInfo info;
  const int result = info.init(path);
  if (row.at("check").starts_with("ffprobe fails") || row.at("check") == "empty") {
    EXPECT_EQ(result, 1);
    return;
  }
  ASSERT_EQ(result, 0);
  EXPECT_EQ(info.m_formatId, formatIdOf(row.at("container")));
  EXPECT_EQ(info.m_duration, static_cast<int>(std::atof(row.at("duration_s").c_str())));
  EXPECT_EQ(info.getSubtitleTrackCount(), static_cast<int>(items(row.at("subtitles")).size()));
  compareVideos(info, row);
  compareAudios(info, row);
}

}  // namespace

TEST(RealFiles, TheProbeAgreesWithTheTable) {
  const auto dir = kxtest::mediaDir();
  if (!dir) GTEST_SKIP() << "KX_MEDIA_DIR is not set";
  av_log_set_level(AV_LOG_QUIET);
  size_t compared = 0;
  for (const Row& row : readTable(*dir + "/MANIFEST.tsv")) {
    const std::string& file = row.at("file");
    if (!file.starts_with("video/") && !file.starts_with("audio/") && !file.starts_with("broken/"))
      continue;
    SCOPED_TRACE(file);
    compare(*dir + "/" + file, row);
    ++compared;
  }
  EXPECT_GT(compared, 100u);
}

TEST(RealFiles, AFragmentedFileThatClaimsManyHoursPlaysForOneSecond) {
  const auto dir = kxtest::mediaDir();
  if (!dir) GTEST_SKIP() << "KX_MEDIA_DIR is not set";
  KxMediaInfo info;
  ASSERT_EQ(info.init(*dir + "/video/sample_fragmented.mp4"), 0);
  EXPECT_EQ(info.m_duration, 143165);
  EXPECT_EQ(info.m_playTimeSource, KX_PLAYTIME_MEASURED);
  EXPECT_NEAR(static_cast<double>(info.m_playTimeMs), 1100, 100);
}

TEST(RealFiles, DiscsWithoutTheirFilmsAreNoSource) {
  const auto dir = kxtest::mediaDir();
  if (!dir) GTEST_SKIP() << "KX_MEDIA_DIR is not set";
  KxDvd dvd;
  EXPECT_EQ(dvd.init(*dir + "/dvd/shadok1/VIDEO_TS/VIDEO_TS.IFO"), 1);
  KxBd bd;
  EXPECT_EQ(bd.init(*dir + "/bluray/disc1/BDMV/index.bdmv"), 1);
}
