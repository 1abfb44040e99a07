// The printed voucher read back as a reader would: the PDFs' text with pdftotext, their QR code
// rasterised by pdftoppm and decoded by zbarimg, the ESC/POS bytes parsed command by command.
#include <cairo.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <regex>
#include <sstream>

#include "invoicing/receipt/pdf_canvas.h"
#include "invoicing/afip_codes.h"
#include "invoicing/receipt/receipt.h"
#include "invoicing/receipt/receipt_text.h"
#include "support/support.h"
#include "tools/simulator/parameters.h"
#include "util/b64.h"

namespace {

Money cents(std::int64_t value) { return Money::from_cents(value); }

// The standard output of a shell command bounded in time, which must succeed unless `may_fail`.
std::string run(const std::string& command, bool may_fail = false)
{
    std::string output;
    FILE* pipe = popen(("timeout 60 " + command + " 2>/dev/null").c_str(), "r");
    char buffer[4096];
    for (size_t n; pipe && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, n);
    const int status = pipe ? pclose(pipe) : -1;
    EXPECT_TRUE(may_fail || status == 0) << command;
    return output;
}

std::string collapsed(const std::string& text) { return std::regex_replace(text, std::regex("\\s+"), " "); }

// What a printer does with the bytes: its text (still in code page 850), the QR data stored, the
// QR functions called in order, the raster images' sizes; `problem` names a command it does not know.
struct Printout {
    std::string text, qr_data, qr_functions, images, problem;
    int resets = 0;
    size_t widest = 0, widest_large = 0; // the longest lines, in characters
};

Printout print(const std::string& bytes)
{
    Printout out;
    const auto byte = [&](size_t i) { return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0u; };
    bool large = false;
    size_t line_start = 0;
    for (size_t i = 0; i < bytes.size() && out.problem.empty();) {
        const unsigned char command = byte(i + 1);
        if (byte(i) == 0x1B && command == '@') {
            ++out.resets;
            i += 2;
        } else if (byte(i) == 0x1B && (command == 't' || command == 'E' || command == 'a')) {
            i += 3;
        } else if (byte(i) == 0x1D && command == '!') {
            large = byte(i + 2) == 0x11;
            i += 3;
        } else if (byte(i) == 0x1D && command == 'V' && byte(i + 2) == 66) {
            i += 4;
        } else if (byte(i) == 0x1D && command == '(' && byte(i + 2) == 'k') {
            const size_t length = byte(i + 3) | byte(i + 4) << 8;
            const std::string parameters = bytes.substr(i + 5, length);
            out.qr_functions += parameters.substr(1, 1);
            if (parameters.compare(0, 3, "1P0") == 0)
                out.qr_data += parameters.substr(3);
            i += 5 + length;
        } else if (byte(i) == 0x1D && command == 'v' && byte(i + 2) == '0') {
            const size_t row_bytes = byte(i + 4) | byte(i + 5) << 8, rows = byte(i + 6) | byte(i + 7) << 8;
            char first_row[16];
            std::snprintf(first_row, sizeof first_row, " %02x..%02x ", byte(i + 8), byte(i + 7 + row_bytes));
            out.images += std::to_string(row_bytes * 8) + "x" + std::to_string(rows) + first_row;
            i += 8 + row_bytes * rows;
        } else if (byte(i) == 0x1B || byte(i) == 0x1D) {
            out.problem = "unknown command at byte " + std::to_string(i);
        } else {
            if (bytes[i] == '\n') {
                size_t& widest = large ? out.widest_large : out.widest;
                widest = std::max(widest, out.text.size() - line_start);
                line_start = out.text.size() + 1;
            }
            out.text += bytes[i++];
        }
    }
    return out;
}

// The text a reader sees, whitespace collapsed, and the QR code read from the page at `dpi`.
struct Reading {
    std::string text, qr;
};

Reading read_back(const std::string& bytes, ReceiptFormat format, int dpi = 150, int page = 1)
{
    if (format == ReceiptFormat::escpos) {
        const Printout out = print(bytes);
        EXPECT_EQ(out.problem, "");
        EXPECT_EQ(out.resets, 1);
        write_file("ticket.txt", out.text);
        return {collapsed(run("iconv -f CP850 -t UTF-8 ticket.txt")), out.qr_data};
    }
    write_file("voucher.pdf", bytes);
    const std::string page_option = " -f " + std::to_string(page) + " -l " + std::to_string(page);
    run("pdftoppm -singlefile -png -r " + std::to_string(dpi) + page_option + " voucher.pdf page");
    std::string qr = run("zbarimg -q --raw page.png", true); // fails when it finds no code
    qr.erase(qr.find_last_not_of('\n') + 1);
    return {collapsed(run("pdftotext -layout voucher.pdf -")), qr};
}

std::string qr_address(const Receipt& r)
{
    return "https://www.afip.gob.ar/fe/qr/?p=" +
           base64_encode("{\"ver\":1,\"fecha\":\"" + r.date + "\",\"cuit\":" + r.issuer.cuit + ",\"ptoVta\":" +
                         std::to_string(r.point_of_sale) + ",\"tipoCmp\":" + std::to_string(r.voucher_type) +
                         ",\"nroCmp\":" + std::to_string(r.number) + ",\"importe\":" + std::to_string(r.amounts.total.cents() / 100) + "." +
                         std::to_string(r.amounts.total.cents() % 100 + 100).substr(1) +
                         ",\"moneda\":\"" + r.currency + "\",\"ctz\":1,\"tipoDocRec\":" + std::to_string(r.receiver.document_type) +
                         ",\"nroDocRec\":" + std::to_string(r.receiver.document_number) + ",\"tipoCodAut\":\"" +
                         (r.authorisation.kind == AuthorisationKind::cae ? "E" : "A") + "\",\"codAut\":" + r.authorisation.code + "}");
}

const char* const profile_json = R"({"name": "Panadería La Señora S.R.L.", "address": "Av. Corrientes 1234, 2° \"B\"",
    "cuit": "20-11111111-2", "iibb": "901-123456-7", "activities_start": "2020-03-01", "vat_condition": 1,
    "footer": "Gracias por su compra.\nDefensa del Consumidor: 0800-666-1518"})";

