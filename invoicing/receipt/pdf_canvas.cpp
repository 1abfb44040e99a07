#include "invoicing/receipt/pdf_canvas.h"

#include <cairo-ft.h>
#include <cairo-pdf.h>
#include <fontconfig/fontconfig.h>
#include <qrencode.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "invoicing/receipt/receipt.h"

namespace {

template <typename T, void (*release)(T*)>
using Owner = std::unique_ptr<T, CairoRelease<T, release>>;
using FontFaceOwner = Owner<cairo_font_face_t, cairo_font_face_destroy>;
using FcConfigOwner = Owner<FcConfig, FcConfigDestroy>;
using FcPatternOwner = Owner<FcPattern, FcPatternDestroy>;
using QrCodeOwner = Owner<QRcode, QRcode_free>;

constexpr int largest_image_side = 4000;
const char png_signature[] = "\x89PNG\r\n\x1a\n";

const struct {
    Font font;
    const char* family;
    int weight;
    const char* debian_path;
} font_table[] = {
    {Font::regular, "DejaVu Sans", FC_WEIGHT_REGULAR, "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf"},
    {Font::bold, "DejaVu Sans", FC_WEIGHT_BOLD, "/usr/share/fonts/truetype/dejavu/DejaVuSans-Bold.ttf"},
    {Font::mono, "DejaVu Sans Mono", FC_WEIGHT_REGULAR, "/usr/share/fonts/truetype/dejavu/DejaVuSansMono.ttf"},
    {Font::mono_bold, "DejaVu Sans Mono", FC_WEIGHT_BOLD, "/usr/share/fonts/truetype/dejavu/DejaVuSansMono-Bold.ttf"},
};

// What fontconfig matches for the family and weight, or "" when it offers only a substitute.
std::string fontconfig_file(const char* family, int weight)
{
    const FcConfigOwner config(FcInitLoadConfigAndFonts());
    const FcPatternOwner pattern(FcPatternCreate());
    if (!config || !pattern)
        return "";
    FcPatternAddString(pattern.get(), FC_FAMILY, reinterpret_cast<const FcChar8*>(family));
    FcPatternAddInteger(pattern.get(), FC_WEIGHT, weight);
    FcConfigSubstitute(config.get(), pattern.get(), FcMatchPattern);
    FcDefaultSubstitute(pattern.get());
    FcResult result = FcResultNoMatch;
    const FcPatternOwner match(FcFontMatch(config.get(), pattern.get(), &result));
    FcChar8* matched_family = nullptr;
    FcChar8* file = nullptr;
    int matched_weight = 0;
    if (!match || FcPatternGetString(match.get(), FC_FAMILY, 0, &matched_family) != FcResultMatch ||
        FcPatternGetString(match.get(), FC_FILE, 0, &file) != FcResultMatch ||
        FcPatternGetInteger(match.get(), FC_WEIGHT, 0, &matched_weight) != FcResultMatch)
        return "";
    if (std::strcmp(reinterpret_cast<const char*>(matched_family), family) != 0 || matched_weight != weight)
        return "";
    return reinterpret_cast<const char*>(file);
}

FontFaceOwner load_font_face(const std::string& path)
{
    const FcPatternOwner pattern(FcPatternCreate());
    FcPatternAddString(pattern.get(), FC_FILE, reinterpret_cast<const FcChar8*>(path.c_str()));
    FcPatternAddInteger(pattern.get(), FC_INDEX, 0);
    FontFaceOwner face(cairo_ft_font_face_create_for_pattern(pattern.get()));
    if (cairo_font_face_status(face.get()) != CAIRO_STATUS_SUCCESS)
        throw ReceiptError("cannot load the font " + path);
    return face;
}

// The faces of the table, looked up once for the process.
cairo_font_face_t* font_face(Font font)
{
    struct Faces {
        FontFaceOwner faces[std::size(font_table)];
        Faces()
        {
            for (size_t i = 0; i < std::size(font_table); ++i)
                faces[i] = load_font_face(font_file(font_table[i].family, font_table[i].weight, font_table[i].debian_path));
        }
    };
    static const Faces loaded;
    size_t row = 0;
    while (font_table[row].font != font)
        ++row;
    return loaded.faces[row].get();
}

struct PngReader {
    const std::string& bytes;
    size_t offset = 0;
};

cairo_status_t read_png_bytes(void* closure, unsigned char* data, unsigned int length)
{
    auto* reader = static_cast<PngReader*>(closure);
    if (reader->bytes.size() - reader->offset < length)
        return CAIRO_STATUS_READ_ERROR;
    std::memcpy(data, reader->bytes.data() + reader->offset, length);
    reader->offset += length;
    return CAIRO_STATUS_SUCCESS;
}

cairo_status_t append_pdf_bytes(void* closure, const unsigned char* data, unsigned int length)
{
    try {
        static_cast<std::string*>(closure)->append(reinterpret_cast<const char*>(data), length);
        return CAIRO_STATUS_SUCCESS;
    } catch (const std::bad_alloc&) {
        return CAIRO_STATUS_NO_MEMORY;
    }
}

// A big-endian 32-bit number of the PNG header.
unsigned long header_number(const std::string& bytes, size_t offset)
{
    unsigned long value = 0;
    for (size_t i = 0; i < 4; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes[offset + i]);
    return value;
}

} // namespace

