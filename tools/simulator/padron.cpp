#include "padron.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "parameters.h"

namespace {

// The built-in padrón in the form --padron reads: one person of each condition.
const char built_in_padron[] = R"json({
 "20111111112": {"tipoPersona": "FISICA", "apellido": "GOMEZ", "nombre": "JUAN CARLOS",
                 "domicilioFiscal": {"direccion": "AV CORRIENTES 1234 Piso:3 Dpto:B", "localidad": "CAPITAL FEDERAL",
                                     "codPostal": "1043", "idProvincia": 0, "descripcionProvincia": "CIUDAD AUTONOMA BUENOS AIRES"},
                 "impuestos": [{"idImpuesto": 11, "periodo": 201001}, {"idImpuesto": 30, "periodo": 201001}],
                 "actividad": {"idActividad": 620100, "descripcionActividad": "SERVICIOS DE CONSULTORES EN INFORMATICA"}},
 "30500010912": {"tipoPersona": "JURIDICA", "razonSocial": "COMERCIAL DEL PLATA SA",
                 "domicilioFiscal": {"direccion": "SAN MARTIN 500", "localidad": "ROSARIO", "codPostal": "2000",
                                     "idProvincia": 12, "descripcionProvincia": "SANTA FE"},
                 "impuestos": [{"idImpuesto": 10, "periodo": 199907}, {"idImpuesto": 30, "periodo": 199907}],
                 "actividad": {"idActividad": 471900, "descripcionActividad": "VENTA AL POR MENOR EN COMERCIOS NO ESPECIALIZADOS"}},
 "30711111111": {"tipoPersona": "JURIDICA", "razonSocial": "FUNDACION AYUDA MUTUA",
                 "domicilioFiscal": {"direccion": "BELGRANO 77", "localidad": "CORDOBA", "codPostal": "5000",
                                     "idProvincia": 3, "descripcionProvincia": "CORDOBA"},
                 "impuestos": [{"idImpuesto": 32, "periodo": 201503}]},
 "20333333334": {"tipoPersona": "FISICA", "apellido": "FERNANDEZ", "nombre": "ANA MARIA",
                 "domicilioFiscal": {"direccion": "CALLE 7 1020", "localidad": "LA PLATA", "codPostal": "1900",
                                     "idProvincia": 1, "descripcionProvincia": "BUENOS AIRES"}},
 "20222222223": {"tipoPersona": "FISICA", "apellido": "LOPEZ", "nombre": "MARTIN",
                 "domicilioFiscal": {"direccion": "MITRE 45", "localidad": "MENDOZA", "codPostal": "5500",
                                     "idProvincia": 7, "descripcionProvincia": "MENDOZA"},
                 "categoriaMonotributo": {"descripcionCategoria": "D", "idImpuesto": 20, "periodo": 202401}},
 "30000000007": {"tipoPersona": "JURIDICA", "razonSocial": "MONOTRIBUTO DE HOMOLOGACION SH",
                 "categoriaMonotributo": {"descripcionCategoria": "B", "idImpuesto": 20, "periodo": 202001}},
 "23000000000": {"tipoPersona": "FISICA", "apellido": "NO CATEGORIZADO", "condicionIva": 7},
 "30722222225": {"tipoPersona": "JURIDICA", "razonSocial": "EXPORT PROVIDER LLC", "condicionIva": 8},
 "30733333339": {"tipoPersona": "JURIDICA", "razonSocial": "FOREIGN CLIENT INC", "condicionIva": 9},
 "20555555556": {"tipoPersona": "FISICA", "apellido": "USHUAIA", "nombre": "PEDRO", "condicionIva": 10},
 "27666666661": {"tipoPersona": "FISICA", "apellido": "SOCIAL", "nombre": "MARIA", "condicionIva": 13,
                 "categoriaMonotributo": {"descripcionCategoria": "A", "idImpuesto": 20, "periodo": 202301}},
 "30744444442": {"tipoPersona": "JURIDICA", "razonSocial": "ASOCIACION NO ALCANZADA", "condicionIva": 15},
 "20777777778": {"tipoPersona": "FISICA", "apellido": "PROMOVIDO", "nombre": "LUIS", "condicionIva": 16,
                 "categoriaMonotributo": {"descripcionCategoria": "A", "idImpuesto": 21, "periodo": 202301}},
 "20888888889": {"tipoPersona": "FISICA", "apellido": "BAJA", "nombre": "ROBERTO", "estadoClave": "INACTIVO",
                 "domicilioFiscal": {"direccion": "RIVADAVIA 9000", "localidad": "CAPITAL FEDERAL", "codPostal": "1407",
                                     "idProvincia": 0, "descripcionProvincia": "CIUDAD AUTONOMA BUENOS AIRES"},
                 "impuestos": [{"idImpuesto": 30, "periodo": 200501}]}
})json";

