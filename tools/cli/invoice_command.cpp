#include "invoice_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>

#include "host_messages.h"
#include "tarvoafipinvoicing.h"

namespace {

using json = nlohmann::ordered_json;

const int exit_usage = 64;
const int exit_no_input = 66;

void complain(const std::string& message)
{
    std::cerr << "tarvoafip_cli: " << message << '\n';
}

// Text the core handed out, freed with its own function.
struct CoreText {
    void operator()(char* text) const { tarvo_invoicing_free(text); }
};
using OwnedText = std::unique_ptr<char, CoreText>;

// One handle of the invoicing core, closed in the destructor.
class InvoicingHandle {
public:
    explicit InvoicingHandle(const json& settings)
    {
        m_status = tarvo_invoicing_open(settings.dump().c_str(), &m_handle);
    }
    ~InvoicingHandle() { tarvo_invoicing_close(m_handle); }
    InvoicingHandle(const InvoicingHandle&) = delete;
    InvoicingHandle& operator=(const InvoicingHandle&) = delete;

    int open_status() const { return m_status; }
    tarvo_invoicing* get() const { return m_handle; }
    std::string message() const { return tarvo_invoicing_message(m_handle); }

    // A function of the core that hands out text: its status, and the text when there is one.
    template <typename Function, typename... Arguments>
    int call(std::string& output, Function function, Arguments... arguments)
    {
        char* text = nullptr;
        const int status = function(m_handle, arguments..., &text);
        const OwnedText owned(text);
        output = text != nullptr ? text : "";
        return status;
    }

private:
    tarvo_invoicing* m_handle = nullptr;
    int m_status = 0;
};

// The core's settings from the command line.
json settings_of(const CliOptions& options, const std::optional<std::string>& password)
{
    json settings = json::object();
    const auto put = [&](const char* key, const std::optional<std::string>& value) {
        if (value)
            settings[key] = *value;
    };
    if (options.cuit)
        settings["cuit"] = *options.cuit;
    put("wsaa_url", options.wsaa_url);
    put("url", options.service_url);
    put("certificate", options.certificate_path);
    put("password", password);
    put("service", options.service);
    put("proxy", options.proxy_url);
    put("proxy_user", options.proxy_user);
    put("proxy_password", options.proxy_password);
    if (!options.ledger_path.empty())
        settings["ledger"] = options.ledger_path;
    if (!options.registry_url.empty())
        settings["registry_url"] = options.registry_url;
    if (options.contingency)
        settings["contingency"] = true;
    if (options.caea_point_of_sale)
        settings["caea_point_of_sale"] = *options.caea_point_of_sale;
    if (options.tls_level)
        settings["tls_level"] = *options.tls_level;
    if (options.timeout_ms)
        settings["timeout_ms"] = *options.timeout_ms;
    if (!options.headers.empty())
        settings["headers"] = options.headers;
    if (options.tls_verify)
        settings["tls_verify"] = true;
    if (!options.ca_file.empty())
        settings["ca_file"] = options.ca_file;
    return settings;
}

// What the user reads on standard error for a sale's status.
void explain_status(int status, const std::string& message, const std::string& bad_input = "bad invoice file: ")
{
    if (status == TARVO_INVOICING_BAD_INPUT)
        complain(bad_input + message);
    else if (status >= 1 && status <= 17)
        complain(message + ": result " + std::to_string(status) + ": " + explain_result(status));
    else if (status != TARVO_INVOICING_OK)
        complain(message);
}

// The voucher's text with --sale-id in it; false when they disagree.
bool with_sale_id(std::string& text, const std::string& sale_id)
{
    json voucher = json::parse(text, nullptr, false);
    if (!voucher.is_object())
        return true; // the core says what is wrong with it
    if (!sale_id.empty()) {
        if (voucher.contains("sale_id") && voucher["sale_id"] != sale_id) {
            complain("--sale-id " + sale_id + " and the voucher's sale_id " + voucher["sale_id"].dump() +
                     " differ; nothing was sent");
            return false;
        }
        voucher["sale_id"] = sale_id;
        text = voucher.dump();
    } else if (!voucher.contains("sale_id")) {
        complain("warning: the voucher has no sale id (--sale-id or \"sale_id\"): running it again cannot be "
                 "recognised as the same sale and would authorise another voucher");
    }
    return true;
}

int authorise_one(InvoicingHandle& handle, const CliOptions& options)
{
    std::string text;
    if (!read_file_or_input(options.invoice_file, text)) {
        complain("cannot read the invoice from " + options.invoice_file);
        return exit_no_input;
    }
    if (!with_sale_id(text, options.sale_id))
        return exit_usage;
    // Found out before anything is sent: afterwards the voucher would exist without its image. An
    // older image there is emptied now, so that it is never taken for this voucher's.
    if (!options.qr_png_file.empty()) {
        const int fd = ::open(options.qr_png_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            complain("cannot write the QR image to " + options.qr_png_file + "; nothing was sent");
            return TARVO_INVOICING_CANNOT_WRITE;
        }
        ::close(fd);
    }
    std::string outcome;
    const int status = handle.call(outcome, tarvo_invoicing_authorise, text.c_str());
    if (!outcome.empty()) {
        std::cout << outcome << std::endl;
        for (const json& warning : json::parse(outcome).value("warnings", json::array()))
            complain("warning: " + warning.get<std::string>());
    }
    explain_status(status, handle.message());
    const bool voucher_exists = status == TARVO_INVOICING_OK || status == TARVO_INVOICING_CAEA;
    if (!options.qr_png_file.empty()) {
        if (!voucher_exists) {
            ::unlink(options.qr_png_file.c_str());
        } else {
            const json url = json::parse(outcome)["qr_url"];
            if (tarvo_invoicing_qr_png(handle.get(), url.get<std::string>().c_str(), options.qr_png_file.c_str()) != 0)
                complain(handle.message() + " (the voucher is authorised: see the output)");
        }
    }
    return status;
}

// JSON lines in, one outcome line each out, in order; a line that is no voucher gets its own.
int authorise_batch(InvoicingHandle& handle, const CliOptions& options)
{
    std::string text;
    if (!read_file_or_input(options.batch_file, text)) {
        complain("cannot read the batch from " + options.batch_file);
        return exit_no_input;
    }
    std::vector<std::optional<json>> refused; // per line: the refusal, or nullopt for a voucher
    std::string vouchers = "[";
    std::istringstream lines(text);
    std::string line;
    for (size_t number = 1; std::getline(lines, line); ++number) {
        if (line.find_first_not_of(" \t\r") == std::string::npos)
            continue;
        const json voucher = json::parse(line, nullptr, false);
        std::string problem;
        if (!voucher.is_object())
            problem = "line " + std::to_string(number) + " is not a JSON object";
        else if (!voucher.contains("sale_id"))
            problem = "line " + std::to_string(number) + " has no sale_id: a rerun could not recognise the sale";
        if (!problem.empty()) {
            refused.push_back(json{{"sale_id", voucher.is_object() ? voucher.value("sale_id", json()) : json()},
                                   {"status", TARVO_INVOICING_BAD_INPUT},
                                   {"message", problem + "; nothing was sent"}});
            continue;
        }
        vouchers += (vouchers.size() > 1 ? "," : "") + line;
        refused.push_back(std::nullopt);
    }
    vouchers += "]";
    std::string outcomes_text = "[]";
    if (vouchers != "[]") {
        const int status = handle.call(outcomes_text, tarvo_invoicing_authorise_batch, vouchers.c_str());
        if (outcomes_text.empty()) {
            explain_status(status, handle.message());
            return status;
        }
    }
    // The core writes one outcome a line: each is read alone, never the whole list at once.
    std::istringstream outcome_lines(outcomes_text);
    std::string outcome_line;
    int first_failure = TARVO_INVOICING_OK;
    for (const std::optional<json>& refusal : refused) {
        json outcome;
        if (refusal) {
            outcome = *refusal;
        } else {
            do
                std::getline(outcome_lines, outcome_line);
            while (outcome_lines && (outcome_line == "[" || outcome_line == "]"));
            if (!outcome_line.empty() && outcome_line.back() == ',')
                outcome_line.pop_back();
            outcome = json::parse(outcome_line);
        }
        std::cout << outcome.dump(-1, ' ', false, json::error_handler_t::replace) << '\n';
        const int status = outcome["status"].get<int>();
        if (status != TARVO_INVOICING_OK && first_failure == TARVO_INVOICING_OK) {
            first_failure = status;
            explain_status(status, "sale " + outcome["sale_id"].dump() + ": " + outcome["message"].get<std::string>());
        }
    }
    std::cout.flush();
    return first_failure;
}

// The accountant's columns, in the order of the core's listing.
const char* const csv_columns[] = {"sale_id", "state",   "PtoVta",   "CbteTipo",  "CbteNro",    "CbteFch", "DocTipo",
                                   "DocNro",  "ImpTotal", "CAE",     "CAEFchVto", "created_at", "updated_at"};

std::string csv_field(const json& value)
{
    std::string text = value.is_string() ? value.get<std::string>() : value.is_null() ? "" : value.dump();
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (const char c : text)
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

} // namespace

int run_invoice(const CliOptions& options, const std::optional<std::string>& password)
{
    InvoicingHandle handle(settings_of(options, password));
    if (handle.open_status() != TARVO_INVOICING_OK) {
        complain(handle.message());
        return handle.open_status();
    }
    const int status = options.batch_file.empty() ? authorise_one(handle, options) : authorise_batch(handle, options);
    // The outcome is printed already: a log that cannot be written does not hide it.
    std::string log;
    if (options.print_log || !options.log_file.empty()) {
        handle.call(log, tarvo_invoicing_transfer_log);
        report_transfer_log(log, options);
    }
    return status;
}

int run_padron(const CliOptions& options, const std::optional<std::string>& password)
{
    CliOptions core_options = options;
    // --service and --url name the registry here; the core logs in to it as to any service.
    const bool a13 = options.service.value_or("") == "ws_sr_padron_a13";
    core_options.service.reset();
    core_options.service_url.reset();
    json settings = settings_of(core_options, password);
    if (options.service_url)
        settings[a13 ? "registry_a13_url" : "registry_url"] = *options.service_url;
    InvoicingHandle handle(settings);
    int status = handle.open_status();
    std::string person;
    if (status == TARVO_INVOICING_OK) {
        const json query{{"cuit", *options.looked_up_cuit},
                         {"service", options.service.value_or("ws_sr_constancia_inscripcion")}};
        status = handle.call(person, tarvo_invoicing_lookup, query.dump().c_str());
    }
    if (!person.empty())
        std::cout << person << std::endl;
    explain_status(status, handle.message(), "");
    std::string log;
    if (options.print_log || !options.log_file.empty()) {
        handle.call(log, tarvo_invoicing_transfer_log);
        report_transfer_log(log, options);
    }
    return status;
}

int run_caea(const CliOptions& options, const std::optional<std::string>& password)
{
    InvoicingHandle handle(settings_of(options, password));
    int status = handle.open_status();
    std::string result;
    if (status == TARVO_INVOICING_OK) {
        json command{{"action", options.caea_action}};
        if (options.period) {
            command["period"] = *options.period;
            command["order"] = *options.order;
        }
        if (options.point_of_sale)
            command["point_of_sale"] = *options.point_of_sale;
        status = handle.call(result, tarvo_invoicing_caea, command.dump().c_str());
    }
    if (!result.empty()) {
        const json parsed = json::parse(result);
        std::cout << parsed.dump(2, ' ', false, json::error_handler_t::replace) << std::endl;
        if (parsed.is_object() && parsed.contains("warnings"))
            for (const json& warning : parsed["warnings"])
                complain("warning: " + warning.get<std::string>());
    }
    explain_status(status, handle.message(), "");
    return status;
}

int run_receipt(const CliOptions& options)
{
    json settings = json::object();
    if (!options.ledger_path.empty())
        settings["ledger"] = options.ledger_path;
    InvoicingHandle handle(settings);
    int status = handle.open_status();
    char* data = nullptr;
    size_t length = 0;
    if (status == TARVO_INVOICING_OK) {
        const json request{{"sale_id", options.sale_id}, {"issuer_file", options.issuer_file}, {"format", options.format}};
        status = tarvo_invoicing_receipt(handle.get(), request.dump().c_str(), &data, &length);
    }
    const OwnedText owned(data);
    if (status != TARVO_INVOICING_OK) {
        complain(handle.message());
        return status;
    }
    if (options.out_file == "-") {
        std::cout.write(data, static_cast<std::streamsize>(length));
        std::cout.flush();
        return std::cout ? TARVO_INVOICING_OK : TARVO_INVOICING_CANNOT_WRITE;
    }
    std::ofstream out(options.out_file, std::ios::binary | std::ios::trunc);
    out.write(data, static_cast<std::streamsize>(length));
    out.close();
    if (!out) {
        complain("cannot write the printout to " + options.out_file);
        return TARVO_INVOICING_CANNOT_WRITE;
    }
    return TARVO_INVOICING_OK;
}

int run_ledger(const CliOptions& options)
{
    json settings = json::object();
    if (!options.ledger_path.empty())
        settings["ledger"] = options.ledger_path;
    InvoicingHandle handle(settings);
    std::string output;
    int status = handle.open_status();
    if (status == TARVO_INVOICING_OK && options.command == Command::ledger_show) {
        status = handle.call(output, tarvo_invoicing_ledger_show, options.sale_id.c_str());
        if (status == TARVO_INVOICING_OK)
            std::cout << json::parse(output).dump(2, ' ', false, json::error_handler_t::replace) << '\n';
    } else if (status == TARVO_INVOICING_OK) {
        json filter = json::object();
        if (!options.from_date.empty())
            filter["from"] = options.from_date;
        if (!options.to_date.empty())
            filter["to"] = options.to_date;
        if (options.point_of_sale)
            filter["point_of_sale"] = *options.point_of_sale;
        status = handle.call(output, tarvo_invoicing_ledger_list, filter.dump().c_str());
        if (status == TARVO_INVOICING_OK) {
            const json sales = json::parse(output);
            const bool csv = options.format == "csv";
            std::string header;
            for (const char* column : csv_columns)
                header += (header.empty() ? "" : ",") + std::string(column);
            if (csv)
                std::cout << header << "\r\n";
            for (const json& sale : sales) {
                if (!csv) {
                    std::cout << sale.dump(-1, ' ', false, json::error_handler_t::replace) << '\n';
                    continue;
                }
                std::string row;
                for (const char* column : csv_columns)
                    row += (row.empty() ? "" : ",") + csv_field(sale.value(column, json()));
                std::cout << row << "\r\n";
            }
        }
    }
    std::cout.flush();
    if (status != TARVO_INVOICING_OK)
        complain(handle.message());
    return status;
}
