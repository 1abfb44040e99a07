#ifndef TARVO_SIMULATOR_PARAMETERS_H
#define TARVO_SIMULATOR_PARAMETERS_H

#include <string>
#include <utility>
#include <vector>

// Small tables of AFIP's own codes, as the FEParamGet operations give them and the rules check
// them: each row's values under `columns`, then FchDesde `valid_from` with no end ("NULL") when
// the table has dates.
struct ParameterTable {
    const char* operation;
    const char* element;
    const char* valid_from; // nullptr: rows without dates
    std::vector<const char*> columns;
    std::vector<std::vector<const char*>> rows;
};
const std::vector<ParameterTable>& parameter_tables();

// Whether the operation's table has a row with that Id.
bool parameter_exists(const std::string& operation, const std::string& id);

// The receptor's VAT conditions: id, description and the voucher classes (Cmp_Clase) they go with.
struct ReceptorCondition {
    int id;
    const char* description;
    const char* classes;
};
const std::vector<ReceptorCondition>& receptor_conditions();

// The percentage of a VAT rate id of FEParamGetTiposIva; negative for an unknown id.
double vat_percentage(long long id);

// A fixed quotation per foreign currency, against the peso (AFIP quotes no PES).
const std::vector<std::pair<const char*, const char*>>& quotations();

#endif