std::string font_file(const char* family, int weight, const char* debian_path)
{
    const std::string found = fontconfig_file(family, weight);
    if (!found.empty())
        return found;
    if (::access(debian_path, R_OK) == 0)
        return debian_path;
    throw ReceiptError(std::string("font not found: ") + family + (weight == FC_WEIGHT_BOLD ? " Bold" : "") +
                       " (install Debian's fonts-dejavu-core)");
}

std::string png_problem(const std::string& bytes)
{
    // The signature, then the IHDR chunk: its width and height at bytes 16 and 20.
    if (bytes.size() < 24 || bytes.compare(0, 8, png_signature, 8) != 0)
        return "is not a PNG image";
    if (header_number(bytes, 16) > largest_image_side || header_number(bytes, 20) > largest_image_side)
        return "is larger than 4000 x 4000 pixels";
    PngReader reader{bytes};
    const SurfaceOwner image(cairo_image_surface_create_from_png_stream(read_png_bytes, &reader));
    const cairo_status_t status = cairo_surface_status(image.get());
    return status == CAIRO_STATUS_SUCCESS ? "" : std::string("is not a readable PNG image (") + cairo_status_to_string(status) + ")";
}

SurfaceOwner decode_png(const std::string& bytes)
{
    const std::string problem = png_problem(bytes);
    if (!problem.empty())
        throw ReceiptError("issuer logo " + problem);
    PngReader reader{bytes};
    return SurfaceOwner(cairo_image_surface_create_from_png_stream(read_png_bytes, &reader));
}

QrMatrix encode_qr(const std::string& text)
{
    const QrCodeOwner code(QRcode_encodeData(static_cast<int>(text.size()), reinterpret_cast<const unsigned char*>(text.data()), 0,
                                             QR_ECLEVEL_M));
    if (!code)
        throw ReceiptError("the QR address does not fit in a QR code");
    QrMatrix matrix;
    matrix.width = code->width;
    matrix.dark.resize(static_cast<size_t>(code->width) * code->width);
    for (size_t i = 0; i < matrix.dark.size(); ++i)
        matrix.dark[i] = code->data[i] & 1; // the low bit: a dark module
    return matrix;
}

PdfDocument::PdfDocument(double width, double height, const std::string& title, const std::string& date)
    : m_surface(cairo_pdf_surface_create_for_stream(append_pdf_bytes, &m_bytes, width, height)),
      m_context(cairo_create(m_surface.get()))
{
    const std::string stamp = date.substr(0, 4) + "-" + date.substr(4, 2) + "-" + date.substr(6, 2) + "T00:00:00";
    cairo_pdf_surface_set_metadata(m_surface.get(), CAIRO_PDF_METADATA_TITLE, title.c_str());
    cairo_pdf_surface_set_metadata(m_surface.get(), CAIRO_PDF_METADATA_CREATOR, "libtarvoafipdriver");
    cairo_pdf_surface_set_metadata(m_surface.get(), CAIRO_PDF_METADATA_CREATE_DATE, stamp.c_str());
    cairo_pdf_surface_set_metadata(m_surface.get(), CAIRO_PDF_METADATA_MOD_DATE, stamp.c_str());
    cairo_set_line_width(m_context.get(), 0.8);
}

