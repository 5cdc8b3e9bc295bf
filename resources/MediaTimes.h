#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

// Lengths of a media file and of its streams: as stated, and as counted over its packets.

namespace runner {

struct StreamTimes {
  enum class Kind { Video, Audio, Other };
  Kind kind = Kind::Other;
  bool coverArt = false;
  int width = 0;  // pixels
  int height = 0;
  bool turned = false;   // a player would rotate or mirror the picture
  bool isEmpty = false;  // states neither a length nor a number of frames
  double start = 0;      // seconds after the file's earliest stream
  double stated = 0;     // seconds; 0 when the stream states none
};

struct MediaTimes {
  double stated = 0;  // seconds of the whole file; 0 when it states none
  std::vector<StreamTimes> streams;

  // The n-th stream of a kind, cover art not counted; null when there is none.
  const StreamTimes* find(StreamTimes::Kind kind, int n) const;
};

// Reads what a file states. Nothing when it cannot be opened.
// @param withAnalysis reads into the file where its head does not describe the streams
std::optional<MediaTimes> readTimes(const std::string& path, bool withAnalysis);

struct StreamCount {
  StreamTimes::Kind kind = StreamTimes::Kind::Other;
  bool coverArt = false;
  double span = 0;  // seconds from the first to the end of the last packet
  double sum = 0;   // seconds of all packets together
};

struct PacketCount {
  bool complete = false;       // read to the end without an error
  bool samplesBeyond = false;  // the index names samples behind the end of the file
  bool lengthStated = false;   // the container itself states a length
  std::vector<StreamCount> streams;

  const StreamCount* find(StreamTimes::Kind kind, int n) const;
};

// Reads the whole file. Ends early, with an incomplete count, when goOn() turns false.
PacketCount countPackets(const std::string& path, const std::function<bool()>& goOn);

}  // namespace runner
