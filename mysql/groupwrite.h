// Group writes of the event writers: statements of one writer family that arrive while the
// family's previous batch is at the database go together in the next one, as a single
// multi-statement query. Under load the database then sees one round trip for many rows,
// while every statement keeps its own text, its own insert id and its own error; without
// load a batch is one statement, as before.
//
// At most one batch per family is in flight, run under the family's writer lock, so the
// rule that one insert of a family is at the database at a time still holds, now counted
// in batches. Batches use the pool's batch connections (dbpool::Flavour::kBatch).
//
// Writes behind: a statement handed over with Post is queued and the caller goes on; the
// family's own writer thread (or whoever leads the next batch) runs it and calls its
// completion. Posted single-row inserts whose id nobody needs may be merged with others
// of the same table and column list into one multi-row insert, which costs the database a
// fraction of separate statements. Everything of one family, posted or run, reaches the
// database in the order it was handed over.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace groupwrite {

struct Outcome {
    bool ok = false;
    bool sent = false;     // the statement went to the database (it may be written on failure)
    unsigned int err = 0;  // the database's error; 2003 when no connection could be opened
    std::string errText;   // "<errno> <message>" of a failure
    int64_t id = 0;        // insert id, narrowed to 32 bits as every reader of ids narrows;
                           // 0 for a row written as part of a merged insert
};

// Runs `sql` in the next batch of the family whose writer lock is `family` (null: the
// statements of no family, such as status updates). A statement behind a failed one in the
// same batch was not run by the database; it goes again in a later batch, so a failure
// affects its own statement only. A lost connection leaves every statement after the
// failure unknown (sent, with that error).
Outcome Run(std::mutex* family, const char* sql);

// Queues `sql` (copied) for the family's next batch and returns at once; `then` runs with
// the outcome on the thread that ran the batch, and must neither block for long nor call
// Run. While the spool holds events (spool::Holding), posted statements are not tried:
// their outcome is "not sent" with error 0, so that they join the spool in order. Waits
// while the family already holds many posted statements. With `mergeable`, `sql` must be a
// single-row "insert into ... values (...)" whose insert id is not needed. `tag` names who posted
// it (a client id, or 0) for WaitTag.
void Post(std::mutex* family, const std::string& sql, bool mergeable, int tag,
          std::function<void(const Outcome&)> then);

// Whether statements posted with `tag` are still waiting or running.
bool Outstanding(int tag);
// Returns once every statement posted with `tag` has run and its completion has returned.
void WaitTag(int tag);
// Returns once no posted statement is waiting or running, nor its completion (completions
// may post more; those are waited for too).
void WaitAll();

}  // namespace groupwrite
