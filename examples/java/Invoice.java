import ar.tarvo.afip.Invoicing;
import ar.tarvo.afip.TarvoAfip;

import java.math.BigDecimal;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Paths;

/**
 * Authorises the next Factura B of the samples and prints its number, CAE and QR address.
 *
 * Usage: java Invoice [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [SAMPLES]]]]]]
 * Settings left off come from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD, TARVO_SERVICE,
 * TARVO_SERVICE_URL and TARVO_SAMPLES (default /usr/share/tarvoafip/samples); TARVO_LIBRARY names the
 * library. The exit status is 0 approved, 20 rejected, or the library's result code.
 */
public final class Invoice {
    private static final String[] VARIABLES = {"TARVO_WSAA_URL", "TARVO_CERTIFICATE", "TARVO_PASSWORD",
                                               "TARVO_SERVICE", "TARVO_SERVICE_URL", "TARVO_SAMPLES"};

    private static byte[] send(TarvoAfip afip, String operation, String request) throws TarvoAfip.Failure {
        afip.addHeader("SOAPAction: \"http://ar.gov.afip.dif.FEV1/" + operation + "\"");
        return afip.sendSoap(request);
    }

    public static void main(String[] arguments) throws Exception {
        String[] settings = new String[VARIABLES.length];
        for (int i = 0; i < settings.length; ++i) {
            String value = i < arguments.length ? arguments[i] : System.getenv(VARIABLES[i]);
            settings[i] = value == null ? "" : value;
        }
        String samples = settings[5].isEmpty() ? "/usr/share/tarvoafip/samples" : settings[5];
        TarvoAfip afip = TarvoAfip.load();
        afip.setWsaa(settings[0]);
        afip.setCredentials(settings[1], settings[2]);
        afip.setService(settings[3]);
        afip.setServiceUrl(settings[4]);

        Invoicing.Authorisation answer;
        try {
            long last = Invoicing.readLastAuthorised(send(afip, "FECompUltimoAutorizado", new String(
                Files.readAllBytes(Paths.get(samples, "fe_comp_ultimo_autorizado.xml")), StandardCharsets.UTF_8)));
            if (last < 0) {
                System.err.println("Invoice: FECompUltimoAutorizado gave no number");
                System.exit(20);
            }
            // The sample is numbered 1: it becomes the next number. A lost answer (result 14 or 15) must not
            // be sent again blindly: ask FECompConsultar first, as tarvoafip_cli invoice does.
            String request = new String(Files.readAllBytes(Paths.get(samples, "fe_cae_solicitar.xml")),
                                        StandardCharsets.UTF_8)
                .replace(">1</ar:CbteDesde>", ">" + (last + 1) + "</ar:CbteDesde>")
                .replace(">1</ar:CbteHasta>", ">" + (last + 1) + "</ar:CbteHasta>");
            answer = Invoicing.readAuthorisation(send(afip, "FECAESolicitar", request));
        } catch (TarvoAfip.Failure failure) {
            System.err.println("Invoice: " + failure.getMessage());
            System.exit(failure.code);
            return;
        }
        if (answer == null || !"A".equals(answer.resultado)) {
            System.err.println("Invoice: AFIP did not approve the voucher"
                               + (answer == null ? "" : ": " + answer.observaciones + " " + answer.errors));
            System.exit(20);
            return;
        }
        System.out.println("CbteNro " + answer.cbteNro);
        System.out.println("CAE " + answer.cae + " due " + answer.caeFchVto);
        // The sample's voucher: CUIT 20111111112, point of sale 1, Factura B (6), 121.00 pesos to a final
        // consumer (DocTipo 99, DocNro 0).
        System.out.println("QR " + Invoicing.qrUrl(answer.cbteFch, 20111111112L, 1, 6, answer.cbteNro,
                                                  new BigDecimal("121.00"), "PES", BigDecimal.ONE, 99, 0, answer.cae));
    }
}
