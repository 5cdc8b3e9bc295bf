#pragma once
/// @file
/// Facts of a media file and the main title of DVD and Blu-ray folders.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Codec numbers of the library. They are the service's own: video numbers differ from
/// those of current FFmpeg releases and are translated where FFmpeg is called.
enum KxCodecId_e : int32_t {
  KX_CODEC_H264 = 28,
  KX_CODEC_HEVC = 174,
  KX_CODEC_MP3 = 86017,
  KX_CODEC_AAC = 86018,
};

/// Kinds of stream (`KxStream::m_type`).
enum KxStreamType_e : int32_t { KX_STREAM_VIDEO = 0, KX_STREAM_AUDIO = 1, KX_STREAM_SUBTITLE = 3 };

/// One stream of a container. A plain value.
class KxStream {
 public:
  void dumpStreamInfo();

  bool m_isEmpty = true;  ///< true for a stream that was not found
  int32_t m_type = 0;     ///< KxStreamType_e
  int32_t m_codecId = 0;  ///< library numbering
  int32_t m_profile = 0;
  int32_t m_bitrate = 0;     ///< bit/s
  int32_t m_samplerate = 0;  ///< Hz
  int32_t m_channels = 0;
  int32_t m_rotation = 0;  ///< degrees clockwise: 0, 90, 180 or 270
  int32_t m_level = 0;
  int32_t m_width = 0;  ///< coded size, pixels
  int32_t m_height = 0;
  int32_t m_frame_num = 0;  ///< frames per second as a fraction
  int32_t m_frame_den = 0;
  int32_t m_sar_num = 0;  ///< sample aspect ratio, 0 when unknown
  int32_t m_sar_den = 0;
  int32_t m_dar_num = 0;  ///< display aspect ratio, 0 when unknown
  int32_t m_dar_den = 0;
};

/// Container kinds (`KxMediaInfo::m_formatId`).
enum KxFormatId_e : int32_t {
  KX_FORMAT_UNKNOWN = 0,
  KX_FORMAT_AVI = 1,
  KX_FORMAT_ASF = 2,
  KX_FORMAT_MPEG = 3,
  KX_FORMAT_MP4 = 4,
  KX_FORMAT_MPEGTS = 5,
  KX_FORMAT_MATROSKA = 6,
  KX_FORMAT_FLV = 7,
  KX_FORMAT_RM = 8,
  KX_FORMAT_AUDIO = 9,  ///< audio-only output; never reported by a probe
};

/// Container and streams of one media file. Used from one thread at a time.
class KxMediaInfo {
 public:
  int init(std::string path);
  KxStream getVideoTrack(int n);
  KxStream getAudioTrack(int n);
  KxStream getSubtitleTrack(int n);
  int32_t getVideoTrackCount() const { return m_videoCount; }
  int32_t getAudioTrackCount() const { return m_audioCount; }
  int32_t getSubtitleTrackCount() const { return m_subtitleCount; }
  void dumpMediaInfo();

  std::string m_inFile;
  int32_t m_mediaType = 0;     ///< 0 a plain file, 1 a DVD folder, 2 a Blu-ray folder
  int32_t m_formatId = 0;      ///< KxFormatId_e
  int32_t m_duration = 0;      ///< whole seconds
  int32_t m_totalBitrate = 0;  ///< bit/s
  std::vector<KxStream> m_streams;
  int32_t m_videoCount = 0;
  int32_t m_audioCount = 0;
  int32_t m_subtitleCount = 0;
};

/// One DVD title set.
struct kxDVD_s {
  long size = 0;      ///< bytes of all its parts
  int32_t cntNo = 0;  ///< highest part number
  std::string VTS;    ///< title-set number as written in the file names
  std::string vobPath;
  std::string vobVTSPrefix;
  std::string vobSuffix;
};

/// Finds the largest title set of a DVD folder.
class KxDvd {
 public:
  int init(std::string path);
  std::string getSampleVideoPath();
  const kxDVD_s& getSampleDvd() const { return m_sampleDvd; }
  void dumpSampleDvdInfo();

 private:
  std::string m_inFile;
  std::map<std::string, kxDVD_s> m_dvdMap;
  kxDVD_s m_sampleDvd;
};

/// One Blu-ray stream file.
struct kxBD_s {
  std::string streamPath;
  std::string streamName;
  std::string streamIdx;
  long size = 0;  ///< bytes
};

/// Finds the largest stream of a Blu-ray folder.
class KxBd {
 public:
  int init(std::string path);
  std::string getSampleVideoPath();

 private:
  std::string m_inFile;
  std::map<std::string, kxBD_s> m_bdMap;
  kxBD_s m_sampleBd;
};
