#include "jobstore/StatementTable.h"

namespace kxjobstore {

const std::array<const char*, STATEMENT_COUNT> kStatementTexts = {
    // 0
    "INSERT INTO FileTable (Filename, FullPath, ModifiedTime, Size) VALUES(?, ?, ?, ?);",
    // 1
    "SELECT COUNT(*) AS res FROM FileTable WHERE Filename = ? AND FullPath = ?;",
    // 2
    "UPDATE FileTable SET ModifiedTime = ? WHERE Filename = ? AND FullPath = ?;",
    // 3
    "DELETE FROM FileTable WHERE Filename = ? AND FullPath = ?;",
    // 4
    "DELETE FROM FileTable WHERE FullPath LIKE ? || '%';",
    // 5
    "SELECT ModifiedTime FROM FileTable WHERE Filename = ? AND FullPath = ?;",
    // 6
    "UPDATE FileTable SET ModifiedTime = 1 WHERE FullPath = ?;",
    // 7
    "INSERT INTO JobTable (SrcPath, DstPath, DateAdd, JobFlag, InsertType, FileSize, "
    "Rotation, Duration, Width, Height, AudioId, SubtitlePath, SubtitleId, SubtitleSize, "
    "SubtitleSeek, SubtitleColor, Priority, HwStart, MediaType, Rank, VideoTrack) "
    "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?);",
    // 8
    "SELECT count(*) AS res FROM JobTable WHERE SrcPath = ? AND InsertType = ? AND "
    "Status = 0 AND FileSize = ? AND Rotation = ? AND AudioId = ? AND SubtitlePath = ? "
    "AND SubtitleId = ? AND SubtitleSize = ? AND SubtitleSeek = ? AND SubtitleColor = ? "
    "AND Priority = ? AND HwStart = ? AND MediaType = ? AND VideoTrack = ?;",
    // 9
    "UPDATE JobTable SET JobFlag = ? WHERE SrcPath = ? AND InsertType = ? AND FileSize = "
    "? AND Rotation = ? AND AudioId = ? AND SubtitlePath = ? AND SubtitleId = ? AND "
    "SubtitleSize = ? AND SubtitleSeek = ? AND SubtitleColor = ? AND Priority = ? AND "
    "HwStart = ? AND MediaType = ? AND Status = 0 AND VideoTrack = ?;",
    // 10
    "SELECT JobFlag FROM JobTable WHERE SrcPath = ? AND InsertType = ? AND Status = 0 "
    "AND FileSize = ? AND Rotation = ? AND AudioId = ? AND SubtitlePath = ? AND "
    "SubtitleId = ? AND SubtitleSize = ? AND SubtitleSeek = ? AND SubtitleColor = ? AND "
    "Priority = ? AND HwStart = ? AND MediaType = ? AND VideoTrack = ?;",
    // 11
    "DELETE FROM JobTable WHERE SrcPath = ? ",
    // 12
    "DELETE FROM JobTable WHERE SrcPath = ?  AND InsertType = ? ",
    // 13
    "DELETE FROM JobTable WHERE SrcPath = ?  AND Status = ? ",
    // 14
    "DELETE FROM JobTable WHERE SrcPath = ?  AND InsertType = ?  AND Status = ? ",
    // 15
    "DELETE FROM JobTable WHERE SrcPath LIKE ? || '%' ",
    // 16
    "DELETE FROM JobTable WHERE SrcPath LIKE ? || '%'  AND InsertType = ? ",
    // 17
    "DELETE FROM JobTable WHERE SrcPath LIKE ? || '%'  AND Status = ? ",
    // 18
    "DELETE FROM JobTable WHERE SrcPath LIKE ? || '%'  AND InsertType = ?  AND Status = "
    "? ",
    // 19
    "SELECT Rank FROM JobTable WHERE SrcPath = ?;",
    // 20
    "SELECT Rank FROM JobTable ORDER BY Rank ASC;",
    // 21
    "SELECT Id, Rank FROM JobTable WHERE Id = ? OR Id = ?;",
    // 22
    "UPDATE JobTable SET Rank = (CASE WHEN Id = ? THEN ? WHEN Id= ? THEN ? ELSE Rank "
    "END) WHERE Id = ? OR Id = ?;",
    // 23
    "INSERT INTO JobTable (SrcPath, DstPath, DateAdd, DateStart, DateFinish, JobFlag, "
    "InsertType, FileSize, Rotation, Duration, Width, Height, AudioId, SubtitlePath, "
    "SubtitleId, SubtitleSize, SubtitleSeek, SubtitleColor, MediaType, Rank, Status ) "
    "VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?);",
};

}  // namespace kxjobstore
