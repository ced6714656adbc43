/* A user's program: the library alone, without a host. */
#include <qvrt.h>
#include <stdio.h>

int main(void) {
  __QvRtStartup();
  QV_STRING* text = __QvStrAlloc(0, 0, "the library ");
  __QvStrAppend(text, "works");
  puts(text->buffer);
  __QvStrDestroy(text);
  return 0;
}
