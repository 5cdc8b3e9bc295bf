#pragma once

#include <array>
#include <cstddef>

namespace kxjobstore {

// Places of the prepared statements. The eight deletes by source follow each other from
// DELETE_JOBS on; see deleteSelector().
enum Statement : std::size_t {
  INSERT_FILE = 0,
  COUNT_FILE,
  UPDATE_FILE_TIME,
  DELETE_FILE,
  DELETE_FILES_BELOW,
  READ_FILE_TIME,
  RESET_FILE_TIMES,
  INSERT_JOB,
  COUNT_EQUAL_JOBS,
  MERGE_PROFILES,
  READ_PROFILES,
  DELETE_JOBS,
  READ_RANKS_OF_SOURCE = DELETE_JOBS + 8,
  READ_ALL_RANKS,
  READ_TWO_RANKS,
  SWAP_RANKS,
  INSERT_LEGACY_JOB,
  STATEMENT_COUNT,
};
static_assert(STATEMENT_COUNT == 24);

// Added to DELETE_JOBS: what a delete by source compares besides the source itself.
constexpr std::size_t deleteSelector(bool byFolder, bool byStatus, bool byInsertType) {
  return (byFolder ? 4U : 0U) + (byStatus ? 2U : 0U) + (byInsertType ? 1U : 0U);
}

extern const std::array<const char*, STATEMENT_COUNT> kStatementTexts;

}  // namespace kxjobstore
