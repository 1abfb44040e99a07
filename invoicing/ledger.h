#ifndef TARVO_INVOICING_LEDGER_H
#define TARVO_INVOICING_LEDGER_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "invoicing/sqlite_db.h"

// The ledger cannot be used: unreadable, not a ledger, newer than this library, full or
// read-only. It is never replaced, emptied or repaired.
class LedgerError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A voucher series: AFIP numbers vouchers per issuer, point of sale and type.
struct SeriesKey {
    std::int64_t cuit = 0;
    int point_of_sale = 0;
    int voucher_type = 0;
};

// pending: the intent is recorded and FECAESolicitar may have been sent, so the number is held
// until the outcome is known; failed: not authorised and holding no number (never sent, or its
// number proved taken by another voucher); rejected: AFIP refused it.
enum class SaleState { pending, approved, rejected, failed };

const char* sale_state_name(SaleState state);

struct SaleRecord {
    std::string sale_id;
    SeriesKey series;
    std::optional<std::int64_t> number;
    std::string date;    // CbteFch as sent
    std::string voucher; // the canonical form
    std::string digest;  // SHA-256 of the canonical form, hex
    SaleState state = SaleState::pending;
    std::string result;  // Resultado
    std::string cae, cae_expiry;
    std::string observations = "[]", errors = "[]", events = "[]"; // JSON lists of {"Code","Msg"}
    bool recovered = false; // the CAE came from FECompConsultar
    std::string message;    // why, when not approved
    std::string created_at, updated_at;
    std::string emission = "CAE"; // or "CAEA": issued offline under a CAEA (its code in `cae`)
    std::string generated_at;     // CAEA: CbteFchHsGen, yyyymmddhhmmss
    std::string informed;         // CAEA: "no", "yes" (FECAEARegInformativo approved it) or "refused"
};

// One sending of a sale's voucher.
struct SaleAttempt {
    std::int64_t number = 0;
    std::string date; // CbteFch sent
    std::string started_at, finished_at;
    std::string outcome; // the sale's state it ended in; empty while pending
};

// A CAEA granted for a fortnight: `fortnight` 1 (days 1 to 15) or 2 (16 to the month's end).
struct CaeaGrant {
    std::int64_t cuit = 0;
    int period = 0; // yyyymm
    int fortnight = 0;
    std::string code;
    std::string valid_from, valid_to, report_by, processed; // yyyymmdd; FchTopeInf the last day to inform
};

// What an accountant's listing selects; empty fields select everything.
struct LedgerFilter {
    std::string from_date, to_date; // yyyymmdd, inclusive, of CbteFch
    std::optional<int> point_of_sale;
};

// The sales of a shop in one SQLite file, shared by every process that invoices from it: WAL,
// a busy time-out, each intent committed before its voucher is sent, numbers unique per series.
class Ledger {
public:
    // Opens the file, making it when absent; brings an older schema up to date. Throws LedgerError.
    explicit Ledger(const std::string& path);

    const std::string& path() const { return m_path; }

    std::optional<SaleRecord> sale(const std::string& sale_id);
    // The series' sales that hold a number without a known outcome, lowest number first.
    std::vector<SaleRecord> pending_sales(const SeriesKey& series);
    // A sale of the series not approved, that was sent with `number`: whose voucher it may be.
    std::optional<SaleRecord> sale_sent_with(const SeriesKey& series, std::int64_t number);

    // Each time the sale was sent, oldest first.
    std::vector<SaleAttempt> attempts(const std::string& sale_id);

    // The last number AFIP authorised in the series, as the ledger last learnt it.
    std::optional<std::int64_t> last_number(const SeriesKey& series);
    // FECompUltimoAutorizado's word: the series' last number is exactly this.
    void set_last_number(const SeriesKey& series, std::int64_t number);

    // Each sale becomes pending with its number, date and voucher, and gains an attempt, in one
    // transaction: committed before the vouchers are sent.
    void record_intents(const std::vector<SaleRecord>& sales);
    // The outcomes, in one transaction: each sale as given, its open attempt closed; approvals
    // raise the series' last number.
    void record_outcomes(const std::vector<SaleRecord>& sales);

    std::vector<SaleRecord> list(const LedgerFilter& filter);

    void keep_caea(const CaeaGrant& grant);
    std::optional<CaeaGrant> caea(std::int64_t cuit, int period, int fortnight);
    std::vector<CaeaGrant> caeas(std::int64_t cuit);
    // A sale issued offline under a CAEA, with its number, in one transaction that also raises the
    // series' last number: the intent and the outcome at once, since nothing is sent.
    void record_caea_sale(const SaleRecord& sale);
    // The CAEA sales not yet informed, by series and number.
    std::vector<SaleRecord> sales_to_inform(std::int64_t cuit);
    void record_no_movement(std::int64_t cuit, const std::string& caea, int point_of_sale, const std::string& result,
                            const std::string& messages);

    // What the registry's service said of a CUIT (JSON), if it was asked at or after `not_before`
    // (seconds since 1970).
    std::optional<std::string> registry_answer(std::int64_t cuit, const std::string& service, std::int64_t not_before);
    void keep_registry_answer(std::int64_t cuit, const std::string& service, const std::string& person,
                              std::int64_t asked_at);

private:
    template <typename Action>
    auto guarded(const char* what, Action action) -> decltype(action());

    std::string m_path;
    Database m_database;
};

// Lowercase hex SHA-256 of the text.
std::string sha256_hex(const std::string& text);

#endif
