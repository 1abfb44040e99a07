#ifndef TARVO_INVOICING_QR_H
#define TARVO_INVOICING_QR_H

#include <cstdint>
#include <string>

#include "invoicing/money.h"

// What AFIP's QR code (RG 4892/2020) carries about an authorised voucher.
struct QrVoucher {
    std::string date; // yyyymmdd, written yyyy-mm-dd in the payload
    std::int64_t cuit = 0;
    int point_of_sale = 0;
    int voucher_type = 0;
    std::int64_t number = 0;
    Money total;
    std::string currency;
    std::string exchange_rate; // a JSON number as given
    int document_type = 0;
    std::int64_t document_number = 0;
    std::string code; // the CAE or CAEA, 14 digits, a JSON number in the payload
    bool advance = false; // authorised in advance (a CAEA): tipoCodAut "A", else "E"
};

// The JSON payload, keys in AFIP's order, numbers as JSON numbers.
std::string qr_payload(const QrVoucher& voucher);

// "https://www.afip.gob.ar/fe/qr/?p=" and the standard Base64 of the payload, with padding.
std::string qr_url(const QrVoucher& voucher);

// Writes `text` as a QR image (error correction M, 4 pixels a module, quiet zone of 4 modules);
// false with `problem` set when it cannot.
bool write_qr_png(const std::string& text, const std::string& path, std::string& problem);

#endif
