#ifndef TARVO_INVOICING_REGISTRY_H
#define TARVO_INVOICING_REGISTRY_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// AFIP's taxpayer registry: who a CUIT is, and the VAT condition a voucher to it must state.

// The registry's two services, each a WSAA service of its own.
enum class RegistryService {
    constancia, // ws_sr_constancia_inscripcion, getPersona_v2: name, address and taxes
    a13,        // ws_sr_padron_a13, getPersona: name and addresses, no tax data
};

const char* registry_service_name(RegistryService service);
// The service of that WSAA name; nullopt for none.
std::optional<RegistryService> registry_service_of(const std::string& name);

struct RegistryAddress {
    std::string street, locality, postal_code, province;
    int province_id = -1; // -1: not given
};

struct RegistryTax {
    int id = 0;
    std::string description;
    int period = 0;
};

// A taxpayer as the registry describes it.
struct RegistryPerson {
    std::int64_t cuit = 0;
    std::string name; // razonSocial, or surname and names
    std::string person_type; // FISICA or JURIDICA
    std::string key_state;   // ACTIVO or INACTIVO
    RegistryAddress address;
    std::vector<RegistryTax> taxes; // the general regime's
    std::string monotributo_category; // empty: not a monotributista
    bool has_tax_data = false;        // the answer carried tax data (the constancia does, A13 not)
    std::vector<std::string> errors;  // errorConstancia, errorRegimenGeneral, errorMonotributo
};

// The request for one CUIT, with empty token and sign for the library to fill.
std::string registry_request(RegistryService service, std::int64_t represented_cuit, std::int64_t cuit);

// What an answer said: a person, or a SOAP fault's text.
struct RegistryAnswer {
    std::optional<RegistryPerson> person;
    std::string fault; // faultstring; empty when there is a person
};

// nullopt when the text is neither a personaReturn nor a SOAP fault.
std::optional<RegistryAnswer> read_registry_answer(RegistryService service, const std::string& xml);

// Whether a fault says the CUIT does not exist.
bool is_unknown_person_fault(const std::string& fault);

// CondicionIVAReceptorId as it follows from the constancia: IVA (impuesto 30) 1, monotributo 6,
// IVA exento (impuesto 32) 4, none of these 5. nullopt without tax data (an A13 answer).
std::optional<int> receptor_condition(const RegistryPerson& person);

// FEParamGetCondicionIvaReceptor's description of a condition.
const char* receptor_condition_description(int condition);

// The class FEParamGetCondicionIvaReceptor takes for a voucher type: "A", "ALEY" (51 to 54),
// "B", "C", "49", or "" for a type of none of them.
std::string condition_class_of(int voucher_type);

// Whether a voucher of that class may go to that condition, by the table AFIP publishes.
bool condition_fits_class(int condition, const std::string& voucher_class);

#endif
