#include "support/library_loader.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace {

template <typename Function>
void resolve(void* handle, const char* name, Function& target)
{
    void* symbol = dlsym(handle, name);
    if (symbol == nullptr)
        throw std::runtime_error(std::string("missing export ") + name);
    target = reinterpret_cast<Function>(symbol);
}

std::string read_all(int32_t (*function)(char*, uint32_t, uint32_t*))
{
    uint32_t size = 0;
    if (function(nullptr, 0, &size) != 0)
        throw std::runtime_error("size query failed");
    std::vector<char> buffer(size + 1);
    uint32_t copied = 0;
    if (size != 0 && function(buffer.data(), size, &copied) != 0)
        throw std::runtime_error("copy failed");
    return std::string(buffer.data(), size);
}

} // namespace

DriverLibrary::DriverLibrary()
{
    m_handle = dlopen(TARVO_SHARED_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    if (m_handle == nullptr)
        throw std::runtime_error(std::string("dlopen failed: ") + dlerror());
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
}

DriverLibrary::~DriverLibrary()
{
    if (m_handle != nullptr)
        dlclose(m_handle);
}

std::string DriverLibrary::received_soap() const
{
    return read_all(ReceivedSOAP);
}

std::string DriverLibrary::verbose_transfer() const
{
    return read_all(GetVerboseTransfer);
}
