// Opens a certificate-secured PDF with PDFBox as one recipient and reports what a reader sees:
// the encryption dictionary, the envelope (opened with the recipient's key through Bouncy
// Castle) and the text of every page. Used by the native tests as an independent reader.
//
//   java PubKeyProbe FILE.pdf CERT.pem KEY.pem
//
// Prints "key: value" lines, the fixed entries of the dictionary first, then "text:" and the
// extracted text. Exit status 0 when the document opened, 3 when PDFBox refused it (the reason
// follows "error:").
//
//   java PubKeyProbe --encrypt IN.pdf OUT.pdf BITS CERT.pem...
//
// Has PDFBox secure IN.pdf for the holders of the certificates with a key of BITS bits (40 and
// 128: RC4, 128-aes: AES-128, 256: AES-256) and write OUT.pdf: files of another writer for zpdf to
// open. Exit status 0 when written, 3 when PDFBox refused (the reason follows "error:").
import java.io.*;
import java.security.*;
import java.security.cert.*;
import java.security.cert.Certificate;
import org.apache.pdfbox.cos.*;
import org.apache.pdfbox.pdmodel.PDDocument;
import org.apache.pdfbox.pdmodel.encryption.AccessPermission;
import org.apache.pdfbox.pdmodel.encryption.PublicKeyProtectionPolicy;
import org.apache.pdfbox.pdmodel.encryption.PublicKeyRecipient;
import org.apache.pdfbox.text.PDFTextStripper;
import org.bouncycastle.asn1.pkcs.PrivateKeyInfo;
import org.bouncycastle.asn1.x500.X500Name;
import org.bouncycastle.cms.*;
import org.bouncycastle.cms.jcajce.JceKeyTransEnvelopedRecipient;
import org.bouncycastle.openssl.PEMParser;
import org.bouncycastle.openssl.jcajce.JcaPEMKeyConverter;

public final class PubKeyProbe {
    private static final char[] STORE_PASSWORD = "probe".toCharArray();

    private static String valueOf(COSDictionary dict, String key) {
        COSBase value = dict.getDictionaryObject(COSName.getPDFName(key));
        if (value == null) return "absent";
        return value instanceof COSName ? ((COSName) value).getName() : value.toString();
    }

    private static X509Certificate readCertificate(String name) throws Exception {
        try (FileInputStream in = new FileInputStream(name)) {
            return (X509Certificate) CertificateFactory.getInstance("X.509").generateCertificate(in);
        }
    }

    private static void encrypt(String[] args) throws Exception {
        try (PDDocument document = PDDocument.load(new File(args[1]))) {
            PublicKeyProtectionPolicy policy = new PublicKeyProtectionPolicy();
            for (int i = 4; i < args.length; ++i) {
                PublicKeyRecipient recipient = new PublicKeyRecipient();
                recipient.setPermission(new AccessPermission());
                recipient.setX509(readCertificate(args[i]));
                policy.addRecipient(recipient);
            }
            policy.setPreferAES(args[3].endsWith("-aes"));
            policy.setEncryptionKeyLength(Integer.parseInt(args[3].replace("-aes", "")));
            document.protect(policy);
            document.save(args[2]);
        }
    }

    // Any failure, reading the arguments' files included, is a refusal: exit status 3.
    public static void main(String[] args) {
        try {
            if (args.length >= 5 && args[0].equals("--encrypt")) {
                encrypt(args);
            } else {
                openAsRecipient(args);
            }
        } catch (Exception e) {
            System.out.println("error: " + e);
            System.exit(3);
        }
    }

    private static void openAsRecipient(String[] args) throws Exception {
        X509Certificate certificate = readCertificate(args[1]);
        PrivateKey key;  // openssl writes new keys in PKCS#8
        try (PEMParser parser = new PEMParser(new FileReader(args[2]))) {
            key = new JcaPEMKeyConverter().getPrivateKey((PrivateKeyInfo) parser.readObject());
        }
        KeyStore store = KeyStore.getInstance("PKCS12");
        store.load(null, null);
        store.setKeyEntry("recipient", key, STORE_PASSWORD, new Certificate[] {certificate});
        ByteArrayOutputStream storeBytes = new ByteArrayOutputStream();
        store.store(storeBytes, STORE_PASSWORD);

        try (PDDocument document = PDDocument.load(new File(args[0]),
                     new String(STORE_PASSWORD), new ByteArrayInputStream(storeBytes.toByteArray()),
                     "recipient")) {
            COSDictionary dict = document.getEncryption().getCOSObject();
            for (String entry : new String[] {"Filter", "SubFilter", "V", "R", "P", "Length",
                         "StmF", "StrF", "EncryptMetadata"}) {
                System.out.println(entry + ": " + valueOf(dict, entry));
            }
            // A missing entry or envelope ends the probe with an error: exit status 3.
            COSDictionary filters = (COSDictionary) dict.getDictionaryObject(COSName.CF);
            COSDictionary filter = (COSDictionary) filters.getDictionaryObject(
                    COSName.getPDFName("DefaultCryptFilter"));
            System.out.println("CF keys: " + filters.keySet());
            System.out.println("CFM: " + valueOf(filter, "CFM"));
            System.out.println("CF Length: " + valueOf(filter, "Length"));
            COSArray recipients =
                    (COSArray) filter.getDictionaryObject(COSName.getPDFName("Recipients"));
            System.out.println("Recipients: " + recipients.size());
            CMSEnvelopedData data =
                    new CMSEnvelopedData(((COSString) recipients.getObject(0)).getBytes());
            System.out.println("recipient infos: " + data.getRecipientInfos().size());
            System.out.println("content cipher: " + data.getEncryptionAlgOID());
            RecipientInformation mine = data.getRecipientInfos().get(new KeyTransRecipientId(
                    new X500Name(certificate.getIssuerX500Principal().getName()),
                    certificate.getSerialNumber()));
            StringBuilder hex = new StringBuilder();
            for (byte b : mine.getContent(new JceKeyTransEnvelopedRecipient(key)))
                hex.append(String.format("%02x", b & 0xff));
            System.out.println("envelope content: " + hex);
            System.out.println("Producer: " + document.getDocumentInformation().getProducer());
            System.out.println("pages: " + document.getNumberOfPages());
            System.out.println("text:");
            System.out.print(new PDFTextStripper().getText(document));
        }
    }
}
