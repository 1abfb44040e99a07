#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

#include "invoicing/afip_codes.h"
#include "invoicing/receipt/pdf_canvas.h"
#include "invoicing/receipt/receipt.h"
#include "invoicing/receipt/receipt_text.h"

namespace {

using json = nlohmann::json;

constexpr size_t longest_text = 200;
constexpr size_t longest_footer = 1000;
constexpr size_t largest_logo = 2 * 1024 * 1024;

// What is wrong with one field's value; read_issuer_profile names the field.
struct FieldProblem {
    std::string text;
};

std::string text_of(const json& value, size_t longest)
{
    if (!value.is_string())
        throw FieldProblem{"must be a string"};
    const std::string text = value.get<std::string>();
    if (text.find_first_not_of(" \t\n") == std::string::npos)
        throw FieldProblem{"must not be empty"};
    if (column_count(text) > longest)
        throw FieldProblem{"is longer than " + std::to_string(longest) + " characters"};
    return text;
}

// A number or a string, as a profile may write a CUIT or a gross-income number.
std::string digits_or_text(const json& value, size_t longest)
{
    return value.is_number_unsigned() ? std::to_string(value.get<std::uint64_t>()) : text_of(value, longest);
}

void read_name(const json& value, IssuerProfile& profile, const std::string&) { profile.name = text_of(value, longest_text); }

void read_address(const json& value, IssuerProfile& profile, const std::string&)
{
    profile.address = text_of(value, longest_text);
}

void read_cuit(const json& value, IssuerProfile& profile, const std::string&)
{
    std::string cuit = digits_or_text(value, longest_text);
    // "20-11111111-2" as it is often written.
    if (cuit.size() == 13 && cuit[2] == '-' && cuit[11] == '-')
        cuit = cuit.substr(0, 2) + cuit.substr(3, 8) + cuit.substr(12);
    if (cuit.size() != 11 || cuit.find_first_not_of("0123456789") != std::string::npos)
        throw FieldProblem{"must be 11 digits"};
    if (!valid_cuit(cuit))
        throw FieldProblem{cuit + " is not a valid CUIT (its check digit is wrong)"};
    profile.cuit = cuit;
}

void read_iibb(const json& value, IssuerProfile& profile, const std::string&)
{
    profile.iibb = digits_or_text(value, longest_text);
}

void read_activities_start(const json& value, IssuerProfile& profile, const std::string&)
{
    std::string date = text_of(value, longest_text);
    if (date.size() == 10 && date[4] == '-' && date[7] == '-')
        date = date.substr(0, 4) + date.substr(5, 2) + date.substr(8, 2);
    if (!valid_date(date))
        throw FieldProblem{"must be a date written yyyy-mm-dd or yyyymmdd"};
    profile.activities_start = date;
}

void read_vat_condition(const json& value, IssuerProfile& profile, const std::string&)
{
    if (!value.is_number_integer() || !vat_condition_name(value.get<int>()))
        throw FieldProblem{"must be a VAT condition id: 1, 4, 5, 6, 7, 8, 9, 10, 13, 15 or 16"};
    profile.vat_condition = value.get<int>();
}

void read_logo(const json& value, IssuerProfile& profile, const std::string& base_directory)
{
    std::string path = text_of(value, 4096);
    if (path[0] != '/' && !base_directory.empty())
        path = base_directory + "/" + path;
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw FieldProblem{"cannot read " + path + ": " + std::strerror(errno)};
    // One byte past the limit tells a file too large (or endless, as a device is) from one that fits.
    std::string bytes(largest_logo + 1, '\0');
    file.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<size_t>(file.gcount()));
    if (bytes.size() > largest_logo)
        throw FieldProblem{path + " is larger than 2 MiB"};
    const std::string problem = png_problem(bytes);
    if (!problem.empty())
        throw FieldProblem{path + " " + problem};
    profile.logo_path = path;
    profile.logo_png = bytes;
}

void read_footer(const json& value, IssuerProfile& profile, const std::string&)
{
    profile.footer = text_of(value, longest_footer);
}

const struct {
    const char* name;
    bool required;
    void (*read)(const json&, IssuerProfile&, const std::string&);
} profile_fields[] = {
    {"name", true, read_name},
    {"address", true, read_address},
    {"cuit", true, read_cuit},
    {"iibb", true, read_iibb},
    {"activities_start", true, read_activities_start},
    {"vat_condition", true, read_vat_condition},
    {"logo", false, read_logo},
    {"footer", false, read_footer},
};

} // namespace

IssuerProfile read_issuer_profile(const std::string& json_text, const std::string& base_directory)
{
    json document;
    try {
        document = json::parse(json_text);
    } catch (const json::exception& error) {
        throw ReceiptError(std::string("issuer profile: not valid JSON: ") + error.what());
    }
    if (!document.is_object())
        throw ReceiptError("issuer profile: must be a JSON object");
    for (const auto& member : document.items()) {
        bool known = false;
        for (const auto& field : profile_fields)
            known = known || member.key() == field.name;
        if (!known)
            throw ReceiptError("issuer profile: unknown field \"" + member.key() + "\"");
    }
    IssuerProfile profile;
    for (const auto& field : profile_fields) {
        const auto found = document.find(field.name);
        if (found == document.end()) {
            if (field.required)
                throw ReceiptError(std::string("issuer profile: field \"") + field.name + "\" is missing");
            continue;
        }
        try {
            field.read(*found, profile, base_directory);
        } catch (const FieldProblem& problem) {
            throw ReceiptError(std::string("issuer profile: field \"") + field.name + "\" " + problem.text);
        }
    }
    return profile;
}
