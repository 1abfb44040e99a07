#ifndef TARVO_SIMULATOR_PADRON_H
#define TARVO_SIMULATOR_PADRON_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// One taxpayer as AFIP's registry shows it (the constancia de inscripción and the A13 service).
struct Person {
    struct Address {
        std::string street; // direccion
        std::string locality;
        std::string postal_code;
        int province_id = 0;
        std::string province;
    };
    struct Tax {
        int id;                  // idImpuesto: 30 IVA, 32 IVA exento, 20/21 monotributo, 10/11 ganancias...
        std::string description; // descripcionImpuesto
        int period;              // yyyymm
    };
    struct Monotributo {
        std::string category; // descripcionCategoria, "A" to "K"
        int tax_id = 20;      // 20 monotributo, 21 monotributo autónomo
        int period = 0;
    };

    std::string cuit;
    std::string kind;                 // tipoPersona: FISICA or JURIDICA
    std::string business_name;        // razonSocial (JURIDICA)
    std::string surname, first_name;  // apellido and nombre (FISICA)
    bool active = true;               // estadoClave ACTIVO; false: INACTIVO
    Address address;                  // domicilioFiscal
    std::vector<Tax> taxes;           // datosRegimenGeneral/impuesto
    std::optional<Monotributo> monotributo;
    long long activity_id = 0;        // the main activity, 0 for none
    std::string activity;
    std::optional<int> stated_condition; // a condition no tax shows (7, 8, 9, 10, 13, 15, 16)

    // The receptor's VAT condition (CondicionIVAReceptorId) as it follows from the taxes: a stated
    // one, else monotributo 6, IVA (30) 1, IVA exento (32) 4, none of them 5.
    int vat_condition() const;
    // "SURNAME NAME" or the business name.
    std::string display_name() const;
};

// The taxpayers' register that both the registry endpoints and the invoicing rules read.
class Padron {
public:
    // The built-in one: the CUIT of the certificates the simulator makes and a sample of each condition.
    Padron();
    // A JSON object {"<11 digits>": <person or condition id>, ...}; throws std::runtime_error
    // saying which CUIT and field is wrong.
    static Padron from_file(const std::string& path);
    // The same from a parsed document; `origin` names it in messages.
    static Padron from_json(const nlohmann::json& document, const std::string& origin);
    // The rich form from_json reads.
    nlohmann::json to_json() const;

    // Whatever its key's state.
    const Person* find(const std::string& cuit) const;
    // The VAT condition of an active taxpayer; nullopt for one not registered or whose key is inactive.
    std::optional<int> condition_of(std::int64_t cuit) const;
    // The CUITs of the persons whose DNI is `document` (a CUIT's eight middle digits).
    std::vector<std::string> cuits_of_document(const std::string& document) const;

private:
    explicit Padron(std::map<std::string, Person> people) : m_people(std::move(people)) {}
    std::map<std::string, Person> m_people;
};

#endif
