#include "registry_service.h"

#include <algorithm>
#include <charconv>
#include <vector>
#include <map>

#include "util/argentina_time.h"

namespace {

const char constancia_namespace[] = "http://a5.soap.ws.server.puc.sr/";
const char a13_namespace[] = "http://a13.soap.ws.server.puc.sr/";
const char server_name[] = "afip-simulator";

// The registry's fault texts. AFIP's record none but the form of the unknown CUIT's, so all are the
// simulator's own wording; what a host may rely on is the fault itself and its SRValidationException.
const char unknown_person[] = "No existe persona con ese Id";
const char empty_credentials[] = "El token y el sign son obligatorios";
const char bad_credentials[] = "No se pudo validar el token: token o sign invalidos";
const char expired_ticket[] = "El token ha expirado";

std::string element(const std::string& name, const std::string& text)
{
    return "<" + name + ">" + xml_escape(text) + "</" + name + ">";
}

// An element only when there is something to say, as the registry leaves out what it does not know.
std::string optional_element(const std::string& name, const std::string& text)
{
    return text.empty() ? std::string() : element(name, text);
}

std::string envelope(const std::string& body)
{
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\">"
           "<soap:Body>" + body + "</soap:Body></soap:Envelope>";
}

std::optional<long long> whole_number(const std::string& text)
{
    long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::string metadata()
{
    return "<metadata>" + element("fechaHora", format_argentina_time(WallClock::now())) + element("servidor", server_name) +
           "</metadata>";
}

// The namespace URI of an element: the one its prefix (or the default) is bound to where it stands.
std::string namespace_of(const pugi::xml_node& node)
{
    const std::string name = node.name();
    const size_t colon = name.find(':');
    const std::string attribute = colon == std::string::npos ? "xmlns" : "xmlns:" + name.substr(0, colon);
    for (pugi::xml_node at = node; at; at = at.parent())
        if (const pugi::xml_attribute bound = at.attribute(attribute.c_str()))
            return bound.value();
    return {};
}

// The DNI in a person's CUIT: its eight middle digits.
std::string document_of(const Person& person)
{
    return person.kind == "FISICA" ? person.cuit.substr(2, 8) : std::string();
}

} // namespace

RegistryService::RegistryService(Kind kind, const TicketRegistry& tickets, const Padron& padron)
    : m_kind(kind), m_tickets(tickets), m_padron(padron)
{
}

const char* RegistryService::service_name() const
{
    return m_kind == Kind::constancia ? "ws_sr_constancia_inscripcion" : "ws_sr_padron_a13";
}

Reply RegistryService::handle(const std::string& request_body) const
{
    const char* const ns = m_kind == Kind::constancia ? constancia_namespace : a13_namespace;
    std::string operation_name = "(unreadable)";
    const auto fault = [&](const char* code, const std::string& text) {
        Reply reply;
        reply.status = 500;
        reply.body = envelope(std::string("<soap:Fault>") + element("faultcode", code) + element("faultstring", text) +
                              "<detail><ns2:SRValidationException xmlns:ns2=\"" + ns + "\"/></detail></soap:Fault>");
        reply.summary = operation_name + " -> fault " + code + ": " + text;
        return reply;
    };
    const auto answer = [&](const std::string& content, const std::string& outcome) {
        Reply reply;
        reply.body = envelope("<ns2:" + operation_name + "Response xmlns:ns2=\"" + ns + "\">" + content + "</ns2:" +
                              operation_name + "Response>");
        reply.summary = operation_name + " " + outcome;
        return reply;
    };

    pugi::xml_document document;
    const pugi::xml_parse_result parsed = document.load_buffer(request_body.data(), request_body.size());
    const pugi::xml_node operation = soap_body_content(document);
    if (!parsed || !operation)
        return fault("soap:Client", "El mensaje no es un pedido SOAP");
    operation_name = local_name(operation);
    static const std::map<Kind, std::vector<std::string>> operations = {
        {Kind::constancia, {"dummy", "getPersona", "getPersona_v2", "getPersonaList", "getPersonaList_v2"}},
        {Kind::a13, {"dummy", "getPersona", "getIdPersonaListByDocumento"}}};
    const auto& known = operations.at(m_kind);
    if (namespace_of(operation) != ns || std::find(known.begin(), known.end(), operation_name) == known.end())
        return fault("soap:Client", "Operacion desconocida: {" + namespace_of(operation) + "}" + operation_name);
    if (operation_name == "dummy")
        return answer("<return><appserver>OK</appserver><authserver>OK</authserver><dbserver>OK</dbserver></return>", "-> OK");

    const std::string token = text_by_local_name(operation, {"token"});
    const std::string sign = text_by_local_name(operation, {"sign"});
    const std::string represented = text_by_local_name(operation, {"cuitRepresentada"});
    if (!whole_number(represented))
        return fault("soap:Client", "cuitRepresentada debe ser un numero (xs:long)");
    std::vector<std::string> ids;
    for (const pugi::xml_node& child : operation.children())
        if (child.type() == pugi::node_element && local_name(child) == (operation_name == "getIdPersonaListByDocumento" ? "documento" : "idPersona"))
            ids.push_back(text_by_local_name(child, {}));
    const bool by_document = operation_name == "getIdPersonaListByDocumento";
    const bool list = operation_name.rfind("getPersonaList", 0) == 0;
    if (ids.empty() || (ids.size() > 1 && !list))
        return fault("soap:Client", by_document ? "Se espera un documento" : "Se espera un idPersona por persona consultada");
    for (const std::string& id : ids)
        if (!by_document && !whole_number(id))
            return fault("soap:Client", "idPersona debe ser un numero (xs:long)");

    const TicketCheck check = m_tickets.check(token, sign, service_name(), std::to_string(*whole_number(represented)));
    switch (check.problem) {
    case TicketProblem::none:
        break;
    case TicketProblem::empty:
        return fault("soap:Server", empty_credentials);
    case TicketProblem::unknown_token:
    case TicketProblem::wrong_sign:
        return fault("soap:Server", bad_credentials);
    case TicketProblem::other_service:
        return fault("soap:Server", std::string("El token no corresponde al servicio ") + service_name() + " (es de " +
                                        check.ticket->service + ")");
    case TicketProblem::expired:
        return fault("soap:Server", expired_ticket);
    case TicketProblem::unrelated_cuit:
        return fault("soap:Server", "La CUIT representada " + represented + " no esta incluida en el token");
    }

    if (by_document) {
        const std::vector<std::string> cuits = m_padron.cuits_of_document(ids[0]);
        if (cuits.empty())
            return fault("soap:Server", "No existe persona con ese documento");
        std::string found;
        for (const std::string& cuit : cuits)
            found += element("idPersona", cuit);
        return answer("<idPersonaListReturn>" + found + metadata() + "</idPersonaListReturn>",
                      "documento=" + ids[0] + " -> " + std::to_string(cuits.size()) + " found");
    }
    if (list) {
        std::string people;
        for (const std::string& id : ids) {
            const Person* person = m_padron.find(std::to_string(*whole_number(id)));
            people += person ? "<persona>" + persona_return(*person) + "</persona>"
                             : "<persona><errorConstancia>" + element("error", unknown_person) + element("idPersona", id) +
                                   "</errorConstancia></persona>";
        }
        return answer("<personaListReturn>" + metadata() + people + "</personaListReturn>",
                      "cuitRepresentada=" + represented + " -> " + std::to_string(ids.size()) + " personas");
    }
    const Person* person = m_padron.find(std::to_string(*whole_number(ids[0])));
    if (!person)
        return fault("soap:Server", unknown_person);
    const std::string outcome = "idPersona=" + ids[0] + " -> " + (person->active ? "ACTIVO" : "INACTIVO");
    if (m_kind == Kind::a13)
        return answer("<personaReturn>" + metadata() + "<persona>" + a13_persona(*person) + "</persona></personaReturn>", outcome);
    return answer("<personaReturn>" + persona_return(*person) + metadata() + "</personaReturn>", outcome);
}

// personaReturn's content but its metadata (the list has the metadata once, outside its personas).
std::string RegistryService::persona_return(const Person& person) const
{
    const Person::Address& address = person.address;
    const std::string fiscal_address =
        address.street.empty() ? std::string()
                               : "<domicilioFiscal>" + optional_element("codPostal", address.postal_code) +
                                     optional_element("descripcionProvincia", address.province) +
                                     element("direccion", address.street) + element("idProvincia", std::to_string(address.province_id)) +
                                     optional_element("localidad", address.locality) + element("tipoDomicilio", "FISCAL") +
                                     "</domicilioFiscal>";
    const std::string general = "<datosGenerales>" + optional_element("apellido", person.surname) + fiscal_address +
                                element("estadoClave", person.active ? "ACTIVO" : "INACTIVO") + element("idPersona", person.cuit) +
                                optional_element("nombre", person.first_name) + optional_element("razonSocial", person.business_name) +
                                element("tipoClave", "CUIT") + element("tipoPersona", person.kind) + "</datosGenerales>";
    if (!person.active)
        // No constancia for an inactive key: its data, and the reason in errorConstancia.
        return general + "<errorConstancia>" + optional_element("apellido", person.surname) +
               element("error", "La clave se encuentra inactiva") + element("idPersona", person.cuit) +
               optional_element("nombre", person.first_name) + "</errorConstancia>";

    const std::string activity =
        person.activity_id == 0 ? std::string()
                                : "<actividad>" + element("descripcionActividad", person.activity) +
                                      element("idActividad", std::to_string(person.activity_id)) + element("orden", "1") +
                                      "</actividad>";
    std::string monotributo;
    if (person.monotributo) {
        const Person::Monotributo& m = *person.monotributo;
        const std::string tax = m.tax_id == 20 ? "MONOTRIBUTO" : "MONOTRIBUTO AUTONOMO";
        monotributo = "<datosMonotributo>" + activity + "<categoriaMonotributo>" + element("descripcionCategoria", m.category) +
                      element("idCategoria", std::to_string(m.category.empty() ? 0 : m.category[0] - 'A' + 1)) +
                      element("idImpuesto", std::to_string(m.tax_id)) + element("periodo", std::to_string(m.period)) +
                      "</categoriaMonotributo><impuesto>" + element("descripcionImpuesto", tax) +
                      element("idImpuesto", std::to_string(m.tax_id)) + element("periodo", std::to_string(m.period)) +
                      "</impuesto></datosMonotributo>";
    }
    std::string general_regime;
    if (!person.taxes.empty()) {
        general_regime = "<datosRegimenGeneral>" + (person.monotributo ? std::string() : activity);
        for (const Person::Tax& tax : person.taxes)
            general_regime += "<impuesto>" + element("descripcionImpuesto", tax.description) +
                              element("idImpuesto", std::to_string(tax.id)) + element("periodo", std::to_string(tax.period)) +
                              "</impuesto>";
        general_regime += "</datosRegimenGeneral>";
    }
    return general + monotributo + general_regime;
}

std::string RegistryService::a13_persona(const Person& person) const
{
    const Person::Address& address = person.address;
    const std::string addresses =
        address.street.empty() ? std::string()
                               : "<domicilio>" + optional_element("codigoPostal", address.postal_code) +
                                     optional_element("descripcionProvincia", address.province) +
                                     element("direccion", address.street) + element("estadoDomicilio", "CONFIRMADO") +
                                     element("idProvincia", std::to_string(address.province_id)) +
                                     optional_element("localidad", address.locality) + element("tipoDomicilio", "FISCAL") +
                                     "</domicilio>";
    const std::string document = document_of(person);
    return optional_element("apellido", person.surname) + optional_element("descripcionActividadPrincipal", person.activity) +
           addresses + element("estadoClave", person.active ? "ACTIVO" : "INACTIVO") +
           (person.activity_id ? element("idActividadPrincipal", std::to_string(person.activity_id)) : std::string()) +
           element("idPersona", person.cuit) + optional_element("nombre", person.first_name) +
           optional_element("numeroDocumento", document) + optional_element("razonSocial", person.business_name) +
           element("tipoClave", "CUIT") + (document.empty() ? std::string() : element("tipoDocumento", "DNI")) +
           element("tipoPersona", person.kind);
}
