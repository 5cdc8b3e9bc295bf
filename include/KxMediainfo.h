#pragma once
/// @file
/// Facts of a media file and the main title of DVD and Blu-ray folders.
///
/// All records are plain values without locks. The three probers are each used by one thread
/// at a time; different objects may be used by different threads at once. Nothing throws.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// Codec numbers of the library. They are the service's own: video numbers from 3 on are one
/// higher than those of current FFmpeg releases and are translated where FFmpeg is called;
/// audio and subtitle numbers are the same.
enum KxCodecId_e : int32_t {
  KX_CODEC_H264 = 28,
  KX_CODEC_HEVC = 174,
  KX_CODEC_MP3 = 86017,
  KX_CODEC_AAC = 86018,
};

/// Kinds of stream (`KxStream::m_type`). Data streams and attachments have other values.
enum KxStreamType_e : int32_t { KX_STREAM_VIDEO = 0, KX_STREAM_AUDIO = 1, KX_STREAM_SUBTITLE = 3 };

/// One stream of a container. A plain value.
class KxStream {
 public:
  /// Logs every field up to the frame rate, one per line.
  void dumpStreamInfo();

  /// True for a stream that was not found, and in KxMediaInfo::m_streams for cover art,
  /// which is no video track although its m_type is KX_STREAM_VIDEO.
  bool m_isEmpty = true;
  int32_t m_type = 0;        ///< KxStreamType_e
  int32_t m_codecId = 0;     ///< library numbering, 0 unknown
  int32_t m_profile = 0;     ///< the codec's own number, -99 unknown
  int32_t m_bitrate = 0;     ///< bit/s, 0 unknown
  int32_t m_samplerate = 0;  ///< Hz, audio only
  int32_t m_channels = 0;    ///< audio only
  int32_t m_rotation = 0;    ///< degrees clockwise that turn the picture upright: 0, 90, 180, 270
  int32_t m_level = 0;       ///< the codec's own number (H.264: level times ten), -99 unknown
  int32_t m_width = 0;       ///< coded size, pixels, before any rotation
  int32_t m_height = 0;
  int32_t m_frame_num = 0;  ///< frames per second as a fraction, 0/0 unknown
  int32_t m_frame_den = 0;
  int32_t m_sar_num = 0;  ///< sample aspect ratio, 0/0 unknown
  int32_t m_sar_den = 0;
  int32_t m_dar_num = 0;  ///< display aspect ratio of the coded picture, 0/0 unknown
  int32_t m_dar_den = 0;
  bool m_isMirrored = false;  ///< the display matrix flips the picture besides turning it
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

/// Where `KxMediaInfo::m_playTimeMs` comes from.
enum KxPlayTime_e : int32_t {
  KX_PLAYTIME_UNKNOWN = 0,    ///< no usable length, and too much to read to count it
  KX_PLAYTIME_STATED = 1,     ///< stated by the container or by its first and last time stamps
  KX_PLAYTIME_ESTIMATED = 2,  ///< a guess from file size and bit rate; may be far off
  KX_PLAYTIME_MEASURED = 3,   ///< the container states none; counted over the packets present
};

/// Container and streams of one media file, or of the main title of a disc folder.
///
/// A probe reads a bounded part of the file and takes at most 30 seconds. It opens local files
/// only: no protocol but "file", and no format that names other files. The facts of the last
/// file probed by the process are remembered, by path, size and times, so that probing the
/// same file again costs no more than a stat.
class KxMediaInfo {
 public:
  /// Probes a file, the index file of a disc (VIDEO_TS.IFO, index.bdmv), or a folder that holds
  /// VIDEO_TS/VIDEO_TS.IFO or BDMV/index.bdmv. Earlier contents are dropped.
  /// @return 0 when it was opened and has at least one stream, 1 otherwise
  int init(std::string path);
  /// @param n counts from 0 among the streams of the kind; cover art is not counted
  /// @return a copy of the n-th stream, or an empty stream when there is none
  KxStream getVideoTrack(int n);
  KxStream getAudioTrack(int n);     ///< As getVideoTrack().
  KxStream getSubtitleTrack(int n);  ///< As getVideoTrack().
  int32_t getVideoTrackCount() const { return m_videoCount; }
  int32_t getAudioTrackCount() const { return m_audioCount; }
  int32_t getSubtitleTrackCount() const { return m_subtitleCount; }
  /// Logs the container's fields and every stream.
  void dumpMediaInfo();

