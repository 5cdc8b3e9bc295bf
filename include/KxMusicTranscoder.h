#pragma once
/// @file
/// Audio transcodes: music files and the sound of videos.

#include <cstdint>
#include <list>
#include <string>

#include "KxMediainfo.h"
#include "KxResource2.h"

/// Everything that describes one audio transcode. A plain value.
class MusicTranscodeParam {
 public:
  MusicTranscodeParam();
  void dump();

  std::string m_inFile;
  std::string m_outFile;
  int32_t m_formatId;
  int32_t m_totalDuration;  ///< seconds, 0 for the whole file
  std::list<std::string> m_extraCmds;
  std::string m_ip;
  std::string m_usrname;
  std::string m_tag;
  int32_t m_aCodecId;
  int32_t m_aid;
  int32_t m_aChannel;
  int32_t m_aSampleRate;  ///< Hz
  int32_t m_aBitrate;     ///< bit/s
  bool m_aIgnore;
  bool m_aCopy;
};

/// Runs one audio transcode. Used from one thread.
class KxMusicTranscoder {
 public:
  KxMusicTranscoder();
  ~KxMusicTranscoder();
  KxMusicTranscoder(const KxMusicTranscoder&) = delete;
  KxMusicTranscoder& operator=(const KxMusicTranscoder&) = delete;

  int init(MusicTranscodeParam& param);
  /// Starts the engine. @return the child's pid, or -1.
  int transcode(KxResource2& res, bool withLog);
  int swTranscode(std::string input, std::string output, bool withLog);
  int hwTranscode(std::string input, std::string output, bool withLog);
  /// @return percent done, 0 to 100.
  int getProgress();

  KxMediaInfo& getMediaInfo() { return m_mediaInfo; }
  /// Where the result is written.
  const std::string& getOutputPath() const { return m_outputPath; }
  const std::string& getProgressLogPath() const { return m_progressLog; }

 private:
  MusicTranscodeParam m_param;
  KxMediaInfo m_mediaInfo;
  std::string m_outputPath;
  std::string m_progressLog;
  int32_t m_progress;
};

/// Number of pages of a PDF. The library's own definition is weak and returns 0.
int kxPdfGetPageNumber(std::string path);
