#include "tools/FfmpegArguments.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string_view>

namespace kxtools {
namespace {

// Containers and raw streams that hold their media themselves. What reads other files on the
// word of its content (playlists, manifests, session descriptions, scripts, numbered pictures)
// and what reads devices is left out.
constexpr const char* kSelfContainedFormats =
    "3dostr,4xm,aa,aac,aax,ac3,ac4,ace,acm,act,adf,adp,ads,adx,aea,afc,aiff,aix,alp,amr,amrnb,"
    "amrwb,"
    "anm,apc,ape,apm,apng,aptx,aptx_hd,argo_asf,argo_brp,ast,asf,asf_o,ass,au,av1,avi,avr,avs,avs2,"
    "avs3,bethsoftvid,bfi,bfstm,bink,binka,bmp_pipe,bmv,brstm,c93,caf,cavsvideo,cdxl,cine,codec2,"
    "daud,dcstr,derf,dfa,dfpwm,dhav,dirac,dnxhd,dsf,dsicin,dss,dts,dtshd,dv,dxa,ea,ea_cdata,eac3,"
    "epaf,evc,film_cpk,filmstrip,flac,flic,flv,frm,fsb,fwse,g722,g723_1,g726,g726le,g729,gdv,genh,"
    "gif,gsm,gxf,h261,h263,h264,hca,hcom,hevc,hnm,iamf,idcin,iff,ifv,ilbc,ingenient,ircam,iss,iv8,"
    "ivf,ivr,jpeg_pipe,jv,kux,kvag,live_flv,lmlm4,loas,lvf,lxf,m4v,matroska,mca,mgsts,mjpeg,"
    "mjpeg_2000,mlp,mlv,mm,mmf,mods,moflex,mov,mp3,mpc,mpc8,mpeg,mpegts,mpegvideo,mpjpeg,msf,"
    "msnwctcp,msp,mtaf,mtv,musx,mv,mvi,mxf,mxg,nc,nistsphere,nsp,nsv,nut,nuv,obu,ogg,oma,osq,paf,"
    "pmp,png_pipe,pp_bnk,psxstr,pva,pvf,qcp,r3d,redspark,rl2,rm,roq,rpl,rsd,rso,s337m,sbc,sbg,scd,"
    "sdr2,sds,sdx,shn,siff,simbiosis_imx,sln,smjpeg,smk,smush,sol,sox,spdif,srt,svag,svs,swf,tak,"
    "thp,tiertexseq,tiff_pipe,tmv,truehd,tta,ty,vag,vc1,vc1test,vidc,vividas,vivo,vmd,voc,vpk,vqf,"
    "vvc,w64,wav,wc3movie,webm,webp_pipe,webvtt,wsaud,wsd,wsvqa,wtv,wv,wve,xa,xmv,xvag,xwma,yop,"
    "yuv4mpegpipe";

// Options of the encoder that take no value; every other option takes one.
const std::set<std::string, std::less<>> kFlags = {"-an",
                                                   "-autorotate",
                                                   "-benchmark",
                                                   "-copyts",
                                                   "-dn",
                                                   "-hide_banner",
                                                   "-n",
                                                   "-noaccurate_seek",
                                                   "-noautorotate",
                                                   "-nostats",
                                                   "-nostdin",
                                                   "-re",
                                                   "-shortest",
                                                   "-sn",
                                                   "-start_at_zero",
                                                   "-stats",
                                                   "-stdin",
                                                   "-vn",
                                                   "-y",
                                                   "-encoders",
                                                   "-decoders",
                                                   "-formats",
                                                   "-codecs",
                                                   "-muxers",
                                                   "-demuxers",
                                                   "-filters",
                                                   "-version",
                                                   "-protocols",
                                                   "-h",
                                                   "-L",
                                                   "-buildconf",
                                                   "-pix_fmts",
                                                   "-bsfs",
                                                   "-hwaccels"};

const std::set<std::string, std::less<>> kAudioCodecOptions = {"-c:a", "-codec:a", "-acodec"};

using Rates = std::set<long>;
const Rates kAacRates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                         22050, 16000, 12000, 11025, 8000,  7350};
const Rates kMp3Rates = {48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000};
const Rates kMp2Rates = {48000, 44100, 32000, 24000, 22050, 16000};
const Rates kAc3Rates = {48000, 44100, 32000};
const Rates kOpusRates = {48000, 24000, 16000, 12000, 8000};

// Rates by encoder; an encoder that is not listed takes any.
const std::map<std::string, const Rates&, std::less<>> kEncoderRates = {
    {"aac", kAacRates},        {"libfdk_aac", kAacRates}, {"mp3", kMp3Rates},
    {"libmp3lame", kMp3Rates}, {"mp2", kMp2Rates},        {"ac3", kAc3Rates},
    {"eac3", kAc3Rates},       {"opus", kOpusRates},      {"libopus", kOpusRates}};

// The encoder that is used for a container when none is named.
const std::map<std::string, std::string, std::less<>> kDefaultEncoders = {
    {"mp4", "aac"},        {"mov", "aac"},        {"ipod", "aac"},  {"adts", "aac"},
    {"mp3", "libmp3lame"}, {"avi", "libmp3lame"}, {"mpegts", "mp2"}};

// One option with its value, or an output.
struct Item {
  std::string name;  // empty for an output
  std::string value;
  bool hasValue = false;
};

std::vector<Item> parse(const Words& words) {
  std::vector<Item> items;
  for (size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    const bool option = word.size() > 1 && word.front() == '-';
    const bool hasValue = option && kFlags.count(word) == 0 && i + 1 < words.size();
    if (!option) {
      items.push_back({"", word, true});
    } else if (hasValue) {
      items.push_back({word, words[++i], true});
    } else {
      items.push_back({word, "", false});
    }
  }
  return items;
}

Words flatten(const std::vector<Item>& items) {
  Words words;
  for (const Item& item : items) {
    if (!item.name.empty()) words.push_back(item.name);
    if (item.hasValue) words.push_back(item.value);
  }
  return words;
}

// Options belong to the next input or output: each of these groups is adapted by itself.
bool endsGroup(const Item& item) {
  return item.name.empty() || item.name == "-i";
}

std::string valueOf(const std::vector<Item>& group, std::string_view name) {
  for (auto item = group.rbegin(); item != group.rend(); ++item)
    if (item->name == name) return item->value;
  return {};
}

std::string audioEncoderOf(const std::vector<Item>& group) {
  for (auto item = group.rbegin(); item != group.rend(); ++item)
    if (kAudioCodecOptions.count(item->name) != 0) return item->value;
  const auto byContainer = kDefaultEncoders.find(valueOf(group, "-f"));
  return byContainer == kDefaultEncoders.end() ? "" : byContainer->second;
}

void dropRefusedRate(std::vector<Item>& group) {
  const auto rates = kEncoderRates.find(audioEncoderOf(group));
  if (rates == kEncoderRates.end()) return;
  const auto refused = [&](const Item& item) {
    return item.name == "-ar" && rates->second.count(strtol(item.value.c_str(), nullptr, 10)) == 0;
  };
  group.erase(std::remove_if(group.begin(), group.end(), refused), group.end());
}

bool startsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

// Protocols that an input may be read with; it names them itself only where the service does.
std::string protocolsFor(const std::string& input) {
  if (startsWith(input, "concat:")) return "file,concat";
  return startsWith(input, "pipe:") ? "pipe" : "file";
}

// Such a stream does not say what is in it: sound that begins late is only found by reading on.
bool isProgramStream(std::string_view input) {
  if (startsWith(input, "concat:")) return true;
  std::string end(input.substr(input.size() - std::min<size_t>(input.size(), 5)));
  std::transform(end.begin(), end.end(), end.begin(),
                 [](unsigned char c) { return static_cast<char>(tolower(c)); });
  return end.ends_with(".vob") || end.ends_with(".mpg") || end.ends_with(".mpeg");
}

void restrictInput(std::vector<Item>& group, const ListConverter& convertList) {
  Item& input = group.back();
  const std::string format = valueOf(group, "-f");
  std::string formats = kSelfContainedFormats;
  if (!format.empty()) formats += "," + format;
  std::vector<Item> limits = {{"-protocol_whitelist", protocolsFor(input.value), true},
                              {"-format_whitelist", formats, true}};
  if (isProgramStream(input.value)) {
    limits.push_back({"-probesize", "64M", true});
    limits.push_back({"-analyzeduration", "120M", true});
  }
  if (format == "concat") {
    input.value = convertList(input.value);
    limits.push_back({"-safe", "0", true});
  }
  group.insert(group.end() - 1, limits.begin(), limits.end());
}

void adaptGroup(std::vector<Item>& group, const ListConverter& convertList) {
  const auto unknown = [](const Item& item) { return item.name == "-fix_duration"; };
  group.erase(std::remove_if(group.begin(), group.end(), unknown), group.end());
  for (Item& item : group)
    if (item.name == "-f" && item.value == "mkv") item.value = "matroska";
  if (!group.empty() && group.back().name == "-i") {
    restrictInput(group, convertList);
  } else {
    dropRefusedRate(group);
  }
}

// What the inputs of a command tell about its output.
struct Inputs {
  bool list = false;   // pieces that are joined
  bool sound = false;  // the sound that the service encoded for them

