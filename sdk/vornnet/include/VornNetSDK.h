/* Message and HTTP listeners. The wire form is described in docs/protocol.md.
 * Every function is safe to call from any thread, including from inside a callback,
 * except VornNetSDK_destroy. Calls naming an unknown or closed client or server do
 * nothing and return 0. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Called once per received message (data = the whole message, header and payload) and
 * once with data == NULL when the connection closes. Callbacks of one connection run one
 * at a time and in order, the disconnect last; different connections run in parallel on
 * a small pool. `data` belongs to the library and is valid during the call only.
 * Client ids are positive and never reused while the process runs. */
typedef void (*VornServerCallBack)(int clientId, unsigned char* data, int length, void* user);

#define VORN_MODE_MESSAGE 0
/* Not served yet: VornStartServer returns -1 for it. */
#define VORN_MODE_HTTP 254

/* Starts the library's threads (done on demand by VornStartServer too). Returns 1. */
int VornNetSDK_Init(void* user);
/* Stops every listener, waits for their last callbacks and ends the threads. Call it
 * alone, never from a callback (it is ignored there). VornNetSDK_Init starts again. */
void VornNetSDK_destroy(void);
/* How long a client may keep half a frame pending without sending more before it is
 * dropped (default 30000 ms; a value <= 0 restores the default). Applies at once. */
void VornNetSDK_SetFrameTimeout(int milliseconds);

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
 * caller owns the consequences for the client's parser. */
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
