import ar.tarvo.afip.Invoicing;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Paths;
import java.util.regex.Matcher;
import java.util.regex.Pattern;

/**
 * Authorises the Factura B of the samples through libtarvoafipinvoicing and prints its number, CAE and
 * QR address.
 *
 * Usage: java Invoice [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [SAMPLES]]]]]]
 * Settings left off come from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD, TARVO_SERVICE,
 * TARVO_SERVICE_URL and TARVO_SAMPLES (default /usr/share/tarvoafip/samples); TARVO_INVOICING_LIBRARY
 * names the library. TARVO_SALE_ID names the sale: run again with the same one, the sale is not
 * invoiced twice. The ledger is ledger.sqlite in the working directory. The exit status is the core's
 * result code: 0 approved, 20 rejected, 21 outcome unknown (run the same sale again), 1-17 the exchange
 * failed...; 66 a sample unreadable.
 */
public final class Invoice {
    private static final String[] VARIABLES = {"TARVO_WSAA_URL", "TARVO_CERTIFICATE", "TARVO_PASSWORD",
                                               "TARVO_SERVICE", "TARVO_SERVICE_URL", "TARVO_SAMPLES"};
    private static final long ISSUER = 20111111112L; // the CUIT of the samples' certificate

    // The outcome is JSON; a host reads it with its JSON library. The example keeps to the JDK: the
    // fields it prints are top-level numbers and texts without quotes, whose keys occur once.
    private static String field(String json, String key) {
        Matcher found = Pattern.compile("\"" + key + "\":\"?([^\",}]*)").matcher(json);
        return found.find() ? found.group(1) : "";
    }

    public static void main(String[] arguments) {
        String[] settings = new String[VARIABLES.length];
        for (int i = 0; i < settings.length; ++i) {
            String value = i < arguments.length ? arguments[i] : System.getenv(VARIABLES[i]);
            settings[i] = value == null ? "" : value;
        }
        String samples = settings[5].isEmpty() ? "/usr/share/tarvoafip/samples" : settings[5];
        String saleId = System.getenv("TARVO_SALE_ID");
        if (saleId == null || saleId.isEmpty())
            saleId = "invoice-" + System.currentTimeMillis() + "-" + ProcessHandle.current().pid();

        // The sample voucher, an object, with the sale id as its first member: no CbteNro, so the next
        // number; no CbteFch, so today.
        String voucher;
        try {
            String sample = Files.readString(Paths.get(samples, "factura_b.json"));
            voucher = "{\"sale_id\":" + Invoicing.quote(saleId) + "," + sample.substring(sample.indexOf('{') + 1);
        } catch (IOException unreadable) {
            System.err.println("Invoice: the sample factura_b.json: " + unreadable);
            System.exit(66);
            return;
        }
        String outcome;
        try (Invoicing invoicing = Invoicing.open("{\"cuit\":" + ISSUER + ",\"wsaa_url\":" + Invoicing.quote(settings[0])
                                                  + ",\"certificate\":" + Invoicing.quote(settings[1])
                                                  + ",\"password\":" + Invoicing.quote(settings[2])
                                                  + ",\"service\":" + Invoicing.quote(settings[3])
                                                  + ",\"url\":" + Invoicing.quote(settings[4]) + "}")) {
            outcome = invoicing.authorise(voucher);
        } catch (Invoicing.Failure failure) {
            // Rejected, unknown or failed: the core's message says why, the outcome (if any) shows AFIP's
            // Observaciones and Errors.
            System.err.println("Invoice: " + failure.getMessage());
            if (failure.output != null)
                System.err.println(failure.output);
            System.exit(failure.code);
            return;
        }
        System.out.println("CbteNro " + field(outcome, "CbteNro"));
        System.out.println("CAE " + field(outcome, "CAE") + " due " + field(outcome, "CAEFchVto"));
        System.out.println("QR " + field(outcome, "qr_url"));
    }
}