// Factura B to a final consumer: two lines priced with VAT, 1.000 net and 210 VAT.
Receipt factura_b()
{
    Receipt r;
    r.issuer = read_issuer_profile(profile_json);
    r.receiver = {"Juan Pérez", "", 96, 12345678, 5};
    r.voucher_type = 6;
    r.point_of_sale = 1;
    r.number = 42;
    r.date = "20250102";
    r.amounts.net = cents(100000);
    r.amounts.vat = cents(21000);
    r.amounts.total = cents(121000);
    r.vat_lines = {{5, cents(100000), cents(21000)}};
    r.items = {{"Facturas de dulce de leche (docena)", 2, cents(30250), 5}, {"Pan de campo", 1, cents(60500), 5}};
    r.authorisation = {AuthorisationKind::cae, "75123456789012", "20250112", "", ""};
    return r;
}

struct Case {
    const char* name;
    std::function<void(Receipt&)> change;
    std::vector<const char*> shown, absent;
};

const Case cases[] = {
    {"class A to a registered taxpayer: two rates, another tax",
     [](Receipt& r) {
         r.voucher_type = 1;
         r.receiver = {"Compañía Ñandú S.A.", "Calle Falsa 123, Córdoba", 80, 30712345671, 1};
         r.amounts = {cents(158700), Money(), cents(130000), Money(), cents(24150), cents(4550)};
         r.vat_lines = {{5, cents(100000), cents(21000)}, {4, cents(30000), cents(3150)}};
         r.other_taxes = {{7, "Percepción IIBB Buenos Aires", cents(130000), 3.5, cents(4550)}};
         r.items = {{"Pan de campo", 2, cents(25000), 5}, {"Facturas (docena)", 3, cents(16667), 5},
                    {"Harina 000", 1, cents(30000), 4}, {"Redondeo", 1, cents(-1), 5}};
     },
     {"A COD. 001", "FACTURA", "Punto de Venta: 00001 Comp. Nro: 00000042", "Fecha de Emisión: 02/01/2025",
      "Panadería La Señora S.R.L.", "Domicilio Comercial: Av. Corrientes 1234, 2° \"B\"", "CUIT: 20111111112",
      "Ingresos Brutos: 901-123456-7", "Fecha de Inicio de Actividades: 01/03/2020", "CUIT: 30712345671",
      "Apellido y Nombre / Razón Social: Compañía Ñandú S.A.", "Domicilio: Calle Falsa 123, Córdoba",
      "Condición frente al IVA: IVA Responsable Inscripto", "Facturas (docena)", "3,00", "166,67", "500,01", "-0,01", "10,5%",
      "Importe Neto Gravado: $ 1.300,00", "IVA 21%: $ 210,00", "IVA 10,5%: $ 31,50", "Percepción IIBB Buenos Aires",
      "3,5%", "45,50", "Importe Otros Tributos: $ 45,50", "Importe Total: $ 1.587,00", "CAE N°: 75123456789012",
      "Fecha de Vto. de CAE: 12/01/2025", "Gracias por su compra. Defensa del Consumidor: 0800-666-1518"},
     {"Ley 27.743", "IVA Contenido", "Subtotal:"}},
    {"class B to a final consumer: Ley 27.743 with internal taxes",
     [](Receipt& r) {
         r.amounts.other_taxes = cents(1500);
         r.amounts.total = cents(122500);
         r.other_taxes = {{4, "Impuestos Internos", cents(100000), 1, cents(1000)}, {7, "Percepción IIBB", cents(100000), 0.5, cents(500)}};
     },
     {"B COD. 006", "DNI: 12345678", "Impuestos Internos", "Percepción IIBB", "Apellido y Nombre / Razón Social: Juan Pérez", "Condición frente al IVA: Consumidor Final",
      "Facturas de dulce de leche (docena)", "605,00", "Subtotal: $ 1.210,00", "Importe Total: $ 1.225,00",
      "Régimen de Transparencia Fiscal al Consumidor (Ley 27.743)", "IVA Contenido: $ 210,00",
      "Otros Impuestos Nacionales Indirectos: $ 10,00"},
     {"IVA 21%", "Importe Neto Gravado", "Domicilio:"}},
    {"class C services over a period, no items",
     [](Receipt& r) {
         r.voucher_type = 11;
         r.issuer.vat_condition = 6;
         r.concept = 2;
         r.service_from = "20241201";
         r.service_to = "20241231";
         r.payment_due = "20250110";
         r.items.clear();
         r.receiver.document_number = 0;
         r.amounts = {cents(123456789), Money(), cents(123456789), Money(), Money(), Money()};
         r.vat_lines.clear();
     },
     {"C COD. 011", "Condición frente al IVA: Responsable Monotributo", "Período Facturado Desde: 01/12/2024 Hasta: 31/12/2024",
      "Fecha de Vto. para el pago: 10/01/2025", "Servicios", "Importe Total: $ 1.234.567,89"},
     {"Ley 27.743", "DNI"}},
    {"a CAEA voucher",
     [](Receipt& r) {
         r.authorisation = {AuthorisationKind::caea, "31234567890123", "", "20240216", "20240229"};
         r.point_of_sale = 99998;
         r.number = 99999999;
     },
     {"CAEA N°: 31234567890123", "Vigencia del CAEA: 16/02/2024 al 29/02/2024", "Punto de Venta: 99998 Comp. Nro: 99999999"},
     {"Fecha de Vto. de CAE", "CAE N°"}},
    {"a credit note in dollars for an invoice",
     [](Receipt& r) {
         r.voucher_type = 3;
         r.receiver = {"Compañía Ñandú S.A.", "", 80, 30712345671, 1};
         r.associated = {{1, 1, 41, "20241230"}};
         r.currency = "DOL";
         r.quotation = 1045.5;
         r.items.clear();
         r.description = "Devolución de mercadería";
     },
     {"A COD. 003", "NOTA DE CRÉDITO", "Comprobante Asociado: FACTURA A 00001-00000041 del 30/12/2024",
      "Moneda: Dólar Estadounidense - Cotización: 1.045,50", "Devolución de mercadería", "IVA 21%: U$S 210,00",
      "Importe Total: U$S 1.210,00"},
     {"Subtotal:"}},
};

