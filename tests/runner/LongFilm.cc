#include "tests/runner/LongFilm.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/TestSupport.h"

namespace kxtest {
namespace {

// A picture is a field of black and white blocks, one for each bit of its number.
constexpr int kColumns = 8;
constexpr int kRows = 3;
constexpr int kBlock = 8;
constexpr int kWidth = kColumns * kBlock;
constexpr int kHeight = kRows * kBlock;
constexpr size_t kBlocks = 24;
constexpr size_t kPictureSize = 1536;
static_assert(int{kBlocks} == kColumns * kRows && int{kPictureSize} == kWidth * kHeight);
constexpr int kBits = 17;
constexpr double kToneSeconds = 0.02;
constexpr double kToneEvery = 10;
constexpr double kFirstTone = 5;

double numberOf(const std::string& fraction) {
  const size_t slash = fraction.find('/');
  const double top = std::atof(fraction.c_str());
  return slash == std::string::npos ? top : top / std::atof(fraction.c_str() + slash + 1);
}

std::string pictureOf(int number) {
  std::string picture(kPictureSize, '\x10');
  for (int bit = 0; bit < kBits; ++bit) {
    if ((number >> bit & 1) == 0) continue;
    const int top = bit / kColumns * kBlock;
    const int left = bit % kColumns * kBlock;
    for (int line = 0; line < kBlock; ++line) {
      const int start = (top + line) * kWidth + left;
      picture.replace(static_cast<size_t>(start), kBlock, kBlock, '\xeb');
    }
  }
  return picture;
}

void writePictures(const std::string& path, int count) {
  std::ofstream file(path, std::ios::binary);
  for (int number = 0; number < count; ++number) file << pictureOf(number);
}

template <typename Number>
void put(std::ofstream& file, Number value) {
  file.write(reinterpret_cast<const char*>(&value), sizeof value);
}

// Samples that are not written are silent.
void writeTones(const std::string& path, const LongFilm& film) {
  const auto samples = static_cast<int64_t>(film.seconds * film.sampleRate);
  const int64_t frame = film.channels * int64_t{2};
  std::ofstream file(path, std::ios::binary);
  for (double time = kFirstTone; time + 1 < film.seconds; time += kToneEvery) {
    const auto begin = static_cast<int64_t>(time * film.sampleRate);
    file.seekp(begin * frame);
    for (int64_t i = 0; i < static_cast<int64_t>(kToneSeconds * film.sampleRate); ++i) {
      const auto value = static_cast<int16_t>(
          28000 * std::sin(2 * M_PI * 1000 * static_cast<double>(i) / film.sampleRate));
      for (int channel = 0; channel < film.channels; ++channel) put(file, value);
    }
  }
  file.seekp(samples * frame - 2);
  put(file, int16_t{0});
}

std::vector<double> numbersOf(const std::string& text) {
  std::vector<double> numbers;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line[0] >= '-' && line[0] <= '9')
      numbers.push_back(std::atof(line.c_str()));
  }
  return numbers;
}

}  // namespace

void makeLongFilm(const LongFilm& film, const std::string& path) {
  const TempDir temp;
  const std::string pictures = temp / "pictures";
  writePictures(pictures, static_cast<int>(std::ceil(film.seconds * numberOf(film.rate))));
  std::vector<std::string> argv = quietFfmpeg();
  const auto add = [&](const std::vector<std::string>& words) {
    argv.insert(argv.end(), words.begin(), words.end());
  };
  if (film.pictureDelay > 0) add({"-itsoffset", std::to_string(film.pictureDelay)});
  add({"-f", "rawvideo", "-pix_fmt", "gray", "-s",
       std::to_string(kWidth) + "x" + std::to_string(kHeight), "-framerate", film.rate, "-i",
       pictures});
  if (film.sampleRate > 0) {
    writeTones(temp / "tones", film);
    if (film.soundDelay > 0) add({"-itsoffset", std::to_string(film.soundDelay)});
    add({"-f", "s16le", "-ar", std::to_string(film.sampleRate), "-ac",
         std::to_string(film.channels), "-i", temp / "tones", "-map", "0:v", "-map", "1:a"});
    add(film.sound);
  }
  if (!film.filter.empty()) add({"-vf", film.filter});
  add({"-pix_fmt", "yuv420p"});
  add(film.video);
  add({path});
  if (!run(argv)) throw std::runtime_error("cannot make " + path);
}

std::vector<int> pictureNumbers(const std::string& path) {
  const auto pixels = run(quietFfmpeg(
      {"-i", path, "-map", "0:v", "-vsync", "passthrough", "-vf",
       "scale=" + std::to_string(kColumns) + ":" + std::to_string(kRows) + ":flags=area",
       "-pix_fmt", "gray", "-f", "rawvideo", "-"}));
  std::vector<int> numbers;
  constexpr size_t kSize = kBlocks;
  for (size_t at = 0; pixels && at + kSize <= pixels->size(); at += kSize) {
    int number = 0;
    for (int bit = 0; bit < kBits; ++bit) {
      if (static_cast<unsigned char>((*pixels)[at + static_cast<size_t>(bit)]) > 128)
        number |= 1 << bit;
    }
    numbers.push_back(number);
  }
  return numbers;
}

std::vector<double> pictureTimes(const std::string& path) {
  std::vector<double> times =
      numbersOf(run({"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                     "packet=pts_time", "-of", "csv=p=0", path})
                    .value_or(""));
  std::ranges::sort(times);
  return times;
}

std::vector<double> toneTimes(const std::string& path) {
  constexpr int kRate = 8000;
  constexpr int kThreshold = 6000;
  // Silence in front of the first sample makes its place the time of the sample.
  const auto samples =
      run(quietFfmpeg({"-i", path, "-map", "0:a", "-af",
                       "aresample=" + std::to_string(kRate) + ":async=1:first_pts=0", "-ac", "1",
                       "-f", "s16le", "-"}));
  std::vector<double> times;
  double last = -1;
  for (size_t at = 0; samples && at + 2 <= samples->size(); at += 2) {
    const auto value = static_cast<int16_t>(static_cast<unsigned char>((*samples)[at]) |
                                            static_cast<unsigned char>((*samples)[at + 1]) << 8);
    if (std::abs(value) < kThreshold) continue;
    const double time = static_cast<double>(at) / 2 / kRate;
    if (last < 0 || time - last > 1) times.push_back(time);
    last = time;
  }
  return times;
}

}  // namespace kxtest
