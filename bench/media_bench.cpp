// Media work of the real cmssvr against an RTSP test peer (GStreamer, tests/support/
// rtsppeer.py), each figure beside a reference measured in the same run:
//  - snapshot latency, from the mcap request to the JPEG on disk (median of 20 on addresses
//    with no open session, and on an address whose live session is already open), against
//    the wait for the next key frame of the stream and against the ffmpeg command that
//    writes one frame from the same address;
//  - recording cost, CPU seconds per minute of recorded stream, against ffmpeg copying the
//    same stream into an MP4;
//  - 64 sessions (the pool size) recording at once: CPU, memory, and files complete.
// Starts its own throwaway MariaDB (see benchdb.h) and peer; loopback only, bounded waits.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "RtspClientSDK.h"
#include "benchdb.h"
#include "benchsvr.h"
#include "support/rtsppeer.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kDevices = 64;
constexpr int kPeerType = 41;
constexpr int kSamples = 20;
constexpr int kRecordSeconds = 20;
constexpr const char* kDbName = "cmsmediaload";

benchdb::Database g_db("mediaload");
cmstest::RtspPeer* g_peer = nullptr;
benchdb::Server* g_server = nullptr;  // the server of the running benchmark
std::string g_store;
std::map<std::string, double> g_fig;

double Since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

double Median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Devices 1..64 all lead to the peer; each has its own user name, so each has its own play
// address and therefore its own session.
std::string DeviceRow(int i) {
    return "(" + std::to_string(i + 1) + ",'cam" + std::to_string(i) + "','MB" +
           std::to_string(1000 + i) + "'," + std::to_string(kPeerType) + ",'127.0.0.1'," +
           std::to_string(g_peer->port()) + ",'u" + std::to_string(i) + "','p',1)";
}

bool Populate() {
    benchdb::Mysql c = g_db.Connect(nullptr);
    return c && benchdb::Database::CreateSchema(c.get(), kDbName) &&
           benchdb::Run(c.get(), "insert into region(id,name,parentid) values (1,'root',0)") &&
           benchdb::InsertRows(c.get(),
                               "insert into device(id,name,sn,ftype,ip,port,username,userpwd,"
                               "regionid) values ",
                               kDevices, DeviceRow);
}

std::string StoreSettings() {
    std::string paths = "<paths>";
    for (const char* area : {"mcap", "mrec"}) {
        fs::create_directories(g_store + "/" + area);
        paths += std::string("<path><name>") + area + "</name><type>1</type><mode>0</mode><p>" +
                 g_store + "/" + area + "/</p></path>";
    }
    return paths + "</paths>\n";
}

std::string DevXml() {
    return "<devs><dev><name>peer</name><verify>0</verify><link>1</link><type>" +
           std::to_string(kPeerType) +
           "</type><mode>0</mode><main>{ip}:{port}/live/main</main>"
           "<sub>{ip}:{port}/live/sub</sub></dev></devs>";
}

// A whole JPEG: the end marker is written last.
bool JpegDone(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    std::string data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    return data.size() > 4 && static_cast<unsigned char>(data[data.size() - 2]) == 0xFF &&
           static_cast<unsigned char>(data[data.size() - 1]) == 0xD9;
}

// Seconds from the request to the picture on disk; -1 when it did not come within 10 s.
double Snapshot(int device, int id) {
    const std::string file = g_store + "/mcap/" + std::to_string(id);
    auto start = Clock::now();
    const std::string reply =
        benchdb::HttpGetQuery(g_server->httpPort(), "cmd=mcap&nodeid=" + std::to_string(device) +
                                                        "&nodetype=2&id=" + std::to_string(id));
    if (reply.compare(0, 12, "HTTP/1.1 200") != 0) return -1;
    while (Since(start) < 10) {
        if (JpegDone(file)) return Since(start);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return -1;
}

// ---- References ----

bool IsKeyFrame(const unsigned char* p, int n) {
    for (int i = 0; i + 3 < n; ++i)
        if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1 && (p[i + 3] & 31) == 5) return true;
    return false;
}

std::atomic<bool> g_keySeen{false};
void KeyCallBack(int, int type, unsigned char* buffer, int length, void*) {
    if (type == MD_VIDEO && buffer && length > VORN_MEDIA_HEAD_SIZE &&
        IsKeyFrame(buffer + VORN_MEDIA_HEAD_SIZE, length - VORN_MEDIA_HEAD_SIZE))
        g_keySeen = true;
}

// From opening the stream to its first key frame: what any snapshot must wait for.
double KeyFrameWait() {
    g_keySeen = false;
    auto start = Clock::now();
    int h = RtspClient_Open(g_peer->Url("/live/main").c_str(), "tcp", 1, 0, "", "", KeyCallBack,
                            nullptr);
    if (h < 0) return -1;
    while (!g_keySeen && Since(start) < 10)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    double secs = g_keySeen ? Since(start) : -1;
    RtspClient_Close(h);
    return secs;
}