  void add(const std::vector<Item>& group) {
    if (valueOf(group, "-f") == "concat") list = true;
    if (group.back().value.ends_with("/reAudio.mp4")) sound = true;
  }
};

// The sound beside the pieces is what is asked for already: the same encoder made it, with the
// same channels. Encoding it once more would cost time and quality.
void keepSound(std::vector<Item>& group, const Inputs& inputs) {
  if (!inputs.list || !inputs.sound || audioEncoderOf(group) != "aac") return;
  for (Item& item : group)
    if (kAudioCodecOptions.count(item.name) != 0) item.value = "copy";
  std::erase_if(group, [](const Item& item) { return item.name == "-ac" || item.name == "-ar"; });
}

// A list line "file NAME" without its keyword, or nothing for any other line.
std::string_view nameOf(std::string_view line) {
  const size_t start = line.find_first_not_of(" \t");
  if (start == std::string_view::npos) return {};
  line.remove_prefix(start);
  if (!startsWith(line, "file ") && !startsWith(line, "file\t")) return {};
  line.remove_prefix(4);
  line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
  const size_t end = line.find_last_not_of(" \t\r");
  return end == std::string_view::npos ? std::string_view() : line.substr(0, end + 1);
}

bool inDoubleQuotes(std::string_view name) {
  return name.size() >= 2 && name.front() == '"' && name.back() == '"';
}

std::string inSingleQuotes(std::string_view name) {
  std::string result = "'";
  for (const char c : name) {
    if (c == '\'') {
      result += "'\\''";
    } else {
      result += c;
    }
  }
  return result + "'";
}

// Quoted and plain pieces may stand next to each other, so a folder can be put in front of a
// name whatever its form.
std::string adaptName(std::string_view name, const std::string& folder) {
  const bool turned = inDoubleQuotes(name);
  const std::string_view inner = turned ? name.substr(1, name.size() - 2) : name;
  const std::string text = turned ? inSingleQuotes(inner) : std::string(inner);
  const bool absolute = startsWith(text, "/") || startsWith(text, "'/");
  return absolute ? text : inSingleQuotes(folder) + text;
}

template <typename Use>
void forEachLine(const std::string& text, Use use) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) use(line);
}

}  // namespace

Words adaptArguments(const Words& words, const ListConverter& convertList) {
  std::vector<Item> result = {{"-nostdin", "", false}};
  std::vector<Item> group;
  Inputs inputs;
  const auto finish = [&] {
    const bool isInput = !group.empty() && group.back().name == "-i";
    if (isInput) {
      inputs.add(group);
    } else {
      keepSound(group, inputs);
    }
    adaptGroup(group, convertList);
    result.insert(result.end(), group.begin(), group.end());
    group.clear();
  };
  for (const Item& item : parse(words)) {
    if (item.name == "-stdin") continue;
    group.push_back(item);
    if (endsGroup(item)) finish();
  }
  finish();
  return flatten(result);
}

std::string adaptConcatList(const std::string& text, const std::string& folder) {
  std::string result;
  forEachLine(text, [&](const std::string& line) {
    const std::string_view name = nameOf(line);
    result += (name.empty() ? line : "file " + adaptName(name, folder)) + "\n";
  });
  return result;
}

bool needsAdapting(const std::string& text) {
  bool found = false;
  forEachLine(text,
              [&](const std::string& line) { found = found || inDoubleQuotes(nameOf(line)); });
  return found;
}

}  // namespace kxtools
