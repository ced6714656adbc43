// A command area from arbitrary bytes, as a hostile controller could leave it: at most five records are
// delivered, each with a whole payload, and the area is empty afterwards.
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include "include/qvrt.h"

namespace {

int g_calls;

void Count(int, int, int, int, int, unsigned char* payload, void*) {
  g_calls++;
  volatile unsigned char sum = 0;
  for (int i = 0; i < QV_COMMAND_PAYLOAD_BYTES; i++) sum = static_cast<unsigned char>(sum + payload[i]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FILE* const lockFile = tmpfile();
  static CollectorCommandHandler handler;
  const auto area = std::make_unique<CommandArea>();
  memcpy(static_cast<void*>(area.get()), data, std::min(size, sizeof(CommandArea)));
  const int32_t pending = area->pending;
  handler.sharedArea = area.get();
  handler.lockFileDescriptor = fileno(lockFile);
  handler.commandCallback = Count;
  g_calls = 0;
  const int result = handler.processCommands();
  if (result != (pending == 0 ? 0 : 2) || area->pending != 0) abort();
  if (g_calls != std::clamp(pending, 0, 5)) abort();
  handler.sharedArea = nullptr;
  return 0;
}