void write_logo(const char* path)
{
    // 300 x 100 pixels, black on the left half, transparent on the right.
    const SurfaceOwner image(cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 300, 100));
    const ContextOwner context(cairo_create(image.get()));
    cairo_rectangle(context.get(), 0, 0, 150, 100);
    cairo_fill(context.get());
    cairo_surface_write_to_png(image.get(), path);
}

const ReceiptFormat all_formats[] = {ReceiptFormat::pdf_a4, ReceiptFormat::pdf_80mm, ReceiptFormat::escpos};

} // namespace

TEST(Receipt, EveryFormatShowsWhatTheVoucherMustShowAndItsQrScans)
{
    Workspace workspace;
    for (const Case& test : cases) {
        Receipt receipt = factura_b();
        test.change(receipt);
        receipt.qr_address = qr_address(receipt);
        for (const ReceiptFormat format : all_formats) {
            const Reading reading = read_back(render_receipt(receipt, format), format);
            const std::string where = std::string(test.name) + ", format " + std::to_string(static_cast<int>(format));
            for (const char* shown : test.shown)
                EXPECT_NE(reading.text.find(shown), std::string::npos) << where << ": no \"" << shown << "\" in\n" << reading.text;
            for (const char* absent : test.absent)
                EXPECT_EQ(reading.text.find(absent), std::string::npos) << where << ": \"" << absent << "\"";
            EXPECT_EQ(reading.qr, receipt.qr_address) << where;
        }
    }
}

