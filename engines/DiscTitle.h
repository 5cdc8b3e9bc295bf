#pragma once

#include <string>
#include <vector>

#include "KxMediainfo.h"

namespace engines {

// The main title of a disc folder: what an encoder reads in place of it.
class DiscTitle {
 public:
  // @param path a folder that holds VIDEO_TS or BDMV, or the index file in one of them
  // @return false when there is no disc
  bool find(const std::string& path);

  // In playing order.
  std::vector<std::string> files();
  // The input argument; empty when the files of the title cannot be named in one argument.
  std::string encoderInput();
  // Options that whoever reads it needs.
  std::vector<std::string> readingOptions() const;

 private:
  enum class Kind { None, Dvd, BluRay };

  Kind m_kind = Kind::None;
  KxDvd m_dvd;
  KxBd m_bd;
};

// The same for a DVD that was not looked for here.
std::vector<std::string> dvdReadingOptions();

}  // namespace engines
