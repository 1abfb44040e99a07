/*
 * minimal_host: the smallest C host of libtarvoafipdriver; one SendSOAP, answer on standard output.
 *
 * Usage: minimal_host [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [REQUEST_FILE]]]]]]
 * A setting left off the command line is read from the environment: TARVO_WSAA_URL,
 * TARVO_CERTIFICATE, TARVO_PASSWORD, TARVO_SERVICE, TARVO_SERVICE_URL, TARVO_REQUEST;
 * TARVO_SOAP_ACTION adds the line SOAPAction: "<its value>".
 * The exit status is the library's result code (66 when the request file cannot be read).
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tarvoafipdriver.h"

static const char* setting(int argc, char** argv, int position, const char* variable)
{
    const char* value = position < argc ? argv[position] : getenv(variable);
    return value != NULL ? value : "";
}

/* The whole file as a NUL-terminated string, or NULL. */
static char* read_file(const char* path)
{
    FILE* file = fopen(path, "rb");
    char* text = NULL;
    size_t length = 0;
    size_t capacity = 4096;
    size_t got;

    if (file == NULL)
        return NULL;
    text = malloc(capacity);
    while (text != NULL && (got = fread(text + length, 1, capacity - length - 1, file)) > 0) {
        length += got;
        if (length + 1 == capacity) {
            char* larger = realloc(text, capacity * 2);
            if (larger == NULL)
                free(text);
            text = larger;
            capacity *= 2;
        }
    }
    if (text != NULL && ferror(file)) {
        free(text);
        text = NULL;
    }
    fclose(file);
    if (text != NULL)
        text[length] = '\0';
    return text;
}

/*
 * The buffer protocol, as every host uses it:
 *   1. ask for the size: buffer_length 0, and the buffer may be NULL;
 *   2. allocate that size plus one byte for a terminator;
 *   3. copy with buffer_length equal to the size: the library writes exactly that many bytes and no NUL;
 *   4. terminate the text yourself.
 * The data may hold NUL bytes, so *size, not strlen, tells its length.
 */
static char* copy_answer(uint32_t* size)
{
    uint32_t copied = 0;
    char* answer;

    *size = 0;
    if (ReceivedSOAP(NULL, 0, size) != AFIP_OK)
        return NULL;
    answer = malloc((size_t)*size + 1);
    if (answer == NULL)
        return NULL;
    /* With size 0 there is nothing to copy: a zero buffer_length would only ask for the size again. */
    if (*size > 0 && ReceivedSOAP(answer, *size, &copied) != AFIP_OK) {
        free(answer);
        return NULL;
    }
    answer[*size] = '\0';
    return answer;
}

int main(int argc, char** argv)
{
    const char* request_file = setting(argc, argv, 6, "TARVO_REQUEST");
    char version[6];
    char* request;
    char* answer;
    uint32_t answer_size;
    int32_t result;

    request = read_file(request_file);
    if (request == NULL) {
        fprintf(stderr, "minimal_host: cannot read the request file '%s'\n", request_file);
        return 66;
    }

    GetAFIPVersion(version);
    fprintf(stderr, "minimal_host: libtarvoafipdriver %s\n", version);

    SetWSAA(setting(argc, argv, 1, "TARVO_WSAA_URL"));
    SetWSAACredentials(setting(argc, argv, 2, "TARVO_CERTIFICATE"), setting(argc, argv, 3, "TARVO_PASSWORD"));
    SetWSAAService(setting(argc, argv, 4, "TARVO_SERVICE"));
    SetWSUrl(setting(argc, argv, 5, "TARVO_SERVICE_URL"));
    if (getenv("TARVO_SOAP_ACTION") != NULL) {
        char header[1024];
        snprintf(header, sizeof header, "SOAPAction: \"%s\"", getenv("TARVO_SOAP_ACTION"));
        AddSOAPHeader(header);
    }

    result = SendSOAP(request);
    free(request);

    answer = copy_answer(&answer_size);
    if (answer != NULL) {
        fwrite(answer, 1, answer_size, stdout);
        putchar('\n');
        free(answer);
    }
    if (result != AFIP_OK)
        fprintf(stderr, "minimal_host: result %d\n", (int)result);
    return (int)result;
}
