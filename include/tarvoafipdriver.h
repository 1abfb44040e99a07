/*
 * libtarvoafipdriver: calls AFIP's SOAP web services on behalf of a host program.
 *
 * The host configures the library with the setters, then hands SendSOAP one complete SOAP
 * request. The library obtains a WSAA access ticket (cached in ./credentials.json), fills the
 * token and sign into the request, posts it and keeps the answer and a transfer log.
 *
 * All state is process-wide and unlocked: serialise every call into the library.
 *
 * Servers' certificates and host names are not verified unless the environment asks for it,
 * read at every SendSOAP: TARVO_TLS_VERIFY=1 verifies both exchanges, TARVO_CA_FILE=PATH names
 * the PEM certificates to trust (default: the system's store). A refused server gives
 * AFIP_WSAA_HTTP_FAILURE at the login, AFIP_RESPONSE_NOT_XML at the service.
 *
 * Buffer protocol of ReceivedSOAP and GetVerboseTransfer:
 *   - buffer_length == 0: *data_size receives the stored size; buffer is not touched (may be NULL).
 *   - buffer_length <  size: returns AFIP_BUFFER_TOO_SMALL; neither buffer nor *data_size is written.
 *   - buffer_length >= size: *data_size receives the size and exactly that many bytes are copied.
 *     No terminating NUL is written; the data may hold any bytes, NUL included.
 * The stored data stays readable until the next SendSOAP that gets past its checks.
 */
#ifndef TARVOAFIPDRIVER_H
#define TARVOAFIPDRIVER_H

#include <stdint.h>

#if defined(__GNUC__)
#define TARVOAFIP_API __attribute__((visibility("default")))
#else
#define TARVOAFIP_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes returned by SendSOAP, ReceivedSOAP and GetVerboseTransfer. */
enum tarvoafip_result {
    AFIP_OK = 0,                    /* success */
    AFIP_CERTIFICATE_ERROR = 1,     /* certificate path not set, file missing/unreadable */
    AFIP_NOT_AUTHORIZED = 2,        /* WSAA: computer not authorised for the service */
    AFIP_CERTIFICATE_EXPIRED = 3,   /* WSAA: certificate expired */
    AFIP_UNUSED_4 = 4,              /* never returned */
    AFIP_CRYPTO_ERROR = 5,          /* PKCS#12 or CMS step failed (bad file, wrong password) */
    AFIP_CERTIFICATE_EXPIRED_2 = 6, /* never returned in practice (3 always wins) */
    AFIP_WSAA_URL_NOT_SET = 7,
    AFIP_WSAA_SERVICE_NOT_SET = 8,
    AFIP_TICKET_ALREADY_VALID = 9,  /* WSAA still holds a valid ticket the local cache lacks */
    AFIP_BUFFER_TOO_SMALL = 10,
    AFIP_TICKET_TOO_OLD = 11,       /* internal: cached ticket too old; never returned */
    AFIP_WS_URL_NOT_SET = 12,
    AFIP_REQUEST_NOT_XML = 13,      /* nothing was sent */
    AFIP_RESPONSE_NOT_XML = 14,     /* also an empty answer after a failed connection */
    AFIP_TIMEOUT = 15,
    AFIP_WSAA_TLS_FAILURE = 16,
    AFIP_WSAA_HTTP_FAILURE = 17     /* WSAA answered another status, timed out or was unreachable */
};

/* Writes "1.0.0" and its NUL: the buffer must hold 6 bytes. */
TARVOAFIP_API void GetAFIPVersion(char* version);

/* Setters: each replaces the stored value; an empty text un-sets it. Nothing is validated. */
TARVOAFIP_API void SetWSAA(const char* url);
TARVOAFIP_API void SetWSAACredentials(const char* certificate_path, const char* certificate_pass);
TARVOAFIP_API void SetWSAAService(const char* service);
TARVOAFIP_API void SetWSUrl(const char* url);
/* 1 TLS 1.0, 2 TLS 1.1, 3 TLS 1.2, 4 TLS 1.3; anything else means the default. */
TARVOAFIP_API void SetSecurity(int32_t level);
/* Used only while proxy_url is non-empty. */
TARVOAFIP_API void SetWebProxy(const char* proxy_url, const char* proxy_username, const char* proxy_password);
/* Whole-transfer time-out in milliseconds; 0 sets none. */
TARVOAFIP_API void SetTimeOut(uint32_t time_out);
/* Queues one header line ("Name: value") for the next SendSOAP that reaches the network. */
TARVOAFIP_API void AddSOAPHeader(const char* header);

/* Obtains a ticket, fills ar:Token / ar:Sign, posts the request to the SetWSUrl address. */
TARVOAFIP_API int32_t SendSOAP(const char* request);
/* Copy out the last answer body and transfer log (buffer protocol above). */
TARVOAFIP_API int32_t ReceivedSOAP(char* buffer, uint32_t buffer_length, uint32_t* data_size);
TARVOAFIP_API int32_t GetVerboseTransfer(char* buffer, uint32_t buffer_length, uint32_t* data_size);

#ifdef __cplusplus
}
#endif

#endif /* TARVOAFIPDRIVER_H */
