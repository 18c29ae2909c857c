// The on-disk spool behind the event writers: a statement that cannot be written because the
// database is away is appended here, and a replay thread writes the spooled statements back
// in arrival order as soon as the database answers again. While anything is spooled, newer
// statements are spooled too, so the database sees every row in arrival order.
//
// Exactly once: each record carries a sequence number that only grows (also across
// restarts: it is at least the wall clock in microseconds). Replay runs each statement and
// the update of `spoolcursor` in one transaction and skips records at or below the cursor,
// so a crash at any point neither loses nor repeats a row.
//
// Pictures: an insert may carry the pictures of its event. They are saved under the new
// row's id after the transaction commits, before the record counts as done. The same
// transaction notes that id in `spoolcursor` (row 2), so a replay that died between the
// commit and the files finds the id again and saves the pictures then; saving is
// idempotent by name, and the row itself is never repeated. Saving before the commit
// instead could leave a picture under an id whose row rolled back, and a second copy under
// the id of the replayed row.
//
// Record: a header {magic, body length, seq} (host order) and a body of the kind byte, the
// table, NUL, the statement, and only when pictures follow: NUL, then per picture its file
// area, NUL, index and length (32 bits each, host order), the bytes. A record without
// pictures has the layout of earlier versions, and their spools replay unchanged.
//
// Files: segments `<first seq in hex>.seg` in the spool directory (mode 0700), each at most
// an eighth of the size limit. Over the limit the oldest segment is dropped, printed at most
// once a minute.
//
// Locks: one mutex guards the segment list and the state; the replay thread runs database
// I/O outside it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace spool {

constexpr uint64_t kDefaultLimitBytes = 1ull << 30;

// kInsertUnsure: an insert whose connection broke after it was sent, which the database
// may have written; replay writes it only when no row with the same values exists.
enum class Kind : uint8_t { kInsert = 1, kStatus = 2, kInsertUnsure = 3 };

// Directory and size limit; empty dir keeps the current one ("var/spool/" at first), a 0
// limit means the default. Takes effect for later appends.
void Configure(const std::string& dir, uint64_t limitBytes);

// True while records wait for replay: writers must append instead of writing directly.
bool Holding();

// A picture of an event row, saved as SaveFileEx(area, row id, index, data, length).
struct Picture {
    const char* area;  // file area name ("intv", "diagnoss", "face")
    int index;
    const char* data;
    int length;
};

// Appends one statement of `table` with the pictures of its row (inserts only; copied) and
// starts the replay thread. False only when the record could not be stored on disk.
bool Append(Kind kind, const char* table, const char* sql, const Picture* pictures = nullptr,
            size_t pictureCount = 0);

// Saves the pictures under `rowId`: what the writers do after a direct insert and the
// replay after a spooled one, so both leave the same files.
void SavePictures(int64_t rowId, const Picture* pictures, size_t count);

// Picks up segments left by an earlier run and starts replaying them.
void Resume();

// Waits until the spool is empty or `timeoutMs` passed; true when empty. For tests and
// shutdown.
bool WaitDrained(uint32_t timeoutMs);

// Records currently waiting and records dropped since start.
uint64_t PendingCount();
uint64_t DroppedCount();

}  // namespace spool
