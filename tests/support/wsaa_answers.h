// WSAA's answers as the library reads them, for the tests and the fuzzers.
#ifndef TARVO_TESTS_SUPPORT_WSAA_ANSWERS_H
#define TARVO_TESTS_SUPPORT_WSAA_ANSWERS_H

#include <string>

// A ticket generated at `generated`: its document escaped inside loginCmsReturn.
inline std::string wsaa_ticket(const std::string& token, const std::string& sign, const std::string& generated)
{
    return "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\"><soapenv:Body>"
           "<loginCmsResponse><loginCmsReturn>&lt;loginTicketResponse&gt;&lt;header&gt;&lt;generationTime&gt;" +
           generated + "&lt;/generationTime&gt;&lt;/header&gt;&lt;credentials&gt;&lt;token&gt;" + token +
           "&lt;/token&gt;&lt;sign&gt;" + sign + "&lt;/sign&gt;&lt;/credentials&gt;&lt;/loginTicketResponse&gt;"
           "</loginCmsReturn></loginCmsResponse></soapenv:Body></soapenv:Envelope>";
}

inline std::string soap_fault(const std::string& text)
{
    return "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\"><soapenv:Body>"
           "<soapenv:Fault><faultcode>ns1:x</faultcode><faultstring>" +
           text + "</faultstring></soapenv:Fault></soapenv:Body></soapenv:Envelope>";
}

#endif
