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
