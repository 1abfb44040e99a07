#ifndef TARVO_TOOLS_CLI_DRIVER_LIBRARY_H
#define TARVO_TOOLS_CLI_DRIVER_LIBRARY_H

#include <stdexcept>
#include <string>

#include "tarvoafipdriver.h"

// The library could not be loaded or lacks one of the twelve functions.
class LibraryLoadError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The library refused to hand out its answer or log.
class LibraryCopyError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The driver loaded with dlopen, as a host program loads it; unloaded in the destructor.
// The pointer types come from the public header, so a changed signature fails to compile.
class LoadedDriver {
public:
    explicit LoadedDriver(const std::string& path); // throws LibraryLoadError
    ~LoadedDriver();
    LoadedDriver(const LoadedDriver&) = delete;
    LoadedDriver& operator=(const LoadedDriver&) = delete;

    decltype(&::GetAFIPVersion) GetAFIPVersion = nullptr;
    decltype(&::SetWSAA) SetWSAA = nullptr;
    decltype(&::SetWSAACredentials) SetWSAACredentials = nullptr;
    decltype(&::SetWSAAService) SetWSAAService = nullptr;
    decltype(&::SetWSUrl) SetWSUrl = nullptr;
    decltype(&::SetSecurity) SetSecurity = nullptr;
    decltype(&::SetWebProxy) SetWebProxy = nullptr;
    decltype(&::SetTimeOut) SetTimeOut = nullptr;
    decltype(&::AddSOAPHeader) AddSOAPHeader = nullptr;
    decltype(&::SendSOAP) SendSOAP = nullptr;
    decltype(&::ReceivedSOAP) ReceivedSOAP = nullptr;
    decltype(&::GetVerboseTransfer) GetVerboseTransfer = nullptr;

    std::string version() const;
    // The last answer and transfer log, whole, through the buffer protocol; throw LibraryCopyError.
    std::string answer() const;
    std::string transfer_log() const;

private:
    void* m_handle = nullptr;
};

#endif
