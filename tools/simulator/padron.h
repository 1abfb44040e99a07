#ifndef TARVO_SIMULATOR_PADRON_H
#define TARVO_SIMULATOR_PADRON_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>

// The taxpayers' register the invoicing rules consult: each registered CUIT with its VAT
// condition, an id of FEParamGetCondicionIvaReceptor (1 responsable inscripto, 4 exento, 5
// consumidor final, 6 monotributo...).
class Padron {
public:
    // The CUIT of the certificates the simulator makes and a sample receptor of each condition.
    Padron();
    // A JSON object {"<11 digits>": <condition id>, ...}; throws std::runtime_error saying what is wrong.
    static Padron from_file(const std::string& path);
    // The same from a parsed document; `origin` names it in messages.
    static Padron from_json(const nlohmann::json& document, const std::string& origin);
    // The form from_json reads.
    nlohmann::json to_json() const;

    std::optional<int> condition_of(std::int64_t cuit) const;
    const std::map<std::string, int>& entries() const { return m_conditions; }

private:
    explicit Padron(std::map<std::string, int> conditions) : m_conditions(std::move(conditions)) {}
    std::map<std::string, int> m_conditions;
};

#endif
