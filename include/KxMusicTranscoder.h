#pragma once
/// @file
/// Audio transcodes: music files and the sound of videos.

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "KxMediainfo.h"
#include "KxResource2.h"

namespace engines {
class DiscSource;
}  // namespace engines

/// Everything that describes one audio transcode. A plain value.
class MusicTranscodeParam {
 public:
  /// A whole-file transcode to MP3 of the first audio stream.
  MusicTranscodeParam();
  /// Logs every field.
  void dump();

  std::string
      m_inFile;  ///< absolute path of the source; a disc folder or image stands for its main title
  /// Where the result goes. A path with "/" is used as given; a bare name goes into the
  /// service's own folder on the volume of the media data directory.
  std::string m_outFile;
  int32_t m_formatId;                  ///< KxFormatId_e; only KX_FORMAT_AUDIO is written
  int32_t m_totalDuration;             ///< length limit in seconds, 0 for the whole file
  std::list<std::string> m_extraCmds;  ///< further encoder arguments, from the host only
  std::string m_ip;                    ///< requester's address
  std::string m_usrname;               ///< requesting user
  std::string m_tag;                   ///< carried over from the job
  int32_t m_aCodecId;                  ///< library numbering
  int32_t m_aid;                       ///< n-th audio stream; negative leaves it to the encoder
  int32_t m_aChannel;                  ///< channels, 0 keeps the source's
  int32_t m_aSampleRate;               ///< Hz, 0 keeps the source's
  int32_t m_aBitrate;                  ///< bit/s, 0 leaves it to the encoder
  bool m_aIgnore;                      ///< carried along; audio is never dropped
  bool m_aCopy;                        ///< carried along; audio is always encoded
};

/// Runs one audio transcode: init() once, transcode(), then getProgress() until the child has
/// ended. Used from one thread, which also waits for the child: it dies with that thread.
class KxMusicTranscoder {
 public:
  KxMusicTranscoder();
  /// Removes the progress log and releases a mounted image. The result is the caller's.
  ~KxMusicTranscoder();
  KxMusicTranscoder(const KxMusicTranscoder&) = delete;
  KxMusicTranscoder& operator=(const KxMusicTranscoder&) = delete;

  /// Checks and probes the source and decides where the result goes.
  /// @return 0 on success, 1 when a check fails
  int init(MusicTranscodeParam& param);
  /// Starts the engine for the resource. @return the child's pid, or -1 when it is refused or
  /// cannot be started. The caller waits for the child.
  /// @param withLog writes the child's standard error to getProgressLogPath()
  int transcode(KxResource2& res, bool withLog);
  /// Starts the encoder on the CPU; result as transcode().
  int swTranscode(std::string input, std::string output, bool withLog);
  /// Starts the encoder for a hardware resource; it is the same program.
  int hwTranscode(std::string input, std::string output, bool withLog);
  /// Runs the log parser and waits for it. @return percent done, 0 to 100
  int getProgress();

  /// The probed source, after init().
  KxMediaInfo& getMediaInfo() { return m_mediaInfo; }
  /// Where the result is written, after init().
  const std::string& getOutputPath() const { return m_outputPath; }
  const std::string& getProgressLogPath() const { return m_progressLog; }

 private:
  int openSource_();
  int placeOutput_();
  int checkOutput_() const;
  int launch_(const char* function, const std::string& input, const std::string& output,
              bool withLog);

  MusicTranscodeParam m_param;
  KxMediaInfo m_mediaInfo;
  std::unique_ptr<engines::DiscSource> m_source;  ///< what m_inFile stands for
  std::string m_outputPath;
  std::string m_progressLog;
  int32_t m_progress;
};

/// Number of pages of a PDF. The library's own definition is weak and returns 0.
int kxPdfGetPageNumber(std::string path);
