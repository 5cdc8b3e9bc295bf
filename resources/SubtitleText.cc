#include "resources/SubtitleText.h"

#include <fcntl.h>
#include <iconv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <string_view>
#include <vector>

#include "frame/UniqueFd.h"
#include "probe/FormatContext.h"

namespace runner {
namespace {

constexpr std::chrono::seconds kLongestLook(10);
constexpr off_t kLargestSubtitle = 16 << 20;
constexpr std::string_view kUtf8Mark = "\xef\xbb\xbf";
constexpr const char* kChinese = "GB18030";
constexpr std::array kWestern = {"WINDOWS-1252", "ISO-8859-1"};

class Converter {
 public:
  explicit Converter(const char* from) : m_state(iconv_open(kUtf8, from)) {}
  ~Converter() {
    if (valid()) iconv_close(m_state);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;

  std::optional<std::string> convert(std::string bytes) {
    if (!valid()) return std::nullopt;
    std::string result(bytes.size() * 4 + 16, '\0');
    char* in = bytes.data();
    char* out = result.data();
    size_t left = bytes.size();
    size_t room = result.size();
    if (iconv(m_state, &in, &left, &out, &room) == static_cast<size_t>(-1)) return std::nullopt;
    result.resize(result.size() - room);
    return result;
  }

 private:
  bool valid() const { return m_state != iconv_t(-1); }
  iconv_t m_state;
};

std::optional<std::string> toUtf8(const std::string& bytes, const char* encoding) {
  return Converter(encoding).convert(bytes);
}

bool isHigh(char byte) {
  return (static_cast<unsigned char>(byte) & 0x80) != 0;
}

// First byte of Chinese punctuation or of the common characters, which nearly all text
// consists of. The small letters of Western encodings are not among them.
bool startsCommonCharacter(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return (value >= 0xa1 && value <= 0xa3) || (value >= 0xb0 && value <= 0xd7);
}

// Western text has single high bytes between letters, Chinese text has them in pairs.
bool looksChinese(const std::string& bytes) {
  size_t common = 0;
  size_t others = 0;
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (!isHigh(bytes[i])) continue;
    const bool paired = i + 1 < bytes.size() && isHigh(bytes[i + 1]);
    ++(paired && startsCommonCharacter(bytes[i]) ? common : others);
    if (paired) ++i;
  }
  return common > 3 * others;
}

// UTF-16 without a mark: the line ends and digits of a subtitle have one zero byte each.
const char* unmarkedUtf16(const std::string& bytes) {
  std::array<size_t, 2> zeros = {};
  for (size_t i = 0; i < bytes.size(); ++i)
    if (bytes[i] == '\0') ++zeros[i % 2];
  const size_t pairs = bytes.size() / 2;
  if (zeros[1] * 4 > pairs && zeros[0] * 16 < pairs) return "UTF-16LE";
  if (zeros[0] * 4 > pairs && zeros[1] * 16 < pairs) return "UTF-16BE";
  return nullptr;
}

std::optional<std::string> readAll(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat info;
  if (!file || fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  if (info.st_size > kLargestSubtitle) return std::nullopt;
  std::string bytes(static_cast<size_t>(info.st_size), '\0');
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t count = read(file.get(), bytes.data() + done, bytes.size() - done);
    if (count <= 0) return std::nullopt;
    done += static_cast<size_t>(count);
  }
  return bytes;
}

bool isPlaylist(const std::string& text) {
  return text.starts_with("#EXTM3U") || text.starts_with("ffconcat") || text.starts_with("file ");
}

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// True when ":mm:ss" of a time stands there, without a fraction behind it.
bool endsBareTime(std::string_view line, size_t at) {
  if (at == 0 || at + 6 > line.size() || !isDigit(line[at - 1])) return false;
  for (size_t i = 0; i < 6; ++i)
    if (i % 3 == 0 ? line[at + i] != ':' : !isDigit(line[at + i])) return false;
  const char next = at + 6 < line.size() ? line[at + 6] : ' ';
  return !isDigit(next) && std::string_view(",.:").find(next) == std::string_view::npos;
}

std::string completed(std::string_view line) {
  if (line.find("-->") == std::string_view::npos) return std::string(line);
  std::string result;
  for (size_t i = 0; i < line.size(); ++i) {
    result += line[i];
    if (i >= 5 && endsBareTime(line, i - 5)) result += ",000";
  }
  return result;
}

// Some programs write whole seconds only, which the renderer does not take for times.
std::string withFractions(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const size_t end = std::min(text.find_first_of("\r\n"), text.size() - 1) + 1;
    const bool isEnded = text[end - 1] == '\r' || text[end - 1] == '\n';
    const std::string_view line = text.substr(0, isEnded ? end - 1 : end);
    result += completed(line);
    if (isEnded) result += text[end - 1];
    text.remove_prefix(end);
  }
  return result;
}

}  // namespace

std::string encodingOf(const std::string& bytes) {
  if (bytes.starts_with("\xff\xfe")) return "UTF-16LE";
  if (bytes.starts_with("\xfe\xff")) return "UTF-16BE";
  const char* wide = unmarkedUtf16(bytes);
  if (wide != nullptr) return wide;
  if (toUtf8(bytes, kUtf8)) return kUtf8;
  if (looksChinese(bytes) && toUtf8(bytes, kChinese)) return kChinese;
  for (const char* western : kWestern)
    if (toUtf8(bytes, western)) return western;
  return kWestern.back();
}

SubtitleText readSubtitle(const std::string& path) {
  SubtitleText text;
  const auto bytes = readAll(path);
  if (!bytes) {
    text.fault = "the subtitle cannot be read";
    return text;
  }
  text.encoding = encodingOf(*bytes);
  const auto utf8 = toUtf8(*bytes, text.encoding.c_str());
  if (!utf8) {
    text.fault = "the subtitle's encoding is unknown";
    return text;
  }
  const std::string plain = utf8->starts_with(kUtf8Mark) ? utf8->substr(kUtf8Mark.size()) : *utf8;
  text.utf8 = withFractions(plain);
  text.isChanged = text.encoding != kUtf8 || text.utf8 != plain;
  if (isPlaylist(text.utf8)) text.fault = "the subtitle is a playlist";
  return text;
}

bool isSubtitle(const std::string& path) {
  kxprobe::FormatContext context(std::chrono::steady_clock::now() + kLongestLook);
  if (!context.open(path) || !context.readStreamInfo()) return false;
  const std::vector<kxprobe::StreamFacts> streams = context.facts().streams;
  return !streams.empty() && std::ranges::all_of(streams, [](const auto& stream) {
    return stream.kind == kxprobe::StreamKind::Subtitle;
  });
}

bool writeText(const std::string& path, const std::string& text) {
  const UniqueFd file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  size_t done = 0;
  while (file && done < text.size()) {
    const ssize_t count = write(file.get(), text.data() + done, text.size() - done);
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return static_cast<bool>(file);
}

}  // namespace runner
