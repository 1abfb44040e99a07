#include "invoicing/registry.h"

#include <pugixml.hpp>

#include <algorithm>

#include "invoicing/afip_codes.h"
#include "util/xml_names.h"

namespace {

struct ServiceRow {
    RegistryService service;
    const char* name;
    const char* name_space;
    const char* operation;
};
const ServiceRow services[] = {
    {RegistryService::constancia, "ws_sr_constancia_inscripcion", "http://a5.soap.ws.server.puc.sr/", "getPersona_v2"},
    {RegistryService::a13, "ws_sr_padron_a13", "http://a13.soap.ws.server.puc.sr/", "getPersona"},
};

const ServiceRow& row_of(RegistryService service)
{
    return *std::find_if(std::begin(services), std::end(services),
                         [&](const ServiceRow& row) { return row.service == service; });
}

// The receptor's VAT conditions as FEParamGetCondicionIvaReceptor lists them, with the voucher
// classes each may receive.
struct ConditionRow {
    int id;
    std::vector<const char*> classes;
};
const ConditionRow conditions[] = {
    {1, {"A", "ALEY", "C"}},  {4, {"B", "C"}},         {5, {"B", "C", "49"}}, {6, {"A", "ALEY", "C"}},
    {7, {"B", "C"}},          {8, {"B", "C"}},         {9, {"B", "C"}},       {10, {"B", "C"}},
    {13, {"A", "ALEY", "C"}}, {15, {"B", "C"}},        {16, {"A", "ALEY", "C"}},
};

// How the condition follows from the constancia, first match wins.
struct DerivationRow {
    int tax; // idImpuesto in the general regime; 0: a monotributo category
    int condition;
};
const DerivationRow derivations[] = {
    {30, 1}, // IVA
    {0, 6},  // monotributo
    {32, 4}, // IVA exento
};
constexpr int no_tax_condition = 5; // consumidor final

std::string text(const pugi::xml_node& node, const char* name)
{
    return child_by_local_name(node, name).text().get();
}

RegistryAddress address_of(const pugi::xml_node& node, bool a13)
{
    RegistryAddress address;
    address.street = text(node, "direccion");
    address.locality = text(node, "localidad");
    address.postal_code = text(node, a13 ? "codigoPostal" : "codPostal");
    address.province = text(node, "descripcionProvincia");
    if (child_by_local_name(node, "idProvincia"))
        address.province_id = child_by_local_name(node, "idProvincia").text().as_int();
    return address;
}

std::string name_of(const pugi::xml_node& node)
{
    const std::string company = text(node, "razonSocial");
    if (!company.empty())
        return company;
    const std::string surname = text(node, "apellido"), names = text(node, "nombre");
    return surname + (surname.empty() || names.empty() ? "" : " ") + names;
}

void add_errors(std::vector<std::string>& errors, const pugi::xml_node& node)
{
    for (const pugi::xml_node& error : node.children())
        if (error.type() == pugi::node_element && local_name(error) == "error")
            errors.push_back(error.text().get());
}

RegistryPerson read_constancia(const pugi::xml_node& answer)
{
    RegistryPerson person;
    const pugi::xml_node general = child_by_local_name(answer, "datosGenerales");
    person.cuit = child_by_local_name(general, "idPersona").text().as_llong();
    person.name = name_of(general);
    person.person_type = text(general, "tipoPersona");
    person.key_state = text(general, "estadoClave");
    person.address = address_of(child_by_local_name(general, "domicilioFiscal"), false);
    const pugi::xml_node regime = child_by_local_name(answer, "datosRegimenGeneral");
    for (const pugi::xml_node& tax : regime.children())
        if (tax.type() == pugi::node_element && local_name(tax) == "impuesto")
            person.taxes.push_back({child_by_local_name(tax, "idImpuesto").text().as_int(), text(tax, "descripcionImpuesto"),
                                    child_by_local_name(tax, "periodo").text().as_int()});
    const pugi::xml_node monotributo = child_by_local_name(answer, "datosMonotributo");
    person.monotributo_category = text(child_by_local_name(monotributo, "categoriaMonotributo"), "descripcionCategoria");
    if (monotributo && person.monotributo_category.empty())
        person.monotributo_category = "?";
    const pugi::xml_node failure = child_by_local_name(answer, "errorConstancia");
    // A constancia refused (an inactive key, say) carries no tax data to derive a condition from.
    person.has_tax_data = !failure || regime || monotributo;
    if (!person.cuit)
        person.cuit = child_by_local_name(failure, "idPersona").text().as_llong();
    for (const char* list : {"errorConstancia", "errorRegimenGeneral", "errorMonotributo"})
        add_errors(person.errors, child_by_local_name(answer, list));
    return person;
}

RegistryPerson read_a13(const pugi::xml_node& answer)
{
    RegistryPerson person;
    const pugi::xml_node found = child_by_local_name(answer, "persona");
    person.cuit = child_by_local_name(found, "idPersona").text().as_llong();
    person.name = name_of(found);
    person.person_type = text(found, "tipoPersona");
    person.key_state = text(found, "estadoClave");
    // The fiscal address, else the first.
    pugi::xml_node chosen;
    for (const pugi::xml_node& address : found.children()) {
        const bool is_address = address.type() == pugi::node_element && local_name(address) == "domicilio";
        if (is_address && (!chosen || text(address, "tipoDomicilio") == "FISCAL"))
            chosen = address;
        if (is_address && text(address, "tipoDomicilio") == "FISCAL")
            break;
    }
    person.address = address_of(chosen, true);
    return person;
}

} // namespace

