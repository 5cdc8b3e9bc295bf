#include "tools/PackedSound.h"

#include <algorithm>

namespace kxtools {
namespace {

constexpr const char* kOption = "-unpack_sound";
constexpr const char* kTrack = "0:a:";

// The value behind the last place of an option; empty when it is not there.
std::string valueOf(const Words& words, const std::string& option) {
  const auto found = std::find(words.rbegin(), words.rend(), option);
  return found == words.rend() || found == words.rbegin() ? "" : *std::prev(found);
}

// Numbers of values of "-map" that choose sound of the source.
template <typename Use>
void forEachSoundMap(const Words& words, Use use) {
  for (size_t i = 1; i < words.size(); ++i)
    if (words[i - 1] == "-map" && words[i].starts_with(kTrack)) use(i);
}

}  // namespace

bool asksForUnpacking(const Words& words) {
  return std::find(words.begin(), words.end(), kOption) != words.end();
}

Words unpackingWords(const Words& words) {
  std::string track = std::string(kTrack) + "0";
  forEachSoundMap(words, [&](size_t i) { track = words[i]; });
  return {"-v", "error", "-i",    valueOf(words, "-i"), "-map", track, "-c:a", "copy",
          "-f", "amr",   "pipe:1"};
}

Words withUnpackedSound(const Words& words, int fd) {
  Words result = words;
  forEachSoundMap(words, [&](size_t i) {
    const bool isOptional = words[i].ends_with('?');
    result[i] = isOptional ? "1:a:0?" : "1:a:0";
  });
  const std::string start = valueOf(words, kOption);
  for (auto option = result.begin(); option != result.end();)
    option = *option == kOption ? result.erase(option, option + 2) : option + 1;
  const auto input = std::find(result.begin(), result.end(), "-i");
  if (input != result.end()) {
    const Words sound = {"-itsoffset", start, "-f", "amr", "-i", "pipe:" + std::to_string(fd)};
    result.insert(input + 2, sound.begin(), sound.end());
  }
  return result;
}

}  // namespace kxtools
