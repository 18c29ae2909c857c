// The C interface of the listener library: argument checks and look-ups only; the work
// happens in Listener and Connection.
#include <cstdio>
#include <memory>
#include <string>

#include "VornNetSDK.h"
#include "connection.h"
#include "engine.h"
#include "framecodec.h"
#include "listener.h"

using vorn::Connection;
using vorn::Engine;

namespace {

std::shared_ptr<Connection> FindClient(int clientId) {
    return clientId > 0 ? Engine::Get().FindClient(clientId) : nullptr;
}

bool ValidBuffer(const unsigned char* data, int length) {
    return length >= 0 && (data != nullptr || length == 0);
}

int CopyText(const std::string& text, char* out, int size) {
    if (out == nullptr || size <= 0) return 0;
    snprintf(out, static_cast<size_t>(size), "%s", text.c_str());
    return 1;
}

}  // namespace

extern "C" {

int VornNetSDK_Init(void* user) {
    Engine::Get().Start();
    return 1;
}

void VornNetSDK_destroy(void) { Engine::Get().Shutdown(); }

void VornNetSDK_SetFrameTimeout(int milliseconds) {
    Engine::Get().SetFrameTimeoutMs(milliseconds > 0 ? milliseconds : 30000);
}

int VornNetSDK_SetAllowList(int port, const char* networks) {
    return Engine::Get().Access().SetAllowList(port, networks ? networks : "") ? 1 : 0;
}

void VornNetSDK_SetMaxClients(int count) { Engine::Get().Access().SetMaxClients(count); }

void VornNetSDK_SetReplyBudget(long long bytes) {
    Engine::Get().SetReplyBudget(bytes > 0 ? bytes : int64_t{256} << 20);
}

int VornStartServer(int port, int mode, VornServerCallBack callback, void* user) {
    if (callback == nullptr || port < 0 || port > 65535) return -1;
    const vorn::Mode* form = vorn::FindMode(mode);
    if (form == nullptr) {
        printf("vornnet: listener mode %d is not served\n", mode);
        return -1;
    }
    Engine& engine = Engine::Get();
    engine.Start();
    std::string error;
    auto listener =
        vorn::Listener::Open(port, form->codec, vorn::Hooks{callback, user, form->dispatch}, error);
    if (!listener) {
        printf("vornnet: cannot listen on port %d: %s\n", port, error.c_str());
        return -1;
    }
    int id = engine.AddListener(listener);
    if (!listener->Start()) {
        engine.TakeListener(id);
        listener->Stop();
        return -1;
    }
    return id;
}

int VornStopServer(int serverId) {
    auto listener = Engine::Get().TakeListener(serverId);
    if (!listener) return 0;
    listener->Stop();
    return 1;
}

int VornServerGetListenPort(int serverId) {
    auto listener = Engine::Get().FindListener(serverId);
    return listener ? listener->Port() : 0;
}

int VornServerSendData(int clientId, const unsigned char* data, int length) {
    if (!ValidBuffer(data, length)) return 0;
    auto client = FindClient(clientId);
    if (!client) return 0;
    if (!client->SendData(data, static_cast<size_t>(length))) {
        printf("vornnet: reply of %d bytes to client %d is over the limit\n", length, clientId);
        return 0;
    }
    return 1;
}

int VornServerSendData2(int clientId, const unsigned char* data, int length) {
    if (!ValidBuffer(data, length)) return 0;
    auto client = FindClient(clientId);
    if (!client) return 0;
    client->SendRaw(data, static_cast<size_t>(length));
    return 1;
}

int VornServerSendState(int clientId, int state) {
    auto client = FindClient(clientId);
    return client && client->SendState(state) ? 1 : 0;
}

int VornServerKillClient(int clientId) { return VornServerKillClientDelayed(clientId, 0); }

int VornServerKillClientDelayed(int clientId, int delayMs) {
    auto client = FindClient(clientId);
    if (!client) return 0;
    client->Kill(delayMs > 0 ? delayMs : 0);
    return 1;
}

int VornServerGetClientAddr(int clientId, char* addr, int size) {
    auto client = FindClient(clientId);
    return client ? CopyText(client->PeerAddr(), addr, size) : 0;
}

int VornServerGetLocalAddr(int clientId, char* addr, int size) {
    auto client = FindClient(clientId);
    return client ? CopyText(client->LocalAddr(), addr, size) : 0;
}

}  // extern "C"