const char* registry_service_name(RegistryService service)
{
    return row_of(service).name;
}

std::optional<RegistryService> registry_service_of(const std::string& name)
{
    for (const ServiceRow& row : services)
        if (name == row.name)
            return row.service;
    return std::nullopt;
}

std::string registry_request(RegistryService service, std::int64_t represented_cuit, std::int64_t cuit)
{
    const ServiceRow& row = row_of(service);
    // Document/literal with unqualified children: token and sign unprefixed, where the library
    // writes the ticket.
    return std::string("<soapenv:Envelope xmlns:soapenv=\"http://schemas.xmlsoap.org/soap/envelope/\" xmlns:reg=\"") +
           row.name_space + "\"><soapenv:Header/><soapenv:Body><reg:" + row.operation +
           "><token></token><sign></sign><cuitRepresentada>" + std::to_string(represented_cuit) +
           "</cuitRepresentada><idPersona>" + std::to_string(cuit) + "</idPersona></reg:" + row.operation +
           "></soapenv:Body></soapenv:Envelope>";
}

std::optional<RegistryAnswer> read_registry_answer(RegistryService service, const std::string& xml)
{
    pugi::xml_document document;
    if (!document.load_buffer(xml.data(), xml.size()))
        return std::nullopt;
    const auto find = [&](const char* name) {
        return document.find_node([name](const pugi::xml_node& node) { return local_name(node) == name; });
    };
    if (const pugi::xml_node fault = find("Fault"))
        return RegistryAnswer{std::nullopt, text(fault, "faultstring")};
    const pugi::xml_node answer = find("personaReturn");
    if (!answer)
        return std::nullopt;
    return RegistryAnswer{service == RegistryService::constancia ? read_constancia(answer) : read_a13(answer), ""};
}

bool is_unknown_person_fault(const std::string& fault)
{
    return fault.find("No existe persona") != std::string::npos;
}

std::optional<int> receptor_condition(const RegistryPerson& person)
{
    if (!person.has_tax_data)
        return std::nullopt;
    for (const DerivationRow& rule : derivations) {
        const bool shown = rule.tax == 0 ? !person.monotributo_category.empty()
                                         : std::any_of(person.taxes.begin(), person.taxes.end(),
                                                       [&](const RegistryTax& tax) { return tax.id == rule.tax; });
        if (shown)
            return rule.condition;
    }
    return no_tax_condition;
}

const char* receptor_condition_description(int condition)
{
    const char* name = vat_condition_name(condition);
    return name != nullptr ? name : "";
}

std::string condition_class_of(int voucher_type)
{
    const int used_goods = 49;
    const VoucherTypeInfo* type = voucher_type_info(voucher_type);
    if (voucher_type == used_goods)
        return "49";
    if (type == nullptr)
        return "";
    if (type->letter == 'M') // "A con leyenda" since Factura M was abolished
        return "ALEY";
    return std::string(1, type->letter);
}

bool condition_fits_class(int condition, const std::string& voucher_class)
{
    for (const ConditionRow& row : conditions)
        if (row.id == condition)
            return std::any_of(row.classes.begin(), row.classes.end(),
                               [&](const char* name) { return voucher_class == name; });
    return false;
}
