/*
 * invoice: authorises the sample Factura B through the invoicing core and prints its number, CAE
 * and QR address.
 *
 * Usage: invoice [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [SAMPLES]]]]]]
 * Settings left off come from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD, TARVO_SERVICE,
 * TARVO_SERVICE_URL and TARVO_SAMPLES (default /usr/share/tarvoafip/samples). TARVO_SALE_ID names
 * the sale: run again with the same one, the sale is not authorised twice.
 * The exit status is the core's result code: 0 approved, 20 rejected, 21 outcome unknown, ...
 *
 * The core numbers the voucher, keeps it in ledger.sqlite (in the working directory) before
 * sending it, and recovers a lost answer; the host only reads the outcome.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "tarvoafipinvoicing.h"

static const char* setting(int argc, char** argv, int position, const char* variable, const char* fallback)
{
    const char* value = position < argc ? argv[position] : getenv(variable);
    return value != NULL && *value != '\0' ? value : fallback;
}

/* The whole file as a NUL-terminated string, or NULL. */
static char* read_file(const char* directory, const char* name)
{
    char path[4096];
    FILE* file;
    long size;
    char* text = NULL;

    snprintf(path, sizeof path, "%s/%s", directory, name);
    file = fopen(path, "rb");
    if (file == NULL)
        return NULL;
    if (fseek(file, 0, SEEK_END) == 0 && (size = ftell(file)) >= 0 && fseek(file, 0, SEEK_SET) == 0 &&
        (text = malloc((size_t)size + 1)) != NULL) {
        if (fread(text, 1, (size_t)size, file) == (size_t)size)
            text[size] = '\0';
        else {
            free(text);
            text = NULL;
        }
    }
    fclose(file);
    return text;
}

/* The value of a key of the outcome's top level, copied without quotes. Enough for the outcome's
   plain numbers and texts; a real host uses a JSON parser. */
static const char* field(const char* json, const char* key, char* value, size_t capacity)
{
    char pattern[64];
    const char* start;
    size_t length;

    snprintf(pattern, sizeof pattern, "\"%s\":", key);
    start = strstr(json, pattern);
    value[0] = '\0';
    if (start == NULL)
        return value;
    start += strlen(pattern);
    if (*start == '"')
        ++start;
    length = strcspn(start, "\",}");
    if (length >= capacity)
        length = capacity - 1;
    memcpy(value, start, length);
    value[length] = '\0';
    return value;
}

/* Writes a JSON text for `value` (the settings' and sale id's plain texts need no escapes but these). */
static void put_text(char* out, size_t capacity, const char* key, const char* value, int last)
{
    size_t used = strlen(out);
    const char* c;

    used += (size_t)snprintf(out + used, capacity - used, "\"%s\":\"", key);
    for (c = value; *c != '\0' && used + 3 < capacity; ++c) {
        if (*c == '"' || *c == '\\')
            out[used++] = '\\';
        out[used++] = *c;
    }
    snprintf(out + used, capacity - used, "\"%s", last ? "" : ",");
}

int main(int argc, char** argv)
{
    const char* samples = setting(argc, argv, 6, "TARVO_SAMPLES", "/usr/share/tarvoafip/samples");
    char* voucher = read_file(samples, "factura_b.json");
    char settings[8192] = "{\"cuit\":20111111112,";
    char made_id[64];
    const char* sale_id = getenv("TARVO_SALE_ID");
    char* request;
    char* outcome = NULL;
    char number[32], cae[32], due[16], qr[1024];
    tarvo_invoicing* core = NULL;
    int status;

    if (voucher == NULL || strchr(voucher, '{') == NULL) {
        fprintf(stderr, "invoice: cannot read %s/factura_b.json\n", samples);
        return 66;
    }
    put_text(settings, sizeof settings, "wsaa_url", setting(argc, argv, 1, "TARVO_WSAA_URL", ""), 0);
    put_text(settings, sizeof settings, "certificate", setting(argc, argv, 2, "TARVO_CERTIFICATE", ""), 0);
    put_text(settings, sizeof settings, "password", setting(argc, argv, 3, "TARVO_PASSWORD", ""), 0);
    put_text(settings, sizeof settings, "service", setting(argc, argv, 4, "TARVO_SERVICE", "wsfe"), 0);
    put_text(settings, sizeof settings, "url", setting(argc, argv, 5, "TARVO_SERVICE_URL", ""), 1);
    strcat(settings, "}");

    /* The sale's name: the host's own (a till and ticket number); here one per run unless given. */
    snprintf(made_id, sizeof made_id, "example-%ld-%ld", (long)time(NULL), (long)getpid());
    if (sale_id == NULL || *sale_id == '\0')
        sale_id = made_id;
    request = malloc(strlen(voucher) + 128);
    if (request == NULL)
        return 70;
    *request = '\0';
    put_text(request, 128, "sale_id", sale_id, 0);
    memmove(request + 1, request, strlen(request) + 1);
    request[0] = '{';
    strcat(request, strchr(voucher, '{') + 1);

    status = tarvo_invoicing_open(settings, &core);
    if (status == TARVO_INVOICING_OK)
        status = tarvo_invoicing_authorise(core, request, &outcome);
    if (status != TARVO_INVOICING_OK) {
        fprintf(stderr, "invoice: result %d: %s\n", status, tarvo_invoicing_message(core));
    } else {
        printf("CbteNro %s\n", field(outcome, "CbteNro", number, sizeof number));
        printf("CAE %s due %s\n", field(outcome, "CAE", cae, sizeof cae), field(outcome, "CAEFchVto", due, sizeof due));
        printf("QR %s\n", field(outcome, "qr_url", qr, sizeof qr));
    }
    tarvo_invoicing_free(outcome);
    tarvo_invoicing_close(core);
    free(request);
    free(voucher);
    return status;
}
