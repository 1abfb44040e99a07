#include "invoice_command.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "host_messages.h"
#include "invoice_flow.h"
#include "qr_code.h"
#include "util/argentina_time.h"
#include "util/wsfev1.h"

namespace {

// Each request goes with the user's --header lines and its operation's SOAPAction: SendSOAP
// empties the header queue every time.
class LibraryChannel : public InvoicingChannel {
public:
    LibraryChannel(const LoadedDriver& driver, const std::vector<std::string>& headers)
        : m_driver(driver), m_headers(headers)
    {
    }

    ServiceExchange send(const std::string& operation, const std::string& request) override
    {
        for (const std::string& header : m_headers)
            m_driver.AddSOAPHeader(header.c_str());
        m_driver.AddSOAPHeader(wsfev1_soap_action(operation).c_str());
        ServiceExchange exchange;
        exchange.result = m_driver.SendSOAP(request.c_str());
        if (exchange.result == 0 || exchange.result == 14)
            exchange.answer = m_driver.answer();
        return exchange;
    }

    void pause(int milliseconds) override { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

private:
    const LoadedDriver& m_driver;
    const std::vector<std::string>& m_headers;
};

nlohmann::ordered_json message_list(const ServiceMessages& messages)
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const ServiceMessage& message : messages)
        list.push_back({{"Code", message.code}, {"Msg", message.text}});
    return list;
}

void complain(const std::string& message)
{
    std::cerr << "tarvoafip_cli: " << message << '\n';
}

} // namespace

int run_invoice(const LoadedDriver& driver, const CliOptions& options)
{
    std::string text;
    if (!read_file_or_input(options.invoice_file, text)) {
        complain("cannot read the invoice from " + options.invoice_file);
        return 66;
    }
    Invoice invoice;
    try {
        invoice = read_invoice(text);
    } catch (const InvoiceFileError& error) {
        complain("bad invoice file: " + std::string(error.what()) + "; nothing was sent");
        return exit_bad_invoice;
    }
    // Found out before anything is sent: afterwards the voucher would exist without its image. An
    // older image there is emptied now, so that it is never taken for this voucher's.
    if (!options.qr_png_file.empty()) {
        const int fd = ::open(options.qr_png_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) {
            complain("cannot write the QR image to " + options.qr_png_file + "; nothing was sent");
            return exit_cannot_create;
        }
        ::close(fd);
    }

    LibraryChannel channel(driver, options.headers);
    const InvoiceResult result = authorise_invoice(invoice, *options.cuit, argentina_today(), channel);
    const bool approved = result.outcome == InvoiceOutcome::approved;

    std::string url;
    if (approved) {
        QrVoucher voucher{result.date,           *options.cuit,           invoice.point_of_sale,
                          invoice.voucher_type,  result.number,           invoice.total,
                          invoice.currency,      invoice.exchange_rate,   invoice.document_type,
                          invoice.document_number, result.cae};
        url = qr_url(voucher);
    }
    nlohmann::ordered_json output;
    output["Resultado"] = result.result;
    output["PtoVta"] = result.point_of_sale;
    output["CbteTipo"] = result.voucher_type;
    output["CbteNro"] = result.number;
    output["CbteFch"] = result.date;
    output["CAE"] = result.cae;
    output["CAEFchVto"] = result.cae_expiry;
    output["Observaciones"] = message_list(result.observations);
    output["Errors"] = message_list(result.errors);
    output["Events"] = message_list(result.events);
    output["recovered"] = result.recovered;
    output["qr_url"] = approved ? nlohmann::ordered_json(url) : nlohmann::ordered_json();
    std::cout << output.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;

    if (!approved && !options.qr_png_file.empty())
        ::unlink(options.qr_png_file.c_str());
    switch (result.outcome) {
    case InvoiceOutcome::approved:
        if (!options.qr_png_file.empty()) {
            std::string problem;
            if (!write_qr_png(url, options.qr_png_file, problem))
                complain(problem + " (the voucher is authorised: see the output)");
        }
        return 0;
    case InvoiceOutcome::rejected:
        complain(result.message);
        return exit_rejected;
    case InvoiceOutcome::unknown:
        complain(result.message);
        return exit_outcome_unknown;
    case InvoiceOutcome::not_sent:
        complain(result.message + ": result " + std::to_string(result.library_result) + ": " +
                 explain_result(result.library_result));
        return result.library_result;
    }
    return exit_outcome_unknown;
}
