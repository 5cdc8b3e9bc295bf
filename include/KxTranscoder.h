#pragma once
/// @file
/// Video transcodes: their parameters, the built-in profiles and the object that runs one.

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <pthread.h>

#include "KxMediainfo.h"
#include "KxResource2.h"

namespace engines {
class DiscSource;
struct EngineCommand;
struct EngineFacts;
}  // namespace engines

/// Everything that describes one video transcode. A plain value, owned by its creator.
///
/// Codec numbers are KxCodecId_e, container numbers KxFormatId_e.
class TranscodeParam {
 public:
  /// Sets the defaults: H.264 video with the source's size, nothing else asked for.
  TranscodeParam();
  ~TranscodeParam();
  TranscodeParam(const TranscodeParam&) = default;
  TranscodeParam& operator=(const TranscodeParam&) = default;
  /// Writes the record to the log at level 5.
  void dump();

  std::string m_inFile;         ///< a media file, a disc image, or a DVD or Blu-ray folder
  std::string m_outFile;        ///< path of the result, or a bare name below the work area
  bool m_isPipeIn;              ///< source comes from a pipe; refused
  bool m_isPipeOut;             ///< the encoder writes a pipe that a copy thread reads
  std::string m_pipeOutFile;    ///< receives the piped output; named when the engine starts
  int32_t m_formatId;           ///< container of the result; 0 (unknown) is refused
  int32_t m_totalDuration;      ///< seconds to encode; 0 the whole source
  int32_t m_seekTime;           ///< start offset, seconds; negative is refused
  std::string m_seekTimeFile;   ///< seek file for the hardware agent
  bool m_isFastStart;           ///< MP4 index to the front; always set for MP4
  std::string m_fastStartFile;  ///< scratch file of that step; named when the engine starts
  std::string m_profile;        ///< name of a profile file; it completes the record in init()
  bool m_estResource;           ///< carried over from the job
  bool m_estTranscodeType;      ///< carried over from the job
  bool m_myfile;                ///< carried over from the job
  int32_t m_mode;               ///< job mode for the hardware agent
  /// Extra arguments, which only the software encoder takes, as they stand.
  std::list<std::string> m_extraCmds;
  std::string m_ip;       ///< requester's address
  std::string m_usrname;  ///< requesting user
  std::string m_tag;      ///< carried over from the job

  int32_t m_vCodecId;    ///< video codec; only H.264 is accepted
  int32_t m_vid;         ///< index among the video streams
  int32_t m_vProfile;    ///< H.264 profile: 66, 77, 100, or -1
  double m_vLevel;       ///< H.264 level such as 4.1; 0 leaves it to the encoder
  int32_t m_vBitrate;    ///< bit/s; 0 leaves it to the encoder
  int32_t m_vFramerate;  ///< frames per second; 0 keeps the source's
  bool m_vIgnore;        ///< drop the video; refused by the hardware engine
  bool m_vCopy;          ///< copy the video unchanged; refused by the hardware engine
  int32_t m_width;       ///< pixels; 0 keeps the source's
  int32_t m_height;      ///< pixels; 0 keeps the source's
  int32_t m_rotate;      ///< clockwise degrees to compensate: 0, 90, 180, 270; else the source's
  bool m_noDAR;          ///< ignore the display aspect ratio when resizing

  int32_t m_aCodecId;     ///< audio codec; 0 lets a profile choose
  int32_t m_aid;          ///< index among the audio streams; -1 for none
  int32_t m_aChannel;     ///< channels; 0 keeps the source's
  int32_t m_aSampleRate;  ///< Hz; 0 keeps the source's
  int32_t m_aBitrate;     ///< bit/s; 0 leaves it to the encoder
  bool m_aIgnore;         ///< drop the audio; refused by the hardware engine
  bool m_aCopy;           ///< copy the audio unchanged; refused by the hardware engine

  int32_t m_sid;           ///< index of an embedded subtitle stream to burn in; -1 for none
  std::string m_subtitle;  ///< external subtitle file to burn in
  std::string m_subColor;  ///< subtitle colour
  int32_t m_subSize;       ///< subtitle font size; 0 the usual one
  int32_t m_subSeek;       ///< seconds by which the subtitle comes later
  std::string m_hlsTid;    ///< carried over from the job
  std::string m_hlsPath;   ///< carried over from the job
};

/// One row of the video profile table.
struct TransConfigEntry {
  uint64_t key;         ///< a single bit that identifies the profile; 0 ends the table
  std::string name;     ///< part of the names of the profile's results
  int32_t formatId;     ///< KxFormatId_e
  int32_t width;        ///< pixels; 0 keeps the source's
  int32_t height;       ///< pixels; 0 keeps the source's
  int32_t vCodecId;     ///< KxCodecId_e, 0 without video
  int32_t aCodecId;     ///< KxCodecId_e
  int32_t aBitrate;     ///< bit/s
  int32_t aChannel;     ///< channels
  int32_t aSampleRate;  ///< Hz
  int32_t vProfile;     ///< H.264 profile; -1 leaves it to the encoder
};

