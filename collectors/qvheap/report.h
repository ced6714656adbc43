// What the collector writes when a process ends: qvheap.<pid>.xml, the outcome in the log, and the table.
#pragma once

#include "include/qvrt.h"

namespace qvheap {

// Called inside the collector. A file that cannot be written is given up, as with the log (log.h).
void ReportOnce();

// False if not all of it could be written (a full disk); no descriptor stays behind then either.
bool CloseXmlFile(QV_XML_FILE* file);

}  // namespace qvheap
