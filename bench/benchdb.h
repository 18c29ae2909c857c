// The database of a benchmark run: the MariaDB that CMS_BENCH_DB_PORT names, or a
// throwaway one this process starts with scripts/testdb on a free loopback port and stops
// again; and the helpers that fill it. Header-only, since every benchmark is its own
// executable.
#pragma once

#include <arpa/inet.h>
#include <mysql.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace benchdb {

struct MysqlCloser {
    void operator()(MYSQL* c) const { mysql_close(c); }
};
using Mysql = std::unique_ptr<MYSQL, MysqlCloser>;

// A loopback port that nobody listens on at this moment; 0 when none could be had.
inline int FreePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return 0;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    int port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) == 0)
        port = ntohs(a.sin_port);
    close(fd);
    return port;
}

inline std::string ReadAll(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Runs a statement (or several) and drains every result, so the connection is ready for
// the next one. False, printed, when the server refused it.
inline bool Run(MYSQL* c, const std::string& sql) {
    const bool ok = mysql_real_query(c, sql.data(), sql.size()) == 0;
    if (!ok) std::fprintf(stderr, "bench: sql failed: %s\n", mysql_error(c));
    while (mysql_next_result(c) == 0) {
    }
    return ok;
}

// Inserts `rows` rows, 2000 per statement: `head` is "insert into t(a,b) values " and
// `row(i)` gives the "(...)" of row i.
template <class RowFn>
bool InsertRows(MYSQL* c, const char* head, int rows, RowFn row) {
    std::string sql;
    for (int i = 0; i < rows; ++i) {
        sql += sql.empty() ? head : ",";
        sql += row(i);
        if ((i + 1) % 2000 == 0 || i + 1 == rows) {
            if (!Run(c, sql)) return false;
            sql.clear();
        }
    }
    return true;
}

class Database {
public:
    // `tag` names the data directory of a throwaway server.
    explicit Database(const char* tag) : m_tag(tag) {}
    ~Database() { Stop(); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    bool Start() {
        if (const char* p = std::getenv("CMS_BENCH_DB_PORT")) {
            m_port = std::atoi(p);
            return m_port > 0;
        }
        m_port = FreePort();
        if (m_port <= 0) return false;
        m_dir = "/tmp/cmsbench-" + m_tag + "-" + std::to_string(getpid());
        return std::system(Script("start").c_str()) == 0;
    }

    // Stops the server this process started, if any; a second call does nothing.
    void Stop() {
        if (m_dir.empty()) return;
        const std::string cmd = Script("stop") + " && rm -rf " + m_dir;
        if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "bench: could not stop database\n");
        m_dir.clear();
    }

    int port() const { return m_port; }

    // A connection as the cms user, with `db` selected (null: none). Null, printed, when
    // the server cannot be reached.
    Mysql Connect(const char* db) const {
        Mysql c(mysql_init(nullptr));
        if (c && mysql_real_connect(c.get(), "127.0.0.1", "cms", "cms", db, m_port, nullptr,
                                    CLIENT_MULTI_STATEMENTS))
            return c;
        std::fprintf(stderr, "bench: no database on port %d\n", m_port);
        return nullptr;
    }

    // Creates database `name` afresh from db/schema.sql and selects it on `c`.
    static bool CreateSchema(MYSQL* c, const char* name) {
        const std::string schema = ReadAll(std::string(CMS_SOURCE_DIR) + "/db/schema.sql");
        return Run(c,
                   std::string("DROP DATABASE IF EXISTS ") + name + "; CREATE DATABASE " + name) &&
               mysql_select_db(c, name) == 0 && Run(c, schema);
    }

private:
    std::string Script(const char* verb) const {
        return std::string(CMS_SOURCE_DIR) + "/scripts/testdb " + verb + " " + m_dir + " " +
               std::to_string(m_port);
    }

    std::string m_tag;
    std::string m_dir;  // set while this process runs its own server
    int m_port = 0;
};

// Database `name` afresh with one root region and `devices` devices: device i (id i + 1)
// has serial `serial(i)`, a loopback address and video channel 1 (channel id i + 1), so
// that the play address of every channel resolves.
template <class SerialFn>
bool PopulateAddressed(const Database& db, const char* name, int devices, SerialFn serial) {
    Mysql c = db.Connect(nullptr);
    auto device = [&serial](int i) {
        return "(" + std::to_string(i + 1) + ",'dev" + std::to_string(i) + "','" + serial(i) +
               "',1,1,8000,'127.0.0.1','admin','admin')";
    };
    auto channel = [](int i) {
        return "(" + std::to_string(i + 1) + "," + std::to_string(i + 1) + ",1,'ch" +
               std::to_string(i) + "',1)";
    };
    return c && Database::CreateSchema(c.get(), name) &&
           Run(c.get(), "insert into region(id,name,parentid) values (1,'root',0)") &&
           InsertRows(c.get(),
                      "insert into device(id,name,sn,regionid,ftype,port,ip,username,userpwd) "
                      "values ",
                      devices, device) &&
           InsertRows(c.get(), "insert into devicechan(id,devid,chan,name,hardwaretype) values ",
                      devices, channel);
}

}  // namespace benchdb
