// The well-formedness check of the business service's answer.
#include "driver/request_xml.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string answer = as_string(data, size);
    const bool well_formed = is_well_formed_answer(answer);
    // Parsing stops at the first NUL: whatever follows it cannot change the verdict.
    if (answer.find('\0') != std::string::npos &&
        well_formed != is_well_formed_answer(answer.substr(0, answer.find('\0'))))
        __builtin_trap();
    // The in-place check inside the log must agree and leave the log as it was.
    std::string log = "==> Response body\n" + answer + "\n";
    const std::string log_before = log;
    if (is_well_formed_answer_in_log(answer, log) != well_formed || log != log_before)
        __builtin_trap();
    return 0;
}
