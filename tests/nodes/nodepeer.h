// Catalogue and tables shared by the remote-configuration, search and face tests. Region 1's
// media server is a loopback HTTP peer, so every address of a node in the region reaches the
// peer, with the node's own fields as the first segment of the request target.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/catalogbuilder.h"
#include "support/httppeer.h"
#include "support/testdb.h"

namespace cmstest {

class NodePeerTest : public ::testing::Test {
protected:
    // Targets start with these: an analytics server's configuration address, a recording
    // server's, its first server channel's play address, and an analytics device's and a
    // recorder's play addresses.
    static constexpr const char* kIntvSvr = "/10.3.3.3:3000";
    static constexpr const char* kRecordSvr = "/10.3.3.4:3001";
    static constexpr const char* kChan70 = "/10.3.3.3:3000:su:sp:3:1";
    static constexpr const char* kIntvDev = "/10.4.4.4:4000:u:p:3:0";
    static constexpr const char* kRecorder = "/10.4.4.5:4000:u:p:0:1";

    void SetUp() override {
        ASSERT_TRUE(db.ok());
        cat.Region(1, 0, "R1");
        cat.Server(10, 1, SERVER_MEDIA, "MS", "127.0.0.1", peer.port());
        cat.Server(30, 1, SERVER_INTV, "SVR30", "10.3.3.3", 3000);
        cat.Server(31, 1, SERVER_STORE, "SVR31", "10.3.3.4", 3001);
        cat.Device(40, 1, "DEV40", "10.4.4.4", 4000, SERVER_INTV)->dev.byResType = 4;
        cat.Device(41, 1, "DEV41", "10.4.4.5", 4000);
        // Server channel 72 has channel number 0: configuration skips it.
        ASSERT_TRUE(
            db.Exec("insert into serverchan(id,serverid,chan) values "
                    "(70,30,1),(71,30,2),(72,30,0),(80,31,1)"));
    }

    TestDatabase db;
    HttpPeer peer;
    CatalogBuilder cat;
};

}  // namespace cmstest