// Conditions no tax of the constancia shows: a padrón states them.
constexpr int stated_conditions[] = {7, 8, 9, 10, 13, 15, 16};

const char* tax_description(int id)
{
    static const std::pair<int, const char*> names[] = {
        {10, "GANANCIAS SOCIEDADES"}, {11, "GANANCIAS PERSONAS FISICAS"}, {20, "MONOTRIBUTO"},
        {21, "MONOTRIBUTO AUTONOMO"}, {30, "IVA"}, {32, "IVA EXENTO"}, {301, "EMPLEADOR-APORTES SEG. SOCIAL"}};
    for (const auto& [tax, name] : names)
        if (tax == id)
            return name;
    return "IMPUESTO";
}

bool is_cuit(const std::string& text)
{
    return text.size() == 11 && text.find_first_not_of("0123456789") == std::string::npos;
}

// Reads one person; `where` ("padron.json: 20111111112") starts every message.
class PersonReader {
public:
    PersonReader(const nlohmann::json& entry, std::string where) : m_entry(entry), m_where(std::move(where)) {}

    std::string text(const nlohmann::json& object, const char* name, bool required = false) const
    {
        const auto found = object.find(name);
        if (found == object.end() || found->is_null()) {
            if (required)
                fail(std::string(name) + " is missing");
            return {};
        }
        if (!found->is_string())
            fail(std::string(name) + " must be text");
        return *found;
    }

    long long number(const nlohmann::json& object, const char* name, long long fallback, long long lowest, long long highest) const
    {
        const auto found = object.find(name);
        if (found == object.end() || found->is_null())
            return fallback;
        if (!found->is_number_integer() || found->get<long long>() < lowest || found->get<long long>() > highest)
            fail(std::string(name) + " must be a whole number from " + std::to_string(lowest) + " to " + std::to_string(highest));
        return *found;
    }

    const nlohmann::json& object(const char* name) const
    {
        static const nlohmann::json none = nlohmann::json::object();
        const auto found = m_entry.find(name);
        if (found == m_entry.end() || found->is_null())
            return none;
        if (!found->is_object())
            fail(std::string(name) + " must be an object");
        return *found;
    }

