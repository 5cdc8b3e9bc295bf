#pragma once
/// @file
/// Video transcodes: their parameters, the built-in profiles and the object that runs one.

#include <cstdint>
#include <cstdio>
#include <list>
#include <string>
#include <vector>

#include <pthread.h>

#include "KxMediainfo.h"
#include "KxResource2.h"

/// Everything that describes one video transcode. A plain value.
class TranscodeParam {
 public:
  TranscodeParam();
  ~TranscodeParam();
  TranscodeParam(const TranscodeParam&) = default;
  TranscodeParam& operator=(const TranscodeParam&) = default;
  void dump();

  std::string m_inFile;
  std::string m_outFile;
  bool m_isPipeIn;
  bool m_isPipeOut;
  std::string m_pipeOutFile;
  int32_t m_formatId;
  int32_t m_totalDuration;  ///< seconds
  int32_t m_seekTime;       ///< seconds
  std::string m_seekTimeFile;
  bool m_isFastStart;
  std::string m_fastStartFile;
  std::string m_profile;
  bool m_estResource;
  bool m_estTranscodeType;
  bool m_myfile;
  int32_t m_mode;
  std::list<std::string> m_extraCmds;
  std::string m_ip;
  std::string m_usrname;
  std::string m_tag;
  int32_t m_vCodecId;
  int32_t m_vid;
  int32_t m_vProfile;
  double m_vLevel;
  int32_t m_vBitrate;    ///< bit/s
  int32_t m_vFramerate;  ///< frames per second
  bool m_vIgnore;
  bool m_vCopy;
  int32_t m_width;   ///< pixels, 0 keeps the source's
  int32_t m_height;  ///< pixels, 0 keeps the source's
  int32_t m_rotate;  ///< degrees clockwise, -1 unknown
  bool m_noDAR;
  int32_t m_aCodecId;
  int32_t m_aid;
  int32_t m_aChannel;
  int32_t m_aSampleRate;  ///< Hz
  int32_t m_aBitrate;     ///< bit/s
  bool m_aIgnore;
  bool m_aCopy;
  int32_t m_sid;
  std::string m_subtitle;
  std::string m_subColor;
  int32_t m_subSize;
  int32_t m_subSeek;
  std::string m_hlsTid;
  std::string m_hlsPath;
};

/// One row of the video profile table.
struct TransConfigEntry {
  uint64_t key;  ///< a single bit; 0 ends the table
  std::string name;
  int32_t formatId;
  int32_t width;
  int32_t height;
  int32_t vCodecId;
  int32_t aCodecId;
  int32_t aBitrate;
  int32_t aChannel;
  int32_t aSampleRate;
  int32_t vProfile;
};

/// One row of the two background audio tables.
struct AudioConfigEntry {
  uint64_t key;
  std::string name;
  int32_t formatId;
  int32_t aCodecId;
  int32_t aBitrate;
  int32_t aChannel;
  int32_t aSampleRate;
};

/// The built-in tables; constant after the library is loaded.
extern const TransConfigEntry gTransConfig[8];
extern const AudioConfigEntry gV2ABGTransConfig[2];
extern const AudioConfigEntry gMusicBGTransConfig[2];
/// Extensions of external subtitle files, ended by a null entry.
extern const char* const gSupportSubtitle[2];

/// One piece of a segmented transcode.
struct Seg_t {
  std::string segment;  ///< the piece cut from the source
  std::string result;   ///< its transcoded result
};

/// Copies the piped output of an encoder into a stream while the encoder runs.
class FileOutputHelper {
 public:
  FileOutputHelper();
  ~FileOutputHelper();
  FileOutputHelper(const FileOutputHelper&) = delete;
  FileOutputHelper& operator=(const FileOutputHelper&) = delete;
  int init(std::string source, FILE* destination);
  int start();
  int stop();
  int finish();

 private:
  friend void* FileOutputHelperFunc(void* arg);
  std::string m_source;
  FILE* m_destination;
  volatile bool m_keep;
  bool m_started;
  volatile bool m_finishing;
  pthread_t m_tid;
};

/// Thread routine of FileOutputHelper.
void* FileOutputHelperFunc(void* arg);

/// Runs one video transcode. Used from one thread.
class KxTranscoder {
 public:
  KxTranscoder();
  ~KxTranscoder();
  KxTranscoder(const KxTranscoder&) = delete;
  KxTranscoder& operator=(const KxTranscoder&) = delete;

  int init(TranscodeParam& param);
  std::string getSWFfmpegFilenameInput();
  int umountIso_();

  /// Starts the engine that fits the resource. @return the child's pid, or -1.
  int transcode(KxResource2& res, bool withLog);
  int hwTranscode(KxResource2& res, std::string input, std::string output, bool withLog);
  int swTranscode(std::string input, std::string output, bool withLog);
  int getTranscodeDegree_();
  int getResizeBasedOnDAR_(int& outW, int& outH, int reqW, int reqH, int tolerance);

  /// True when the result of this transcode must be remuxed to lose its rotation.
  bool needsStripMetadata();
  /// Starts the copy remux of @p output into @p output + ".remux.mp4".
  /// @return the child's pid, or -1. The caller waits for it and renames the result.
  int workaroundStripMetadata(std::string output);

  int doSegment();
  int doMerge();
  std::vector<std::string> genFfmpegReAudioParams_();
  std::vector<std::string> genFfmpegSegmentParams_();

  /// @return percent done, 0 to 100.
  int getProgress();

  const TranscodeParam& getParam() const { return m_param; }
  KxMediaInfo& getMediaInfo() { return m_mediaInfo; }
  /// Folder of this transcode's work files, with trailing "/"; the caller removes it.
  const std::string& getWorkFolder() const { return m_workFolder; }
  const std::string& getProgressLogPath() const { return m_progressLog; }

  std::vector<Seg_t> m_segVec;

 private:
  TranscodeParam m_param;
  KxMediaInfo m_mediaInfo;
  KxDvd m_dvd;
  KxBd m_bd;
  std::string m_mountPoint;        ///< host mount of a disc image; empty when none
  std::string m_chrootPath;        ///< root of the add-on's environment
  std::string m_chrootMountPoint;  ///< mount inside the add-on's environment
  std::string m_inputInternal;     ///< source for resource type 2
  std::string m_inputOther;        ///< source for resource types 3 to 5
  std::string m_workFolder;
  std::string m_progressLog;
  int32_t m_progress;
};
