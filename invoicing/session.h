#ifndef TARVO_INVOICING_SESSION_H
#define TARVO_INVOICING_SESSION_H

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "driver/soap_exchange.h"
#include "invoicing/afip_channel.h"
#include "invoicing/core_result.h"
#include "invoicing/ledger.h"
#include "invoicing/registry.h"
#include "invoicing/voucher.h"

// What a handle of the C interface holds: one configuration, its ledger (opened when first
// needed) and its channel to AFIP.
class InvoicingSession {
public:
    // Throws SettingsError on settings that are not JSON or not understood.
    explicit InvoicingSession(const std::string& settings_json);

    CoreResult authorise(const std::string& voucher_json);
    CoreResult authorise_batch(const std::string& vouchers_json);
    CoreResult ledger_list(const std::string& filter_json);
    CoreResult lookup(const std::string& query_json);
    // A printed voucher's bytes in `output`.
    CoreResult receipt(const std::string& request_json);
    // CAEA contingency: {"action": "request" | "show" | "inform" | "no_movement" | "status", ...}.
    CoreResult caea(const std::string& command_json);
    CoreResult ledger_show(const std::string& sale_id);
    const std::string& transfer_log() const;

private:
    Ledger& ledger(); // throws LedgerError
    // The channel to a registry service, nullptr with `message` set when no address is known.
    AfipChannel* registry_channel(RegistryService service, std::string& message);
    // The receptor's condition from the registry, checked against the voucher's class.
    int complete_voucher(Voucher& voucher, std::string& message);
    // The conditions a voucher class may receive, as FEParamGetCondicionIvaReceptor says.
    std::vector<int> conditions_for(const std::string& voucher_class);
    CoreResult authorise_parsed(nlohmann::json given, bool batch);

    std::optional<std::int64_t> m_cuit;
    std::string m_ledger_path = "ledger.sqlite";
    std::chrono::milliseconds m_series_wait{120000};
    bool m_contingency = false;
    std::optional<int> m_caea_point_of_sale;
    SoapSettings m_soap;
    std::vector<std::string> m_headers;
    std::string m_registry_urls[2]; // constancia, A13
    std::unique_ptr<LibraryChannel> m_registry_channels[2];
    std::map<std::string, std::vector<int>> m_conditions_by_class;
    std::shared_ptr<std::string> m_last_log = std::make_shared<std::string>();
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
