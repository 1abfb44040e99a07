#ifndef TARVO_INVOICING_CORE_RESULT_H
#define TARVO_INVOICING_CORE_RESULT_H

#include <optional>
#include <string>

// A result code and the JSON (or bytes) that goes with it; `message` explains a non-zero code.
struct CoreResult {
    int status = 0;
    std::string message;
    std::optional<std::string> output;
};

#endif
