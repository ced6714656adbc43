// The parts of a results file that looking at blocks gives, and the words that all parts use.
#pragma once

#include "collectors/qvheap/census.h"

namespace qvheap {

void WriteAttribute(QV_XML_FILE* file, const char* name, uint64_t value);
void WriteNumber(QV_XML_FILE* file, const char* name, uint64_t value);
// As text of XML: what is no UTF-8, and control characters, become '?'. Cut at 4,095 bytes.
void WriteText(QV_XML_FILE* file, const char* name, const char* text);
const char* CleanText(
    const char* text);  // the same for one who writes a value; valid until the next call

void WriteModulesLocked(QV_XML_FILE* file);
void WriteTimelineLocked(QV_XML_FILE* file);
void WriteSitesLocked(QV_XML_FILE* file);
void WriteMemoryLocked(QV_XML_FILE* file);

}  // namespace qvheap
