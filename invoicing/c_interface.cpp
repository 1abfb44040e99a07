// The C interface of libtarvoafipinvoicing: a handle per configuration, JSON in and out, result
// codes with a message; no exception crosses it.
#include "tarvoafipinvoicing.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "invoicing/session.h"

struct tarvo_invoicing {
    std::unique_ptr<InvoicingSession> session; // null when the settings were refused
    int open_status = 0;
    std::string message;
};

namespace {

char* copy_text(const std::string& text)
{
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr)
        throw std::bad_alloc();
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// Runs an action of a handle: a refused or missing handle, a null argument and any exception
// become result codes with a message.
template <typename Action>
int act(tarvo_invoicing* handle, char** output, Action action)
{
    if (output != nullptr)
        *output = nullptr;
    if (handle == nullptr)
        return TARVO_INVOICING_BAD_INPUT;
    if (!handle->session) {
        return handle->open_status;
    }
    try {
        const CoreResult result = action(*handle->session);
        handle->message = result.message;
        if (output != nullptr && result.output)
            *output = copy_text(*result.output);
        return result.status;
    } catch (const LedgerError& error) {
        handle->message = error.what();
        return TARVO_INVOICING_LEDGER_ERROR;
    } catch (const std::bad_alloc&) {
        handle->message = "out of memory";
    } catch (const std::exception& error) {
        handle->message = std::string("internal failure: ") + error.what();
    } catch (...) {
        handle->message = "internal failure";
    }
    return TARVO_INVOICING_INTERNAL;
}

// An action that needs no handle; with one, its message is kept there.
template <typename Action>
int act_without_handle(tarvo_invoicing* handle, char** output, Action action)
{
    tarvo_invoicing scratch;
    tarvo_invoicing& holder = handle != nullptr ? *handle : scratch;
    if (output != nullptr)
        *output = nullptr;
    try {
        const CoreResult result = action();
        holder.message = result.message;
        if (output != nullptr && result.output)
            *output = copy_text(*result.output);
        return result.status;
    } catch (const std::bad_alloc&) {
        holder.message = "out of memory";
    } catch (const std::exception& error) {
        holder.message = std::string("internal failure: ") + error.what();
    }
    return TARVO_INVOICING_INTERNAL;
}

int refuse_null(tarvo_invoicing* handle, const char* what, char** output = nullptr)
{
    if (output != nullptr)
        *output = nullptr;
    if (handle != nullptr)
        handle->message = std::string(what) + " is NULL";
    return TARVO_INVOICING_BAD_INPUT;
}

} // namespace

