#ifndef TARVO_INVOICING_CAEA_H
#define TARVO_INVOICING_CAEA_H

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "invoicing/afip_channel.h"
#include "invoicing/core_result.h"
#include "invoicing/ledger.h"

// CAEA contingency: a code granted per fortnight in advance, vouchers issued under it while WSFEv1
// cannot answer, informed to AFIP afterwards by the CAEA's FchTopeInf.

// The fortnight of a date yyyymmdd: (period yyyymm, 1 for days 1 to 15, 2 for the rest); nullopt
// for no such date.
std::optional<std::pair<int, int>> fortnight_of(const std::string& date);

// How many days before FchTopeInf every invoice and `caea status` start to warn.
constexpr int caea_warning_days = 2;

// The warnings of CAEA vouchers not yet informed whose deadline is near or past, as of `today`.
std::vector<std::string> caea_deadline_warnings(Ledger& ledger, std::int64_t cuit, const std::string& today);

// The CAEA operations on one ledger, through one channel to WSFEv1, for one issuer.
class CaeaDesk {
public:
    CaeaDesk(Ledger& ledger, AfipChannel& channel, std::int64_t cuit);

    // FECAEASolicitar; a fortnight granted before is read with FECAEAConsultar. Kept in the ledger.
    CoreResult request(int period, int fortnight);
    // The CAEAs the ledger keeps.
    CoreResult show();
    // FECAEARegInformativo of every CAEA voucher not yet informed, by series and number.
    CoreResult inform();
    // FECAEASinMovimientoInformar of a point of sale under a fortnight's CAEA.
    CoreResult declare_no_movement(int point_of_sale, int period, int fortnight);
    // The vouchers waiting to be informed, with their deadlines, and the CAEAs.
    CoreResult status();

private:
    // Informs one series' vouchers, in number order; adds each sale's outcome to `report`.
    void inform_series(std::vector<SaleRecord> sales, std::string& report, int& worst);

    Ledger& m_ledger;
    AfipChannel& m_channel;
    std::int64_t m_cuit;
};

#endif