TEST(Receipt, PdfsEmbedTheirFontsAndA4sQrScansAt300Dpi)
{
    Workspace workspace;
    Receipt receipt = factura_b();
    receipt.qr_address = qr_address(receipt);
    EXPECT_EQ(read_back(render_receipt(receipt, ReceiptFormat::pdf_a4), ReceiptFormat::pdf_a4, 300).qr, receipt.qr_address);
    // Boxes are outlined or lightly shaded: at 20 dpi the page stays mostly white.
    run("pdftoppm -gray -r 20 -singlefile voucher.pdf ink");
    std::istringstream image(read_file("ink.pgm"));
    std::string magic;
    size_t width = 0, height = 0, maximum = 0;
    image >> magic >> width >> height >> maximum;
    image.get();
    size_t dark = 0;
    for (size_t pixel = 0; pixel < width * height; ++pixel)
        dark += image.get() < 128 ? 1 : 0;
    EXPECT_LT(dark, width * height / 7) << magic << " " << width << "x" << height;
    for (const ReceiptFormat format : {ReceiptFormat::pdf_a4, ReceiptFormat::pdf_80mm}) {
        write_file("fonts.pdf", render_receipt(receipt, format));
        // Titled, and dated with the voucher's date so that the same voucher gives the same bytes.
        EXPECT_TRUE(std::regex_search(run("pdfinfo fonts.pdf"),
                                      std::regex("Title: +FACTURA B 00001-00000042\n(.*\n)*CreationDate: +\\w+ Jan +2 00:00:00 2025")));
        // pdffonts: name (after a subset tag), type, encoding, embedded, subset, Unicode map, object id.
        const std::string listing = run("pdffonts fonts.pdf");
        const std::regex row("\n[A-Z]{6}\\+(\\S+) .* (yes|no) +(yes|no) +(yes|no) +\\d+ +\\d+");
        std::string fonts;
        for (std::sregex_iterator font(listing.begin(), listing.end(), row), end; font != end; ++font)
            fonts += (*font)[1].str() + " embedded " + (*font)[2].str() + ", Unicode " + (*font)[4].str() + "; ";
        EXPECT_EQ(fonts, format == ReceiptFormat::pdf_a4
                             ? "DejaVuSans-Bold embedded yes, Unicode yes; DejaVuSans embedded yes, Unicode yes; "
                             : "DejaVuSansMono-Bold embedded yes, Unicode yes; DejaVuSansMono embedded yes, Unicode yes; ");
    }
}

TEST(Receipt, EscPosPrintsCodePage850AndTheQrByGsParenK)
{
    Receipt receipt = factura_b();
    receipt.voucher_type = 8; // NOTA DE CRÉDITO B
    receipt.receiver.name = "Ñandú \x1b@ Pérez";
    const std::string reference = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyz"; // wider than a line
    receipt.receiver.address = "Local 1 — 2 €, ref. " + reference;
    receipt.qr_address = qr_address(receipt);
    const std::string bytes = render_receipt(receipt, ReceiptFormat::escpos);
    const Printout out = print(bytes);
    EXPECT_EQ(bytes.compare(0, 5, "\x1b@\x1bt\x02"), 0);          // reset, then code page 850
    EXPECT_EQ(bytes.substr(bytes.size() - 10), std::string("\x1b" "E\0\x1d!\0\x1dVB\0", 10)); // plain text again, feed, cut
    EXPECT_EQ(out.qr_functions, "ACEPQ");                          // model, size, correction, store, print
    EXPECT_NE(bytes.find("\x1d(k\x04\x00" "1A2\x00", 0, 9), std::string::npos); // model 2
    EXPECT_NE(bytes.find("\x1d(k\x03\x00" "1E1", 0, 8), std::string::npos);     // error correction M
    EXPECT_EQ(out.qr_data, receipt.qr_address);
    EXPECT_NE(bytes.find("\x1b" "a\x01\x1d(k"), std::string::npos); // centred
    EXPECT_EQ(out.widest, 48u);
    EXPECT_EQ(out.widest_large, 3u + 17); // "NOTA DE CRÉDITO B" centred
    EXPECT_NE(out.text.find("\n" + reference.substr(0, 48) + "\n" + reference.substr(48) + "\n"), std::string::npos);
    for (const char* encoded : {"NOTA DE CR\x90" "DITO B", "\xa5" "and\xa3 @ P\x82rez", "CAE N\xf8:", "Emisi\xa2n",
                                "\n" "                    COD. 008\n", "\nImporte Total:                        $ 1.210,00\n",
                                "Local 1 ? 2 ?, ref."})
        EXPECT_NE(out.text.find(encoded), std::string::npos) << encoded;
    EXPECT_EQ(out.resets, 1); // the ESC in the name was printed as a space
    EXPECT_EQ(out.text.find("\xc3"), std::string::npos); // no UTF-8 left
    EXPECT_EQ(out.images, "");
}

TEST(Receipt, LogoOnEveryFormat)
{
    Workspace workspace;
    write_logo("logo.png");
    Receipt receipt = factura_b();
    receipt.issuer = read_issuer_profile(std::string(profile_json).insert(1, "\"logo\": \"logo.png\", "), workspace.path());
    receipt.qr_address = qr_address(receipt);
    // Scaled to the paper's 384 dots, black on the left, white on the right.
    EXPECT_EQ(print(render_receipt(receipt, ReceiptFormat::escpos)).images, "384x128 ff..00 ");
    for (const ReceiptFormat format : {ReceiptFormat::pdf_a4, ReceiptFormat::pdf_80mm}) {
        write_file("logo.pdf", render_receipt(receipt, format));
        EXPECT_TRUE(std::regex_search(run("pdfimages -list logo.pdf"), std::regex(" image +300 +100 ")));
    }
}

