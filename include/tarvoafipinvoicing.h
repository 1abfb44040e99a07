/* libtarvoafipinvoicing: authorise AFIP vouchers at most once, keep them in a ledger, and make
 * AFIP's QR code; written once for every host language.
 *
 * Conventions:
 *  1. Text crosses in UTF-8, NUL-terminated. Requests and results are JSON.
 *  2. Every function that acts returns a result code (below); 0 is success. The message of the
 *     last failure on a handle, for the user, is tarvo_invoicing_message(handle); the message
 *     never replaces the code.
 *  3. Text the library hands out through a `char**` is the caller's: free it with
 *     tarvo_invoicing_free(). On failures that produce no result the pointer is set to NULL.
 *  4. A handle holds one configuration (the issuer, AFIP's addresses, the certificate, the
 *     ledger). Use each handle from one thread at a time; several handles may work at once in
 *     several threads and processes, sharing one ledger and one ticket cache. The library keeps
 *     no process-wide state of its own.
 *  5. Tickets are cached in credentials.json in the working directory, shared with
 *     libtarvoafipdriver. The ledger is a SQLite file, "ledger.sqlite" in the working directory
 *     unless the settings name another.
 */
#ifndef TARVOAFIPINVOICING_H
#define TARVOAFIPINVOICING_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* 1.0.0; tarvo_invoicing_version() gives the number of the library loaded. */
#define TARVO_INVOICING_VERSION 10000

/* Result codes. 1 to 17 are libtarvoafipdriver's (tarvoafipdriver.h): the exchange with AFIP
 * failed before AFIP could decide, so nothing was authorised. */
#define TARVO_INVOICING_OK 0
#define TARVO_INVOICING_REJECTED 20        /* AFIP refused the voucher: the result says why */
#define TARVO_INVOICING_OUTCOME_UNKNOWN 21 /* the answer was lost for good: the sale stays pending in
                                              the ledger; run the same sale again to settle it */
#define TARVO_INVOICING_SALE_CONFLICT 22   /* the sale id belongs to another voucher: nothing sent */
#define TARVO_INVOICING_LEDGER_ERROR 23    /* the ledger cannot be used: nothing sent */
#define TARVO_INVOICING_BUSY 24            /* another process kept the series too long: nothing sent */
#define TARVO_INVOICING_NOT_FOUND 25       /* no such sale in the ledger */
#define TARVO_INVOICING_UNKNOWN_CUIT 26    /* AFIP's registry does not know the CUIT */
#define TARVO_INVOICING_INACTIVE_KEY 27    /* AFIP's registry shows the CUIT's key inactive */
#define TARVO_INVOICING_REGISTRY_REFUSED 28 /* the registry refused the question (its message says why),
                                               or no registry address is configured */
#define TARVO_INVOICING_CONDITION_UNFIT 29 /* the receptor's VAT condition does not go with the
                                              voucher's class (FEParamGetCondicionIvaReceptor) */
#define TARVO_INVOICING_CAEA 30           /* issued offline under a CAEA ("CAEA" in the outcome,
                                              "informed" false): inform it with the "inform" command */
#define TARVO_INVOICING_BAD_INPUT 65       /* the JSON is not what the function takes */
#define TARVO_INVOICING_INTERNAL 70        /* a failure inside the library (out of memory...) */
#define TARVO_INVOICING_CANNOT_WRITE 73    /* an output file cannot be written */

typedef struct tarvo_invoicing tarvo_invoicing;

/* TARVO_INVOICING_VERSION of the library loaded. */
int tarvo_invoicing_version(void);

/* Makes a handle from settings, a JSON object:
 *   "cuit"            the issuer's CUIT (number), needed to authorise
 *   "env"             "homologation" or "production": AFIP's addresses for what is not given
 *   "wsaa_url", "url" WSAA's and WSFEv1's addresses
 *   "certificate", "password"  the PKCS#12 file and its password
 *   "service"         the WSAA service of WSFEv1 (default "wsfe")
 *   "ledger"          the ledger's path (default "ledger.sqlite")
 *   "proxy", "proxy_user", "proxy_password", "tls_level" (1-4), "timeout_ms",
 *   "headers" (a list of "Name: value" lines sent with every request),
 *   "tls_verify" (true/false; absent: TARVO_TLS_VERIFY), "ca_file",
 *   "series_wait_ms"  how long to wait for another process's work on the same series (120000)
 *   "registry_url", "registry_a13_url"  the registry's constancia (ws_sr_constancia_inscripcion)
 *                     and A13 (ws_sr_padron_a13) addresses
 *   "contingency"     true: a voucher that could not reach WSFEv1 (result 14 to 17, nothing sent) is
 *                     issued under the fortnight's CAEA kept in the ledger (code 30); false (default):
 *                     never
 *   "caea_point_of_sale"  the point of sale contingency vouchers go to (default: the voucher's own)
 * Unknown keys are refused. *handle is always set (NULL only when out of memory), also on
 * failure, so that the message can be read; close it with tarvo_invoicing_close(). */
