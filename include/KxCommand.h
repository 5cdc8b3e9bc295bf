#pragma once
/// @file
/// Command codes of the control socket: block 0 of every request and answer.
///
/// Status and list commands are open to everybody; commands that change something, and the
/// dumps, need root, the service's own user or the group in key ALLOW_GROUP.
/// docs/protocol.md describes the arguments and answers of each.

#include <cstdint>

enum KxCommand_e : int32_t {
  KX_CMD_REG_PROCESS = 2,        ///< register or unregister an outside process on a resource
  KX_CMD_START = 3,              ///< start the service and all its units
  KX_CMD_STOP = 4,               ///< stop the service and all its units
  KX_CMD_PAUSE = 5,              ///< block 1: seconds; 0 resumes, negative pauses until resumed
  KX_CMD_GET_SVR_STATUS = 6,     ///< blocks 1-3: state, pause seconds, disk-full flag
  KX_CMD_GET_CPU_LIMIT = 7,      ///< block 2: percent of all processors
  KX_CMD_SET_CPU_LIMIT = 8,      ///< block 1: percent
  KX_CMD_GET_MEM_LIMIT = 9,      ///< block 2: kilobytes
  KX_CMD_SET_MEM_LIMIT = 10,     ///< block 1: kilobytes, -1 automatic
  KX_CMD_DUMP_RES = 11,          ///< resources into the log; no answer
  KX_CMD_DUMP_UNIT = 12,         ///< units into the log; no answer
  KX_CMD_DUMP_JOB = 13,          ///< queue into the log; no answer
  KX_CMD_GET_SVR_CONF = 14,      ///< watched folders as bare text, not a record
  KX_CMD_ADD_FOLDER = 15,        ///< block 1: path, block 2: target
  KX_CMD_DEL_FOLDER = 16,        ///< block 1: path
  KX_CMD_UPDATE_FOLDER = 17,     ///< block 1: path, block 2: target
  KX_CMD_BUILD_ALL = 18,         ///< scan every watched folder
  KX_CMD_STOP_BUILD_ALL = 19,    ///< stop scanning
  KX_CMD_ADD_JOB = 20,           ///< blocks 4-19: JSON object of the job
  KX_CMD_QUERY_JOB = 21,         ///< blocks 4-19: JSON object of the query
  KX_CMD_GET_RESOURCE = 22,      ///< resources as JSON
  KX_CMD_GET_PROCESS_INFO = 23,  ///< registrations as JSON
  KX_CMD_GET_STATUS = 24,        ///< units as JSON
  KX_CMD_GET_EXTRA = 25,         ///< block 2: switch, block 3: supported
  KX_CMD_SET_EXTRA = 26,         ///< block 1: 0 or 1
  KX_CMD_DELETE_JOB = 27,        ///< JSON {"id":N}, {"file":PATH} or {"folder":PATH}
  KX_CMD_CANCEL_JOB = 28,        ///< JSON {"id":N}: stop it and keep the row as cancelled
  KX_CMD_RETRY_JOB = 29,         ///< JSON {"id":N}: put an ended job back into the queue
  KX_CMD_SWAP_JOB = 30,          ///< JSON {"id":N,"with":M}: exchange two places
  KX_CMD_MOVE_JOB = 31,          ///< JSON {"id":N,"rank":R}: move one job to a place
  KX_CMD_CLEAN_JOBS = 32,        ///< JSON {"which":"processed"|"unprocessed"}
  KX_CMD_COUNT_JOB = 33,         ///< JSON as QUERY_JOB; block 2: rows
  KX_CMD_IMPORT_LEGACY = 34,     ///< block 1: path of the older database
  KX_CMD_SHOW_JOB = 35,          ///< JSON {"id":N}: one row with its outputs and last reason
  KX_CMD_WATCH_STATUS = 36,      ///< state of folder watching and of every folder as JSON
};
