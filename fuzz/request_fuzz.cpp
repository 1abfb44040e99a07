// The host's request through SendSOAP: parse, walker, serialiser, and the answer check of a
// failed transfer (the service address refuses connections on loopback).
#include <cstdio>
#include <ctime>
#include <fstream>

#include "fuzz_support.h"
#include "tarvoafipdriver.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    enter_scratch_directory();
    use_argentina_time();
    // A young cached ticket, so no login is attempted.
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char generated[32];
    std::strftime(generated, sizeof generated, "%FT%T", &local);
    std::ofstream("credentials.json") << "{\"wsfe\": {\"expired\": \"" << generated
                                      << "\", \"sign\": \"S&<\", \"token\": \"T]]>\"}}";
    SetWSAA("http://127.0.0.1:1/wsaa");
    SetWSAACredentials("missing.p12", "");
    SetWSAAService("wsfe");
    SetWSUrl("http://127.0.0.1:1/ws");
    SetTimeOut(1000);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string request = as_string(data, size);
    const int32_t result = SendSOAP(request.c_str());
    if (result != AFIP_REQUEST_NOT_XML && result != AFIP_RESPONSE_NOT_XML)
        __builtin_trap();
    return 0;
}