    Person read(const std::string& cuit) const
    {
        static const char* const fields[] = {"tipoPersona", "razonSocial", "apellido", "nombre", "estadoClave",
                                             "domicilioFiscal", "impuestos", "categoriaMonotributo", "actividad", "condicionIva"};
        for (const auto& item : m_entry.items()) {
            const std::string name = item.key();
            if (std::find_if(std::begin(fields), std::end(fields), [&](const char* f) { return name == f; }) == std::end(fields))
                fail("unknown field " + name);
        }
        Person person;
        person.cuit = cuit;
        person.kind = text(m_entry, "tipoPersona", true);
        if (person.kind != "FISICA" && person.kind != "JURIDICA")
            fail("tipoPersona must be FISICA or JURIDICA");
        person.business_name = text(m_entry, "razonSocial", person.kind == "JURIDICA");
        person.surname = text(m_entry, "apellido", person.kind == "FISICA");
        person.first_name = text(m_entry, "nombre");
        const std::string state = text(m_entry, "estadoClave");
        if (!state.empty() && state != "ACTIVO" && state != "INACTIVO")
            fail("estadoClave must be ACTIVO or INACTIVO");
        person.active = state != "INACTIVO";
        const nlohmann::json& address = object("domicilioFiscal");
        person.address = {text(address, "direccion"), text(address, "localidad"), text(address, "codPostal"),
                          static_cast<int>(number(address, "idProvincia", 0, 0, 24)), text(address, "descripcionProvincia")};
        const auto taxes = m_entry.find("impuestos");
        if (taxes != m_entry.end() && !taxes->is_array())
            fail("impuestos must be a list");
        if (taxes != m_entry.end())
            for (const nlohmann::json& tax : *taxes) {
                if (!tax.is_object())
                    fail("each of impuestos must be an object");
                const int id = static_cast<int>(number(tax, "idImpuesto", -1, 1, 9999));
                if (id < 0)
                    fail("idImpuesto is missing");
                const std::string description = text(tax, "descripcionImpuesto");
                person.taxes.push_back({id, description.empty() ? tax_description(id) : description,
                                        static_cast<int>(number(tax, "periodo", 201901, 190001, 299912))});
            }
        const nlohmann::json& category = object("categoriaMonotributo");
        if (!category.empty()) {
            const int tax = static_cast<int>(number(category, "idImpuesto", 20, 20, 21));
            person.monotributo = Person::Monotributo{text(category, "descripcionCategoria", true), tax,
                                                     static_cast<int>(number(category, "periodo", 201901, 190001, 299912))};
        }
        const nlohmann::json& activity = object("actividad");
        person.activity_id = number(activity, "idActividad", 0, 0, 999999);
        person.activity = text(activity, "descripcionActividad");
        const long long condition = number(m_entry, "condicionIva", 0, 0, 99);
        if (condition != 0 && std::find(std::begin(stated_conditions), std::end(stated_conditions), condition) == std::end(stated_conditions))
            fail("condicionIva states only what no tax shows (7, 8, 9, 10, 13, 15, 16); 1, 4, 5 and 6 follow from impuestos "
                 "and categoriaMonotributo");
        if (condition != 0)
            person.stated_condition = static_cast<int>(condition);
        return person;
    }

    [[noreturn]] void fail(const std::string& problem) const { throw std::runtime_error(m_where + ": " + problem); }

private:
    const nlohmann::json& m_entry;
    std::string m_where;
};

// The old form, a condition id alone: the taxes that show it, and a name made of the CUIT.
Person person_of_condition(const std::string& cuit, int condition)
{
    Person person;
    person.cuit = cuit;
    const bool company = cuit.rfind("30", 0) == 0 || cuit.rfind("33", 0) == 0 || cuit.rfind("34", 0) == 0;
    person.kind = company ? "JURIDICA" : "FISICA";
    (company ? person.business_name : person.surname) = "CONTRIBUYENTE " + cuit;
    if (condition == 1 || condition == 4)
        person.taxes.push_back({condition == 1 ? 30 : 32, tax_description(condition == 1 ? 30 : 32), 201901});
    else if (condition == 6)
        person.monotributo = Person::Monotributo{"A", 20, 201901};
    else if (condition != 5)
        person.stated_condition = condition;
    return person;
}

