import ar.tarvo.afip.TarvoAfip;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Paths;

/**
 * The smallest Java host of libtarvoafipdriver: one request, the answer on standard output.
 *
 * Usage: java MinimalHost [WSAA_URL [CERTIFICATE [PASSWORD [SERVICE [SERVICE_URL [REQUEST_FILE]]]]]]
 * A setting left off the command line comes from TARVO_WSAA_URL, TARVO_CERTIFICATE, TARVO_PASSWORD,
 * TARVO_SERVICE, TARVO_SERVICE_URL or TARVO_REQUEST; TARVO_SOAP_ACTION adds a SOAPAction line and
 * TARVO_LIBRARY names the library. The exit status is the result code.
 */
public final class MinimalHost {
    private static final String[] VARIABLES = {"TARVO_WSAA_URL", "TARVO_CERTIFICATE", "TARVO_PASSWORD",
                                               "TARVO_SERVICE", "TARVO_SERVICE_URL", "TARVO_REQUEST"};

    public static void main(String[] arguments) throws Exception {
        String[] settings = new String[VARIABLES.length];
        for (int i = 0; i < settings.length; ++i) {
            String value = i < arguments.length ? arguments[i] : System.getenv(VARIABLES[i]);
            settings[i] = value == null ? "" : value;
        }
        String request;
        try {
            request = new String(Files.readAllBytes(Paths.get(settings[5])), StandardCharsets.UTF_8);
        } catch (IOException error) {
            System.err.println("MinimalHost: cannot read the request: " + error);
            System.exit(66);
            return;
        }

        TarvoAfip afip = TarvoAfip.load();
        System.err.println("MinimalHost: libtarvoafipdriver " + afip.version());
        afip.setWsaa(settings[0]);
        afip.setCredentials(settings[1], settings[2]);
        afip.setService(settings[3]);
        afip.setServiceUrl(settings[4]);
        String action = System.getenv("TARVO_SOAP_ACTION");
        if (action != null && !action.isEmpty())
            afip.addHeader("SOAPAction: \"" + action + "\"");
        try {
            System.out.write(afip.sendSoap(request));
            System.out.println();
        } catch (TarvoAfip.Failure failure) {
            System.err.println("MinimalHost: " + failure.getMessage());
            System.out.write(failure.answer);
            System.out.flush();
            System.exit(failure.code);
        }
        System.out.flush();
    }
}
