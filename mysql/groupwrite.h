// Group writes of the event writers: statements of one writer family that arrive while the
// family's previous batch is at the database go together in the next one, as a single
// multi-statement query. Under load the database then sees one round trip for many rows,
// while every statement keeps its own text, its own insert id and its own error; without
// load a batch is one statement, as before.
//
// At most one batch per family is in flight, run under the family's writer lock, so the
// rule that one insert of a family is at the database at a time still holds, now counted
// in batches. Batches use the pool's batch connections (dbpool::Flavour::kBatch).
#pragma once

#include <cstdint>
#include <mutex>
#include <string>

namespace groupwrite {

struct Outcome {
    bool ok = false;
    bool sent = false;     // the statement went to the database (it may be written on failure)
    unsigned int err = 0;  // the database's error; 2003 when no connection could be opened
    std::string errText;   // "<errno> <message>" of a failure
    int64_t id = 0;        // insert id, narrowed to 32 bits as every reader of ids narrows
};

// Runs `sql` in the next batch of the family whose writer lock is `family` (null: the
// statements of no family, such as status updates). A statement behind a failed one in the
// same batch was not run by the database; it goes again in a later batch, so a failure
// affects its own statement only. A lost connection leaves every statement after the
// failure unknown (sent, with that error).
Outcome Run(std::mutex* family, const char* sql);

}  // namespace groupwrite
