#include "invoicing/afip_codes.h"

namespace {

constexpr VoucherTypeInfo voucher_types[] = {
    {1, 'A', VoucherKind::invoice, "FACTURA"},
    {2, 'A', VoucherKind::debit_note, "NOTA DE DÉBITO"},
    {3, 'A', VoucherKind::credit_note, "NOTA DE CRÉDITO"},
    {4, 'A', VoucherKind::receipt, "RECIBO"},
    {5, 'A', VoucherKind::cash_sale_note, "NOTA DE VENTA AL CONTADO"},
    {6, 'B', VoucherKind::invoice, "FACTURA"},
    {7, 'B', VoucherKind::debit_note, "NOTA DE DÉBITO"},
    {8, 'B', VoucherKind::credit_note, "NOTA DE CRÉDITO"},
    {9, 'B', VoucherKind::receipt, "RECIBO"},
    {10, 'B', VoucherKind::cash_sale_note, "NOTA DE VENTA AL CONTADO"},
    {11, 'C', VoucherKind::invoice, "FACTURA"},
    {12, 'C', VoucherKind::debit_note, "NOTA DE DÉBITO"},
    {13, 'C', VoucherKind::credit_note, "NOTA DE CRÉDITO"},
    {15, 'C', VoucherKind::receipt, "RECIBO"},
    {19, 'E', VoucherKind::invoice, "FACTURA DE EXPORTACIÓN"},
    {20, 'E', VoucherKind::debit_note, "NOTA DE DÉBITO POR OPERACIONES CON EL EXTERIOR"},
    {21, 'E', VoucherKind::credit_note, "NOTA DE CRÉDITO POR OPERACIONES CON EL EXTERIOR"},
    {51, 'M', VoucherKind::invoice, "FACTURA"},
    {52, 'M', VoucherKind::debit_note, "NOTA DE DÉBITO"},
    {53, 'M', VoucherKind::credit_note, "NOTA DE CRÉDITO"},
    {54, 'M', VoucherKind::receipt, "RECIBO"},
    {201, 'A', VoucherKind::invoice, "FACTURA DE CRÉDITO ELECTRÓNICA MiPyMEs (FCE)"},
    {202, 'A', VoucherKind::debit_note, "NOTA DE DÉBITO ELECTRÓNICA MiPyMEs (FCE)"},
    {203, 'A', VoucherKind::credit_note, "NOTA DE CRÉDITO ELECTRÓNICA MiPyMEs (FCE)"},
    {206, 'B', VoucherKind::invoice, "FACTURA DE CRÉDITO ELECTRÓNICA MiPyMEs (FCE)"},
    {207, 'B', VoucherKind::debit_note, "NOTA DE DÉBITO ELECTRÓNICA MiPyMEs (FCE)"},
    {208, 'B', VoucherKind::credit_note, "NOTA DE CRÉDITO ELECTRÓNICA MiPyMEs (FCE)"},
    {211, 'C', VoucherKind::invoice, "FACTURA DE CRÉDITO ELECTRÓNICA MiPyMEs (FCE)"},
    {212, 'C', VoucherKind::debit_note, "NOTA DE DÉBITO ELECTRÓNICA MiPyMEs (FCE)"},
    {213, 'C', VoucherKind::credit_note, "NOTA DE CRÉDITO ELECTRÓNICA MiPyMEs (FCE)"},
};

constexpr struct {
    char letter;
    VatDisplay display;
} vat_displays[] = {
    {'A', VatDisplay::itemised}, {'M', VatDisplay::itemised}, {'B', VatDisplay::included},
    {'C', VatDisplay::none},     {'E', VatDisplay::none},
};

struct NamedCode {
    int id;
    const char* name;
};

constexpr NamedCode document_types[] = {
    {80, "CUIT"}, {86, "CUIL"}, {87, "CDI"},           {89, "LE"},  {90, "LC"},
    {91, "CI Extranjera"},      {92, "en trámite"},    {93, "Acta Nacimiento"},
    {94, "Pasaporte"},          {95, "CI Bs. As. RNP"}, {96, "DNI"}, {99, "Doc. (Otro)"},
};

constexpr NamedCode vat_conditions[] = {
    {1, "IVA Responsable Inscripto"},
    {4, "IVA Sujeto Exento"},
    {5, "Consumidor Final"},
    {6, "Responsable Monotributo"},
    {7, "Sujeto No Categorizado"},
    {8, "Proveedor del Exterior"},
    {9, "Cliente del Exterior"},
    {10, "IVA Liberado - Ley N° 19.640"},
    {13, "Monotributista Social"},
    {15, "IVA No Alcanzado"},
    {16, "Monotributo Trabajador Independiente Promovido"},
};

constexpr NamedCode concepts[] = {{1, "Producto"}, {2, "Servicios"}, {3, "Productos y Servicios"}};

constexpr VatRateInfo vat_rates[] = {{3, 0}, {4, 10.5}, {5, 21}, {6, 27}, {8, 5}, {9, 2.5}};

constexpr TaxTypeInfo tax_types[] = {
    {1, "Impuestos nacionales", true},
    {2, "Impuestos provinciales", false},
    {3, "Impuestos municipales", false},
    {4, "Impuestos Internos", true},
    {5, "IIBB", false},
    {6, "Percepción de IVA", false},
    {7, "Percepción de IIBB", false},
    {8, "Percepciones por Impuestos Municipales", false},
    {9, "Otras Percepciones", false},
    {13, "Percepción de IVA a no Categorizado", false},
    {99, "Otro", false},
};

constexpr CurrencyInfo currencies[] = {
    {"PES", "Pesos Argentinos", "$"},
    {"DOL", "Dólar Estadounidense", "U$S"},
    {"060", "Euro", "EUR"},
    {"012", "Real", "R$"},
};

template <typename Row, size_t size>
const Row* find_by_id(const Row (&table)[size], int id)
{
    for (const Row& row : table)
        if (row.id == id)
            return &row;
    return nullptr;
}

template <size_t size>
const char* name_of(const NamedCode (&table)[size], int id)
{
    const NamedCode* row = find_by_id(table, id);
    return row ? row->name : nullptr;
}

} // namespace

const VoucherTypeInfo* voucher_type_info(int id) { return find_by_id(voucher_types, id); }

VatDisplay vat_display(char letter)
{
    for (const auto& row : vat_displays)
        if (row.letter == letter)
            return row.display;
    return VatDisplay::none;
}

const char* document_type_name(int id) { return name_of(document_types, id); }
const char* vat_condition_name(int id) { return name_of(vat_conditions, id); }
const char* concept_name(int id) { return name_of(concepts, id); }
const VatRateInfo* vat_rate_info(int id) { return find_by_id(vat_rates, id); }
const TaxTypeInfo* tax_type_info(int id) { return find_by_id(tax_types, id); }

const CurrencyInfo* currency_info(const std::string& id)
{
    for (const CurrencyInfo& row : currencies)
        if (id == row.id)
            return &row;
    return nullptr;
}

bool valid_cuit(const std::string& digits)
{
    static const int weights[] = {5, 4, 3, 2, 7, 6, 5, 4, 3, 2};
    if (digits.size() != 11 || digits.find_first_not_of("0123456789") != std::string::npos)
        return false;
    int sum = 0;
    for (size_t i = 0; i < 10; ++i)
        sum += (digits[i] - '0') * weights[i];
    // 11 - 0 is written 0; 10 matches no digit, as AFIP issues no such CUIT.
    return (11 - sum % 11) % 11 == digits[10] - '0';
}
