package ar.tarvo.afip;

import com.sun.jna.Library;
import com.sun.jna.Native;
import com.sun.jna.Pointer;
import com.sun.jna.ptr.NativeLongByReference;
import com.sun.jna.ptr.PointerByReference;

import java.util.Arrays;
import java.util.Map;

/**
 * libtarvoafipinvoicing for Java through JNA: vouchers authorised at most once through the core's
 * ledger, AFIP's registry asked, vouchers printed, CAEA contingency, FECAESolicitar answers read, AFIP's
 * QR code made. The core does the work; this class passes
 * its JSON in and out as strings (tarvoafipinvoicing.h names every key), to be read with the host's
 * own JSON library.
 *
 * <pre>
 * try (Invoicing invoicing = Invoicing.open("{\"cuit\":20111111112,\"env\":\"homologation\","
 *                                           + "\"certificate\":" + Invoicing.quote(path) + ",\"password\":\"...\"}")) {
 *     String outcome = invoicing.authorise(voucherJson);  // {"CbteNro":..., "CAE":..., "qr_url":...}
 * } catch (Invoicing.Failure failure) {                    // failure.code, failure.getMessage(), failure.output
 * }
 * </pre>
 *
 * The library is the one named by TARVO_INVOICING_LIBRARY, else libtarvoafipinvoicing.so.1 through the
 * loader's search path. An object owns one handle, that is one configuration: use it from one thread at
 * a time; several objects may work at once.
 */
public final class Invoicing implements AutoCloseable {
    public static final String SONAME = "libtarvoafipinvoicing.so.1";

    /** Result codes of tarvoafipinvoicing.h; 1 to 17 are libtarvoafipdriver's ({@link TarvoAfip.Result}). */
    public static final int OK = 0, REJECTED = 20, OUTCOME_UNKNOWN = 21, SALE_CONFLICT = 22, LEDGER_ERROR = 23,
        BUSY = 24, NOT_FOUND = 25, UNKNOWN_CUIT = 26, INACTIVE_KEY = 27, REGISTRY_REFUSED = 28, CONDITION_UNFIT = 29,
        CAEA = 30, BAD_INPUT = 65, INTERNAL = 70, CANNOT_WRITE = 73;

    /** The C functions as JNA maps them; strings travel as UTF-8, an answer as the bytes it came in. size_t is
     *  a NativeLong: on Linux a C long has the width of size_t, on 32-bit and 64-bit targets alike. */
    public interface Functions extends Library {
        int tarvo_invoicing_version();
        int tarvo_invoicing_open(String settingsJson, PointerByReference handle);
        void tarvo_invoicing_close(Pointer handle);
        Pointer tarvo_invoicing_message(Pointer handle);
        int tarvo_invoicing_authorise(Pointer handle, String voucherJson, PointerByReference outcomeJson);
        int tarvo_invoicing_authorise_batch(Pointer handle, String vouchersJson, PointerByReference outcomesJson);
        int tarvo_invoicing_caea(Pointer handle, String commandJson, PointerByReference resultJson);
        int tarvo_invoicing_lookup(Pointer handle, String queryJson, PointerByReference personJson);
        int tarvo_invoicing_receipt(Pointer handle, String requestJson, PointerByReference data,
                                    NativeLongByReference length);
        int tarvo_invoicing_ledger_list(Pointer handle, String filterJson, PointerByReference salesJson);
        int tarvo_invoicing_ledger_show(Pointer handle, String saleId, PointerByReference saleJson);
        int tarvo_invoicing_read_answer(Pointer handle, byte[] answerXml, PointerByReference outcomeJson);
        int tarvo_invoicing_qr_url(Pointer handle, String voucherJson, PointerByReference url);
        int tarvo_invoicing_qr_png(Pointer handle, String text, String pngPath);
        int tarvo_invoicing_transfer_log(Pointer handle, PointerByReference log);
        void tarvo_invoicing_free(Pointer text);
    }

    /** A non-zero result code with the core's message; output is the JSON the core gave with it, or null:
     *  the outcome of a rejected voucher (20), of one whose outcome is unknown (21), of one issued under a CAEA
     *  (30) or of a failed exchange (1-17), a batch's outcomes, the person of an inactive key (27), the report
     *  of an inform that some refused (20) or whose outcome is unknown (21). */
    public static final class Failure extends Exception {
        public final int code;
        public final String output;

        Failure(int code, String message, String output) {
            super(message.isEmpty() ? "libtarvoafipinvoicing result " + code : message);
            this.code = code;
            this.output = output;
        }
    }

    public final Functions functions;
    private Pointer handle;

    private Invoicing(Functions functions, Pointer handle) {
        this.functions = functions;
        this.handle = handle;
    }

    /** The library named by TARVO_INVOICING_LIBRARY, else the installed one. */
    public static Functions load() {
        String path = System.getenv("TARVO_INVOICING_LIBRARY");
        return load(path == null || path.isEmpty() ? SONAME : path);
    }

    public static Functions load(String path) {
        return Native.load(path, Functions.class, Map.of(Library.OPTION_STRING_ENCODING, "UTF-8"));
    }

    // Loaded at the first open that names no library, once for the whole JVM.
    private static final class Installed {
        static final Functions FUNCTIONS = load();
    }

    /** A handle on settings as tarvo_invoicing_open takes them; refused settings throw a Failure (65). */
    public static Invoicing open(String settingsJson) throws Failure {
        return open(Installed.FUNCTIONS, settingsJson);
    }

