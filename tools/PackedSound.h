#pragma once

#include <string>

#include "tools/FfmpegArguments.h"

namespace kxtools {

/// The option of the service for sound whose packets hold several frames each, as phones write
/// AMR: "-unpack_sound START" with an output. The installed encoder decodes only the first frame
/// of such a packet. A second run of it takes the sound out of its container without decoding,
/// and the encoder reads it from there, START seconds after the picture.
bool asksForUnpacking(const Words& words);

/// The words of the run that writes the bare frames to its standard output.
Words unpackingWords(const Words& words);

/// The encoder's own words: its sound comes from the descriptor @p fd.
Words withUnpackedSound(const Words& words, int fd);

}  // namespace kxtools
