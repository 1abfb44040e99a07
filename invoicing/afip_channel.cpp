#include "invoicing/afip_channel.h"

#include <chrono>
#include <thread>

#include "tarvoafipdriver.h"
#include "util/wsfev1.h"

LibraryChannel::LibraryChannel(SoapSettings settings, std::vector<std::string> headers,
                               std::shared_ptr<std::string> last_log)
    : m_settings(std::move(settings)), m_headers(std::move(headers)), m_last_log(std::move(last_log))
{
}

ServiceExchange LibraryChannel::send(const std::string& operation, const std::string& request)
{
    std::vector<std::string> headers = m_headers;
    headers.push_back(operation.empty() ? "SOAPAction: \"\"" : wsfev1_soap_action(operation));
    SoapExchange exchange;
    ServiceExchange result;
    result.result = send_soap(m_settings, request, std::move(headers), exchange);
    *m_last_log = std::move(exchange.log);
    result.sent = exchange.request_sent;
    result.ticket = !exchange.token.empty();
    if (result.result == AFIP_OK || result.result == AFIP_RESPONSE_NOT_XML)
        result.answer = std::move(exchange.answer);
    return result;
}

void LibraryChannel::pause(int milliseconds)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}