/// One row of the two background audio tables; fields as in TransConfigEntry.
struct AudioConfigEntry {
  uint64_t key;
  std::string name;
  int32_t formatId;
  int32_t aCodecId;
  int32_t aBitrate;
  int32_t aChannel;
  int32_t aSampleRate;
};

/// The built-in tables. Built when the library is loaded and never written, so that they are
/// read without a lock. Bit i of a job's flags selects row i of the video table.
extern const TransConfigEntry gTransConfig[8];
/// Audio extracted from videos in the background.
extern const AudioConfigEntry gV2ABGTransConfig[2];
/// Music transcoded in the background.
extern const AudioConfigEntry gMusicBGTransConfig[2];
/// Extensions of external subtitle files, ended by a null entry.
extern const char* const gSupportSubtitle[2];

/// Copies the piped output of an encoder into a stream while the encoder runs.
///
/// Used once: init(), start(), then finish() when the encoder has exited, or stop() to abandon
/// the copy, then destruction. All calls come from one thread. Until the object is destroyed
/// the destination belongs to the copying thread.
class FileOutputHelper {
 public:
  FileOutputHelper();
  /// Waits for the copying thread; it ends only after finish() or stop(), or when the source
  /// could not be opened.
  ~FileOutputHelper();
  FileOutputHelper(const FileOutputHelper&) = delete;
  FileOutputHelper& operator=(const FileOutputHelper&) = delete;
  /// @param source path of the pipe or file that the encoder writes; need not exist yet
  /// @param destination receives the copy; stays the caller's, who closes it after destruction
  /// @return 0, or 1 when either is missing
  int init(std::string source, FILE* destination);
  /// Starts the copying thread. It waits up to 90 seconds for the source to appear.
  /// @return 0, or 1 without a successful init() or when there is no thread to be had
  int start();
  /// Ends the copy where it is. @return 0
  int stop();
  /// Lets the thread copy what is left and end at the first read that gives nothing. Called
  /// before the thread has read anything it ends the copy at once. @return 0
  int finish();

 private:
  friend void* FileOutputHelperFunc(void* arg);
  std::string m_source;
  FILE* m_destination;
  std::atomic<bool> m_keep;  ///< the copy may go on
  bool m_started;
  std::atomic<bool> m_finishing;  ///< the encoder is done: drain and end
  pthread_t m_tid;
};

/// Thread routine of FileOutputHelper. @param arg the FileOutputHelper
void* FileOutputHelperFunc(void* arg);

/// One piece of a source that is transcoded in segments.
struct Seg_t {
  std::string segIn;   ///< path of the cut piece, the input of its transcode
  std::string segOut;  ///< path of its transcoded form; its name begins with "merge_"
};

/// Runs one video transcode: construct, init() once, start an engine with transcode(), follow
/// it with getProgress(), destroy. A long source may be transcoded in pieces instead: cut it
/// with doSegment(), transcode each piece into its result, join them with doMerge().
///
/// Used from one thread, which also waits for the children: their parent-death signal fires
/// when the thread that started them ends. Nothing throws. A disc image that init() mounts
/// stays mounted until umountIso_() or the destructor.
class KxTranscoder {
 public:
  KxTranscoder();
  /// Releases a mounted disc image. Does not touch children, results or the work folder.
  ~KxTranscoder();
  KxTranscoder(const KxTranscoder&) = delete;
  KxTranscoder& operator=(const KxTranscoder&) = delete;

  /// Checks the request, opens and probes the source, applies the profile, and makes the
  /// work folder and, when an embedded subtitle is chosen, its extracted text. What the
  /// extractor says of a failure is in getProgressLogPath().
  /// @param param copied; the caller's record stays as it is
  /// @return 0, or 1 at the first failed step; mounts and work folder made so far stay
  int init(TranscodeParam& param);
  /// @return the input argument for the software engine: the main title's parts joined for
  ///   a DVD, the main stream of a Blu-ray disc, else the source; empty when the parts'
  ///   paths cannot be joined
  std::string getSWFfmpegFilenameInput();
  /// @return the source on the host: m_inFile, or the folder of a mounted image
  const std::string& getOpenedSource() const;
  /// @return the files of a disc's main title in playing order; none for other sources
  std::vector<std::string> getTitleFiles();
  /// Releases a mounted disc image. @return 0, also when none is mounted; else 1
  int umountIso_();

  /// Adds arguments for the software engine to those of the record; call it after init().
  void appendExtraCmds(const std::vector<std::string>& arguments);

