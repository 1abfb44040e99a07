#ifndef TARVO_SIMULATOR_VOUCHER_RULES_H
#define TARVO_SIMULATOR_VOUCHER_RULES_H

#include <pugixml.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "padron.h"

// One voucher of an authorisation request (FECAEDetRequest or FECAEADetRequest), read as AFIP's
// types have it: xs:int and xs:long as 64-bit integers, xs:double as double.
struct VoucherDetail {
    struct Rate {
        long long id;
        double base;
        double amount;
    };
    struct Tax {
        long long id;
        double amount;
    };

    long long concept = 0;
    long long document_type = 0;
    std::int64_t document_number = 0;
    long long first = 0;
    long long last = 0;
    std::string date; // CbteFch, today's when the request has none
    double total = 0, untaxed = 0, net = 0, exempt = 0, taxes_total = 0, vat = 0;
    std::string service_from, service_to, payment_due;
    std::string currency;
    std::optional<double> rate_to_peso; // MonCotiz
    std::string same_foreign_currency;  // CanMisMonExt
    bool has_same_foreign_currency = false;
    std::optional<long long> receptor_condition;
    bool has_vat_element = false;
    std::vector<Rate> vat_rates;
    bool has_taxes_element = false;
    std::vector<Tax> taxes;
    struct Associated {
        long long type;
        long long point_of_sale;
        long long number;
        std::string cuit; // empty: the issuer's own
    };
    bool has_associated = false; // a CbteAsoc or a PeriodoAsoc
    std::vector<Associated> associated;
    std::string caea;         // FECAEADetRequest's CAEA
    std::string generated_at; // FECAEADetRequest's CbteFchHsGen
    // The detail's elements in the order of AFIP's schema, for the answers that repeat them.
    std::string echo;
};

// Reads a detail; nullopt when a number AFIP's schema requires is missing or unreadable, as
// AFIP's service then cannot read the request at all.
std::optional<VoucherDetail> read_voucher_detail(const pugi::xml_node& detail, const std::string& today);

// The most vouchers one request may carry, as FECompTotXRequest says.
constexpr size_t most_vouchers_per_request = 250;

// Everything a rule looks at: the request's header, one of its vouchers, the series it joins.
struct VoucherCheck {
    long long declared_count = 0; // CantReg
    size_t sent_count = 0;        // FECAEDetRequest elements
    long long voucher_type = 0;
    long long point_of_sale = 0;
    bool point_of_sale_registered = true; // for this kind of emission (CAE or CAEA)
    std::string issuer;           // Auth/Cuit
    VoucherDetail detail;
    long long next_number = 1;    // the series' last authorised number plus one, before this voucher
    std::string last_date;        // CbteFch of the series' last authorised voucher, empty before one
    std::string today;            // yyyymmdd in Argentina
    std::string receptor_condition_required_from; // yyyymmdd
    const Padron* padron = nullptr;
    bool with_caea = false; // FECAEARegInformativo: the vouchers were issued under a CAEA
    // The CAEA the voucher names, when it was granted to the issuer: its validity and deadline.
    struct CaeaGrant {
        std::string valid_from, valid_to, report_by; // yyyymmdd
    };
    std::optional<CaeaGrant> caea;
    // Whether an associated voucher was authorised by this simulator; nullptr: none was.
    std::function<bool(const std::string& cuit, const VoucherDetail::Associated&)> authorised;
};

// Err refuses the whole request; an Obs rejects its voucher (R) or is only a remark (A).
enum class RuleKind { error, rejecting_observation, approving_observation };

// Which requests a rule judges: both, FECAESolicitar's only, or FECAEARegInformativo's only.
enum class Emission { any, cae, caea };

struct VoucherRule {
    int code;
    RuleKind kind;
    const char* text;       // AFIP's where it was recorded; {Name} marks a value of the voucher
    bool afip_text;         // false: the simulator's own message
    bool afip_code;         // false: the reference records no code for this condition; the simulator chose it
    const char* condition;  // what the predicate checks, for the README
    bool (*applies)(const VoucherCheck&);
    Emission emission = Emission::any;

    bool judges(const VoucherCheck& check) const
    {
        return emission == Emission::any || (emission == Emission::caea) == check.with_caea;
    }
};

// AFIP's rules for FECAESolicitar, in the order they are checked: Err first.
const std::vector<VoucherRule>& voucher_rules();

// The rule's text with the voucher's values in place of its {Name} marks.
std::string rule_message(const VoucherRule& rule, const VoucherCheck& check);

// "Err", "Obs-R" or "Obs-A".
const char* rule_kind_name(RuleKind kind);

// What the consultations refuse before they look anything up: code, text and condition.
struct ConsultationError {
    const char* operation;
    int code;
    const char* text;
    bool afip_text;
    const char* condition;
};
const std::vector<ConsultationError>& consultation_errors();
// The entry of `operation` with that code; throws std::out_of_range when there is none.
const ConsultationError& consultation_error(const std::string& operation, int code);

// The rules and the consultations' errors as the README's Markdown tables.
std::string voucher_rules_table();

// 'A' (also 51-54, A with a legend), 'B', 'C', or 0 for a type of none of them.
char voucher_class(long long voucher_type);

// The class FEParamGetCondicionIvaReceptor names for a voucher type: "A", "B", "C", "M" (51-54)
// or "49"; empty for a type of none of them.
std::string receptor_condition_class(long long voucher_type);

// Whether a condition of FEParamGetCondicionIvaReceptor goes with that class (exactly one of
// the names in its Cmp_Clase, "A/M/C").
bool condition_allows_class(const char* classes, const std::string& voucher_class);

// AFIP's tolerance for comparing an amount with what it should be: 0.01 % of the expected value or
// 0.01 per term summed, whichever is larger.
bool within_tolerance(double sent, double expected, size_t terms = 1);

// Points of sale AFIP's services accept: 1 to 99998.
constexpr long long highest_point_of_sale = 99998;
constexpr long long highest_voucher_number = 99999999;

#endif
