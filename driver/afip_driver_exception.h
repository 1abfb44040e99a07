#ifndef TARVO_DRIVER_AFIP_DRIVER_EXCEPTION_H
#define TARVO_DRIVER_AFIP_DRIVER_EXCEPTION_H

#include <cstdint>
#include <stdexcept>
#include <string>

#include "tarvoafipdriver.h"

// A failure deep inside the library; the code is what SendSOAP hands the host.
// The message is always empty: the code carries all the meaning.
class afip_driver_exception : public virtual std::runtime_error {
public:
    afip_driver_exception(const std::string& message, int32_t error)
        : std::runtime_error(message), m_error(error) {}
    ~afip_driver_exception() override = default;
    virtual int32_t get_error() const { return m_error; }

private:
    int32_t m_error;
};

#endif
