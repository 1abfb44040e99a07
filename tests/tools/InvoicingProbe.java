import ar.tarvo.afip.Invoicing;

/** The Java binding's wiring for examples_test.py, as invoicing_probe.pas does it for Pascal (a receipt's bytes in
 *  hexadecimal). */
public final class InvoicingProbe {
    private static void report(int code, String message, String output) {
        System.out.println(code + "\t" + message + "\t" + (output == null ? "" : output.replaceAll("[\r\n]", " ")));
    }

    private static String hex(byte[] bytes) {
        StringBuilder text = new StringBuilder(2 * bytes.length);
        for (byte b : bytes)
            text.append(String.format("%02x", b & 0xff));
        return text.toString();
    }

    public static void main(String[] arguments) throws Exception {
        Invoicing invoicing;
        try {
            invoicing = Invoicing.open(arguments[0]);
        } catch (Invoicing.Failure failure) {
            report(failure.code, failure.getMessage(), failure.output);
            return;
        }
        try (invoicing) {
            for (int at = 1; at + 1 < arguments.length; at += 2) {
                String argument = arguments[at + 1];
                try {
                    switch (arguments[at]) {
                        case "authorise": report(0, "", invoicing.authorise(argument)); break;
                        case "batch": report(0, "", invoicing.authoriseBatch(argument)); break;
                        case "list": report(0, "", invoicing.ledgerList(argument.isEmpty() ? null : argument)); break;
                        case "show": report(0, "", invoicing.ledgerShow(argument)); break;
                        case "read": report(0, "", invoicing.readAnswer(argument.getBytes("UTF-8"))); break;
                        case "qr": report(0, "", invoicing.qrUrl(argument)); break;
                        case "png": invoicing.qrPng("https://www.afip.gob.ar/fe/qr/", argument); report(0, "", ""); break;
                        case "lookup": report(0, "", invoicing.lookup(argument)); break;
                        case "receipt": report(0, "", hex(invoicing.receipt(argument))); break;
                        case "caea": report(0, "", invoicing.caea(argument)); break;
                        case "log": report(0, "", invoicing.transferLog()); break;
                        default: throw new IllegalArgumentException("unknown action " + arguments[at]);
                    }
                } catch (Invoicing.Failure failure) {
                    report(failure.code, failure.getMessage(), failure.output);
                }
            }
        }
    }
}
