/* An image that is opened and closed again while the program runs: built twice, alike. */
#include <stdlib.h>

void* PluginAllocate(size_t bytes);
void* PluginAllocate(size_t bytes) {
  void* const block = malloc(bytes);
  static volatile int calls;
  calls++;
  return block;
}
