/* Message and HTTP listeners. The wire form is described in docs/protocol.md.
 * Every function is safe to call from any thread, including from inside a callback,
 * except VornNetSDK_destroy. Calls naming an unknown or closed client or server do
 * nothing and return 0. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Message mode: called once per received message (data = the whole message, header and
 * payload) and once with data == NULL when the connection closes. Callbacks of one
 * connection run one at a time and in order, the disconnect last; different connections
 * run in parallel on a small pool. HTTP mode: see VORN_MODE_HTTP.
 * `data` belongs to the library and is valid during the call only.
 * Client ids are positive and never reused while the process runs. */
typedef void (*VornServerCallBack)(int clientId, unsigned char* data, int length, void* user);

#define VORN_MODE_MESSAGE 0
/* HTTP/1.1, one request per connection. The callback runs once per request, on a thread
 * of its own (up to 256 at a time, later requests wait in order), with `data` = a
 * VORN_HTTP_HEAD followed by the body and `length` = sizeof(VORN_HTTP_HEAD) + body
 * length. Refused requests (bad head, head over 8 KiB, target over 511 bytes, body over
 * 1 MiB) are answered by the library and never reach the callback. Once the callback
 * returns, the connection closes after the bytes sent with VornServerSendData2 have been
 * written. No disconnect callback (data == NULL) is made in this mode. */
#define VORN_MODE_HTTP 254

/* The parsed request head that starts every HTTP callback buffer; the body follows it
 * at once. Host byte order (little-endian on every platform served). Texts are header
 * values with surrounding blanks removed, cut to the field and always zero-terminated;
 * an absent header leaves its field zero. */
typedef struct VORN_HTTP_HEAD {
    int32_t nHttpType;     /* GET 1, POST 2, PUSH 3, PUT 4, any other method 0 */
    int32_t nBadyLen;      /* Content-Length, 0 when absent */
    char szHost[40];       /* Host */
    char szURL[512];       /* request target as sent: path and query */
    char szConnection[20]; /* Connection */
    char szUpgrade[20];    /* Upgrade */
    char szWSKey[100];     /* Sec-WebSocket-Key */
    char szWSProtocol[20]; /* Sec-WebSocket-Protocol */
    int32_t nWSVersion;    /* Sec-WebSocket-Version, 0 when absent or not a number */
} VORN_HTTP_HEAD;

#ifdef __cplusplus
#define VORN_STATIC_ASSERT(cond, text) static_assert(cond, text)
#else
#define VORN_STATIC_ASSERT(cond, text) _Static_assert(cond, text)
#endif
VORN_STATIC_ASSERT(sizeof(VORN_HTTP_HEAD) == 724, "VORN_HTTP_HEAD is a wire record");
VORN_STATIC_ASSERT(offsetof(VORN_HTTP_HEAD, nBadyLen) == 4, "VORN_HTTP_HEAD layout");
VORN_STATIC_ASSERT(offsetof(VORN_HTTP_HEAD, szHost) == 8, "VORN_HTTP_HEAD layout");
VORN_STATIC_ASSERT(offsetof(VORN_HTTP_HEAD, szURL) == 48, "VORN_HTTP_HEAD layout");
VORN_STATIC_ASSERT(offsetof(VORN_HTTP_HEAD, szConnection) == 560, "VORN_HTTP_HEAD layout");
VORN_STATIC_ASSERT(offsetof(VORN_HTTP_HEAD, szUpgrade) == 580, "VORN_HTTP_HEAD layout");
VORN_STATIC_ASSERT(offsetof(VORN_HTTP_HEAD, szWSKey) == 600, "VORN_HTTP_HEAD layout");
VORN_STATIC_ASSERT(offsetof(VORN_HTTP_HEAD, szWSProtocol) == 700, "VORN_HTTP_HEAD layout");
VORN_STATIC_ASSERT(offsetof(VORN_HTTP_HEAD, nWSVersion) == 720, "VORN_HTTP_HEAD layout");
#undef VORN_STATIC_ASSERT