  std::string m_inFile;             ///< the path given to init()
  int32_t m_mediaType = 0;          ///< 0 a plain file, 1 a DVD folder, 2 a Blu-ray folder
  int32_t m_formatId = 0;           ///< KxFormatId_e
  int32_t m_duration = 0;           ///< whole seconds as the container states them, 0 unknown
  int32_t m_totalBitrate = 0;       ///< bit/s, 0 unknown
  std::vector<KxStream> m_streams;  ///< in container order, cover art and data included
  int32_t m_videoCount = 0;
  int32_t m_audioCount = 0;
  int32_t m_subtitleCount = 0;

  /// How long a transcode of this source should last, in milliseconds; 0 unknown.
  ///
  /// It differs from m_duration where the container's length is no measure of that:
  /// - only video and audio count, not a subtitle track that outlasts them;
  /// - a length that is the "unknown" mark of the format, as in fragmented files which then
  ///   claim 39 hours for a second of video, is not believed;
  /// - a DVD title counts all its parts, m_duration only the first.
  ///
  /// A stated length is never shortened to what is left of a cut file, so a result that is
  /// shorter than KX_PLAYTIME_STATED tells a truncated source. KX_PLAYTIME_MEASURED cannot tell
  /// one: only what is there was counted. KX_PLAYTIME_ESTIMATED is no ground for a verdict.
  int64_t m_playTimeMs = 0;
  int32_t m_playTimeSource = KX_PLAYTIME_UNKNOWN;  ///< KxPlayTime_e
};

/// One DVD title set.
struct kxDVD_s {
  long size = 0;             ///< bytes of all its parts
  int32_t cntNo = 0;         ///< highest part number, 1 to 99
  std::string VTS;           ///< title-set number as written in the file names
  std::string vobPath;       ///< the folder, with trailing "/"
  std::string vobVTSPrefix;  ///< file name before the first underscore
  std::string vobSuffix;     ///< extension with its dot, as written
};

/// Finds the largest title set of a DVD folder.
class KxDvd {
 public:
  /// @param path the index file VIDEO_TS.IFO, any letter case, inside the VIDEO_TS folder
  /// @return 0 when the folder holds at least one part of a title set, 1 otherwise
  int init(std::string path);
  /// @return the first part of the largest title set; empty before a successful init().
  ///         A disc without that part has no such file.
  std::string getSampleVideoPath();
  /// @return all existing parts of the largest title set in playing order.
  std::vector<std::string> getTitleParts() const;
  /// @return the largest title set; its strings are empty before a successful init().
  const kxDVD_s& getSampleDvd() const { return m_sampleDvd; }
  /// Logs the path and the chosen set.
  void dumpSampleDvdInfo();

 private:
  void addPart(const std::string& folder, const std::string& name);
  int chooseSample();

  std::string m_inFile;
  std::map<std::string, kxDVD_s> m_dvdMap;  ///< by title-set number
  kxDVD_s m_sampleDvd;
};

/// One Blu-ray stream file.
struct kxBD_s {
  std::string streamPath;  ///< the STREAM folder, with trailing "/"
  std::string streamName;  ///< file name
  std::string streamIdx;   ///< file name without extension
  long size = 0;           ///< bytes
};

/// Finds the largest stream of a Blu-ray folder.
class KxBd {
 public:
  /// @param path the index file index.bdmv, any letter case, inside the BDMV folder
  /// @return 0 when the folder holds at least one stream file, 1 otherwise
  int init(std::string path);
  /// @return the largest stream; empty before a successful init().
  std::string getSampleVideoPath();

 private:
  void addStream(const std::string& streamPath, const std::string& name);
  int chooseSample();

  std::string m_inFile;
  std::map<std::string, kxBD_s> m_bdMap;  ///< by file name
  kxBD_s m_sampleBd;
};
