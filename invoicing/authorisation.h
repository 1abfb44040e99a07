#ifndef TARVO_INVOICING_AUTHORISATION_H
#define TARVO_INVOICING_AUTHORISATION_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "invoicing/afip_channel.h"
#include "invoicing/ledger.h"
#include "invoicing/voucher.h"
#include "invoicing/wsfev1_answers.h"

// A sale's result code, as the C interface and the command-line host give it: 0 approved, the
// library's 1-17 when the exchange failed before AFIP could decide, and these.
namespace status {
constexpr int approved = 0;
constexpr int rejected = 20;         // AFIP refused the voucher
constexpr int outcome_unknown = 21;  // the answer was lost; the sale stays pending in the ledger
constexpr int sale_conflict = 22;    // another voucher holds the sale id
constexpr int ledger_unusable = 23;  // nothing was sent
constexpr int series_busy = 24;      // another process kept the series too long; nothing was sent
constexpr int not_found = 25;        // no such sale in the ledger
constexpr int bad_input = 65;        // not a voucher, or not JSON
} // namespace status

// What became of one sale.
struct SaleOutcome {
    int status = status::outcome_unknown;
    std::string message; // why, for the user, when not approved
    std::string sale_id;
    bool from_ledger = false; // approved earlier: nothing was sent now
    bool recovered = false;   // the CAE came from FECompConsultar after a lost answer
    std::string result;       // Resultado: A, R or empty
    int point_of_sale = 0, voucher_type = 0;
    std::int64_t number = 0;
    std::string date, cae, cae_expiry;
    ServiceMessages observations, errors, events;
    std::string qr_url; // approved only
};

struct AuthorisationSettings {
    std::int64_t cuit = 0;                        // the issuer (Auth/Cuit)
    std::chrono::milliseconds series_wait{120000}; // how long another process may hold a series
};

// Authorises vouchers at most once each, through the ledger: a sale id approved before returns
// its recorded outcome; a pending one is settled by FECompConsultar first; intents are committed
// before FECAESolicitar is sent; vouchers of one series go together, up to FECompTotXRequest a
// request; a lost answer is settled by FECompConsultar.
class Authoriser {
public:
    Authoriser(Ledger& ledger, AfipChannel& channel, AuthorisationSettings settings);

    // One outcome per voucher, in their order.
    std::vector<SaleOutcome> authorise(const std::vector<Voucher>& vouchers);

private:
    // FECompTotXRequest, asked once; 1 when it cannot be learnt.
    int records_per_request();

    Ledger& m_ledger;
    AfipChannel& m_channel;
    AuthorisationSettings m_settings;
    std::optional<int> m_records_per_request;
};

// The outcome of a sale as the ledger keeps it.
SaleOutcome outcome_of_record(const SaleRecord& record);

// A sale id for a voucher that came without one: unique, and saying when it was made.
std::string generated_sale_id();

#endif