// Runs a command to its end; its wall time, and its CPU seconds into `cpu`.
double RunCommand(const std::vector<std::string>& args, double* cpu = nullptr) {
    auto start = Clock::now();
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        std::vector<char*> argv;
        for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        freopen("/dev/null", "w", stdout);
        freopen("/dev/null", "w", stderr);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    rusage ru{};
    wait4(pid, &status, 0, &ru);
    if (cpu)
        *cpu = ru.ru_utime.tv_sec + ru.ru_stime.tv_sec +
               (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? Since(start) : -1;
}

// CPU seconds the server has used so far, and its resident memory in MiB.
double ServerCpu() {
    std::ifstream in("/proc/" + std::to_string(g_server->pid()) + "/stat");
    std::string line;
    std::getline(in, line);
    const size_t close = line.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream rest(line.substr(close + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; rest >> field; ++i)
        if (i == 14 || i == 15) ticks += std::stod(field);
    return ticks / sysconf(_SC_CLK_TCK);
}
double ServerRssMiB() {
    std::ifstream in("/proc/" + std::to_string(g_server->pid()) + "/status");
    std::string key;
    while (in >> key) {
        if (key == "VmRSS:") {
            double kb = 0;
            in >> kb;
            return kb / 1024;
        }
        in.ignore(1 << 12, '\n');
    }
    return 0;
}

// ---- Benchmarks ----

// Every benchmark gets a server of its own: jobs of an earlier one (retired one per 5 s
// round, recordings running until their source stops) would hold sessions and CPU.
class FreshServer {
public:
    FreshServer() : m_server(kDbName, g_db.port(), true) {
        m_server.extraParam = StoreSettings();
        m_server.devXml = DevXml();
        if (m_server.Start()) g_server = &m_server;
    }
    ~FreshServer() {
        g_server = nullptr;
        m_server.Stop();
    }
    bool ok() const { return g_server != nullptr; }

private:
    benchdb::Server m_server;
};

// Arrival times of the peer's key frames on a stream kept open beside the server's: the
// wait from any moment to the next key frame.
class KeyFrameClock {
public:
    KeyFrameClock() {
        m_handle =
            RtspClient_Open(g_peer->Url("/live/main").c_str(), "tcp", 1, 0, "", "", OnPacket, this);
    }
    ~KeyFrameClock() {
        if (m_handle >= 0) RtspClient_Close(m_handle);
    }
    // Seconds from `t` to the first key frame after it; -1 when none came yet.
    double WaitFrom(Clock::time_point t) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (Clock::time_point k : m_keys)
            if (k >= t) return std::chrono::duration<double>(k - t).count();
        return -1;
    }

private:
    static void OnPacket(int, int type, unsigned char* buffer, int length, void* user) {
        if (type != MD_VIDEO || !buffer || length <= VORN_MEDIA_HEAD_SIZE) return;
        if (!IsKeyFrame(buffer + VORN_MEDIA_HEAD_SIZE, length - VORN_MEDIA_HEAD_SIZE)) return;
        auto* self = static_cast<KeyFrameClock*>(user);
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_keys.push_back(Clock::now());
    }
    int m_handle = -1;
    std::mutex m_mutex;  // guards m_keys
    std::vector<Clock::time_point> m_keys;
};

void BM_SnapshotCold(benchmark::State& state) {
    FreshServer server;
    if (!server.ok()) return state.SkipWithError("server did not start");
    for (auto _ : state) {
        std::vector<double> server, keyWait, ffmpeg;
        for (int i = 0; i < kSamples; ++i) {
            // A device not used before: the server opens its stream for this request.
            const double s = Snapshot(i + 1, 1000 + i);
            if (s < 0) return state.SkipWithError("a snapshot did not arrive");
            server.push_back(s);
            keyWait.push_back(KeyFrameWait());
            const std::string out = g_store + "/ff" + std::to_string(i) + ".jpg";
            ffmpeg.push_back(
                RunCommand({"ffmpeg", "-nostdin", "-loglevel", "error", "-rtsp_transport", "tcp",
                            "-i", g_peer->Url("/live/main"), "-frames:v", "1", "-y", out}));
        }
        g_fig["snapshot_cold_ms"] = Median(server) * 1000;
        g_fig["keyframe_wait_ms"] = Median(keyWait) * 1000;
        g_fig["ffmpeg_snapshot_ms"] = Median(ffmpeg) * 1000;
        state.SetIterationTime(Median(server));
        state.counters["median_ms"] = Median(server) * 1000;
    }
}
BENCHMARK(BM_SnapshotCold)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_SnapshotWarm(benchmark::State& state) {
    FreshServer server;
    if (!server.ok()) return state.SkipWithError("server did not start");
    // A recording keeps the live session of device 64 open; snapshots of it join it and
    // wait for the stream's next key frame, from a random moment of its key interval.
    const std::string rec =
        benchdb::HttpGetQuery(g_server->httpPort(), "cmd=mrec&nodeid=64&nodetype=2&id=9000");
    if (rec.compare(0, 12, "HTTP/1.1 200") != 0) return state.SkipWithError("mrec refused");
    KeyFrameClock keys;
    std::this_thread::sleep_for(std::chrono::seconds(2));
    std::srand(7);
    for (auto _ : state) {
        std::vector<double> server, keyWait;
        for (int i = 0; i < kSamples; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(std::rand() % 1000));
            const auto asked = Clock::now();
            const double s = Snapshot(64, 2000 + i);
            if (s < 0) return state.SkipWithError("a snapshot did not arrive");
            server.push_back(s);
            keyWait.push_back(keys.WaitFrom(asked));
        }
        g_fig["snapshot_warm_ms"] = Median(server) * 1000;
        g_fig["keyframe_wait_warm_ms"] = Median(keyWait) * 1000;
        state.SetIterationTime(Median(server));
        state.counters["median_ms"] = Median(server) * 1000;
    }
}
BENCHMARK(BM_SnapshotWarm)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// The server's CPU while recordings of `count` devices run for kRecordSeconds, per minute of
// stream recorded; the memory at the end; how many files ffprobe reads.
void RecordFor(int first, int count, benchmark::State& state, const std::string& tag) {
    const double idleStart = ServerCpu();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const double idlePerSec = (ServerCpu() - idleStart) / 2;
    const double cpuStart = ServerCpu();
    auto start = Clock::now();
    for (int d = first; d < first + count; ++d)
        benchdb::HttpGetQuery(g_server->httpPort(), "cmd=mrec&nodeid=" + std::to_string(d) +
                                                        "&nodetype=2&id=" + std::to_string(d));
    std::this_thread::sleep_for(std::chrono::seconds(kRecordSeconds));
    const double secs = Since(start);
    const double cpu = ServerCpu() - cpuStart - idlePerSec * secs;
    g_fig[tag + "_cpu_s_per_stream_min"] = cpu / count / (secs / 60);
    g_fig[tag + "_cpu_percent"] = 100 * (cpu + idlePerSec * secs) / secs;
    g_fig[tag + "_rss_mib"] = ServerRssMiB();
    int growing = 0;
    for (int d = first; d < first + count; ++d)
        growing += fs::exists(g_store + "/mrec/" + std::to_string(d) + ".mp4") &&
                   fs::file_size(g_store + "/mrec/" + std::to_string(d) + ".mp4") > 10000;
    g_fig[tag + "_files"] = growing;
    state.SetIterationTime(secs);
    state.counters["files"] = growing;
}