nlohmann::json json_of(const Person& person)
{
    nlohmann::json entry = {{"tipoPersona", person.kind}, {"estadoClave", person.active ? "ACTIVO" : "INACTIVO"}};
    if (!person.business_name.empty())
        entry["razonSocial"] = person.business_name;
    if (!person.surname.empty())
        entry["apellido"] = person.surname;
    if (!person.first_name.empty())
        entry["nombre"] = person.first_name;
    const Person::Address& a = person.address;
    entry["domicilioFiscal"] = {{"direccion", a.street}, {"localidad", a.locality}, {"codPostal", a.postal_code},
                                {"idProvincia", a.province_id}, {"descripcionProvincia", a.province}};
    entry["impuestos"] = nlohmann::json::array();
    for (const Person::Tax& tax : person.taxes)
        entry["impuestos"].push_back({{"idImpuesto", tax.id}, {"descripcionImpuesto", tax.description}, {"periodo", tax.period}});
    if (person.monotributo)
        entry["categoriaMonotributo"] = {{"descripcionCategoria", person.monotributo->category},
                                         {"idImpuesto", person.monotributo->tax_id}, {"periodo", person.monotributo->period}};
    if (person.activity_id)
        entry["actividad"] = {{"idActividad", person.activity_id}, {"descripcionActividad", person.activity}};
    if (person.stated_condition)
        entry["condicionIva"] = *person.stated_condition;
    return entry;
}

} // namespace

int Person::vat_condition() const
{
    const auto has_tax = [&](int id) {
        return std::any_of(taxes.begin(), taxes.end(), [id](const Tax& tax) { return tax.id == id; });
    };
    return stated_condition ? *stated_condition : monotributo ? 6 : has_tax(30) ? 1 : has_tax(32) ? 4 : 5;
}

std::string Person::display_name() const
{
    return kind == "JURIDICA" ? business_name : first_name.empty() ? surname : surname + " " + first_name;
}

Padron::Padron() : Padron(from_json(nlohmann::json::parse(built_in_padron), "the built-in padron")) {}

Padron Padron::from_file(const std::string& path)
{
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    return from_json(nlohmann::json::parse(file, nullptr, false), path);
}

Padron Padron::from_json(const nlohmann::json& document, const std::string& origin)
{
    if (!document.is_object())
        throw std::runtime_error(origin + " is not a JSON object of CUITs and the taxpayers they name");
    std::map<std::string, Person> people;
    for (const auto& [cuit, entry] : document.items()) {
        if (!is_cuit(cuit))
            throw std::runtime_error(origin + ": '" + cuit + "' is not a CUIT of 11 digits");
        if (entry.is_object()) {
            people[cuit] = PersonReader(entry, origin + ": " + cuit).read(cuit);
            continue;
        }
        const auto& known = receptor_conditions();
        const long long id = entry.is_number_integer() ? entry.get<long long>() : -1;
        if (std::none_of(known.begin(), known.end(), [id](const ReceptorCondition& c) { return c.id == id; }))
            throw std::runtime_error(origin + ": " + cuit +
                                     " is neither a taxpayer (an object) nor an id of FEParamGetCondicionIvaReceptor");
        people[cuit] = person_of_condition(cuit, static_cast<int>(id));
    }
    return Padron(std::move(people));
}

nlohmann::json Padron::to_json() const
{
    nlohmann::json document = nlohmann::json::object();
    for (const auto& [cuit, person] : m_people)
        document[cuit] = json_of(person);
    return document;
}

const Person* Padron::find(const std::string& cuit) const
{
    const auto found = m_people.find(cuit);
    return found == m_people.end() ? nullptr : &found->second;
}

std::optional<int> Padron::condition_of(std::int64_t cuit) const
{
    const Person* person = find(std::to_string(cuit));
    if (!person || !person->active)
        return std::nullopt;
    return person->vat_condition();
}

std::vector<std::string> Padron::cuits_of_document(const std::string& document) const
{
    // A DNI of seven digits stands in a CUIT with a leading zero.
    const std::string padded = document.size() < 8 ? std::string(8 - document.size(), '0') + document : document;
    std::vector<std::string> cuits;
    for (const auto& [cuit, person] : m_people)
        if (person.kind == "FISICA" && !document.empty() && padded.size() == 8 && cuit.compare(2, 8, padded) == 0)
            cuits.push_back(cuit);
    return cuits;
}
