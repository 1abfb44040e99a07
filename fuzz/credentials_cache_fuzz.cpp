// credentials.json as found on disk: read for a ticket, then merged with a new one.
#include <cstdio>
#include <ctime>
#include <fstream>
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
    {
        std::ofstream file("credentials.json", std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    auto http = std::make_shared<EasyHTTP>("");
    // The certificate does not exist: a cache miss ends in code 1 before anything is sent.
    TRA reader("http://127.0.0.1:1/", "wsfe", "missing.p12", "", http);
    try {
        reader.get_credentials();
    } catch (const afip_driver_exception& error) {
        if (error.get_error() != 1)
            __builtin_trap();
    }

    TRA writer("http://127.0.0.1:1/", "wsfe", "missing.p12", "", http);
    try {
        writer.get_token_and_sign(wsaa_ticket("T", "S", "2026-11-21T10:15:30.123-03:00"));
        // Whatever the file held, a successful merge leaves valid JSON with this entry.
        std::ifstream written("credentials.json");
        const nlohmann::json cache = nlohmann::json::parse(written);
        if (cache.at("wsfe").at("token") != "T")
            __builtin_trap();
    } catch (const nlohmann::json::type_error&) {
        // Valid JSON that is not an object: the merge refuses it and the file stays.
    }
    return 0;
}
