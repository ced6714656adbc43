// What the commands of the channel do, and the time series that its heartbeats write.
#pragma once

namespace qvheap {

// The channel's callback; runs on the worker, which is inside the collector. The commands:
// collectors/qvheap/commands.h.
void OnCommand(int code, int a2, int a3, int a4, int a5, unsigned char* payload, void* context);

void BeginSeriesLocked();  // with -every: the line of headings, unless an earlier image has written it

}  // namespace qvheap
