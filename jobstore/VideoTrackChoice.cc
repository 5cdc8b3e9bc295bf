#include "jobstore/VideoTrackChoice.h"

#include "KxMediainfo.h"

namespace kxjobstore {
namespace {

constexpr int kAnyClass = 0;
constexpr int kAudioClass = 3;

bool isAudioFile(const std::string& src) {
  char extension[6];
  return MyIDB_GetFilenameType(src.c_str(), extension, kAnyClass, sizeof extension) == kAudioClass;
}

}  // namespace

int32_t chooseVideoTrack(const std::string& src, int32_t asked, LogSite site) {
  if (isAudioFile(src)) return asked;
  KxMediaInfo info;
  if (info.init(src) != 0) {
    KX_LOG_SITE(site, "get media info of %s fail, use vid %d assigned by client\n", src.c_str(),
                asked);
    return asked;
  }
  int32_t chosen = asked;
  int64_t largest = -1;
  for (int32_t i = 0; i < info.getVideoTrackCount(); ++i) {
    const KxStream track = info.getVideoTrack(i);
    if (track.m_isEmpty) {
      KX_LOG_SITE(site, "video track %d is empty, we skip it\n", i);
      continue;
    }
    KX_LOG_SITE(site, "name=%s, vid=%d, w=%d, h=%d\n", src.c_str(), i, track.m_width,
                track.m_height);
    const int64_t area = int64_t{track.m_width} * track.m_height;
    if (area <= largest) continue;
    largest = area;
    chosen = i;
  }
  KX_LOG_SITE(site, "spec#17964, name=%s, auto choose vid = %d\n", src.c_str(), chosen);
  return chosen;
}

}  // namespace kxjobstore