    public static Invoicing open(Functions functions, String settingsJson) throws Failure {
        PointerByReference opened = new PointerByReference();
        int code = functions.tarvo_invoicing_open(settingsJson, opened);
        Invoicing invoicing = new Invoicing(functions, opened.getValue());
        if (code != OK) {
            Failure failure = invoicing.failure(code, null);
            invoicing.close();
            throw failure;
        }
        return invoicing;
    }

    /** The outcome of one voucher, at most once per sale id. */
    public String authorise(String voucherJson) throws Failure {
        PointerByReference outcome = new PointerByReference();
        return checked(functions.tarvo_invoicing_authorise(handle, voucherJson, outcome), outcome);
    }

    /** The outcomes of a JSON list of vouchers, in their order. */
    public String authoriseBatch(String vouchersJson) throws Failure {
        PointerByReference outcomes = new PointerByReference();
        return checked(functions.tarvo_invoicing_authorise_batch(handle, vouchersJson, outcomes), outcomes);
    }

    /** What AFIP's registry says of a CUIT: {"cuit": N, "service", "reuse"} in. An inactive key (27) throws
     *  with the person in the failure's output. */
    public String lookup(String queryJson) throws Failure {
        PointerByReference person = new PointerByReference();
        return checked(functions.tarvo_invoicing_lookup(handle, queryJson, person), person);
    }

    /** The printed voucher (PDF or ESC/POS) of an approved sale, byte for byte: it may hold NULs. */
    public byte[] receipt(String requestJson) throws Failure {
        PointerByReference data = new PointerByReference();
        NativeLongByReference length = new NativeLongByReference();
        int code = functions.tarvo_invoicing_receipt(handle, requestJson, data, length);
        Pointer bytes = data.getValue();
        try {
            if (code != OK)
                throw failure(code, null);
            long size = length.getValue().longValue();
            if (Native.LONG_SIZE == 4)
                size &= 0xffffffffL; // size_t is unsigned
            if (size > Integer.MAX_VALUE - 8)
                throw new Failure(INTERNAL, "a printed voucher of " + size + " bytes does not fit a Java array", null);
            return bytes == null ? new byte[0] : bytes.getByteArray(0, (int) size);
        } finally {
            if (bytes != null)
                functions.tarvo_invoicing_free(bytes);
        }
    }

    /** A CAEA contingency command ({"action": "request", "show", "inform", "no_movement" or "status"}). An
     *  inform that some refused (20) or whose outcome is unknown (21) throws with its report as the output. */
    public String caea(String commandJson) throws Failure {
        PointerByReference result = new PointerByReference();
        return checked(functions.tarvo_invoicing_caea(handle, commandJson, result), result);
    }

    /** The ledger's sales; filterJson null for all. */
    public String ledgerList(String filterJson) throws Failure {
        PointerByReference sales = new PointerByReference();
        return checked(functions.tarvo_invoicing_ledger_list(handle, filterJson, sales), sales);
    }

    public String ledgerShow(String saleId) throws Failure {
        PointerByReference sale = new PointerByReference();
        return checked(functions.tarvo_invoicing_ledger_show(handle, saleId, sale), sale);
    }

    /** The outcome that a FECAESolicitar answer gives, for hosts that send their own requests
     *  ({@link TarvoAfip#sendSoap}): the bytes go to the core as they came. */
    public String readAnswer(byte[] answerXml) throws Failure {
        PointerByReference outcome = new PointerByReference();
        byte[] terminated = Arrays.copyOf(answerXml, answerXml.length + 1);
        return checked(functions.tarvo_invoicing_read_answer(handle, terminated, outcome), outcome);
    }

    /** AFIP's QR address of a voucher given with the QR payload's keys. */
    public String qrUrl(String voucherJson) throws Failure {
        PointerByReference url = new PointerByReference();
        return checked(functions.tarvo_invoicing_qr_url(handle, voucherJson, url), url);
    }

    public void qrPng(String text, String pngPath) throws Failure {
        checked(functions.tarvo_invoicing_qr_png(handle, text, pngPath), null);
    }

    /** The last exchange with AFIP; it holds the live ticket. */
    public String transferLog() throws Failure {
        PointerByReference log = new PointerByReference();
        return checked(functions.tarvo_invoicing_transfer_log(handle, log), log);
    }

    /** Closes the handle; the methods that need one then fail with 65. */
    @Override
    public void close() {
        functions.tarvo_invoicing_close(handle);
        handle = null;
    }

    /** A JSON string literal of text, for hosts that write their settings and vouchers without a JSON library. */
    public static String quote(String text) {
        StringBuilder quoted = new StringBuilder(text.length() + 2).append('"');
        for (char c : text.toCharArray()) {
            if (c == '"' || c == '\\')
                quoted.append('\\').append(c);
            else if (c < 0x20)
                quoted.append(String.format("\\u%04x", (int) c));
            else
                quoted.append(c);
        }
        return quoted.append('"').toString();
    }

    // Takes the core's text (and frees it) before checking the code: a failure may carry an outcome.
    private String checked(int code, PointerByReference result) throws Failure {
        String output = null;
        if (result != null && result.getValue() != null) {
            output = result.getValue().getString(0, "UTF-8");
            functions.tarvo_invoicing_free(result.getValue());
        }
        if (code != OK)
            throw failure(code, output);
        return output;
    }

    private Failure failure(int code, String output) {
        Pointer message = functions.tarvo_invoicing_message(handle);
        return new Failure(code, message == null ? "" : message.getString(0, "UTF-8"), output);
    }
}
