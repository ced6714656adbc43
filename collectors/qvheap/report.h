// What the collector writes: the results of a process that ends or of one that goes on (a snapshot),
// the outcome in the log, and at the end the table.
#pragma once

#include "collectors/qvheap/census.h"
#include "include/qvrt.h"

namespace qvheap {

// All are called inside the collector. A file that cannot be written is given up, as with the log
// (log.h).
void ReportOnce();

// The file of the end for number 0, else that of a snapshot: under its name when it is complete, or not
// at all. Says in the log how it went.
bool WriteResultsLocked(const Totals& totals, uint32_t number);
// Good until the next call.
const char* ResultsPathLocked(uint32_t number);

// False if not all of it could be written (a full disk); no descriptor stays behind then either.
bool CloseXmlFile(QV_XML_FILE* file);

}  // namespace qvheap
