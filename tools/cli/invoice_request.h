#ifndef TARVO_TOOLS_CLI_INVOICE_REQUEST_H
#define TARVO_TOOLS_CLI_INVOICE_REQUEST_H

#include <cstdint>
#include <string>

#include "invoice_file.h"

// WSFEv1 requests as SendSOAP takes them: empty ar:Token and ar:Sign for the library to fill,
// fields in the order of the service's schema.

std::string last_authorised_request(std::int64_t cuit, int point_of_sale, int voucher_type);

// FECAESolicitar for one voucher numbered `number` and dated `date` (yyyymmdd).
std::string authorisation_request(const Invoice& invoice, std::int64_t cuit, std::int64_t number,
                                  const std::string& date);

std::string consultation_request(std::int64_t cuit, int point_of_sale, int voucher_type, std::int64_t number);

#endif
