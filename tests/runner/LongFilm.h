#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kxtest {

// A film that is long enough to go by pieces and cheap to make: its pictures are small and show
// their own number, its sound is silent but for a short tone every ten seconds.
struct LongFilm {
  std::string rate = "25";  // pictures a second
  double seconds = 1205;
  std::vector<std::string> video = {"-c:v", "libx264", "-preset", "ultrafast",
                                    "-bf",  "2",       "-g",      "250"};
  std::string filter = "";  // of the pictures, may be empty
  int sampleRate = 48000;   // 0: no sound
  int channels = 2;
  double soundDelay = 0;    // seconds
  double pictureDelay = 0;  // seconds
  std::vector<std::string> sound = {"-c:a", "aac", "-b:a", "64k"};
};

// Makes a film; the container follows the name. Throws when that fails.
void makeLongFilm(const LongFilm& film, const std::string& path);

// The numbers that the decoded pictures of a file show, in order.
std::vector<int> pictureNumbers(const std::string& path);
// Times of the pictures in order, seconds.
std::vector<double> pictureTimes(const std::string& path);
// When the tones of the decoded sound begin, seconds.
std::vector<double> toneTimes(const std::string& path);

}  // namespace kxtest