/* Starts the library's threads (done on demand by VornStartServer too). Returns 1. */
int VornNetSDK_Init(void* user);
/* Stops every listener, waits for their last callbacks and ends the threads. Call it
 * alone, never from a callback (it is ignored there). VornNetSDK_Init starts again. */
void VornNetSDK_destroy(void);
/* How long a client may keep half a frame pending without sending more before it is
 * dropped (default 30000 ms; a value <= 0 restores the default). Applies at once. In
 * HTTP mode the request is pending from the moment of connecting until it is whole. */
void VornNetSDK_SetFrameTimeout(int milliseconds);
/* Networks allowed to connect to listeners on `port`: entries "a.b.c.d/n", "x:y::/n" or a
 * bare address, separated by blanks, commas or semicolons. NULL or an empty text allows
 * everyone (the default). A client from elsewhere is closed as soon as it is accepted,
 * before any byte is read; each refused address is printed at most once a minute. Set it
 * before VornStartServer so that no client slips in first; applies to later accepts.
 * Returns 1, or 0 (and the old list stays) when an entry cannot be read. */
int VornNetSDK_SetAllowList(int port, const char* networks);
/* Open connections of all listeners together (default 10000; <= 0 restores it). The
 * limit is lowered further to what the process's descriptor limit leaves after a reserve
 * for files and database connections. Clients beyond it are closed at once. */
void VornNetSDK_SetMaxClients(int count);
/* Bytes of replies queued for all clients together (default 256 MiB; <= 0 restores it).
 * Beyond it the client with the longest queue is closed, its replies dropped, and freed
 * memory is returned to the system. Each client is also capped at 64 MiB of waiting
 * replies. */
void VornNetSDK_SetReplyBudget(long long bytes);

/* Listens on `port` (all interfaces, address reuse on; 0 picks a free port). Returns a
 * server handle > 0, or -1 when the port cannot be bound or the mode is not served. */
int VornStartServer(int port, int mode, VornServerCallBack callback, void* user);
/* Closes the listener and all its connections (each reported disconnected once); the port
 * is free again on return. Outside a callback it returns after the last callback of that
 * listener has finished. Returns 1, or 0 for an unknown handle. */
int VornStopServer(int serverId);
/* The port a server listens on (useful after asking for port 0), or 0 if unknown. */
int VornServerGetListenPort(int serverId);

/* Message mode: sends a data reply (CMS_MSG_RESULT, sub-code 1) carrying `data`
 * (length 0 allowed). 1 when queued, 0 for an unknown client or a reply over the limit. */
int VornServerSendData(int clientId, const unsigned char* data, int length);
/* Sends raw bytes without framing (the HTTP listener's replies); in message mode the
 * caller owns the consequences for the client's parser. In HTTP mode VornServerSendData
 * sends raw bytes too and VornServerSendState returns 0. */
int VornServerSendData2(int clientId, const unsigned char* data, int length);
/* Message mode: sends a state reply (CMS_MSG_RESULT, sub-code 0) carrying `state`. */
int VornServerSendState(int clientId, int state);
/* Closes the connection once what was sent has been flushed. After this call the
 * client's further messages are not delivered and further replies are dropped. */
int VornServerKillClient(int clientId);
/* Closes the connection `delayMs` milliseconds after the pending replies are flushed,
 * without blocking the caller (a timer; no thread sleeps). A peer that hangs up during
 * the delay is closed at once. */
int VornServerKillClientDelayed(int clientId, int delayMs);
/* Peer and local address as "ip:port" text, cut to `size` bytes with the terminating
 * zero; 1 on success, 0 for an unknown client or no buffer. */
int VornServerGetClientAddr(int clientId, char* addr, int size);
int VornServerGetLocalAddr(int clientId, char* addr, int size);

#ifdef __cplusplus
}
#endif