extern "C" {

int tarvo_invoicing_version(void)
{
    return TARVO_INVOICING_VERSION;
}

int tarvo_invoicing_open(const char* settings_json, tarvo_invoicing** handle)
{
    if (handle == nullptr)
        return TARVO_INVOICING_BAD_INPUT;
    *handle = new (std::nothrow) tarvo_invoicing;
    if (*handle == nullptr)
        return TARVO_INVOICING_INTERNAL;
    tarvo_invoicing& opened = **handle;
    try {
        if (settings_json == nullptr)
            throw SettingsError("the settings are NULL");
        opened.session = std::make_unique<InvoicingSession>(settings_json);
        return TARVO_INVOICING_OK;
    } catch (const SettingsError& error) {
        opened.open_status = TARVO_INVOICING_BAD_INPUT;
        opened.message = error.what();
    } catch (const std::exception& error) {
        opened.open_status = TARVO_INVOICING_INTERNAL;
        opened.message = std::string("internal failure: ") + error.what();
    }
    return opened.open_status;
}

void tarvo_invoicing_close(tarvo_invoicing* handle)
{
    delete handle;
}

const char* tarvo_invoicing_message(const tarvo_invoicing* handle)
{
    return handle == nullptr ? "the handle is NULL" : handle->message.c_str();
}

int tarvo_invoicing_authorise(tarvo_invoicing* handle, const char* voucher_json, char** outcome_json)
{
    if (voucher_json == nullptr)
        return refuse_null(handle, "the voucher", outcome_json);
    return act(handle, outcome_json, [&](InvoicingSession& session) { return session.authorise(voucher_json); });
}

int tarvo_invoicing_authorise_batch(tarvo_invoicing* handle, const char* vouchers_json, char** outcomes_json)
{
    if (vouchers_json == nullptr)
        return refuse_null(handle, "the vouchers", outcomes_json);
    return act(handle, outcomes_json, [&](InvoicingSession& session) { return session.authorise_batch(vouchers_json); });
}

int tarvo_invoicing_lookup(tarvo_invoicing* handle, const char* query_json, char** person_json)
{
    if (query_json == nullptr)
        return refuse_null(handle, "the query", person_json);
    return act(handle, person_json, [&](InvoicingSession& session) { return session.lookup(query_json); });
}

int tarvo_invoicing_receipt(tarvo_invoicing* handle, const char* request_json, char** data, size_t* length)
{
    if (length != nullptr)
        *length = 0;
    if (request_json == nullptr || length == nullptr)
        return refuse_null(handle, request_json == nullptr ? "the request" : "the length", data);
    std::string bytes;
    const int status = act(handle, nullptr, [&](InvoicingSession& session) {
        CoreResult result = session.receipt(request_json);
        bytes = std::move(result.output).value_or("");
        return CoreResult{result.status, result.message, std::nullopt};
    });
    if (data != nullptr)
        *data = nullptr;
    if (status == TARVO_INVOICING_OK && data != nullptr) {
        try {
            *data = copy_text(bytes);
        } catch (const std::bad_alloc&) {
            handle->message = "out of memory";
            return TARVO_INVOICING_INTERNAL;
        }
        *length = bytes.size();
    }
    return status;
}

int tarvo_invoicing_caea(tarvo_invoicing* handle, const char* command_json, char** result_json)
{
    if (command_json == nullptr)
        return refuse_null(handle, "the command", result_json);
    return act(handle, result_json, [&](InvoicingSession& session) { return session.caea(command_json); });
}

int tarvo_invoicing_ledger_list(tarvo_invoicing* handle, const char* filter_json, char** sales_json)
{
    return act(handle, sales_json,
               [&](InvoicingSession& session) { return session.ledger_list(filter_json ? filter_json : ""); });
}

int tarvo_invoicing_ledger_show(tarvo_invoicing* handle, const char* sale_id, char** sale_json)
{
    if (sale_id == nullptr)
        return refuse_null(handle, "the sale id", sale_json);
    return act(handle, sale_json, [&](InvoicingSession& session) { return session.ledger_show(sale_id); });
}

int tarvo_invoicing_qr_png(tarvo_invoicing* handle, const char* text, const char* png_path)
{
    if (text == nullptr || png_path == nullptr)
        return refuse_null(handle, text == nullptr ? "the text" : "the path");
    return act_without_handle(handle, nullptr, [&] { return qr_png_file(text, png_path); });
}

int tarvo_invoicing_read_answer(tarvo_invoicing* handle, const char* answer_xml, char** outcome_json)
{
    if (answer_xml == nullptr)
        return refuse_null(handle, "the answer", outcome_json);
    return act_without_handle(handle, outcome_json, [&] { return read_answer_json(answer_xml); });
}

int tarvo_invoicing_qr_url(tarvo_invoicing* handle, const char* voucher_json, char** url)
{
    if (voucher_json == nullptr)
        return refuse_null(handle, "the voucher", url);
    return act_without_handle(handle, url, [&] { return qr_url_json(voucher_json); });
}

int tarvo_invoicing_transfer_log(tarvo_invoicing* handle, char** log)
{
    return act(handle, log, [&](InvoicingSession& session) {
        return CoreResult{TARVO_INVOICING_OK, "", session.transfer_log()};
    });
}

void tarvo_invoicing_free(void* text)
{
    std::free(text);
}

} // extern "C"
