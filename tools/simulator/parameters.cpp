#include "parameters.h"

#include <algorithm>

const std::vector<ParameterTable>& parameter_tables()
{
    static const std::vector<ParameterTable> tables = {
        {"FEParamGetTiposCbte", "CbteTipo", "20100917", {"Id", "Desc"},
         {{"1", "Factura A"}, {"2", "Nota de Débito A"}, {"3", "Nota de Crédito A"}, {"4", "Recibos A"},
          {"5", "Notas de Venta al contado A"}, {"6", "Factura B"}, {"7", "Nota de Débito B"}, {"8", "Nota de Crédito B"},
          {"9", "Recibos B"}, {"10", "Notas de Venta al contado B"}, {"11", "Factura C"}, {"12", "Nota de Débito C"},
          {"13", "Nota de Crédito C"}, {"15", "Recibo C"},
          {"49", "Comprobante de Compra de Bienes Usados a Consumidor Final"}, {"51", "Factura M"},
          {"52", "Nota de Débito M"}, {"53", "Nota de Crédito M"}, {"54", "Recibo M"},
          {"201", "Factura de Crédito electrónica MiPyMEs (FCE) A"}, {"202", "Nota de Débito electrónica MiPyMEs (FCE) A"},
          {"203", "Nota de Crédito electrónica MiPyMEs (FCE) A"}, {"206", "Factura de Crédito electrónica MiPyMEs (FCE) B"},
          {"207", "Nota de Débito electrónica MiPyMEs (FCE) B"}, {"208", "Nota de Crédito electrónica MiPyMEs (FCE) B"},
          {"211", "Factura de Crédito electrónica MiPyMEs (FCE) C"}, {"212", "Nota de Débito electrónica MiPyMEs (FCE) C"},
          {"213", "Nota de Crédito electrónica MiPyMEs (FCE) C"}}},
        {"FEParamGetTiposDoc", "DocTipo", "20080725", {"Id", "Desc"},
         {{"80", "CUIT"}, {"86", "CUIL"}, {"87", "CDI"}, {"89", "LE"}, {"90", "LC"}, {"94", "Pasaporte"}, {"96", "DNI"},
          {"99", "Doc. (Otro)"}}},
        {"FEParamGetTiposIva", "IvaTipo", "20090220", {"Id", "Desc"},
         {{"3", "0%"}, {"4", "10.5%"}, {"5", "21%"}, {"6", "27%"}, {"8", "5%"}, {"9", "2.5%"}}},
        {"FEParamGetTiposMonedas", "Moneda", "20090403", {"Id", "Desc"},
         {{"PES", "Pesos Argentinos"}, {"DOL", "Dólar Estadounidense"}, {"012", "Real"}, {"060", "Euro"}}},
        {"FEParamGetTiposConcepto", "ConceptoTipo", "20080725", {"Id", "Desc"},
         {{"1", "Producto"}, {"2", "Servicios"}, {"3", "Productos y Servicios"}}},
        {"FEParamGetTiposTributos", "TributoTipo", "20100917", {"Id", "Desc"},
         {{"1", "Impuestos nacionales"}, {"2", "Impuestos provinciales"}, {"3", "Impuestos municipales"},
          {"4", "Impuestos Internos"}, {"5", "IIBB"}, {"6", "Percepción de IVA"}, {"7", "Percepción de IIBB"},
          {"8", "Percepciones por Impuestos Municipales"}, {"9", "Otras Percepciones"},
          {"13", "Percepción de IVA a no Categorizado"}, {"99", "Otro"}}},
        {"FEParamGetTiposOpcional", "OpcionalTipo", "20190401", {"Id", "Desc"},
         {{"22", "Anulación"}, {"27", "Transferencia"}, {"91", "Firmante Doc Tipo"}, {"92", "Firmante Doc Nro"},
          {"93", "Carácter del Firmante"}, {"2101", "CBU del Emisor"}, {"2102", "Alias del Emisor"}}},
        {"FEParamGetTiposPaises", "PaisTipo", nullptr, {"Id", "Desc"},
         {{"200", "ARGENTINA"}, {"202", "BOLIVIA"}, {"203", "BRASIL"}, {"208", "CHILE"}, {"212", "ESTADOS UNIDOS"},
          {"221", "PARAGUAY"}, {"225", "URUGUAY"}}},
        {"FEParamGetActividades", "ActividadesTipo", nullptr, {"Id", "Orden", "Desc"},
         {{"620100", "1", "SERVICIOS DE CONSULTORES EN INFORMÁTICA Y SUMINISTROS DE PROGRAMAS DE INFORMÁTICA"},
          {"471900", "2", "VENTA AL POR MENOR EN COMERCIOS NO ESPECIALIZADOS, SIN PREDOMINIO DE PRODUCTOS ALIMENTICIOS Y BEBIDAS"}}},
    };
    return tables;
}

bool parameter_exists(const std::string& operation, const std::string& id)
{
    for (const ParameterTable& table : parameter_tables())
        if (operation == table.operation)
            return std::any_of(table.rows.begin(), table.rows.end(), [&](const auto& row) { return id == row[0]; });
    return false;
}

const std::vector<ReceptorCondition>& receptor_conditions()
{
    static const std::vector<ReceptorCondition> conditions = {
        {1, "IVA Responsable Inscripto", "A/M/C"}, {4, "IVA Sujeto Exento", "B/C"},
        {5, "Consumidor Final", "B/C/49"},            {6, "Responsable Monotributo", "A/M/C"},
        {7, "Sujeto No Categorizado", "B/C"},      {8, "Proveedor del Exterior", "B/C"},
        {9, "Cliente del Exterior", "B/C"},        {10, "IVA Liberado - Ley N° 19.640", "B/C"},
        {13, "Monotributista Social", "A/M/C"},    {15, "IVA No Alcanzado", "B/C"},
        {16, "Monotributo Trabajador Independiente Promovido", "A/M/C"}};
    return conditions;
}

double vat_percentage(long long id)
{
    static const std::pair<long long, double> rates[] = {{3, 0}, {4, 10.5}, {5, 21}, {6, 27}, {8, 5}, {9, 2.5}};
    for (const auto& [rate_id, percentage] : rates)
        if (rate_id == id)
            return percentage;
    return -1;
}

const std::vector<std::pair<const char*, const char*>>& quotations()
{
    static const std::vector<std::pair<const char*, const char*>> table = {
        {"DOL", "1045.5"}, {"060", "1130.25"}, {"012", "182.4"}};
    return table;
}