int tarvo_invoicing_open(const char* settings_json, tarvo_invoicing** handle);

/* Frees the handle and everything it holds; NULL is accepted. */
void tarvo_invoicing_close(tarvo_invoicing* handle);

/* The last failure's message on the handle, "" after a success; valid until the next call on it. */
const char* tarvo_invoicing_message(const tarvo_invoicing* handle);

/* Authorises one voucher, a JSON object with WSFEv1's field names (PtoVta, CbteTipo, Concepto,
 * DocTipo, DocNro, ImpTotal... Iva, Tributos, CbtesAsoc, Opcionales) and an optional "sale_id",
 * the host's name for the sale. Amounts are JSON numbers or decimal texts.
 * "CondicionIVAReceptorId": "padron", or the field left out on a voucher to DocTipo 80 (a CUIT),
 * makes the core ask AFIP's registry for the receptor's condition (answers are kept in the ledger
 * for a day) and check it against the voucher's class before sending: 26, 27, 28, 29 or 1-17 when
 * it cannot, and nothing is sent. Not sent to AFIP but kept for the printout: "receptor"
 * ({"name", "address"}) and "items" ([{"description", "quantity", "unit_price", "vat_rate_id"}],
 * prices without VAT on classes A and M, with VAT on the others), which must add up to the
 * voucher's amounts (a cent a line), or nothing is sent (65). Without CbteNro the
 * number is the next of the series; without CbteFch the date is today in Argentina.
 * At most once per sale id: one approved before returns its recorded outcome and sends nothing;
 * one left pending (a crash, a lost answer) is settled by FECompConsultar first; another voucher
 * under a used sale id is refused. Without a sale id one is made, and a rerun cannot be recognised.
 * *outcome_json receives the outcome for codes 0, 20, 21, 30 and 1-17:
 *   {"sale_id", "Resultado", "PtoVta", "CbteTipo", "CbteNro", "CbteFch", "CAE", "CAEFchVto",
 *    "Observaciones": [{"Code","Msg"}], "Errors": [...], "Events": [...], "recovered",
 *    "from_ledger", "qr_url", "status", "message", "warnings"}
 * (a voucher issued under a CAEA has "CAEA" and "informed" in place of "CAE" and "CAEFchVto";
 * "warnings" tells of CAEA vouchers whose deadline to inform is near)
 * and NULL for the other codes. */
int tarvo_invoicing_authorise(tarvo_invoicing* handle, const char* voucher_json, char** outcome_json);

/* Authorises a JSON list of vouchers as few requests as AFIP allows: one series (point of sale and
 * type) together, up to FECompTotXRequest vouchers a request. *outcomes_json receives a list of
 * outcomes in the order of the vouchers, each as tarvo_invoicing_authorise gives it, with its own
 * "status" and "message" (65 for an element that is not a voucher). Returns 0 when every voucher
 * was approved, else the first non-zero status among them; BAD_INPUT when the text is no list. */
int tarvo_invoicing_authorise_batch(tarvo_invoicing* handle, const char* vouchers_json, char** outcomes_json);

/* CAEA contingency, a JSON command:
 *   {"action": "request", "period": yyyymm, "order": 1 | 2}   FECAEASolicitar (FECAEAConsultar when
 *      granted before), kept in the ledger: {"CAEA", "Periodo", "Orden", "FchVigDesde",
 *      "FchVigHasta", "FchTopeInf", "FchProceso", "Errors", "Events"}; 20 when none is granted
 *   {"action": "show"}      the CAEAs the ledger keeps, a list as above
 *   {"action": "inform"}    FECAEARegInformativo of every CAEA voucher not yet informed: a list of
 *      {"sale_id", "PtoVta", "CbteTipo", "CbteNro", "CAEA", "informed" ("yes", "refused", "no"),
 *      "Observaciones", "Errors", "message"}; 0 when all went, 20 some refused, 21 unknown, 1-17
 *      when an exchange failed (the report still given: what went before it is recorded)
 *   {"action": "no_movement", "point_of_sale": N, "period": yyyymm, "order": 1 | 2}
 *      FECAEASinMovimientoInformar: {"CAEA", "PtoVta", "Resultado", "Errors"}
 *   {"action": "status"}    {"pending": [{"sale_id", ..., "FchTopeInf", "days_left"}], "caeas",
 *      "warnings"}
 * Without period and order, the fortnight of today in Argentina. */
