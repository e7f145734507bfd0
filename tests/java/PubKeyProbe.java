// Opens a certificate-secured PDF with PDFBox as one recipient and reports what a reader sees:
// the encryption dictionary, the envelope (opened with the recipient's key through Bouncy
// Castle) and the text of every page. Used by the native tests as an independent reader.
//
//   java PubKeyProbe FILE.pdf CERT.pem KEY.pem
//
// Prints "key: value" lines, then "text:" and the extracted text. Exit status 0 when the
// document opened, 3 when PDFBox refused it (the reason follows "error:").
import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.File;
import java.io.FileInputStream;
import java.io.FileReader;
import java.io.InputStream;
import java.security.KeyStore;
import java.security.MessageDigest;
import java.security.PrivateKey;
import java.security.cert.Certificate;
import java.security.cert.CertificateFactory;
import java.security.cert.X509Certificate;
import org.apache.pdfbox.cos.COSArray;
import org.apache.pdfbox.cos.COSBase;
import org.apache.pdfbox.cos.COSDictionary;
import org.apache.pdfbox.cos.COSName;
import org.apache.pdfbox.cos.COSString;
import org.apache.pdfbox.pdmodel.PDDocument;
import org.apache.pdfbox.pdmodel.encryption.PDEncryption;
import org.apache.pdfbox.text.PDFTextStripper;
import org.bouncycastle.asn1.pkcs.PrivateKeyInfo;
import org.bouncycastle.cms.CMSEnvelopedData;
import org.bouncycastle.cms.KeyTransRecipientId;
import org.bouncycastle.cms.RecipientInformation;
import org.bouncycastle.cms.jcajce.JceKeyTransEnvelopedRecipient;
import org.bouncycastle.openssl.PEMKeyPair;
import org.bouncycastle.openssl.PEMParser;
import org.bouncycastle.openssl.jcajce.JcaPEMKeyConverter;

public final class PubKeyProbe {
    private static final char[] STORE_PASSWORD = "probe".toCharArray();

    private static PrivateKey readKey(String path) throws Exception {
        try (PEMParser parser = new PEMParser(new FileReader(path))) {
            Object read = parser.readObject();
            JcaPEMKeyConverter converter = new JcaPEMKeyConverter();
            if (read instanceof PEMKeyPair) return converter.getKeyPair((PEMKeyPair) read).getPrivate();
            if (read instanceof PrivateKeyInfo) return converter.getPrivateKey((PrivateKeyInfo) read);
            throw new IllegalArgumentException("no private key in " + path);
        }
    }

    private static String hex(byte[] bytes) {
        StringBuilder out = new StringBuilder();
        for (byte b : bytes) out.append(String.format("%02x", b & 0xff));
        return out.toString();
    }

    private static String nameOf(COSDictionary dict, String key) {
        COSBase value = dict == null ? null : dict.getDictionaryObject(COSName.getPDFName(key));
        return value instanceof COSName ? ((COSName) value).getName() : String.valueOf(value);
    }

    private static String valueOf(COSDictionary dict, String key) {
        COSBase value = dict == null ? null : dict.getDictionaryObject(COSName.getPDFName(key));
        if (value == null) return "absent";
        if (value instanceof COSName) return ((COSName) value).getName();
        return value.toString();
    }

    public static void main(String[] args) throws Exception {
        if (args.length != 3) {
            System.err.println("usage: PubKeyProbe FILE.pdf CERT.pem KEY.pem");
            System.exit(2);
        }
        X509Certificate certificate;
        try (InputStream in = new FileInputStream(args[1])) {
            certificate = (X509Certificate) CertificateFactory.getInstance("X.509")
                    .generateCertificate(in);
        }
        PrivateKey key = readKey(args[2]);
        KeyStore store = KeyStore.getInstance("PKCS12");
        store.load(null, null);
        store.setKeyEntry("recipient", key, STORE_PASSWORD, new Certificate[] {certificate});
        ByteArrayOutputStream storeBytes = new ByteArrayOutputStream();
        store.store(storeBytes, STORE_PASSWORD);

        PDDocument document;
        try {
            document = PDDocument.load(new File(args[0]), new String(STORE_PASSWORD),
                    new ByteArrayInputStream(storeBytes.toByteArray()), "recipient");
        } catch (Exception e) {
            System.out.println("error: " + e);
            System.exit(3);
            return;
        }
        try {
            PDEncryption encryption = document.getEncryption();
            COSDictionary dict = encryption.getCOSObject();
            COSDictionary filters = (COSDictionary) dict.getDictionaryObject(COSName.CF);
            COSDictionary filter = filters == null ? null
                    : (COSDictionary) filters.getDictionaryObject(COSName.getPDFName("DefaultCryptFilter"));
            System.out.println("Filter: " + valueOf(dict, "Filter"));
            System.out.println("SubFilter: " + valueOf(dict, "SubFilter"));
            System.out.println("V: " + valueOf(dict, "V"));
            System.out.println("R: " + valueOf(dict, "R"));
            System.out.println("P: " + valueOf(dict, "P"));
            System.out.println("Length: " + valueOf(dict, "Length"));
            System.out.println("StmF: " + valueOf(dict, "StmF"));
            System.out.println("StrF: " + valueOf(dict, "StrF"));
            System.out.println("EncryptMetadata: " + valueOf(dict, "EncryptMetadata"));
            System.out.println("CF keys: " + (filters == null ? "absent" : filters.keySet()));
            System.out.println("CFM: " + nameOf(filter, "CFM"));
            System.out.println("CF Length: " + valueOf(filter, "Length"));

            COSArray recipients = filter == null ? null
                    : (COSArray) filter.getDictionaryObject(COSName.getPDFName("Recipients"));
            System.out.println("Recipients: " + (recipients == null ? 0 : recipients.size()));
            if (recipients != null && recipients.size() > 0) {
                byte[] envelope = ((COSString) recipients.getObject(0)).getBytes();
                System.out.println("envelope sha256: "
                        + hex(MessageDigest.getInstance("SHA-256").digest(envelope)));
                CMSEnvelopedData data = new CMSEnvelopedData(envelope);
                System.out.println("recipient infos: " + data.getRecipientInfos().size());
                System.out.println("content cipher: " + data.getEncryptionAlgOID());
                RecipientInformation mine = data.getRecipientInfos().get(
                        new KeyTransRecipientId(new org.bouncycastle.asn1.x500.X500Name(
                                certificate.getIssuerX500Principal().getName()),
                                certificate.getSerialNumber()));
                if (mine != null) {
                    System.out.println("envelope content: "
                            + hex(mine.getContent(new JceKeyTransEnvelopedRecipient(key))));
                }
            }
            System.out.println("Producer: " + document.getDocumentInformation().getProducer());
            System.out.println("pages: " + document.getNumberOfPages());
            System.out.println("text:");
            System.out.print(new PDFTextStripper().getText(document));
        } catch (Exception e) {
            System.out.println("error: " + e);
            System.exit(3);
        } finally {
            document.close();
        }
    }
}
