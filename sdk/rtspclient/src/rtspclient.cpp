// The C interface of the RTSP client: a table from small integer handles to streams and
// their reader threads.
#include <strings.h>

#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include "RtspClientSDK.h"
#include "rtspstream.h"
#include "rtspurl.h"

namespace {

using rtspc::Stream;

struct Entry {
    std::shared_ptr<Stream> stream;
    std::thread reader;
};

// Handles count up (wrapping only after 2^31 opens), so a stale handle closes nothing.
// Never destroyed: a reader still running at exit must not find it gone.
struct Table {
    std::mutex mutex;  // guards everything below
    std::map<int, std::unique_ptr<Entry>> entries;
    int next = 0;
};

Table& Handles() {
    static Table* table = new Table;
    return *table;
}

void InitOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        avformat_network_init();
        // A dead camera is an ordinary event here; its details are no use on the console.
        av_log_set_level(AV_LOG_FATAL);
    });
}

// The stream for a call, or null when the arguments cannot be served.
std::shared_ptr<Stream> Prepare(const char* url, const char* transport, int noAuth, int port,
                                const char* user, const char* pass, RtspDataCallBack callback,
                                RtspStatusCallBack status, void* userData, int& handle) {
    if (!callback || (transport && strcasecmp(transport, "tcp") != 0)) return nullptr;
    std::string address;
    if (!rtspc::ComposeUrl(url, port, noAuth ? nullptr : user, noAuth ? nullptr : pass, address))
        return nullptr;
    InitOnce();
    Table& t = Handles();
    std::lock_guard<std::mutex> lock(t.mutex);
    handle = t.next;
    t.next = t.next == std::numeric_limits<int>::max() ? 0 : t.next + 1;
    return std::make_shared<Stream>(std::move(address),
                                    rtspc::Callbacks{handle, callback, status, userData});
}

void Register(int handle, std::shared_ptr<Stream> stream, std::thread reader) {
    Table& t = Handles();
    std::lock_guard<std::mutex> lock(t.mutex);
    t.entries[handle] = std::unique_ptr<Entry>(new Entry{std::move(stream), std::move(reader)});
}

}  // namespace

int RtspClient_Init(void) {
    InitOnce();
    return 1;
}

int RtspClient_Open(const char* url, const char* transport, int noAuth, int port, const char* user,
                    const char* pass, RtspDataCallBack callback, void* userData) {
    int handle = -1;
    auto stream =
        Prepare(url, transport, noAuth, port, user, pass, callback, nullptr, userData, handle);
    if (!stream || !stream->Open()) return -1;
    std::thread reader([stream] { stream->Run(); });
    Register(handle, stream, std::move(reader));
    return handle;
}

int RtspClient_OpenAsync(const char* url, const char* transport, int noAuth, int port,
                         const char* user, const char* pass, RtspDataCallBack callback,
                         RtspStatusCallBack status, void* userData) {
    int handle = -1;
    auto stream =
        Prepare(url, transport, noAuth, port, user, pass, callback, status, userData, handle);
    if (!stream) return -1;
    // Registered under the lock before the reader can report, so a status callback that
    // looks the handle up finds it.
    Table& t = Handles();
    std::lock_guard<std::mutex> lock(t.mutex);
    std::thread reader([stream] {
        if (!stream->Open()) {
            stream->Report(RTSPCLIENT_FAILED);
            return;
        }
        stream->Report(RTSPCLIENT_OPENED);
        if (stream->Run()) stream->Report(RTSPCLIENT_ENDED);
    });
    t.entries[handle] = std::unique_ptr<Entry>(new Entry{stream, std::move(reader)});
    return handle;
}

int RtspClient_Close(int handle) {
    std::unique_ptr<Entry> entry;
    {
        Table& t = Handles();
        std::lock_guard<std::mutex> lock(t.mutex);
        auto it = t.entries.find(handle);
        if (it == t.entries.end()) return 0;
        entry = std::move(it->second);
        t.entries.erase(it);
    }
    entry->stream->Stop();
    // Misuse from the handle's own callback would deadlock in join: the reader ends by
    // itself once the callback returns, and its stream with it.
    if (entry->reader.get_id() == std::this_thread::get_id())
        entry->reader.detach();
    else
        entry->reader.join();
    return 1;
}
