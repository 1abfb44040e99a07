/*
 * invoice: authorises the next Factura B of the samples and prints its number, CAE and QR address.
 *
 * Usage: invoice [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [SAMPLES]]]]]]
 * Settings left off come from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD, TARVO_SERVICE,
 * TARVO_SERVICE_URL and TARVO_SAMPLES (default /usr/share/tarvoafip/samples).
 * The exit status is 0 approved, 20 rejected, 66 a sample unreadable, or the library's result code.
 *
 * A real host reads the answers with an XML parser and, when an answer is lost (result 14 or 15),
 * asks FECompConsultar before sending again: tarvoafip_cli invoice does all of that.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tarvoafipdriver.h"

static const char* setting(int argc, char** argv, int position, const char* variable, const char* fallback)
{
    const char* value = position < argc ? argv[position] : getenv(variable);
    return value != NULL && *value != '\0' ? value : fallback;
}

/* The whole file as a NUL-terminated string, or NULL. */
static char* read_sample(const char* directory, const char* name)
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

/* Sends one request with its SOAPAction; the answer (to be freed) or NULL with *result set. */
static char* send(const char* operation, const char* request, int32_t* result)
{
    char header[256];
    uint32_t size = 0;
    char* answer;

    snprintf(header, sizeof header, "SOAPAction: \"http://ar.gov.afip.dif.FEV1/%s\"", operation);
    AddSOAPHeader(header);
    *result = SendSOAP(request);
    if (*result != AFIP_OK || (*result = ReceivedSOAP(NULL, 0, &size)) != AFIP_OK)
        return NULL;
    answer = calloc((size_t)size + 1, 1);
    if (answer != NULL && size > 0 && (*result = ReceivedSOAP(answer, size, &size)) != AFIP_OK) {
        free(answer);
        return NULL;
    }
    return answer;
}

/* The text of the first element whose name ends in `name` (any prefix), copied into `value`. */
static int element_text(const char* xml, const char* name, char* value, size_t capacity)
{
    char open[64];
    const char* start;
    const char* end;

    snprintf(open, sizeof open, "%s>", name);
    for (start = strstr(xml, open); start != NULL; start = strstr(start + 1, open)) {
        if (start[-1] == '<' || start[-1] == ':')
            break;
    }
    if (start == NULL)
        return 0;
    start += strlen(open);
    end = strchr(start, '<');
    if (end == NULL || (size_t)(end - start) >= capacity)
        return 0;
    memcpy(value, start, (size_t)(end - start));
    value[end - start] = '\0';
    return 1;
}

/* The sample with its number 1 in CbteDesde and CbteHasta replaced by `number`. */
static char* numbered(const char* sample, long long number)
{
    char* request = malloc(strlen(sample) + 64);
    const char* fields[] = {">1</ar:CbteDesde>", ">1</ar:CbteHasta>"};
    const char* from = sample;
    char* to = request;
    size_t i;

    if (request == NULL)
        return NULL;
    for (i = 0; i < 2; ++i) {
        const char* found = strstr(from, fields[i]);
        if (found == NULL)
            break;
        memcpy(to, from, (size_t)(found - from));
        to += found - from;
        to += sprintf(to, ">%lld%s", number, fields[i] + 2);
        from = found + strlen(fields[i]);
    }
    strcpy(to, from);
    return request;
}

static void base64(const char* data, char* encoded)
{
    static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    size_t length = strlen(data);
    size_t at;

    for (at = 0; at < length; at += 3) {
        unsigned long group = (unsigned long)(unsigned char)data[at] << 16;
        if (at + 1 < length)
            group |= (unsigned long)(unsigned char)data[at + 1] << 8;
        if (at + 2 < length)
            group |= (unsigned char)data[at + 2];
        *encoded++ = alphabet[group >> 18 & 63];
        *encoded++ = alphabet[group >> 12 & 63];
        *encoded++ = at + 1 < length ? alphabet[group >> 6 & 63] : '=';
        *encoded++ = at + 2 < length ? alphabet[group & 63] : '=';
    }
    *encoded = '\0';
}

int main(int argc, char** argv)
{
    const char* samples = setting(argc, argv, 6, "TARVO_SAMPLES", "/usr/share/tarvoafip/samples");
    char* last_request = read_sample(samples, "fe_comp_ultimo_autorizado.xml");
    char* sample = read_sample(samples, "fe_cae_solicitar.xml");
    char* answer;
    char* request;
    char text[64], outcome[8] = "", cae[32] = "", due[16] = "", date[16] = "";
    char payload[512], encoded[1024];
    long long number;
    int32_t result;

    if (last_request == NULL || sample == NULL) {
        fprintf(stderr, "invoice: cannot read the samples in %s\n", samples);
        return 66;
    }
    SetWSAA(setting(argc, argv, 1, "TARVO_WSAA_URL", ""));
    SetWSAACredentials(setting(argc, argv, 2, "TARVO_CERTIFICATE", ""), setting(argc, argv, 3, "TARVO_PASSWORD", ""));
    SetWSAAService(setting(argc, argv, 4, "TARVO_SERVICE", ""));
    SetWSUrl(setting(argc, argv, 5, "TARVO_SERVICE_URL", ""));

    answer = send("FECompUltimoAutorizado", last_request, &result);
    if (answer == NULL || !element_text(answer, "CbteNro", text, sizeof text) || strstr(answer, "Errors>") != NULL) {
        fprintf(stderr, "invoice: FECompUltimoAutorizado gave no number (result %d)\n", (int)result);
        free(answer);
        return result != AFIP_OK ? result : 20;
    }
    number = atoll(text) + 1;
    free(answer);

    request = numbered(sample, number);
    answer = request != NULL ? send("FECAESolicitar", request, &result) : NULL;
    free(request);
    if (answer == NULL) {
        fprintf(stderr, "invoice: FECAESolicitar failed with result %d\n", (int)result);
        return result;
    }
    element_text(answer, "Resultado", outcome, sizeof outcome);
    element_text(answer, "CAE", cae, sizeof cae);
    element_text(answer, "CAEFchVto", due, sizeof due);
    element_text(answer, "CbteFch", date, sizeof date);
    free(answer);
    free(last_request);
    free(sample);
    if (strcmp(outcome, "A") != 0 || strlen(date) != 8) {
        fprintf(stderr, "invoice: AFIP did not approve the voucher (Resultado %s)\n", outcome);
        return 20;
    }

    printf("CbteNro %lld\nCAE %s due %s\n", number, cae, due);
    /* The sample's voucher: CUIT 20111111112, point of sale 1, Factura B (6), 121.00 pesos to a final
       consumer (DocTipo 99, DocNro 0). */
    snprintf(payload, sizeof payload,
             "{\"ver\":1,\"fecha\":\"%.4s-%.2s-%.2s\",\"cuit\":20111111112,\"ptoVta\":1,\"tipoCmp\":6,\"nroCmp\":%lld,"
             "\"importe\":121.00,\"moneda\":\"PES\",\"ctz\":1,\"tipoDocRec\":99,\"nroDocRec\":0,\"tipoCodAut\":\"E\","
             "\"codAut\":%s}",
             date, date + 4, date + 6, number, cae);
    base64(payload, encoded);
    printf("QR https://www.afip.gob.ar/fe/qr/?p=%s\n", encoded);
    return 0;
}
