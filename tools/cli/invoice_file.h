#ifndef TARVO_TOOLS_CLI_INVOICE_FILE_H
#define TARVO_TOOLS_CLI_INVOICE_FILE_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// Money in cents: WSFEv1 takes at most two decimals, and sums compare exactly.
using Cents = std::int64_t;

struct VatRate {
    int id = 0;
    Cents base = 0;
    Cents amount = 0;
};

struct Tax {
    int id = 0;
    std::string description;
    Cents base = 0;
    std::string rate; // the percentage as a decimal text
    Cents amount = 0;
};

struct AssociatedVoucher {
    int type = 0;
    int point_of_sale = 0;
    std::int64_t number = 0;
    std::string cuit; // optional: empty when not given
    std::string date; // optional: empty when not given
};

struct OptionalDatum {
    std::string id;
    std::string value;
};

// One voucher as the invoice file gives it, with WSFEv1's field names.
struct Invoice {
    int point_of_sale = 0; // PtoVta
    int voucher_type = 0;  // CbteTipo
    int concept = 0;       // Concepto
    int document_type = 0; // DocTipo
    std::int64_t document_number = 0; // DocNro: CUITs do not fit 32 bits
    std::optional<std::int64_t> number; // CbteNro: absent, the next one
    std::string date;                   // CbteFch yyyymmdd: empty, today in Argentina
    Cents total = 0;         // ImpTotal
    Cents untaxed = 0;       // ImpTotConc
    Cents net = 0;           // ImpNeto
    Cents exempt = 0;        // ImpOpEx
    Cents taxes_total = 0;   // ImpTrib
    Cents vat_total = 0;     // ImpIVA
    std::string currency = "PES"; // MonId
    std::string exchange_rate = "1"; // MonCotiz as a decimal text, also for the QR's ctz
    std::optional<int> receiver_vat_condition; // CondicionIVAReceptorId
    std::string service_from, service_to, payment_due; // FchServDesde, FchServHasta, FchVtoPago
    std::vector<VatRate> vat;                 // Iva
    std::vector<Tax> taxes;                   // Tributos
    std::vector<AssociatedVoucher> associated; // CbtesAsoc
    std::vector<OptionalDatum> optionals;     // Opcionales
};

// The file is not a voucher; the message names the field at fault.
class InvoiceFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reads one voucher from JSON text; throws InvoiceFileError. Unknown fields are refused too, so a
// misspelt amount is not silently sent as zero.
Invoice read_invoice(const std::string& json_text);

// "121.00", "-0.50": the wire form of an amount.
std::string format_cents(Cents amount);

#endif