void PdfDocument::use_font(Font font, double size) const
{
    cairo_set_font_face(m_context.get(), font_face(font));
    cairo_set_font_size(m_context.get(), size);
}

double PdfDocument::text_width(const std::string& text, Font font, double size) const
{
    use_font(font, size);
    cairo_text_extents_t extents;
    cairo_text_extents(m_context.get(), text.c_str(), &extents);
    return extents.x_advance;
}

void PdfDocument::text(double x, double baseline, const std::string& text, Font font, double size, Align align)
{
    const double width = text_width(text, font, size);
    const double offsets[] = {0, width / 2, width}; // left, center, right
    cairo_move_to(m_context.get(), x - offsets[static_cast<int>(align)], baseline);
    cairo_show_text(m_context.get(), text.c_str());
}

void PdfDocument::box(double x, double y, double width, double height, double fill_gray)
{
    cairo_rectangle(m_context.get(), x, y, width, height);
    if (fill_gray >= 0) {
        cairo_set_source_rgb(m_context.get(), fill_gray, fill_gray, fill_gray);
        cairo_fill_preserve(m_context.get());
        cairo_set_source_rgb(m_context.get(), 0, 0, 0);
    }
    cairo_stroke(m_context.get());
}

void PdfDocument::line(double x1, double y1, double x2, double y2)
{
    cairo_move_to(m_context.get(), x1, y1);
    cairo_line_to(m_context.get(), x2, y2);
    cairo_stroke(m_context.get());
}

void PdfDocument::qr(const QrMatrix& code, double x, double y, double side)
{
    // One path of horizontal runs filled at once: squares that touch leave no seam between them.
    const double module = side / code.width;
    for (int row = 0; row < code.width; ++row)
        for (int column = 0; column < code.width;) {
            int end = column;
            while (end < code.width && code.at(end, row))
                ++end;
            if (end > column)
                cairo_rectangle(m_context.get(), x + column * module, y + row * module, (end - column) * module, module);
            column = std::max(end, column + 1);
        }
    cairo_fill(m_context.get());
}

double PdfDocument::image(const std::string& png, double x, double y, double width, double height, Align align)
{
    const SurfaceOwner image = decode_png(png);
    const double pixels_wide = cairo_image_surface_get_width(image.get());
    const double pixels_high = cairo_image_surface_get_height(image.get());
    const double scale = std::min(width / pixels_wide, height / pixels_high);
    const double left = align == Align::center ? x + (width - pixels_wide * scale) / 2 : x;
    cairo_save(m_context.get());
    cairo_translate(m_context.get(), left, y);
    cairo_scale(m_context.get(), scale, scale);
    cairo_set_source_surface(m_context.get(), image.get(), 0, 0);
    cairo_paint(m_context.get());
    cairo_restore(m_context.get());
    return pixels_high * scale;
}

void PdfDocument::next_page() { cairo_show_page(m_context.get()); }

void PdfDocument::set_page_size(double width, double height) { cairo_pdf_surface_set_size(m_surface.get(), width, height); }

std::string PdfDocument::finish()
{
    // Finishing the surface closes the last page.
    cairo_status_t status = cairo_status(m_context.get());
    m_context.reset();
    cairo_surface_finish(m_surface.get());
    if (status == CAIRO_STATUS_SUCCESS)
        status = cairo_surface_status(m_surface.get());
    if (status != CAIRO_STATUS_SUCCESS)
        throw ReceiptError(std::string("the PDF could not be made: ") + cairo_status_to_string(status));
    return std::move(m_bytes);
}