TEST(Receipt, ItemsOverSeveralA4PagesAllPrintedQrOnTheLast)
{
    Workspace workspace;
    Receipt receipt = factura_b();
    receipt.voucher_type = 11;
    receipt.vat_lines.clear();
    receipt.amounts = {cents(70000), Money(), cents(70000), Money(), Money(), Money()};
    receipt.items.clear();
    for (int i = 1; i <= 70; ++i)
        receipt.items.push_back({"Artículo " + std::to_string(i) + " de una descripción larga que ocupa dos líneas de la tabla", 1,
                                 cents(1000), 0});
    receipt.qr_address = qr_address(receipt);
    const std::string pdf = render_receipt(receipt, ReceiptFormat::pdf_a4);
    std::smatch pages;
    const Reading first = read_back(pdf, ReceiptFormat::pdf_a4, 150, 1);
    ASSERT_TRUE(std::regex_search(first.text, pages, std::regex("Página 1/(\\d+)"))) << first.text;
    const int last_page = std::stoi(pages[1]);
    EXPECT_GT(last_page, 1);
    EXPECT_EQ(first.qr, ""); // the totals and the QR are on the last page only
    EXPECT_EQ(read_back(pdf, ReceiptFormat::pdf_a4, 150, last_page).qr, receipt.qr_address);
    for (int i = 1; i <= 70; ++i)
        EXPECT_NE(first.text.find("Artículo " + std::to_string(i) + " de"), std::string::npos) << i;
    for (int page = 1; page <= last_page; ++page)
        EXPECT_NE(first.text.find("Página " + std::to_string(page) + "/" + pages[1].str()), std::string::npos) << page;
    // Each page repeats the header and the table's titles.
    for (const std::string repeated : {"Punto de Venta: 00001 Comp. Nro: 00000042", "Descripción Cantidad Precio Unit. Subtotal"}) {
        const std::regex pattern(repeated);
        EXPECT_EQ(std::distance(std::sregex_iterator(first.text.begin(), first.text.end(), pattern), std::sregex_iterator()), last_page)
            << repeated;
    }
}

TEST(Receipt, IssuerProfilesReadOrRefusedNamingTheField)
{
    Workspace workspace;
    write_logo("logo.png");
    write_file("not-a-logo.png", "GIF89a, not a PNG");
    write_file("cut.png", read_file("logo.png").substr(0, 60));
    const nlohmann::json good = nlohmann::json::parse(profile_json);
    const auto with = [&](const char* field, const nlohmann::json& value) {
        nlohmann::json profile = good;
        profile[field] = value;
        return profile.dump();
    };
    const auto without = [&](const char* field) {
        nlohmann::json profile = good;
        profile.erase(field);
        return profile.dump();
    };
    const struct {
        std::string json, error;
    } refused[] = {
        {"{\"name\": ", "issuer profile: not valid JSON"},
        {"[]", "issuer profile: must be a JSON object"},
        {with("colour", "red"), "issuer profile: unknown field \"colour\""},
        {without("cuit"), "issuer profile: field \"cuit\" is missing"},
        {without("name"), "field \"name\" is missing"},
        {without("address"), "field \"address\" is missing"},
        {without("iibb"), "field \"iibb\" is missing"},
        {without("activities_start"), "field \"activities_start\" is missing"},
        {without("vat_condition"), "field \"vat_condition\" is missing"},
        {with("cuit", "20111111113"), "field \"cuit\" 20111111113 is not a valid CUIT (its check digit is wrong)"},
        {with("cuit", 20111111110), "field \"cuit\" 20111111110 is not a valid CUIT"},
        {with("cuit", "2011111111"), "field \"cuit\" must be 11 digits"},
        {with("cuit", "20-1111111-12"), "field \"cuit\" must be 11 digits"},
        {with("name", 5), "field \"name\" must be a string"},
        {with("name", " "), "field \"name\" must not be empty"},
        {with("address", std::string(201, 'x')), "field \"address\" is longer than 200 characters"},
        {with("footer", std::string(1001, 'x')), "field \"footer\" is longer than 1000 characters"},
        {with("cuit", "2011111111122"), "field \"cuit\" must be 11 digits"},
        {with("activities_start", "2021-02-29"), "field \"activities_start\" must be a date written yyyy-mm-dd or yyyymmdd"},
        {with("activities_start", "20201301"), "field \"activities_start\" must be a date"},
        {with("vat_condition", 2), "field \"vat_condition\" must be a VAT condition id"},
        {with("vat_condition", "1"), "field \"vat_condition\" must be a VAT condition id"},
        {with("logo", "missing.png"), "field \"logo\" cannot read missing.png: No such file or directory"},
        {with("logo", "not-a-logo.png"), "field \"logo\" not-a-logo.png is not a PNG image"},
        {with("logo", "cut.png"), "field \"logo\" cut.png is not a readable PNG image"},
        {with("logo", "/dev/zero"), "field \"logo\" /dev/zero is larger than 2 MiB"},
    };
    for (const auto& test : refused) {
        try {
            read_issuer_profile(test.json);
            ADD_FAILURE() << "accepted: " << test.json;
        } catch (const ReceiptError& error) {
            EXPECT_NE(std::string(error.what()).find(test.error), std::string::npos) << error.what() << "\n  not " << test.error;
        }
    }
    nlohmann::json other = good;
    other.update({{"cuit", 20111111112}, {"iibb", 901123}, {"activities_start", "20200301"}, {"logo", "logo.png"}});
    const IssuerProfile read = read_issuer_profile(other.dump(), workspace.path());
    EXPECT_EQ(read.cuit + " " + read.iibb + " " + read.activities_start + " " + read.logo_path,
              "20111111112 901123 20200301 " + workspace.path() + "/logo.png");
    EXPECT_EQ(read.logo_png, read_file("logo.png"));
    EXPECT_EQ(read_issuer_profile(profile_json).cuit, "20111111112");
}

