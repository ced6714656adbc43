/* The public header alone, as C. */
#include <qvrt.h>

#include "layout.h"
