// WSAA's loginCms answer: the ticket path (nested document, cache write) and the fault path.
#include <memory>
#include <nlohmann/json.hpp>

#include "driver/afip_driver_exception.h"
#include "fuzz_support.h"
#include "http/easy_http.h"
#include "wsaa/tra.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    enter_scratch_directory();
    use_argentina_time();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string answer = as_string(data, size);
    TRA tra("http://127.0.0.1:1/", "wsfe", "missing.p12", "", std::make_shared<EasyHTTP>(""));
    try {
        tra.get_token_and_sign(answer);
    } catch (const nlohmann::json::exception&) {
        // A ticket that is not valid UTF-8 cannot be written as JSON; the error is documented.
    }
    try {
        tra.get_tra_error(answer);
    } catch (const afip_driver_exception& error) {
        const int32_t code = error.get_error();
        if (code != 9 && code != 2 && code != 3)
            __builtin_trap();
    }
    return 0;
}
