// Event links: how RUSK_MEDIA_PLAY serves an address whose query asks for events
// ("?event=..."). docs/protocol.md ("Event links") has the wire form.
#pragma once

#include "RUSKNetSDK.h"

namespace rusk {

// True for an rtsp address whose query carries "event=".
bool IsEventLinkAddress(const char* url);

// Connects to the address's host:port and sends the link request, waiting for both; on
// success a reader thread of its own delivers the node's event packets to `callback` under
// `handle` and re-links after a drop. False when the link could not be made (nothing kept).
bool EventLinkStart(int handle, const char* url, RUSK_DataCallBack callback, void* user);

// Interrupts and joins the link's reader; no callback of it runs after the return. False
// when `handle` is not an event link.
bool EventLinkStop(int handle);

}  // namespace rusk
