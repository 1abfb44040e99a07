package ar.tarvo.afip;

import com.sun.jna.Library;
import com.sun.jna.Native;
import com.sun.jna.ptr.IntByReference;

import java.util.Map;

/**
 * libtarvoafipdriver for Java through JNA (Debian's libjna-java).
 *
 * <pre>
 * TarvoAfip afip = TarvoAfip.load();          // TARVO_LIBRARY, else libtarvoafipdriver.so.1
 * afip.setWsaa("https://wsaahomo.afip.gov.ar/ws/services/LoginCms");
 * afip.setCredentials("mine.p12", "password");
 * afip.setService("wsfe");
 * afip.setServiceUrl("https://wswhomo.afip.gov.ar/wsfev1/service.asmx");
 * afip.addHeader("SOAPAction: \"http://ar.gov.afip.dif.FEV1/FEDummy\"");
 * byte[] answer = afip.sendSoap(request);      // throws TarvoAfip.Failure on a result code
 * </pre>
 *
 * Text goes to the library as UTF-8. The library's state is process-wide: serialise every call.
 *
 * <p>TLS verification is off unless the process's environment asks for it: {@code TARVO_TLS_VERIFY=1}
 * checks the servers' certificates and host names, against the PEM certificates in the file named by
 * {@code TARVO_CA_FILE}, else the system's store. The library reads both at every call, so they hold
 * for the whole JVM; Java cannot change its own environment, so set them where the JVM is started.
 */
public final class TarvoAfip {
    public static final String SONAME = "libtarvoafipdriver.so.1";

    /** The twelve C functions as JNA maps them; unsigned 32-bit values travel in an int. */
    public interface Functions extends Library {
        void GetAFIPVersion(byte[] version);
        void SetWSAA(String url);
        void SetWSAACredentials(String certificatePath, String certificatePass);
        void SetWSAAService(String service);
        void SetWSUrl(String url);
        void SetSecurity(int level);
        void SetWebProxy(String proxyUrl, String proxyUsername, String proxyPassword);
        void SetTimeOut(int timeOut);
        void AddSOAPHeader(String header);
        int SendSOAP(String request);
        int ReceivedSOAP(byte[] buffer, int bufferLength, IntByReference dataSize);
        int GetVerboseTransfer(byte[] buffer, int bufferLength, IntByReference dataSize);
    }

    /** The library's result codes (tarvoafipdriver.h), in their numeric order. */
    public enum Result {
        OK, CERTIFICATE_ERROR, NOT_AUTHORIZED, CERTIFICATE_EXPIRED, UNUSED_4, CRYPTO_ERROR, CERTIFICATE_EXPIRED_2,
        WSAA_URL_NOT_SET, WSAA_SERVICE_NOT_SET, TICKET_ALREADY_VALID, BUFFER_TOO_SMALL, TICKET_TOO_OLD,
        WS_URL_NOT_SET, REQUEST_NOT_XML, RESPONSE_NOT_XML, TIMEOUT, WSAA_TLS_FAILURE, WSAA_HTTP_FAILURE;

        public int code() {
            return ordinal();
        }
    }

    /** A non-zero result code; for RESPONSE_NOT_XML the answer and log of the call are kept. */
    public static final class Failure extends Exception {
        public final int code;
        public final byte[] answer;

        Failure(int code, byte[] answer) {
            super("libtarvoafipdriver result " + code
                  + (code >= 0 && code < Result.values().length ? " (" + Result.values()[code] + ")" : ""));
            this.code = code;
            this.answer = answer;
        }
    }

    private interface CopyOut {
        int copy(byte[] buffer, int bufferLength, IntByReference dataSize);
    }

    public final Functions functions;

    private TarvoAfip(Functions functions) {
        this.functions = functions;
    }

    /** The library named by TARVO_LIBRARY, else the installed one through the loader's search path. */
    public static TarvoAfip load() {
        String path = System.getenv("TARVO_LIBRARY");
        return load(path == null || path.isEmpty() ? SONAME : path);
    }

    public static TarvoAfip load(String path) {
        return new TarvoAfip(Native.load(path, Functions.class, Map.of(Library.OPTION_STRING_ENCODING, "UTF-8")));
    }

    public String version() {
        byte[] text = new byte[6];
        functions.GetAFIPVersion(text);
        return new String(text, 0, 5, java.nio.charset.StandardCharsets.US_ASCII);
    }

    public void setWsaa(String url) { functions.SetWSAA(url); }
    public void setCredentials(String path, String password) { functions.SetWSAACredentials(path, password); }
    public void setService(String service) { functions.SetWSAAService(service); }
    public void setServiceUrl(String url) { functions.SetWSUrl(url); }
    /** 1 TLS 1.0, 2 TLS 1.1, 3 TLS 1.2, 4 TLS 1.3; anything else: the default. */
    public void setSecurity(int level) { functions.SetSecurity(level); }
    public void setProxy(String url, String user, String password) { functions.SetWebProxy(url, user, password); }
    /** Milliseconds, 0 for none; values above Integer.MAX_VALUE go as their unsigned bits. */
    public void setTimeOut(long milliseconds) { functions.SetTimeOut((int) milliseconds); }
    public void addHeader(String line) { functions.AddSOAPHeader(line); }

    /** Sends one request and returns the answer; throws Failure on a non-zero result. */
    public byte[] sendSoap(String request) throws Failure {
        int code = functions.SendSOAP(request);
        if (code == Result.RESPONSE_NOT_XML.code())
            throw new Failure(code, receivedSoap());
        if (code != Result.OK.code())
            throw new Failure(code, new byte[0]);
        return receivedSoap();
    }

    /** The last answer, whole (it may hold NUL bytes). */
    public byte[] receivedSoap() throws Failure {
        return copyOut(functions::ReceivedSOAP);
    }

    /** The transfer log of the last request. */
    public byte[] verboseTransfer() throws Failure {
        return copyOut(functions::GetVerboseTransfer);
    }

    // Ask for the size with a zero length, then copy exactly that many bytes: no NUL is written.
    private static byte[] copyOut(CopyOut function) throws Failure {
        IntByReference size = new IntByReference(0);
        int code = function.copy(null, 0, size);
        byte[] data = new byte[0];
        if (code == Result.OK.code() && size.getValue() != 0) {
            data = new byte[size.getValue()];
            code = function.copy(data, data.length, size);
        }
        if (code != Result.OK.code())
            throw new Failure(code, new byte[0]);
        return data;
    }
}
