#ifndef TARVO_FUZZ_FUZZ_SUPPORT_H
#define TARVO_FUZZ_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "support/wsaa_answers.h"

// Moves the process into a private scratch directory: credentials.json is written there.
void enter_scratch_directory();

// Fixes the process's time zone so ticket ages do not depend on the machine.
void use_argentina_time();

std::string as_string(const uint8_t* data, size_t size);

#endif
