#ifndef TARVO_TESTS_SUPPORT_LIBRARY_LOADER_H
#define TARVO_TESTS_SUPPORT_LIBRARY_LOADER_H

#include <cstdint>
#include <string>

// The built shared library loaded with dlopen, as a host loads it, with its twelve functions.
struct DriverLibrary {
    void (*GetAFIPVersion)(char*) = nullptr;
    void (*SetWSAA)(const char*) = nullptr;
    void (*SetWSAACredentials)(const char*, const char*) = nullptr;
    void (*SetWSAAService)(const char*) = nullptr;
    void (*SetWSUrl)(const char*) = nullptr;
    void (*SetSecurity)(int32_t) = nullptr;
    void (*SetWebProxy)(const char*, const char*, const char*) = nullptr;
    void (*SetTimeOut)(uint32_t) = nullptr;
    void (*AddSOAPHeader)(const char*) = nullptr;
    int32_t (*SendSOAP)(const char*) = nullptr;
    int32_t (*ReceivedSOAP)(char*, uint32_t, uint32_t*) = nullptr;
    int32_t (*GetVerboseTransfer)(char*, uint32_t, uint32_t*) = nullptr;

    // Loads the library (RTLD_LOCAL, so its state is its own); aborts the test on failure.
    DriverLibrary();
    ~DriverLibrary();
    DriverLibrary(const DriverLibrary&) = delete;
    DriverLibrary& operator=(const DriverLibrary&) = delete;

    // Whole answer / log through the size query, then an exact-size copy.
    std::string received_soap() const;
    std::string verbose_transfer() const;

private:
    void* m_handle = nullptr;
};

#endif
