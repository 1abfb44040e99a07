#ifndef TARVO_INVOICING_VOUCHER_H
#define TARVO_INVOICING_VOUCHER_H

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "invoicing/money.h"

struct VatRate {
    int id = 0;
    Money base;
    Money amount;
};

struct Tax {
    int id = 0;
    std::string description;
    Money base;
    std::string rate; // the percentage as a decimal text
    Money amount;
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

// Who receives the voucher, for its printout.
struct VoucherReceptor {
    std::string name;
    std::string address;
};

// A line of the sale, printed on the voucher; the lines must add up to its amounts.
struct VoucherItem {
    std::string description;
    double quantity = 1;
    Money unit_price;
    int vat_rate_id = 0; // the line's VAT rate as Iva/Id has it (5: 21 %, 4: 10.5 %...); 0: no VAT
};

// One voucher as a host gives it, with WSFEv1's field names.
struct Voucher {
    std::string sale_id;   // the host's name for the sale; empty when not given
    int point_of_sale = 0; // PtoVta
    int voucher_type = 0;  // CbteTipo
    int concept = 0;       // Concepto
    int document_type = 0; // DocTipo
    std::int64_t document_number = 0; // DocNro: CUITs do not fit 32 bits
    std::optional<std::int64_t> number; // CbteNro: absent, the next one
    std::string date;                   // CbteFch yyyymmdd: empty, the day it is sent
    Money total;       // ImpTotal
    Money untaxed;     // ImpTotConc
    Money net;         // ImpNeto
    Money exempt;      // ImpOpEx
    Money taxes_total; // ImpTrib
    Money vat_total;   // ImpIVA
    std::string currency = "PES";    // MonId
    std::string exchange_rate = "1"; // MonCotiz as a decimal text, also for the QR's ctz
    std::optional<int> receiver_vat_condition; // CondicionIVAReceptorId
    bool condition_from_registry = false;      // CondicionIVAReceptorId "padron": AFIP's registry says
    std::string service_from, service_to, payment_due; // FchServDesde, FchServHasta, FchVtoPago
    std::vector<VatRate> vat;                 // Iva
    std::vector<Tax> taxes;                   // Tributos
    std::vector<AssociatedVoucher> associated; // CbtesAsoc
    std::vector<OptionalDatum> optionals;     // Opcionales
    std::optional<VoucherReceptor> receptor;  // receptor: not sent to AFIP, printed
    std::vector<VoucherItem> items;           // items: not sent to AFIP, printed
};

// The text is not a voucher; the message names the field at fault.
class VoucherError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Reads one voucher from JSON text; throws VoucherError. Unknown fields are refused too, so a
// misspelt amount is not silently sent as zero. Amounts may be JSON numbers or decimal texts.
Voucher read_voucher(const std::string& json_text);
// The same from a parsed JSON value.
Voucher read_voucher(const nlohmann::json& value);

// A host's sale id: 1 to 128 bytes of text without control characters.
bool is_sale_id(const std::string& text);

// The voucher in one fixed form, without its sale id: what the ledger keeps and compares. Amounts
// are texts with two decimals, so the form does not depend on how a number is printed.
// read_voucher reads it back to the same voucher.
std::string canonical_voucher(const Voucher& voucher);

#endif
