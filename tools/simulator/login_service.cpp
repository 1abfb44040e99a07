#include "login_service.h"

#include <openssl/err.h>

#include <algorithm>
#include <cctype>

#include "identity.h"
#include "util/argentina_time.h"
#include "util/b64.h"

namespace {

const char ticket_source[] = "CN=wsaahomo, O=AFIP, C=AR, SERIALNUMBER=CUIT 33693450239";
const char afip_cuit[] = "33693450239";
const char axis_namespace[] = "http://xml.apache.org/axis/";

// Tolerated difference between the host's clock and ours.
constexpr std::chrono::minutes allowed_clock_skew{5};
constexpr std::chrono::hours oldest_generation_time{24};

// A refusal: the fault code's local part and the text the host reads.
struct Refusal {
    std::string code;
    std::string text;
};

// The parts of a verified request that decide the answer.
struct LoginRequest {
    std::string service;
    std::string signer_fingerprint;
    std::string signer_subject;
    std::string signer_cuit;
};

const char envelope_start[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
    "<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">"
    "<soapenv:Body>";
const char envelope_end[] = "</soapenv:Body></soapenv:Envelope>";

// A fault as Axis 1.4 writes it: the code and the detail's elements in Axis's own namespace.
Reply fault_reply(const Refusal& refusal, const std::string& service)
{
    Reply reply;
    reply.status = 500;
    reply.body = std::string(envelope_start) + "<soapenv:Fault><faultcode xmlns:ns1=\"" + axis_namespace + "\">ns1:" +
                 xml_escape(refusal.code) + "</faultcode><faultstring>" + xml_escape(refusal.text) +
                 "</faultstring><detail><ns2:exceptionName xmlns:ns2=\"" + axis_namespace +
                 "\">gov.afip.desein.dvadac.sua.view.wsaa.LoginFault</ns2:exceptionName><ns3:hostname xmlns:ns3=\"" +
                 axis_namespace + "\">afip-simulator</ns3:hostname></detail></soapenv:Fault>" + envelope_end;
    reply.summary = "loginCms" + (service.empty() ? std::string() : " service=" + service) + " -> fault ns1:" +
                    refusal.code + ": " + refusal.text;
    return reply;
}

long long unix_seconds(WallClock::time_point when)
{
    return std::chrono::duration_cast<std::chrono::seconds>(when.time_since_epoch()).count();
}

// The token as AFIP makes it: the Base64 of an sso document naming the signer and whom it may represent.
std::string sso_token(const LoginRequest& request, const std::string& unique_id, WallClock::time_point generated,
                      WallClock::time_point expires, const std::vector<std::string>& relations)
{
    std::string document = "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n<sso version=\"2.0\">\n"
                           "    <id src=\"" + xml_escape(ticket_source) + "\" dst=\"CN=" + xml_escape(request.service) +
                           ", O=AFIP, C=AR\" unique_id=\"" + unique_id + "\" gen_time=\"" +
                           std::to_string(unix_seconds(generated)) + "\" exp_time=\"" +
                           std::to_string(unix_seconds(expires)) + "\"/>\n"
                           "    <operation type=\"login\" value=\"granted\">\n"
                           "        <login entity=\"" + afip_cuit + "\" service=\"" + xml_escape(request.service) +
                           "\" uid=\"" + xml_escape(request.signer_subject) +
                           "\" authmethod=\"cms\" regmethod=\"22\">\n            <relations>\n";
    for (const std::string& cuit : relations)
        document += "                <relation key=\"" + xml_escape(cuit) + "\" reltype=\"4\"/>\n";
    document += "            </relations>\n        </login>\n    </operation>\n</sso>\n";
    return base64_encode(document);
}

Reply ticket_reply(const Ticket& ticket, const std::string& destination, const std::string& unique_id)
{
    const std::string ticket_document =
        "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
        "<loginTicketResponse version=\"1.0\"><header><source>" +
        xml_escape(ticket_source) + "</source><destination>" + xml_escape(destination) + "</destination><uniqueId>" +
        unique_id + "</uniqueId><generationTime>" + format_argentina_time(ticket.generated) +
        "</generationTime><expirationTime>" + format_argentina_time(ticket.expires) +
        "</expirationTime></header><credentials><token>" + ticket.token + "</token><sign>" + ticket.sign +
        "</sign></credentials></loginTicketResponse>\n";

    Reply reply;
    reply.body = std::string(envelope_start) +
                 "<loginCmsResponse xmlns=\"http://wsaa.view.sua.dvadac.desein.afip.gov\"><loginCmsReturn>" +
                 xml_escape(ticket_document) + "</loginCmsReturn></loginCmsResponse>" + envelope_end;
    reply.summary = "loginCms service=" + ticket.service + " -> ticket issued, valid until " +
                    format_argentina_time(ticket.expires);
    return reply;
}

std::string without_whitespace(const std::string& text)
{
    std::string compact;
    for (const char c : text)
        if (!std::isspace(static_cast<unsigned char>(c)))
            compact += c;
    return compact;
}

// DER bytes of the Base64 text, or nullopt when it is not Base64.
std::optional<std::string> decode_base64(const std::string& text)
{
    if (text.empty() || text.size() % 4 != 0)
        return std::nullopt;
    std::string bytes(text.size() / 4 * 3, '\0');
    const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                       reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    if (length < 0)
        return std::nullopt;
    // EVP_DecodeBlock counts padding as zero bytes.
    const size_t padding = static_cast<size_t>(std::count(text.end() - 2, text.end(), '='));
    bytes.resize(static_cast<size_t>(length) - padding);
    return bytes;
}

std::optional<Refusal> check_times(const pugi::xml_node& header)
{
    const auto generation = parse_argentina_time(text_by_local_name(header, {"generationTime"}));
    const WallClock::time_point now = WallClock::now();
    if (!generation || *generation > now + allowed_clock_skew)
        return Refusal{"xml.generationTime.invalid", "generationTime posee formato incorrecto o es posterior a la hora actual"};
    if (*generation < now - oldest_generation_time)
        return Refusal{"xml.generationTime.invalid", "generationTime es anterior a las 24 horas previas a la hora actual"};

    const auto expiration = parse_argentina_time(text_by_local_name(header, {"expirationTime"}));
    if (!expiration || *expiration <= *generation)
        return Refusal{"xml.expirationTime.invalid", "expirationTime posee formato incorrecto o no es posterior a generationTime"};
    if (*expiration <= now)
        return Refusal{"xml.expirationTime.expired", "expirationTime es anterior a la hora actual"};
    return std::nullopt;
}

// Verifies the CMS and its login ticket request; fills `request` as far as it got.
std::optional<Refusal> read_login_request(const std::string& request_body, LoginRequest& request)
{
    pugi::xml_document envelope;
    envelope.load_buffer(request_body.data(), request_body.size());
    const pugi::xml_node operation = soap_body_content(envelope);
    if (local_name(operation) != "loginCms")
        return Refusal{"soap.bad", "El mensaje SOAP no contiene una operacion loginCms valida"};

    const auto der = decode_base64(without_whitespace(text_by_local_name(operation, {"in0"})));
    if (!der)
        return Refusal{"cms.bad.base64", "No se ha podido decodificar el BASE64 del CMS"};

    Bio der_bio(BIO_new_mem_buf(der->data(), static_cast<int>(der->size())));
    CmsMessage cms(der_bio ? d2i_CMS_bio(der_bio.get(), nullptr) : nullptr);
    if (!cms)
        return Refusal{"cms.bad", "CMS invalido: no se ha podido interpretar el mensaje firmado"};

    // The signer's certificate is self-signed: the signature is checked, no chain is built.
    CertificateStore no_trust_anchors(X509_STORE_new());
    Bio content(BIO_new(BIO_s_mem()));
    if (!no_trust_anchors || !content)
        return Refusal{"cms.bad", "CMS invalido: sin memoria"};
    if (CMS_verify(cms.get(), nullptr, no_trust_anchors.get(), nullptr, content.get(), CMS_NO_SIGNER_CERT_VERIFY) != 1) {
        ERR_clear_error();
        return Refusal{"cms.sign.invalid", "Firma invalida o algoritmo no soportado"};
    }

    SignerList signers(CMS_get0_signers(cms.get()));
    X509* signer = signers ? sk_X509_value(signers.get(), 0) : nullptr;
    if (signer == nullptr)
        return Refusal{"cms.cert.notFound", "El CMS no contiene el certificado del firmante"};
    if (X509_cmp_current_time(X509_get0_notAfter(signer)) < 0)
        return Refusal{"cms.cert.expired", "Certificado expirado"};
    if (X509_cmp_current_time(X509_get0_notBefore(signer)) > 0)
        return Refusal{"cms.cert.notYetValid", "Certificado aun no valido"};
    request.signer_fingerprint = certificate_fingerprint(signer);
    request.signer_subject = certificate_subject(signer);
    request.signer_cuit = certificate_cuit(signer);

    char* data = nullptr;
    const long length = BIO_get_mem_data(content.get(), &data);
    const std::string ticket_request(data, static_cast<size_t>(length));

    const Refusal unreadable{"xml.bad", "No se ha podido interpretar el XML contra el SCHEMA"};
    pugi::xml_document document;
    if (!document.load_buffer(ticket_request.data(), ticket_request.size()))
        return unreadable;
    const pugi::xml_node root = child_by_local_name(document, "loginTicketRequest");
    const pugi::xml_node header = child_by_local_name(root, "header");
    request.service = text_by_local_name(root, {"service"});
    if (!header || text_by_local_name(header, {"uniqueId"}).empty() || request.service.empty())
        return unreadable;
    if (std::string(root.attribute("version").as_string("1.0")) != "1.0")
        return Refusal{"xml.version.notSupported", "Version del loginTicketRequest no soportada"};
    return check_times(header);
}

} // namespace

LoginService::LoginService(std::vector<std::string> authorised_services, std::vector<std::string> relations,
                           TicketRegistry& tickets)
    : m_authorised_services(std::move(authorised_services)), m_relations(std::move(relations)), m_tickets(tickets)
{
}

Reply LoginService::login_cms(const std::string& request_body)
{
    LoginRequest request;
    if (const auto refusal = read_login_request(request_body, request))
        return fault_reply(*refusal, request.service);

    // The constancia's service was once logged in to by the name ws_sr_padron_a5; AFIP now refuses it.
    static const char* const retired_services[] = {"ws_sr_padron_a5"};
    const bool retired = std::find(std::begin(retired_services), std::end(retired_services), request.service) !=
                         std::end(retired_services);
    if (retired ||
        std::find(m_authorised_services.begin(), m_authorised_services.end(), request.service) == m_authorised_services.end())
        return fault_reply({"coe.notAuthorized", "Computador no autorizado a acceder al servicio"}, request.service);

    std::vector<std::string> relations = m_relations;
    if (!request.signer_cuit.empty() && std::find(relations.begin(), relations.end(), request.signer_cuit) == relations.end())
        relations.insert(relations.begin(), request.signer_cuit);
    const std::string unique_id = random_digits(10);
    const std::optional<Ticket> ticket =
        m_tickets.issue(request.signer_fingerprint, request.service, [&](WallClock::time_point generated, WallClock::time_point expires) {
            return Ticket{sso_token(request, unique_id, generated, expires, relations), random_base64(128), request.service,
                          generated, expires, relations};
        });
    if (!ticket)
        return fault_reply({"coe.alreadyAuthenticated", "El CEE ya posee un TA valido para el acceso al WSN solicitado"},
                           request.service);
    return ticket_reply(*ticket, request.signer_subject, unique_id);
}
