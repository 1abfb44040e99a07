#include "padron.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "parameters.h"

Padron::Padron()
    : m_conditions{{"20111111112", 1}, {"30500010912", 1}, {"30711111111", 4}, {"20333333334", 5},
                   {"20222222223", 6}, {"30000000007", 6}, {"23000000000", 7}, {"30722222225", 8},
                   {"30733333339", 9}, {"20555555556", 10}, {"27666666661", 13}, {"30744444442", 15},
                   {"20777777778", 16}}
{
}

Padron Padron::from_file(const std::string& path)
{
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read " + path);
    return from_json(nlohmann::json::parse(file, nullptr, false), path);
}

nlohmann::json Padron::to_json() const
{
    return m_conditions;
}

Padron Padron::from_json(const nlohmann::json& document, const std::string& path)
{
    if (!document.is_object())
        throw std::runtime_error(path + " is not a JSON object of CUITs and VAT conditions");
    std::map<std::string, int> conditions;
    for (const auto& [cuit, condition] : document.items()) {
        if (cuit.size() != 11 || cuit.find_first_not_of("0123456789") != std::string::npos)
            throw std::runtime_error(path + ": '" + cuit + "' is not a CUIT of 11 digits");
        const auto& known = receptor_conditions();
        const long long id = condition.is_number_integer() ? condition.get<long long>() : -1;
        if (std::none_of(known.begin(), known.end(), [id](const ReceptorCondition& c) { return c.id == id; }))
            throw std::runtime_error(path + ": the condition of " + cuit + " is not an id of FEParamGetCondicionIvaReceptor");
        conditions[cuit] = static_cast<int>(id);
    }
    return Padron(std::move(conditions));
}

std::optional<int> Padron::condition_of(std::int64_t cuit) const
{
    const auto found = m_conditions.find(std::to_string(cuit));
    if (found == m_conditions.end())
        return std::nullopt;
    return found->second;
}