int tarvo_invoicing_caea(tarvo_invoicing* handle, const char* command_json, char** result_json);

/* What AFIP's registry says of a CUIT, on behalf of the settings' "cuit": a query
 *   {"cuit": N, "service": "ws_sr_constancia_inscripcion" (default) or "ws_sr_padron_a13",
 *    "reuse": true to take an answer the ledger kept less than a day ago}
 * gives {"cuit", "name", "person_type", "key_state", "address": {"street", "locality",
 * "postal_code", "province", "province_id"}, "taxes": [{"id", "description", "period"}] (null from
 * A13), "monotributo_category", "CondicionIVAReceptorId" (derived from the taxes: IVA 1,
 * monotributo 6, IVA exento 4, else 5; null from A13), "condition_description", "errors",
 * "service", "from_cache"}. 26 unknown CUIT (NULL), 27 inactive key (with the person), 28 a
 * refusal, 1-17 when the login or the exchange failed. The answer is kept in the ledger. */
int tarvo_invoicing_lookup(tarvo_invoicing* handle, const char* query_json, char** person_json);

/* A printed voucher of an approved sale of the ledger:
 *   {"sale_id": "...", "issuer": {profile} or "issuer_file": "issuer.json",
 *    "format": "pdf-a4" (default), "pdf-80mm" or "escpos"}
 * The issuer profile is a JSON object: "name", "address", "cuit", "iibb", "activities_start",
 * "vat_condition", and optional "logo" (a PNG's path) and "footer". The receiver comes from the
 * voucher's "receptor" ({"name", "address"}), else from what the registry said of its CUIT. The
 * bytes go to *data (freed with tarvo_invoicing_free), their count to *length. NOT_FOUND for an
 * unknown sale id; BAD_INPUT for a sale without a CAE, a bad profile or request. */
int tarvo_invoicing_receipt(tarvo_invoicing* handle, const char* request_json, char** data, size_t* length);

/* The ledger's sales, a JSON list, selected by a JSON object (or NULL for all):
 *   {"from": "yyyymmdd", "to": "yyyymmdd", "point_of_sale": N}  (voucher dates, inclusive)
 * Each sale: {"sale_id", "state" (pending, approved, rejected, failed), "PtoVta", "CbteTipo",
 * "CbteNro", "CbteFch", "DocTipo", "DocNro", "ImpTotal", "CAE", "CAEFchVto", "created_at",
 * "updated_at"}. */
int tarvo_invoicing_ledger_list(tarvo_invoicing* handle, const char* filter_json, char** sales_json);

/* One sale of the ledger with everything kept of it: the list's fields, the voucher as sent,
 * "Observaciones", "Errors", "Events", "recovered", "message", "qr_url" and its "attempts".
 * NOT_FOUND when the ledger has no such sale. */
int tarvo_invoicing_ledger_show(tarvo_invoicing* handle, const char* sale_id, char** sale_json);

/* The outcome that a FECAESolicitar answer (XML) gives its first voucher, with the keys of
 * tarvo_invoicing_authorise's outcome (qr_url null: the answer lacks the amounts); BAD_INPUT when
 * the text holds no FECAESolicitarResult. For hosts that send their own requests. The handle may be
 * NULL: the message is then lost. */
int tarvo_invoicing_read_answer(tarvo_invoicing* handle, const char* answer_xml, char** outcome_json);

/* AFIP's QR address (RG 4892/2020) of a voucher given as a JSON object with the payload's keys:
 * "fecha" (yyyymmdd or yyyy-mm-dd), "cuit", "ptoVta", "tipoCmp", "nroCmp", "importe" (number or
 * decimal text), "moneda" ("PES"), "ctz" (1), "tipoDocRec", "nroDocRec", "tipoCodAut" ("E" for a
 * CAE, the default, "A" for a CAEA) and "codAut". The handle may be NULL. */
int tarvo_invoicing_qr_url(tarvo_invoicing* handle, const char* voucher_json, char** url);

/* Writes `text` (a QR address) as a PNG image: error correction M, 4 pixels a module. The handle
 * may be NULL. */
int tarvo_invoicing_qr_png(tarvo_invoicing* handle, const char* text, const char* png_path);

/* The transfer log of the handle's last exchange with AFIP (it holds the live ticket). */
int tarvo_invoicing_transfer_log(tarvo_invoicing* handle, char** log);

/* Frees text the library handed out; NULL is accepted. */
void tarvo_invoicing_free(void* text);

#ifdef __cplusplus
}
#endif

#endif
