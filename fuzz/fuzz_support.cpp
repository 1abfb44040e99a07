#include "fuzz_support.h"

#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <stdexcept>

namespace {

std::string scratch_directory;

void remove_scratch_directory()
{
    std::error_code ignored;
    std::filesystem::remove_all(scratch_directory, ignored);
}

} // namespace

void enter_scratch_directory()
{
    char pattern[] = "/tmp/tarvo-fuzz-XXXXXX";
    if (mkdtemp(pattern) == nullptr || chdir(pattern) != 0)
        std::abort();
    scratch_directory = pattern;
    std::atexit(remove_scratch_directory);
}

void use_argentina_time()
{
    setenv("TZ", "<-03>3", 1);
    tzset();
}

std::string as_string(const uint8_t* data, size_t size)
{
    return std::string(reinterpret_cast<const char*>(data), size);
}

std::string ticket_answer(const std::string& token, const std::string& sign, const std::string& generated)
{
    return "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\"><soapenv:Body>"
           "<loginCmsResponse><loginCmsReturn>&lt;loginTicketResponse&gt;&lt;header&gt;&lt;generationTime&gt;" +
           generated + "&lt;/generationTime&gt;&lt;/header&gt;&lt;credentials&gt;&lt;token&gt;" + token +
           "&lt;/token&gt;&lt;sign&gt;" + sign +
           "&lt;/sign&gt;&lt;/credentials&gt;&lt;/loginTicketResponse&gt;</loginCmsReturn></loginCmsResponse>"
           "</soapenv:Body></soapenv:Envelope>";
}
