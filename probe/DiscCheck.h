#pragma once

#include <string>

namespace kxprobe {

// What keeps the main title of a disc from being read whole, for people; empty when nothing is
// known to: the structure is there, the files of the title are, they have at least the size
// that the disc states (IFO or BUP, CLPI), and they can be read to their ends.
// @param path top folder of a disc, or its index file
std::string discFault(const std::string& path);

}  // namespace kxprobe