  /// Starts the engine that fits the resource. The caller waits for the child.
  /// @param withLog the child's standard error goes to getProgressLogPath()
  /// @return the child's pid, or -1
  int transcode(KxResource2& res, bool withLog);
  /// Starts the hardware agent. @return as transcode()
  int hwTranscode(KxResource2& res, std::string input, std::string output, bool withLog);
  /// Starts ffmpeg. @return as transcode()
  int swTranscode(std::string input, std::string output, bool withLog);
  /// @return the command that transcode() starts on the CPU, for callers that start it
  ///   themselves; empty when it is refused, which is logged as in swTranscode()
  std::vector<std::string> getSWCommand();
  /// @return the clockwise rotation to compensate, in degrees
  int getTranscodeDegree_();
  /// Computes the size of the encoder's picture, before rotation.
  /// @param outW,outH pixels; written on success, 0 to keep the source's
  /// @param reqW,reqH wanted size in pixels, 0 to keep the source's
  /// @param tolerance pixels of the wanted size that may differ
  /// @return 0, or 1 when the video stream cannot be read
  int getResizeBasedOnDAR_(int& outW, int& outH, int reqW, int reqH, int tolerance);

  /// True when the result of this transcode must be remuxed to lose its rotation: an encode
  /// keeps the display matrix of its source, and players would turn the picture once more.
  bool needsStripMetadata();
  /// Starts the copy remux of @p output into @p output + ".remux.mp4".
  /// @return the child's pid, or -1. The caller waits for it and renames the result.
  int workaroundStripMetadata(std::string output);

  /// Waits for a child that init(), doSegment() or doMerge() started, in the calling thread, and
  /// reaps it. It may end the child early. @return 0 when the child did its work, else another
  /// value
  using ChildWaiter = std::function<int(int pid)>;
  /// Sets how init(), doSegment() and doMerge() wait, so that a caller can follow and stop their
  /// children. Without one they wait until the child ends by itself, as long as it takes.
  void setChildWaiter(ChildWaiter waiter) { m_childWaiter = std::move(waiter); }

  /// Cuts a source that qualifies into pieces of about 120 seconds without encoding, and
  /// re-encodes its audio once into a file beside them; call it after init(). A source
  /// qualifies when it lasts 1,200 seconds or more, is H.264 or HEVC, gets no subtitle, and
  /// the platform supports it. The messages of the children are in getProgressLogPath().
  /// @return 0 when the pieces are in getSegments(); else 1, transcode the whole file then.
  ///   What was made stays in the work folder.
  int doSegment();
  /// Joins the transcoded pieces with the re-encoded audio into the result; a piece without
  /// a result is left out. @return 0 when the joined result is written, else 1
  int doMerge();
  /// The pieces of the last doSegment(), in the order of the source.
  const std::vector<Seg_t>& getSegments() const { return m_segVec; }
  /// Takes the pieces of an earlier doSegment() of the same source in its place, for doMerge().
  /// The caller has put their files, and that of the audio, into the work folder under the
  /// names that doSegment() gives them.
  void takeSegments(std::vector<Seg_t> segments) { m_segVec = std::move(segments); }
  /// File that receives the re-encoded audio of doSegment().
  std::string getSideAudioPath() const { return m_workFolder + "reAudio.mp4"; }
  /// @return the command that re-encodes the audio; empty when the work folder is missing
  std::vector<std::string> genFfmpegReAudioParams_();
  /// @return the command that cuts the video; empty when the source or the work folder is
  ///   missing
  std::vector<std::string> genFfmpegSegmentParams_();

  /// Asks the log parser how far the running engine is.
  /// @return percent done, 0 to 100; the last value while there is no progress log
  int getProgress();

  /// The completed record.
  const TranscodeParam& getParam() const { return m_param; }
  /// The probed source.
  KxMediaInfo& getMediaInfo() { return m_mediaInfo; }
  /// Folder of this transcode's work files, with trailing "/"; the caller removes it.
  const std::string& getWorkFolder() const { return m_workFolder; }
  /// File that receives the messages of an engine started with its log switched on.
  const std::string& getProgressLogPath() const { return m_progressLog; }

 private:
  int checkRequest_() const;
  int openSource_();
  int applyProfile_();
  int prepareWorkFolder_();
  int checkOutput_() const;
  engines::EngineFacts gatherFacts_(const std::string& input, const std::string& output);
  std::optional<std::string> newWorkFile_();
  engines::EngineCommand softwareCommand_(const std::string& input, const std::string& output);
  bool accept_(const engines::EngineCommand& command);
  int launch_(const engines::EngineCommand& command, bool withLog);
  bool canSegment_();
  int makeSideAudio_();
  int cutSource_();
  int runSegmentStep_(const std::vector<std::string>& command, const char* noCommand,
                      const char* noChild);
  int waitForChild_(int pid);

  TranscodeParam m_param;
  KxMediaInfo m_mediaInfo;
  std::unique_ptr<engines::DiscSource> m_source;  ///< what m_inFile stands for, mounted if need be
  std::string m_workFolder;
  std::string m_progressLog;
  int32_t m_progress;           ///< percent
  std::vector<Seg_t> m_segVec;  ///< pieces in segment order
  ChildWaiter m_childWaiter;
};