TEST(Receipt, ItemsMustAddUpToTheVouchersAmounts)
{
    const std::vector<VatLine> two_rates = {{5, cents(100000), cents(21000)}, {4, cents(30000), cents(3150)}};
    const VoucherAmounts a_amounts{cents(134150), cents(1000), cents(130000), cents(1000), cents(24150), Money()};
    const VoucherAmounts b_amounts{cents(122500), Money(), cents(100000), Money(), cents(21000), cents(1500)};
    const struct {
        std::vector<ReceiptItem> items;
        const VoucherAmounts& amounts;
        char voucher_class;
        std::string problem;
    } cases[] = {
        {{{"a", 2, cents(50000), 5}, {"b", 1, cents(30000), 4}, {"c", 1, cents(2000), 0}}, a_amounts, 'A', ""},
        {{{"a", 3, cents(33333), 5}, {"b", 1, cents(30000), 4}, {"c", 1, cents(2000), 0}}, a_amounts, 'M', ""}, // a cent a line
        {{{"a", 3, cents(33333), 5}, {"a", 1, cents(-2), 5}, {"b", 1, cents(30000), 4}, {"c", 1, cents(2000), 0}}, a_amounts, 'A',
         "the items at VAT 21% add up to 999,97, not to the voucher's base for VAT 21%, 1.000,00"},
        {{{"a", 1, cents(100000), 5}, {"b", 0.5, cents(60000), 4}, {"c", 1, cents(2000), 0}}, a_amounts, 'A', ""},
        {{{"a", 1, cents(100000), 5}, {"b", 1, cents(30000), 4}, {"c", 1, cents(1000), 0}}, a_amounts, 'A',
         "the items without VAT add up to 10,00, not to the voucher's exempt and untaxed amounts, 20,00"},
        {{{"a", 1, cents(100000), 5}, {"b", 1, cents(30000), 4}}, a_amounts, 'A', "the items without VAT add up to 0,00"},
        {{{"a", 1, cents(100000), 5}, {"b", 1, cents(30000), 9}}, a_amounts, 'A', "item 2: the voucher has no VAT line for VAT 2,5%"},
        {{{"a", 1, cents(121000), 5}}, b_amounts, 'B', ""},
        {{{"a", 1, cents(121000), 0}, {"b", 1, cents(1), 0}}, b_amounts, 'C', ""},
        {{{"a", 1, cents(121002), 0}}, b_amounts, 'C', "the items add up to 1.210,02, not to the voucher's total less other taxes, 1.210,00"},
        {{{"a", 1, cents(122500), 5}}, b_amounts, 'B', "the items add up to 1.225,00"},
        {{{"a", 0, cents(121000), 5}}, b_amounts, 'B', "item 1: the quantity must be positive"},
        {{{"a", 1e10, cents(1), 5}}, b_amounts, 'B', "item 1: the quantity must be positive and at most 10^9"},
        {{{"a", 1e9, cents(1000000), 5}}, b_amounts, 'B', "item 1: its amount is too large"},
        {{{"a", 1, cents(121000), 5}, {" ", 1, cents(0), 5}}, b_amounts, 'B', "item 2: the description is empty"},
        {{{std::string(501, 'x'), 1, cents(121000), 5}}, b_amounts, 'B', "item 1: the description is longer than 500 characters"},
        {{{"\xc3(", 1, cents(121000), 5}}, b_amounts, 'B', "item 1: the description is not valid UTF-8"},
        {{{"a", 1, cents(121000), 7}}, b_amounts, 'B', "item 1: VAT rate id 7 is not one AFIP lists"},
        {{}, b_amounts, 'B', ""},
    };
    for (const auto& test : cases) {
        const std::string problem = check_items(test.items, test.amounts, two_rates, test.voucher_class);
        EXPECT_EQ(problem.substr(0, test.problem.empty() ? std::string::npos : test.problem.size()), test.problem)
            << test.items.size() << " items, class " << test.voucher_class;
    }
}

