#include "driver_library.h"

#include <dlfcn.h>

#include <vector>

namespace {

template <typename Function>
void resolve(void* handle, const char* name, Function& target)
{
    void* symbol = dlsym(handle, name);
    if (symbol == nullptr)
        throw LibraryLoadError(std::string("the library does not export ") + name);
    target = reinterpret_cast<Function>(symbol);
}

using copy_out_function = decltype(&::ReceivedSOAP);

// The buffer protocol, step by step:
//   1. buffer_length 0 asks for the stored size only; the buffer may be NULL.
//   2. A buffer of exactly that size is enough: the library writes no terminating NUL.
//   3. The data may hold any bytes, NUL included, so its length is the size reported, never strlen.
std::string copy_out(copy_out_function function, const char* what)
{
    uint32_t size = 0;
    if (function(nullptr, 0, &size) != AFIP_OK)
        throw LibraryCopyError(std::string("size query of the ") + what + " failed");
    if (size == 0)
        return std::string(); // a zero length would be another size query, not a copy

    std::vector<char> buffer(size);
    uint32_t copied = 0;
    const int32_t result = function(buffer.data(), size, &copied);
    if (result != AFIP_OK || copied != size)
        throw LibraryCopyError(std::string("copy of the ") + what + " failed with result " + std::to_string(result));
    return std::string(buffer.data(), copied);
}

} // namespace

LoadedDriver::LoadedDriver(const std::string& path)
{
    // RTLD_LOCAL: the library's state is its own; RTLD_NOW: a missing dependency shows here, not mid-call.
    m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (m_handle == nullptr)
        throw LibraryLoadError(std::string("cannot load the library: ") + dlerror());
    try {
        resolve(m_handle, "GetAFIPVersion", GetAFIPVersion);
        resolve(m_handle, "SetWSAA", SetWSAA);
        resolve(m_handle, "SetWSAACredentials", SetWSAACredentials);
        resolve(m_handle, "SetWSAAService", SetWSAAService);
        resolve(m_handle, "SetWSUrl", SetWSUrl);
        resolve(m_handle, "SetSecurity", SetSecurity);
        resolve(m_handle, "SetWebProxy", SetWebProxy);
        resolve(m_handle, "SetTimeOut", SetTimeOut);
        resolve(m_handle, "AddSOAPHeader", AddSOAPHeader);
        resolve(m_handle, "SendSOAP", SendSOAP);
        resolve(m_handle, "ReceivedSOAP", ReceivedSOAP);
        resolve(m_handle, "GetVerboseTransfer", GetVerboseTransfer);
    } catch (...) {
        dlclose(m_handle);
        throw;
    }
}

LoadedDriver::~LoadedDriver()
{
    dlclose(m_handle);
}

std::string LoadedDriver::version() const
{
    char text[6]; // "1.0.0" and its NUL: the size the function's contract names
    GetAFIPVersion(text);
    return text;
}

std::string LoadedDriver::answer() const
{
    return copy_out(ReceivedSOAP, "answer");
}

std::string LoadedDriver::transfer_log() const
{
    return copy_out(GetVerboseTransfer, "transfer log");
}
