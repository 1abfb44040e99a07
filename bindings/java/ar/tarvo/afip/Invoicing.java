package ar.tarvo.afip;

import java.io.ByteArrayInputStream;
import java.math.BigDecimal;
import java.math.RoundingMode;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Base64;
import java.util.List;
import javax.xml.parsers.DocumentBuilderFactory;
import org.w3c.dom.Document;
import org.w3c.dom.Element;
import org.w3c.dom.Node;
import org.w3c.dom.NodeList;

/**
 * WSFEv1's invoicing answers read with the JDK's DOM, and AFIP's QR address (RG 4892/2020).
 *
 * <pre>
 * Invoicing.Authorisation answer = Invoicing.readAuthorisation(afip.sendSoap(request));
 * if ("A".equals(answer.resultado))
 *     System.out.println(answer.cae + " " + Invoicing.qrUrl(answer.cbteFch, 20111111112L, 1, 6, answer.cbteNro,
 *                        new BigDecimal("121.00"), "PES", BigDecimal.ONE, 99, 0, answer.cae));
 * </pre>
 *
 * Elements are matched by local name, whatever their prefix.
 */
public final class Invoicing {
    public static final String QR_ADDRESS = "https://www.afip.gob.ar/fe/qr/?p=";

    private Invoicing() {
    }

    /** An Obs, Err or Evt: its code and message. */
    public static final class Message {
        public final long code;
        public final String msg;

        Message(long code, String msg) {
            this.code = code;
            this.msg = msg;
        }

        @Override
        public String toString() {
            return code + ": " + msg;
        }
    }

    /** What FECAESolicitar said about its (first) voucher. */
    public static final class Authorisation {
        public String resultado = "";
        public long cbteNro;
        public String cbteFch = "";
        public String cae = "";
        public String caeFchVto = "";
        public final List<Message> observaciones = new ArrayList<>();
        public final List<Message> errors = new ArrayList<>();
    }

    /** The answer read; null when it holds no FECAESolicitarResult (not XML, a SOAP fault). */
    public static Authorisation readAuthorisation(byte[] answer) {
        Element result = find(answer, "FECAESolicitarResult");
        if (result == null)
            return null;
        Authorisation read = new Authorisation();
        Element detail = child(child(result, "FeDetResp"), "FECAEDetResponse");
        read.resultado = text(detail, "Resultado");
        if (read.resultado.isEmpty())
            read.resultado = text(child(result, "FeCabResp"), "Resultado");
        read.cbteNro = number(text(detail, "CbteDesde"));
        read.cbteFch = text(detail, "CbteFch");
        read.cae = text(detail, "CAE");
        read.caeFchVto = text(detail, "CAEFchVto");
        messages(child(detail, "Observaciones"), read.observaciones);
        messages(child(result, "Errors"), read.errors);
        return read;
    }

    /** CbteNro of a FECompUltimoAutorizado answer; -1 when it holds none or errors. */
    public static long readLastAuthorised(byte[] answer) {
        Element result = find(answer, "FECompUltimoAutorizadoResult");
        if (result == null || child(result, "Errors") != null)
            return -1;
        String text = text(result, "CbteNro");
        return text.isEmpty() ? -1 : number(text);
    }

    /** AFIP's verification address: fecha yyyymmdd, importe rounded to cents, ctz as given, codAut the CAE. */
    public static String qrUrl(String fecha, long cuit, int ptoVta, int tipoCmp, long nroCmp, BigDecimal importe,
                               String moneda, BigDecimal ctz, int tipoDocRec, long nroDocRec, String codAut) {
        String payload = "{\"ver\":1,\"fecha\":\"" + fecha.substring(0, 4) + "-" + fecha.substring(4, 6) + "-"
            + fecha.substring(6, 8) + "\",\"cuit\":" + cuit + ",\"ptoVta\":" + ptoVta + ",\"tipoCmp\":" + tipoCmp
            + ",\"nroCmp\":" + nroCmp + ",\"importe\":" + importe.setScale(2, RoundingMode.HALF_UP).toPlainString()
            + ",\"moneda\":\"" + moneda.replace("\\", "\\\\").replace("\"", "\\\"") + "\",\"ctz\":"
            + ctz.toPlainString() + ",\"tipoDocRec\":" + tipoDocRec + ",\"nroDocRec\":" + nroDocRec
            + ",\"tipoCodAut\":\"E\",\"codAut\":" + Long.parseLong(codAut) + "}";
        return QR_ADDRESS + Base64.getEncoder().encodeToString(payload.getBytes(StandardCharsets.UTF_8));
    }

    private static Element find(byte[] answer, String name) {
        try {
            DocumentBuilderFactory factory = DocumentBuilderFactory.newInstance();
            factory.setNamespaceAware(true);
            // An answer is data: no DTDs, no external entities.
            factory.setFeature("http://apache.org/xml/features/disallow-doctype-decl", true);
            Document document = factory.newDocumentBuilder().parse(new ByteArrayInputStream(answer));
            NodeList found = document.getElementsByTagNameNS("*", name);
            return found.getLength() == 0 ? null : (Element) found.item(0);
        } catch (Exception notXml) {
            return null;
        }
    }

    private static Element child(Element parent, String name) {
        if (parent == null)
            return null;
        for (Node node = parent.getFirstChild(); node != null; node = node.getNextSibling())
            if (node instanceof Element && name.equals(node.getLocalName()))
                return (Element) node;
        return null;
    }

    private static String text(Element parent, String name) {
        Element element = child(parent, name);
        return element == null ? "" : element.getTextContent().trim();
    }

    private static long number(String text) {
        try {
            return Long.parseLong(text);
        } catch (NumberFormatException notANumber) {
            return 0;
        }
    }

    private static void messages(Element list, List<Message> into) {
        if (list == null)
            return;
        for (Node node = list.getFirstChild(); node != null; node = node.getNextSibling())
            if (node instanceof Element)
                into.add(new Message(number(text((Element) node, "Code")), text((Element) node, "Msg")));
    }
}