TEST(Receipt, VouchersThatCannotBePrintedAreRefusedNamingTheField)
{
    const struct {
        std::function<void(Receipt&)> change;
        const char* error;
    } cases[] = {
        {[](Receipt& r) { r.voucher_type = 14; }, "voucher_type is not a voucher type AFIP lists"},
        {[](Receipt& r) { r.point_of_sale = 0; }, "point_of_sale must be 1 to 99998"},
        {[](Receipt& r) { r.point_of_sale = 99999; }, "point_of_sale must be 1 to 99998"},
        {[](Receipt& r) { r.number = 100000000; }, "number must be 1 to 99999999"},
        {[](Receipt& r) { r.date = "20250230"; }, "date must be a date written yyyymmdd"},
        {[](Receipt& r) { r.concept = 3; }, "service_from must be a date written yyyymmdd for services"},
        {[](Receipt& r) { r.concept = 2, r.service_from = "20250101"; }, "service_to must be a date"},
        {[](Receipt& r) { r.payment_due = "2025011"; }, "payment_due must be empty or a date"},
        {[](Receipt& r) { r.quotation = 0; }, "quotation must be positive"},
        {[](Receipt& r) { r.quotation = 1e70; }, "quotation must be positive and below 10^9"},
        {[](Receipt& r) { r.other_taxes = {{99, "x", Money(), 100.5, Money()}}; }, "other_taxes hold a rate that is not"},
        {[](Receipt& r) { r.other_taxes = {{99, "x", Money(), -0.5, Money()}}; }, "other_taxes hold a rate that is not"},
        {[](Receipt& r) { r.issuer.name.clear(); }, "issuer.name must not be empty"},
        {[](Receipt& r) { r.issuer.cuit = "20111111113"; }, "issuer.cuit must be a valid CUIT"},
        {[](Receipt& r) { r.receiver.document_type = 97; }, "receiver.document_type is not a document type AFIP lists"},
        {[](Receipt& r) { r.receiver.vat_condition = 2; }, "receiver.vat_condition is not a VAT condition AFIP lists"},
        {[](Receipt& r) { r.vat_lines[0].id = 7; }, "vat_lines hold a VAT rate id AFIP does not list"},
        {[](Receipt& r) { r.other_taxes.resize(21); }, "other_taxes must be at most 20"},
        {[](Receipt& r) { r.associated = {{1, 1, 0, ""}}; }, "associated hold a voucher whose type"},
        {[](Receipt& r) { r.associated = {{1, 99999, 1, ""}}; }, "associated hold a voucher whose type"},
        {[](Receipt& r) { r.authorisation.code = "7512345678901"; }, "authorisation.code must be 14 digits"},
        {[](Receipt& r) { r.authorisation.cae_expiry.clear(); }, "authorisation.cae_expiry must be a date"},
        {[](Receipt& r) { r.authorisation.kind = AuthorisationKind::caea; }, "authorisation.caea_from must be a date"},
        {[](Receipt& r) { r.qr_address = std::string(801, 'x'); }, "qr_address must be 1 to 800 bytes"},
        {[](Receipt& r) { r.receiver.name = "Jos\xe9"; }, "receiver.name is not valid UTF-8"},
        {[](Receipt& r) { r.issuer.footer = std::string(1001, 'x'); }, "issuer.footer is longer than 1000 characters"},
        {[](Receipt& r) { r.other_taxes = {{99, "\xed\xa0\x80", Money(), 0, Money()}}; },
         "other_taxes[0].description is not valid UTF-8"},
        {[](Receipt& r) { r.items[1].unit_price = cents(60400); }, "items: the items add up to 1.209,00"},
    };
    for (const auto& test : cases) {
        Receipt receipt = factura_b();
        receipt.qr_address = "https://www.afip.gob.ar/fe/qr/?p=e30=";
        test.change(receipt);
        for (const ReceiptFormat format : all_formats) {
            try {
                render_receipt(receipt, format);
                ADD_FAILURE() << "printed despite " << test.error;
            } catch (const ReceiptError& error) {
                EXPECT_EQ(std::string(error.what()).rfind(test.error, 0), 0u) << error.what();
            }
        }
    }
    EXPECT_THROW(font_file("No Such Family", 80, "/nonexistent/font.ttf"), ReceiptError);
    EXPECT_NE(font_file("DejaVu Sans", 200, "/nonexistent/font.ttf").find("DejaVuSans-Bold.ttf"), std::string::npos);
    EXPECT_EQ(font_file("No Such Family", 80, "/dev/null"), "/dev/null"); // Debian's path when fontconfig has no match
    const std::pair<const char*, std::optional<ReceiptFormat>> names[] = {
        {"pdf-a4", ReceiptFormat::pdf_a4}, {"pdf-80mm", ReceiptFormat::pdf_80mm}, {"escpos", ReceiptFormat::escpos}, {"pdf", std::nullopt}};
    for (const auto& [name, format] : names)
        EXPECT_EQ(receipt_format_named(name), format) << name;
}

