#ifndef TARVO_TOOLS_CLI_COMMAND_LINE_H
#define TARVO_TOOLS_CLI_COMMAND_LINE_H

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

// What the program is asked to do.
enum class Command {
    request,     // send one SOAP request through libtarvoafipdriver
    invoice,     // authorise a voucher (or a batch) through the invoicing core
    ledger_list, // the ledger's sales, for the accountant
    ledger_show, // one sale with everything the ledger keeps of it
    padron,      // what AFIP's registry says of a CUIT
    receipt,     // a printed voucher of a sale of the ledger
    caea,        // CAEA contingency: request, show, inform, no-movement, status
};

// Everything the command line asked for; an absent option leaves its setter uncalled.
struct CliOptions {
    Command command = Command::request;
    std::optional<std::int64_t> cuit;
    std::string invoice_file; // "-": standard input
    std::string batch_file;   // JSON lines; "-": standard input
    std::string qr_png_file;
    std::string sale_id;      // invoice --sale-id; ledger show's argument
    std::string ledger_path;  // empty: ledger.sqlite in the working directory
    std::string from_date, to_date; // ledger list, yyyymmdd
    std::optional<int> point_of_sale;
    std::string format = "json"; // ledger list: json or csv
    std::optional<std::int64_t> looked_up_cuit; // padron's argument
    std::string registry_url;                   // invoice: the registry's constancia address
    std::string issuer_file;                    // receipt: the issuer's profile
    std::string out_file;                       // receipt: "-" standard output
    std::string caea_action;                    // caea: request, show, inform, no_movement, status
    std::optional<int> period, order;           // caea: a fortnight
    bool contingency = false;                   // invoice: a CAEA when WSFEv1 cannot be reached
    std::optional<int> caea_point_of_sale;      // invoice: where contingency vouchers go
    std::string library_path; // empty: TARVO_LIBRARY, the build tree's copy, or the installed library
    std::optional<std::string> wsaa_url;
    std::optional<std::string> certificate_path;
    std::optional<std::string> certificate_password;
    std::string password_file;
    std::optional<std::string> service;
    std::optional<std::string> service_url;
    std::optional<std::string> proxy_url;
    std::optional<std::string> proxy_user;
    std::optional<std::string> proxy_password;
    std::optional<int32_t> tls_level;
    std::optional<uint32_t> timeout_ms;
    bool tls_verify = false;  // sets TARVO_TLS_VERIFY=1 for the library
    std::string ca_file;      // sets TARVO_CA_FILE
    std::vector<std::string> headers; // in command-line order, duplicates kept, the SOAPAction last
    std::string request_file;         // empty or "-": standard input
    bool print_log = false;
    std::string log_file;
    bool show_version = false;
    bool show_help = false;
};

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Accepts "--name value" and "--name=value"; throws UsageError on anything it does not know.
// --env fills the addresses that --wsaa-url and --url did not give; --operation adds the
// SOAPAction line of that WSFEv1 operation.
CliOptions parse_command_line(int argc, const char* const* argv);

const char* usage_text();

// The whole of a file named on the command line, or of standard input for "-"; false when unreadable.
bool read_file_or_input(const std::string& file, std::string& text);

#endif
