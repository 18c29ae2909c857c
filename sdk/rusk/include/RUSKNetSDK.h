/* Device library: the command channel to analytics servers, media servers and devices.
 * docs/protocol.md describes what goes over the wire. All functions are thread-safe. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* The command code of RUSK_TRANSCOMMAND that carries an HTTP-style request. */
#define RUSK_COMMAND_HTTP 99

/* Initialises the library (once per process; later calls do nothing). Returns 1. */
int RUSK_DVR_InitAll(void);

/* Sends a command to the node addressed by `url` and collects its answer.
 *
 *   url          "rtsp://host[:port]/path?query" (or "http://..."): sent as an HTTP request
 *                to http://host:port/path?query; an rtsp address without a port uses 554.
 *   command      RUSK_COMMAND_HTTP; any other code fails.
 *   body         request body, or NULL: with bodyLength > 0 the request is a POST of
 *                those bytes, otherwise a GET.
 *   reply        buffer for the answer's body, or NULL to discard it.
 *   replyLength  in: the capacity of `reply` in bytes; out: the bytes copied. The body
 *                is cut to the capacity and zero-terminated when there is room after it.
 *                May be NULL (then nothing is copied).
 *
 * Returns 1 when the node answered with a 2xx status, else 0 (the answer's body is still
 * copied for other statuses). Connecting gives up after 3 s, the whole request after
 * 10 s unless RUSK_SetTimeouts says otherwise. */
int RUSK_TRANSCOMMAND(const char* url, int command, const char* body, int bodyLength, char* reply,
                      int* replyLength);

/* Device login for configuration reads (camera lists of recorders reached directly).
 * Recorders speak their makers' own protocols, which this library does not: the login is
 * not supported and always answers -1, so callers take their "login failed" path. */
int RUSK_DVR_Login(const char* ip, int port, const char* user, const char* password, int dvrType);

/* Reads configuration `command` of channel `chan` over a login into `buffer`
 * (`*length` in: its capacity; out: the bytes written). Returns 1 on success; 0 for a
 * login that is not open, which is every login while RUSK_DVR_Login is not supported. */
int RUSK_DVR_GetConfig(int login, int chan, int command, int dvrType, char* buffer, int* length);

/* Ends a login; 0 for a login that is not open. */
int RUSK_DVR_Logout(int login);

/* Changes the connect and whole-request time-outs of later commands (milliseconds;
 * values <= 0 restore 3000 and 10000). */
void RUSK_SetTimeouts(int connectMs, int totalMs);

#ifdef __cplusplus
}
#endif
