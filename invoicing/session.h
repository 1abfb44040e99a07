#ifndef TARVO_INVOICING_SESSION_H
#define TARVO_INVOICING_SESSION_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "driver/soap_exchange.h"
#include "invoicing/afip_channel.h"
#include "invoicing/ledger.h"

// A result code and the JSON (or text) that goes with it; `message` explains a non-zero code.
struct CoreResult {
    int status = 0;
    std::string message;
    std::optional<std::string> output;
};

// What a handle of the C interface holds: one configuration, its ledger (opened when first
// needed) and its channel to AFIP.
class InvoicingSession {
public:
    // Throws SettingsError on settings that are not JSON or not understood.
    explicit InvoicingSession(const std::string& settings_json);

    CoreResult authorise(const std::string& voucher_json);
    CoreResult authorise_batch(const std::string& vouchers_json);
    CoreResult ledger_list(const std::string& filter_json);
    CoreResult ledger_show(const std::string& sale_id);
    const std::string& transfer_log() const;

private:
    Ledger& ledger(); // throws LedgerError
    CoreResult authorise_parsed(const std::vector<std::string>& texts, bool batch);

    std::optional<std::int64_t> m_cuit;
    std::string m_ledger_path = "ledger.sqlite";
    std::chrono::milliseconds m_series_wait{120000};
    std::unique_ptr<LibraryChannel> m_channel;
    std::unique_ptr<Ledger> m_ledger;
};

// What needs no handle: reading an answer a host got itself, and the QR code.
CoreResult read_answer_json(const std::string& answer_xml);
CoreResult qr_url_json(const std::string& voucher_json);
CoreResult qr_png_file(const std::string& text, const std::string& path);

class SettingsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

#endif
