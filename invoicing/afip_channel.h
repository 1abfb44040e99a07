#ifndef TARVO_INVOICING_AFIP_CHANNEL_H
#define TARVO_INVOICING_AFIP_CHANNEL_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "driver/soap_exchange.h"

// One request to an AFIP service and what came back: the library's result code and the answer.
struct ServiceExchange {
    std::int32_t result = 0;
    std::string answer; // kept for results 0 and 14 (an answer that is not XML)
    bool sent = true;   // the request may have reached the service; false: surely not
    bool ticket = true; // false: WSAA gave no ticket, so the request went without token and sign
};

// How the invoicing core reaches WSFEv1 and the registry.
class AfipChannel {
public:
    virtual ~AfipChannel() = default;
    // `operation` names the SOAPAction of a WSFEv1 request; empty sends an empty SOAPAction.
    virtual ServiceExchange send(const std::string& operation, const std::string& request) = 0;
    virtual void pause(int milliseconds) = 0;
};

// Through the library's own pipeline: a WSAA ticket for the settings' service, cached in the
// working directory's credentials.json as every host's, and the transport settings.
class LibraryChannel : public AfipChannel {
public:
    // Channels that share `last_log` leave the log of whichever exchanged last there.
    LibraryChannel(SoapSettings settings, std::vector<std::string> headers,
                   std::shared_ptr<std::string> last_log = std::make_shared<std::string>());
    ServiceExchange send(const std::string& operation, const std::string& request) override;
    void pause(int milliseconds) override;
    // The transfer log of the last exchange.
    const std::string& last_log() const { return *m_last_log; }

private:
    SoapSettings m_settings;
    std::vector<std::string> m_headers; // the host's own, before the SOAPAction
    std::shared_ptr<std::string> m_last_log;
};

#endif
