// What each fuzz target defines; included before its first line, as libFuzzer ships no such header.
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t sizeBytes);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);  // optional