void BM_RecordOne(benchmark::State& state) {
    FreshServer server;
    if (!server.ok()) return state.SkipWithError("server did not start");
    for (auto _ : state) {
        RecordFor(40, 1, state, "record1");
        double cpu = 0;
        const std::string out = g_store + "/ff.mp4";
        RunCommand({"ffmpeg", "-nostdin", "-loglevel", "error", "-rtsp_transport", "tcp", "-i",
                    g_peer->Url("/live/main"), "-c", "copy", "-t", std::to_string(kRecordSeconds),
                    "-y", out},
                   &cpu);
        g_fig["ffmpeg_record_cpu_s_per_min"] = cpu / (kRecordSeconds / 60.0);
    }
}
BENCHMARK(BM_RecordOne)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_Record64(benchmark::State& state) {
    FreshServer server;
    if (!server.ok()) return state.SkipWithError("server did not start");
    for (auto _ : state) RecordFor(1, kDevices, state, "record64");
}
BENCHMARK(BM_Record64)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void PrintFigures() {
    std::printf("\n");
    for (const auto& [key, value] : g_fig)
        std::printf("mediaload: %-34s %10.3f\n", key.c_str(), value);
    auto f = [](const char* k) { return g_fig.count(k) ? g_fig[k] : 0.0; };
    if (f("ffmpeg_snapshot_ms") > 0)
        std::printf(
            "mediaload: snapshot cold vs ffmpeg: %.2fx faster; vs key-frame wait: +%.0f ms\n",
            f("ffmpeg_snapshot_ms") / f("snapshot_cold_ms"),
            f("snapshot_cold_ms") - f("keyframe_wait_ms"));
    if (f("ffmpeg_record_cpu_s_per_min") > 0)
        std::printf("mediaload: recording CPU against ffmpeg -c copy: %.2f\n",
                    f("record1_cpu_s_per_stream_min") / f("ffmpeg_record_cpu_s_per_min"));
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (access((std::string(CMS_BINARY_DIR) + "/cmssvr").c_str(), X_OK) != 0) {
        std::fprintf(stderr, "mediaload: build the cmssvr target first\n");
        return 1;
    }
    RtspClient_Init();
    cmstest::RtspPeerOptions o;
    o.size = "640x480";
    cmstest::RtspPeer peer(o);
    if (!peer.Start()) return 1;
    g_peer = &peer;
    char tmpl[] = "/tmp/cmsbench-media-XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    g_store = tmpl;
    if (!g_db.Start()) return 1;
    const bool ok = Populate();
    if (ok) {
        benchmark::RunSpecifiedBenchmarks();
        PrintFigures();
    }
    g_db.Stop();
    std::error_code ec;
    fs::remove_all(g_store, ec);
    return ok ? 0 : 1;
}