TEST(Receipt, DatesUtf8AndCuitsCheckedAsAVoucherNeeds)
{
    // Month lengths as the C library's calendar has them, in a leap year.
    for (int month = 1; month <= 12; ++month)
        for (int day = 28; day <= 32; ++day) {
            std::tm time{};
            time.tm_year = 2024 - 1900;
            time.tm_mon = month - 1;
            time.tm_mday = day;
            time.tm_hour = 12;
            std::mktime(&time);
            char date[16];
            std::snprintf(date, sizeof date, "2024%02d%02d", month, day);
            EXPECT_EQ(valid_date(date), time.tm_mon == month - 1) << date;
        }
    for (const char* date : {"20230229", "21000229", "20250100", "20251301", "2025011", "2025o101", "18991231"})
        EXPECT_FALSE(valid_date(date)) << date;
    EXPECT_TRUE(valid_date("20000229") && valid_date("19000101"));
    const std::pair<const char*, bool> texts[] = {
        {"Ñandú — €", true},     {"\xf0\x9f\x98\x80", true}, {"\xc3", false},         {"\xc0\xaf", false},
        {"\xe0\x9f\xbf", false}, {"\xed\xa0\x80", false},    {"\xf0\x8f\xbf\xbf", false}, {"\xf4\x90\x80\x80", false},
        {"\xe2\x82", false},     {"\xe2\x28\xac", false},    {"\xf5\x80\x80\x80", false}, {"\x80", false},
        {"\xc1\xbf", false},     {"\xf4\x8f\xbf\xbf", true},
    };
    for (const auto& [text, valid] : texts)
        EXPECT_EQ(valid_utf8(text), valid) << text;
    const std::pair<const char*, bool> cuits[] = {
        {"20111111112", true},  {"27123456780", true},  {"30500000003", true}, {"23999999999", true},
        {"33700000007", true},  {"20000000001", true},  {"20000000010", false}, {"20111111113", false},
        {"2011111111", false},  {"2011111111a", false}, {"201111111120", false},
    };
    for (const auto& [cuit, valid] : cuits)
        EXPECT_EQ(valid_cuit(cuit), valid) << cuit;
}

// The code tables against the simulator's own transcription of AFIP's FEParamGet answers.
TEST(Receipt, AfipCodesAgreeWithTheSimulatorsTables)
{
    const auto named = [](const char* name) { return std::string(name ? name : "(none)"); };
    // FEParamGetTiposCbte's descriptions from the kind and class the printout uses.
    const auto voucher = [](int id) {
        const VoucherTypeInfo* info = voucher_type_info(id);
        const char* kinds[] = {"Factura", "Nota de Débito", "Nota de Crédito", "Recibos", "Notas de Venta al contado"};
        const char* credit_kinds[] = {"Factura de Crédito", "Nota de Débito", "Nota de Crédito"};
        const bool credit_invoice = id >= 201;
        if (info && info->kind == VoucherKind::receipt && (info->letter == 'C' || info->letter == 'M'))
            return std::string("Recibo ") + info->letter; // AFIP's own table writes these two in the singular
        return info ? (credit_invoice ? credit_kinds[static_cast<int>(info->kind)] + std::string(" electrónica MiPyMEs (FCE)")
                                      : std::string(kinds[static_cast<int>(info->kind)])) +
                          " " + info->letter
                    : "(none)";
    };
    const auto rate = [](int id) {
        char text[16];
        std::snprintf(text, sizeof text, "%g%%", vat_rate_info(id) ? vat_rate_info(id)->percent : -1);
        return std::string(text);
    };
    const std::map<std::string, std::function<std::string(const char*)>> lookups = {
        {"FEParamGetTiposCbte", [&](const char* id) { return voucher(std::atoi(id)); }},
        {"FEParamGetTiposDoc", [&](const char* id) { return named(document_type_name(std::atoi(id))); }},
        {"FEParamGetTiposIva", [&](const char* id) { return rate(std::atoi(id)); }},
        {"FEParamGetTiposMonedas", [&](const char* id) { return named(currency_info(id) ? currency_info(id)->name : nullptr); }},
        {"FEParamGetTiposConcepto", [&](const char* id) { return named(concept_name(std::atoi(id))); }},
        {"FEParamGetTiposTributos",
         [&](const char* id) { return named(tax_type_info(std::atoi(id)) ? tax_type_info(std::atoi(id))->name : nullptr); }},
    };
    size_t compared = 0;
    for (const ParameterTable& table : parameter_tables())
        if (lookups.count(table.operation))
            for (const auto& row : table.rows) {
                if (std::string(table.operation) == "FEParamGetTiposCbte" && std::string(row[0]) == "49")
                    continue; // a purchase of used goods, not a voucher this core prints
                EXPECT_EQ(lookups.at(table.operation)(row[0]), row[1]) << table.operation << " " << row[0];
                ++compared;
            }
    for (const ReceptorCondition& condition : receptor_conditions())
        EXPECT_EQ(named(vat_condition_name(condition.id)), condition.description) << condition.id;
    EXPECT_EQ(compared, 59u);
    EXPECT_EQ(vat_display('M'), VatDisplay::itemised);
    EXPECT_EQ(vat_display('E'), VatDisplay::none);
    EXPECT_TRUE(tax_type_info(1)->national_indirect && tax_type_info(4)->national_indirect && !tax_type_info(6)->national_indirect);
}
