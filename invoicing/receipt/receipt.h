// Printed vouchers: an A4 PDF, an 80 mm ticket PDF and ESC/POS bytes for a thermal printer, made
// from everything an authorised voucher shows. What they print and how is in README.md here.
#ifndef TARVO_INVOICING_RECEIPT_RECEIPT_H
#define TARVO_INVOICING_RECEIPT_RECEIPT_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "invoicing/money.h"

// Bad input, a missing font or a library failure, with a message naming the field at fault.
class ReceiptError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Who issues the voucher, from the issuer profile (README.md).
struct IssuerProfile {
    std::string name;
    std::string address;
    std::string cuit;             // 11 digits
    std::string iibb;             // gross-income number, as printed
    std::string activities_start; // yyyymmdd
    int vat_condition = 0;        // a VAT condition id (afip_codes.h)
    std::string logo_path;        // as resolved when the profile was read; empty when none
    std::string logo_png;         // the logo's bytes, read and checked with the profile
    std::string footer;           // free text; '\n' starts a new line
};

struct Receiver {
    std::string name;
    std::string address;
    int document_type = 99;           // DocTipo
    std::int64_t document_number = 0; // DocNro; 0 prints no document line
    int vat_condition = 5;            // CondicionIVAReceptorId
};

// The voucher's totals as WSFEv1 takes them.
struct VoucherAmounts {
    Money total;       // ImpTotal
    Money untaxed;     // ImpTotConc
    Money net;         // ImpNeto
    Money exempt;      // ImpOpEx
    Money vat;         // ImpIVA
    Money other_taxes; // ImpTrib
};

struct VatLine {
    int id = 0; // VAT rate id: 3 (0 %), 4 (10.5 %), 5 (21 %), 6 (27 %), 8 (5 %), 9 (2.5 %)
    Money base;
    Money amount;
};

struct OtherTax {
    int id = 0; // tax type (FEParamGetTiposTributos); 1 and 4 are national indirect taxes
    std::string description;
    Money base;
    double rate = 0; // percent
    Money amount;
};

// A printed line of the sale. Prices exclude VAT on class A and M vouchers and include it on the
// others; check_items() holds the rule.
struct ReceiptItem {
    std::string description;
    double quantity = 1;
    Money unit_price;
    int vat_rate_id = 0; // 0: the line bears no VAT (exempt, untaxed, or a class without VAT)
};

// The voucher a credit or debit note refers to (CbtesAsoc).
struct PrintedAssociatedVoucher {
    int type = 0;
    int point_of_sale = 0;
    std::int64_t number = 0;
    std::string date; // yyyymmdd, or empty when not known
};

enum class AuthorisationKind { cae, caea };

struct Authorisation {
    AuthorisationKind kind = AuthorisationKind::cae;
    std::string code;       // the CAE or CAEA, 14 digits
    std::string cae_expiry; // yyyymmdd, for a CAE
    std::string caea_from;  // yyyymmdd, the CAEA's validity, for a CAEA
    std::string caea_to;
};

struct Receipt {
    IssuerProfile issuer;
    Receiver receiver;
    int voucher_type = 0; // CbteTipo
    int point_of_sale = 0;
    std::int64_t number = 0;
    std::string date;         // CbteFch, yyyymmdd
    int concept = 1;          // 1 products, 2 services, 3 both
    std::string service_from; // yyyymmdd; required for concepts 2 and 3
    std::string service_to;
    std::string payment_due;  // yyyymmdd or empty
    std::string currency = "PES";
    double quotation = 1;
    VoucherAmounts amounts;
    std::vector<VatLine> vat_lines;
    std::vector<OtherTax> other_taxes;
    std::vector<ReceiptItem> items; // may be empty: then `description` is printed
    std::string description;        // one line for a voucher without items; the concept when empty
    std::vector<PrintedAssociatedVoucher> associated;
    Authorisation authorisation;
    std::string qr_address; // AFIP's QR address as the core made it, printed as a QR code
};

enum class ReceiptFormat { pdf_a4, pdf_80mm, escpos };

// "pdf-a4", "pdf-80mm", "escpos"; nullopt for any other name.
std::optional<ReceiptFormat> receipt_format_named(const std::string& name);

// The issuer profile's JSON text. A relative logo path is taken from `base_directory` (the
// profile's own directory, say) when it is not empty. Throws ReceiptError naming the field.
IssuerProfile read_issuer_profile(const std::string& json_text, const std::string& base_directory = "");

// Why the items do not add up to the voucher's amounts, or "" when they do (or there are none).
// `voucher_class` is the type's letter ('A', 'B', 'C', 'E', 'M').
std::string check_items(const std::vector<ReceiptItem>& items, const VoucherAmounts& amounts,
                        const std::vector<VatLine>& vat_lines, char voucher_class);

// The voucher's bytes in that format; throws ReceiptError.
std::string render_receipt(const Receipt& receipt, ReceiptFormat format);

#endif
