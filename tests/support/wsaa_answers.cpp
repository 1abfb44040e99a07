#include "support/wsaa_answers.h"

std::string local_time_text(std::time_t when, const std::string& suffix)
{
    std::tm local{};
    localtime_r(&when, &local);
    char text[64];
    std::strftime(text, sizeof text, "%FT%T", &local);
    return text + suffix;
}

std::string xml_escape(const std::string& text)
{
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '&': escaped += "&amp;"; break;
        case '<': escaped += "&lt;"; break;
        case '>': escaped += "&gt;"; break;
        case '"': escaped += "&quot;"; break;
        default: escaped += c; break;
        }
    }
    return escaped;
}

std::string login_ticket_response(const std::string& token, const std::string& sign,
                                  const std::string& generation_time, const std::string& expiration_time)
{
    std::string header = "<header><source>CN=wsaa, O=test, C=AR</source><destination>CN=signer</destination>"
                         "<uniqueId>81273645</uniqueId>";
    if (!generation_time.empty())
        header += "<generationTime>" + generation_time + "</generationTime>";
    header += "<expirationTime>" + expiration_time + "</expirationTime></header>";
    return "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n<loginTicketResponse version=\"1.0\">\n" +
           header + "\n<credentials>\n<token>" + xml_escape(token) + "</token>\n<sign>" + xml_escape(sign) +
           "</sign>\n</credentials>\n</loginTicketResponse>\n";
}

std::string login_cms_response(const std::string& ticket_document)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><soapenv:Envelope "
           "xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">"
           "<soapenv:Body><loginCmsResponse xmlns=\"http://wsaa.view.sua.dvadac.desein.afip.gov\"><loginCmsReturn>" +
           xml_escape(ticket_document) + "</loginCmsReturn></loginCmsResponse></soapenv:Body></soapenv:Envelope>";
}

std::string soap_fault(const std::string& fault_text)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><soapenv:Envelope "
           "xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\"><soapenv:Body><soapenv:Fault>"
           "<faultcode>ns1:coe.refused</faultcode><faultstring>" +
           xml_escape(fault_text) + "</faultstring><detail><hostname>wsaa</hostname></detail></soapenv:Fault>"
                                    "</soapenv:Body></soapenv:Envelope>";
}
