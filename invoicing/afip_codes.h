// AFIP's code tables as WSFEv1's FEParamGet* operations list them, with what a printed voucher
// shows for each code. Lookups return nullptr for a code the table does not hold.
#ifndef TARVO_INVOICING_AFIP_CODES_H
#define TARVO_INVOICING_AFIP_CODES_H

#include <string>

enum class VoucherKind { invoice, debit_note, credit_note, receipt, cash_sale_note };

// How a voucher class shows VAT: itemised per rate on top of net prices (A, M), included in the
// prices (B), or not at all (C: the issuer charges none; E: exports).
enum class VatDisplay { itemised, included, none };

struct VoucherTypeInfo {
    int id;
    char letter;        // the class: 'A', 'B', 'C', 'E', 'M'
    VoucherKind kind;
    const char* name;   // as printed: "FACTURA", "NOTA DE CRÉDITO ELECTRÓNICA MiPyMEs (FCE)"
};

struct VatRateInfo {
    int id;
    double percent;     // 10.5 for id 4
};

struct TaxTypeInfo {
    int id;
    const char* name;
    bool national_indirect;  // counted with VAT under Ley 27.743's consumer transparency
};

struct CurrencyInfo {
    const char* id;     // MonId
    const char* name;
    const char* symbol; // printed before amounts
};

const VoucherTypeInfo* voucher_type_info(int id);
VatDisplay vat_display(char letter);
// FEParamGetTiposDoc: "CUIT", "DNI", "Doc. (Otro)".
const char* document_type_name(int id);
// FEParamGetCondicionIvaReceptor: "IVA Responsable Inscripto", "Consumidor Final".
const char* vat_condition_name(int id);
// FEParamGetTiposConcepto: "Productos", "Servicios", "Productos y Servicios".
const char* concept_name(int id);
const VatRateInfo* vat_rate_info(int id);
// FEParamGetTiposTributos.
const TaxTypeInfo* tax_type_info(int id);
// FEParamGetTiposMonedas, the currencies a till uses; others print their code.
const CurrencyInfo* currency_info(const std::string& id);

// An 11-digit CUIT (or CUIL) whose last digit is the modulo-11 check digit of the other ten.
bool valid_cuit(const std::string& digits);

#endif
