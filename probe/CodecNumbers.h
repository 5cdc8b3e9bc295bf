#pragma once

// Translation between the library's codec numbers and those of the linked FFmpeg. Video numbers
// of the library are one higher from 3 on; audio and subtitle numbers are the same.

namespace kxprobe {

constexpr int kFirstShiftedCodec = 3;    // FFmpeg numbering
constexpr int kFirstAudioCodec = 65536;  // both numberings

// FFmpeg's number as the library's.
constexpr int toLibraryCodecId(int nativeId) {
  const bool shifted = nativeId >= kFirstShiftedCodec && nativeId < kFirstAudioCodec;
  return shifted ? nativeId + 1 : nativeId;
}

// The library's number as FFmpeg's.
constexpr int toNativeCodecId(int libraryId) {
  const bool shifted = libraryId > kFirstShiftedCodec && libraryId < kFirstAudioCodec;
  return shifted ? libraryId - 1 : libraryId;
}

}  // namespace kxprobe
