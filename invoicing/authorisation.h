#ifndef TARVO_INVOICING_AUTHORISATION_H
#define TARVO_INVOICING_AUTHORISATION_H

#include <chrono>
#include <cstdint>
#include <functional>
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
constexpr int unknown_person = 26;   // the registry does not know the CUIT
constexpr int inactive_key = 27;     // the registry shows the CUIT's key inactive
constexpr int registry_refused = 28; // the registry refused the question, or none was configured
constexpr int condition_unfit = 29;  // the receptor's VAT condition does not go with the voucher's class
constexpr int caea_issued = 30;      // issued offline under a CAEA, to be informed
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
    std::string emission = "CAE"; // "CAEA": issued offline, `cae` holds the CAEA
    bool informed = false;        // a CAEA voucher informed to AFIP
};

struct AuthorisationSettings {
    explicit AuthorisationSettings(std::int64_t issuer = 0) : cuit(issuer) {}
    std::int64_t cuit = 0;                        // the issuer (Auth/Cuit)
    std::chrono::milliseconds series_wait{120000}; // how long another process may hold a series
    // Completes a voucher that needs the registry (its receptor's VAT condition) just before it is
    // numbered, so that a sale approved before asks nothing: 0, or a status with `message`.
    std::function<int(Voucher& voucher, std::string& message)> complete_voucher;
    // When WSFEv1 cannot be reached (nothing was sent), issue under the fortnight's CAEA kept in the
    // ledger, on the CAEA point of sale when one is named, else on the voucher's own.
    bool contingency = false;
    std::optional<int> caea_point_of_sale;
};

// Whether the voucher's receptor condition is to come from AFIP's registry: asked for ("padron"),
// or left out on a voucher to a CUIT.
bool needs_registry(const Voucher& voucher);

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

// Whether the voucher FECompConsultar found is this one, sent with that date: same receiver and
// amounts. Only asked of a number the sale was sent with.
bool is_same_voucher(const ConsultedVoucher& found, const Voucher& voucher, const std::string& date);

// The outcome of a sale as the ledger keeps it.
SaleOutcome outcome_of_record(const SaleRecord& record);

// A sale id for a voucher that came without one: unique, and saying when it was made.
std::string generated_sale_id();

#endif
