// The server object over a throwaway database, for the targets that drive whole handlers
// (message dispatch, node pushes, events, HTTP commands).
//
// Built on first use, in a temporary directory (settings and file store) with a small file store
// and a small catalogue whose nodes all sit on 127.0.0.1 port 1, where nothing listens, so requests
// to nodes and media jobs fail at once. The database is a fresh one in the MariaDB on
// CMS_TEST_DB_PORT (scripts/fuzz starts one), reached as a user limited to that database
// with a one-second statement limit, so raw SQL from the input can neither leave it nor
// hang. Reboot and power-off go to a stub. Standard output is discarded.
#pragma once

class CCMSSvrDlg;

namespace fuzz {

// Aborts when the database cannot be reached. Call it first from LLVMFuzzerInitialize, so
// that what it keeps is not taken for a leak of the first input.
CCMSSvrDlg& Server();
// Waits until the work the last input queued has run.
void Settle(CCMSSvrDlg& server);

}  // namespace fuzz
