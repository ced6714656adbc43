/* A user's program on the stand-in host. */
#include <qvhost.h>
#include <qvrt.h>
#include <stdio.h>

int main(void) {
  QvHostInstall();
  __QvRtStartup();
  void* chunk = __QvMalloc(0, 100, 0);
  if (QvHostBlocksInUse() != 0 && __QvGetNativeThreadId() != 0) puts("the host works");
  __QvFree(chunk);
  return 0;
}
