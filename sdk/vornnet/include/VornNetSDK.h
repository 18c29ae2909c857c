/* Message and HTTP listeners. The wire form is described in docs/protocol.md.
 * Every function is safe to call from any thread, including from inside a callback. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Called once per received message (data = the whole message, header and payload) and
 * once with data == NULL when the connection closes. Callbacks of one connection run one
 * at a time and in order; different connections run in parallel on a small pool. */
typedef void (*VornServerCallBack)(int clientId, unsigned char* data, int length, void* user);

#define VORN_MODE_MESSAGE 0
#define VORN_MODE_HTTP 254

int VornNetSDK_Init(void* user);
void VornNetSDK_destroy(void);

/* Listens on `port` (all interfaces, address reuse on). Returns a server handle > 0, or
 * -1 when the port cannot be bound. */
int VornStartServer(int port, int mode, VornServerCallBack callback, void* user);
/* Closes the listener and all its connections; returns 1, or 0 for an unknown handle. */
int VornStopServer(int serverId);

/* Message mode: sends a data reply (CMS_MSG_RESULT, sub-code 1) carrying `data`. */
int VornServerSendData(int clientId, const unsigned char* data, int length);
/* Sends raw bytes without framing (the HTTP listener's replies). */
int VornServerSendData2(int clientId, const unsigned char* data, int length);
/* Message mode: sends a state reply (CMS_MSG_RESULT, sub-code 0) carrying `state`. */
int VornServerSendState(int clientId, int state);
/* Closes the connection once what was sent has been flushed. */
int VornServerKillClient(int clientId);
/* Closes the connection `delayMs` milliseconds after the pending replies are flushed,
 * without blocking the caller. */
int VornServerKillClientDelayed(int clientId, int delayMs);
/* Peer and local address as "ip:port" text; 1 on success, 0 for an unknown client. */
int VornServerGetClientAddr(int clientId, char* addr, int size);
int VornServerGetLocalAddr(int clientId, char* addr, int size);

#ifdef __cplusplus
}
#endif
