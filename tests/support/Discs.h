#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Discs for tests: playable streams in the structures that real discs have.

namespace kxtest {

// A clip of one colour with a tone, in the form of a DVD's or a Blu-ray disc's streams.
void makeVob(const std::string& path, double seconds, const std::string& colour = "gray");
void makeM2ts(const std::string& path, double seconds, const std::string& colour = "gray");

// A DVD folder: VIDEO_TS with its index and the backup of it.
class DvdFolder {
 public:
  enum class Names { Capital, Small };
  // @param top folder of the disc; made when it is absent
  explicit DvdFolder(std::string top, Names names = Names::Capital);

  const std::string& top() const { return m_top; }
  // Path of a file in VIDEO_TS, in the disc's letter case.
  std::string file(const std::string& name) const;
  // A part of a title set, or with number 0 its menu.
  std::string part(int set, int number) const;
  // A title set with a menu: one part for each colour, that long. Writes its table.
  void addTitleSet(int set, const std::vector<std::string>& colours, double seconds,
                   double menuSeconds = 0.4) const;
  // The table of a title set and its backup, as they are for the files that are there.
  void writeTable(int set) const;

 private:
  std::string m_top;
  Names m_names;
};

// A Blu-ray folder: BDMV with index, playlists and clip information, and their backups.
class BluRayFolder {
 public:
  explicit BluRayFolder(std::string top);

  const std::string& top() const { return m_top; }
  std::string file(const std::string& name) const { return m_top + "/BDMV/" + name; }
  std::string stream(const std::string& clip) const { return file("STREAM/" + clip + ".m2ts"); }
  // A stream with its clip information and a playlist that plays it.
  void addStream(const std::string& clip, double seconds, const std::string& colour = "gray") const;

 private:
  std::string m_top;
};

// Kinds of disc image: with both file systems as DVDs have them, UDF alone as Blu-ray discs
// have it, and ISO 9660 alone, plain or with the names of Rock Ridge.
enum class Image { Bridge, Udf, Plain, RockRidge };
const char* nameOf(Image kind);
// False when there is no program to make images.
// @param options further ones of genisoimage
bool makeImage(const std::string& folder, const std::string& image, Image kind,
               const std::vector<std::string>& options = {});

// True when FUSE can be used here.
bool canMountImages();
// Where images are mounted below a folder (a system root, an add-on), also by the kernel.
std::vector<std::string> mountsBelow(const std::string& folder);

// The colour of a video at a time, as "red", "green" or "blue", whichever prevails.
std::string colourAt(const std::string& video, double seconds);

}  // namespace kxtest
