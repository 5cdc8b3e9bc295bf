#include "resources/CgroupLimits.h"

namespace cgrouplimits {

namespace {
bool isQuote(char c) {
  return c == '\'' || c == '"';
}
}  // namespace

CommandWords::CommandWords(const char* line) : m_line{}, m_words{} {
  if (line == nullptr) return;
  for (size_t i = 0; i + 1 < m_line.size() && line[i] != '\0'; ++i) m_line[i] = line[i];
  for (char* position = m_line.data(); *position != '\0';) {
    position = *position == ' ' ? position + 1 : takeWord(position);
  }
}

// Adds the word that begins here and returns where to look for the next.
char* CommandWords::takeWord(char* position) {
  const char end = isQuote(*position) ? *position++ : ' ';
  m_words[m_count++] = position;
  while (*position != '\0' && *position != end) ++position;
  if (*position != '\0') *position++ = '\0';
  return position;
}

}  // namespace cgrouplimits
