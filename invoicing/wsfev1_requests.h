#ifndef TARVO_INVOICING_WSFEV1_REQUESTS_H
#define TARVO_INVOICING_WSFEV1_REQUESTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "invoicing/voucher.h"

// WSFEv1 requests as the library sends them: empty ar:Token and ar:Sign for it to fill, fields
// in the order of the service's schema.

std::string last_authorised_request(std::int64_t cuit, int point_of_sale, int voucher_type);

// One voucher of an authorisation request, with the number and date it goes out with.
struct NumberedVoucher {
    const Voucher* voucher;
    std::int64_t number;
    std::string date; // yyyymmdd
};

// FECAESolicitar for vouchers of one point of sale and type, in order.
std::string authorisation_request(std::int64_t cuit, const std::vector<NumberedVoucher>& vouchers);

// A voucher issued under a CAEA, as FECAEARegInformativo informs it.
struct InformedVoucher {
    const Voucher* voucher;
    std::int64_t number;
    std::string date;         // yyyymmdd
    std::string caea;
    std::string generated_at; // CbteFchHsGen, yyyymmddhhmmss
};

// FECAEARegInformativo for vouchers of one point of sale and type, in order.
std::string caea_inform_request(std::int64_t cuit, const std::vector<InformedVoucher>& vouchers);

// FECAEASolicitar, or with `consult` FECAEAConsultar, for a fortnight (1 or 2) of a period yyyymm.
std::string caea_request(std::int64_t cuit, bool consult, int period, int fortnight);

std::string no_movement_request(std::int64_t cuit, int point_of_sale, const std::string& caea);

std::string consultation_request(std::int64_t cuit, int point_of_sale, int voucher_type, std::int64_t number);

std::string records_per_request_request(std::int64_t cuit);

// FEParamGetCondicionIvaReceptor for a voucher class: "A", "ALEY", "B", "C" or "49".
std::string receptor_conditions_request(std::int64_t cuit, const std::string& voucher_class);

#endif
